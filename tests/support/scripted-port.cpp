#include "scripted-port.hpp"

#include "virtual-time.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

struct known_port {
    scripted_port *port;
    struct stat identity; // of the file that stands for it
};

// As long as the process lives: the C library is called to the very end of it.
std::vector<known_port> &ports()
{
    static auto *const all = new std::vector<known_port>;
    return *all;
}

// fstat(2) that no test replaces.
bool identify(int handle, struct stat *status)
{
    return fstatat(handle, "", status, AT_EMPTY_PATH) == 0;
}

bool is_same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

int refused(int number)
{
    errno = number;
    return -1;
}

// A beginning that tells what it is, however long the bytes are.
std::string shown(const std::string &bytes)
{
    constexpr size_t most = 200;
    return testing::PrintToString(bytes.substr(0, most)) + (bytes.size() > most ? "..." : "") + " (" +
           std::to_string(bytes.size()) + " bytes)";
}

} // namespace

scripted_port::scripted_port() : file_(memfd_create("scripted-port", MFD_CLOEXEC))
{
    struct stat status {};
    if (file_ < 0 || !identify(file_, &status))
        abort();
    path_ = "/proc/self/fd/" + std::to_string(file_);
    cfmakeraw(&settings);
    ports().push_back({this, status});
}

scripted_port::~scripted_port()
{
    for (const step &left : script_) {
        if (left.what == step::kind::takes || left.what == step::kind::takes_up_to)
            ADD_FAILURE() << "never written: " << shown(left.bytes);
        else
            ADD_FAILURE() << "the script was not played to its end: " << shown(left.bytes);
    }
    for (const step &left : arrived_) {
        if (left.what == step::kind::sends)
            ADD_FAILURE() << "never read: " << shown(left.bytes);
        else if (left.what == step::kind::lets_a_wait_pass || left.what == step::kind::fails_a_read)
            ADD_FAILURE() << "never waited for";
    }
    EXPECT_TRUE(outcomes_.empty()) << outcomes_.size() << " writes never came";
    if (opened_ >= 0)
        close(opened_);
    EXPECT_EQ(open_descriptors(), 0U) << "left open";
    EXPECT_FALSE(is_exclusive) << "left exclusive";
    std::erase_if(ports(), [this](const known_port &known) { return known.port == this; });
    virtual_time::instance().forget(this);
    close(file_);
}

int scripted_port::open(int flags)
{
    opened_ = ::open(path_.c_str(), flags);
    return opened_;
}

scripted_port &scripted_port::add(step::kind what, const std::string &bytes, int64_t number,
                                  std::function<void()> action)
{
    script_.push_back({what, bytes, number, std::move(action)});
    go_on();
    return *this;
}

scripted_port &scripted_port::sends(const std::string &bytes)
{
    return add(step::kind::sends, bytes);
}

scripted_port &scripted_port::trickles(const std::string &bytes)
{
    for (const char byte : bytes)
        sends(std::string(1, byte));
    return *this;
}

scripted_port &scripted_port::takes(const std::string &bytes)
{
    return bytes.empty() ? *this : add(step::kind::takes, bytes);
}

scripted_port &scripted_port::takes_up_to(char end)
{
    return add(step::kind::takes_up_to, std::string(1, end));
}

scripted_port &scripted_port::pauses(int64_t ms)
{
    return add(step::kind::pauses, "", ms);
}

scripted_port &scripted_port::lets_a_wait_pass()
{
    return add(step::kind::lets_a_wait_pass);
}

scripted_port &scripted_port::hangs_up()
{
    return add(step::kind::hangs_up);
}

scripted_port &scripted_port::breaks()
{
    return add(step::kind::breaks);
}

scripted_port &scripted_port::fails_a_read(int number)
{
    return add(step::kind::fails_a_read, "", number);
}

scripted_port &scripted_port::does(std::function<void()> what)
{
    return add(step::kind::does, "", 0, std::move(what));
}

scripted_port &scripted_port::lets_a_write_pass()
{
    return takes_at_most(SSIZE_MAX);
}

scripted_port &scripted_port::takes_at_most(size_t count)
{
    outcomes_.push_back(static_cast<ssize_t>(count));
    return *this;
}

scripted_port &scripted_port::refuses_a_write(int number)
{
    outcomes_.push_back(-number);
    return *this;
}

bool scripted_port::awaits_bytes() const
{
    return !script_.empty() &&
           (script_.front().what == step::kind::takes || script_.front().what == step::kind::takes_up_to);
}

// Plays the script up to where it waits for the code under test, or for time to pass.
void scripted_port::go_on()
{
    while (!is_pausing_ && !script_.empty() && !awaits_bytes()) {
        step next = std::move(script_.front());
        script_.pop_front();
        switch (next.what) {
        case step::kind::pauses:
            is_pausing_ = true;
            virtual_time::instance().after(
                next.number,
                [this] {
                    is_pausing_ = false;
                    go_on();
                },
                this);
            break;
        case step::kind::does:
            next.action();
            break;
        default:
            arrived_.push_back(std::move(next));
            break;
        }
    }
}

std::string scripted_port::unread()
{
    std::string bytes;
    std::erase_if(arrived_, [&bytes](const step &each) {
        if (each.what == step::kind::sends)
            bytes += each.bytes;
        return each.what == step::kind::sends;
    });
    return bytes;
}

size_t scripted_port::open_descriptors() const
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int handle = atoi(entry.path().filename().c_str());
        count += handle != file_ && of(handle) == this ? 1U : 0U;
    }
    return count;
}

scripted_port *scripted_port::of(int handle)
{
    struct stat status {};
    if (ports().empty() || !identify(handle, &status))
        return nullptr;
    for (const known_port &known : ports()) {
        if (is_same_file(known.identity, status))
            return known.port;
    }
    return nullptr;
}

// What poll(2) sees now.
short scripted_port::events() const
{
    if (is_at(step::kind::hangs_up))
        return POLLHUP | POLLIN | POLLOUT;
    if (is_at(step::kind::breaks))
        return POLLERR | POLLOUT;
    return is_at(step::kind::sends) || is_at(step::kind::fails_a_read) ? POLLIN | POLLOUT : POLLOUT;
}

int scripted_port::wait(pollfd *watched, int timeout_ms)
{
    const bool is_for_input = (watched->events & POLLIN) != 0;
    const auto is_ready = [this, watched] {
        watched->revents = static_cast<short>(events() & (watched->events | POLLHUP | POLLERR));
        return watched->revents != 0;
    };
    if (is_for_input)
        waits_.push_back(timeout_ms);
    if (timeout_ms < 0 && !is_ready()) {
        ADD_FAILURE() << "a wait without end";
        return refused(EINTR);
    }
    if (virtual_time::instance().pass(int64_t{timeout_ms} * 1000, is_ready))
        return 1;
    ++waits_in_vain_;
    if (is_at(step::kind::lets_a_wait_pass)) {
        arrived_.pop_front();
        go_on();
    }
    return 0;
}

ssize_t scripted_port::read(int handle, void *data, size_t size)
{
    if (is_at(step::kind::hangs_up) || is_at(step::kind::breaks))
        return refused(EIO);
    if (is_at(step::kind::fails_a_read)) {
        const auto number = static_cast<int>(arrived_.front().number);
        arrived_.pop_front();
        return refused(number);
    }
    if (!is_at(step::kind::sends)) {
        EXPECT_NE(fcntl(handle, F_GETFL) & O_NONBLOCK, 0) << "a read that would not return";
        return refused(EAGAIN);
    }
    std::string &bytes = arrived_.front().bytes;
    const size_t count = std::min(size, bytes.size());
    memcpy(data, bytes.data(), count);
    bytes.erase(0, count);
    if (bytes.empty())
        arrived_.pop_front();
    return static_cast<ssize_t>(count);
}

// Compares what was written with what the script awaits.
void scripted_port::take(std::string bytes)
{
    written_ += bytes;
    while (!bytes.empty()) {
        if (!awaits_bytes() || is_pausing_) {
            ADD_FAILURE() << "nobody awaits " << shown(bytes);
            return;
        }
        step &now = script_.front();
        bool is_done = false;
        size_t count = 0;
        if (now.what == step::kind::takes_up_to) {
            const size_t end = bytes.find(now.bytes);
            is_done = end != std::string::npos;
            count = is_done ? end + 1 : bytes.size();
        } else {
            count = std::min(now.bytes.size(), bytes.size());
            if (bytes.compare(0, count, now.bytes, 0, count) != 0)
                ADD_FAILURE() << "written: " << shown(bytes) << "\nawaited: " << shown(now.bytes);
            now.bytes.erase(0, count);
            is_done = now.bytes.empty();
        }
        bytes.erase(0, count);
        if (is_done)
            script_.pop_front();
        go_on();
    }
}

ssize_t scripted_port::write(int handle, const void *data, size_t size)
{
    if ((fcntl(handle, F_GETFL) & O_ACCMODE) == O_RDONLY)
        return refused(EBADF);
    if (is_at(step::kind::hangs_up))
        return refused(EIO);
    writes_.emplace_back(static_cast<const char *>(data), size);
    size_t count = std::min(size, largest_write);
    if (!outcomes_.empty()) {
        const ssize_t outcome = outcomes_.front();
        outcomes_.pop_front();
        if (outcome < 0)
            return refused(static_cast<int>(-outcome));
        count = std::min(count, static_cast<size_t>(outcome));
    }
    take(writes_.back().substr(0, count));
    return static_cast<ssize_t>(count);
}

void scripted_port::disguise(struct stat *status)
{
    constexpr unsigned pseudo_terminals = 136; // the major of /dev/pts
    status->st_mode = S_IFCHR | (status->st_mode & 07777U);
    status->st_rdev = makedev(pseudo_terminals, 0);
}

int scripted_port::control(unsigned long request, void *argument)
{
    auto *const number = static_cast<int *>(argument);
    switch (request) {
    case FIONREAD:
        *number = is_at(step::kind::sends) ? static_cast<int>(arrived_.front().bytes.size()) : 0;
        return 0;
    case TIOCEXCL:
    case TIOCNXCL:
        is_exclusive = request == TIOCEXCL;
        return 0;
    case TIOCMGET:
        if (modem_lines < 0)
            return refused(ENOTTY);
        *number = modem_lines;
        return 0;
    case TIOCMSET:
        if (modem_lines < 0)
            return refused(ENOTTY);
        modem_lines_set.push_back(*number);
        return 0;
    default:
        ADD_FAILURE() << "ioctl " << request;
        return refused(ENOTTY);
    }
}
