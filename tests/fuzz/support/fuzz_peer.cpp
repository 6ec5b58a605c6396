#include "fuzz_peer.hpp"

#include "fuzz.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef __THROW
#define __THROW
#endif

static constexpr char device[] = "/dev/null";
static constexpr char mark = '\xFF';
static constexpr unsigned spell = 5;
static constexpr char event_names[] = "wt0aeiph";

static fuzz_peer *current;

static fuzz_peer *peer_of(int handle)
{
    return current != nullptr && current->descriptor() == handle ? current : nullptr;
}

fuzz_peer::fuzz_peer(const std::string &script) : handle_(open(device, O_RDWR))
{
    fuzz_check(handle_ > 0 && current == nullptr);
    current = this;
    if (script.empty())
        return;
    const auto control = static_cast<uint8_t>(script[0]);
    mode_ = static_cast<write_mode>(control & 7);
    write_number_ = control >> 3;
    parse(script, 1);
}

fuzz_peer::~fuzz_peer()
{
    current = nullptr;
    if (!lent_ || !was_closed())
        close(handle_);
}

void fuzz_peer::add_message(std::string *bytes)
{
    if (!bytes->empty())
        steps_.push_back({0, *bytes});
    bytes->clear();
}

void fuzz_peer::parse(const std::string &script, size_t start)
{
    std::string bytes;
    for (size_t i = start; i < script.size(); ++i) {
        const char next = i + 1 < script.size() ? script[i + 1] : '\0';
        const bool is_end = script[i] == mark && next == '|';
        const bool is_event = script[i] == mark && next != '\0' && strchr(event_names, next) != nullptr;
        if (!is_end && !is_event) {
            bytes += script[i];
            continue;
        }
        add_message(&bytes);
        if (is_event)
            steps_.push_back({next, {}});
        ++i;
    }
    add_message(&bytes);
}

const char *fuzz_peer::lend()
{
    close(handle_);
    lent_ = true;
    return device;
}

bool fuzz_peer::was_closed() const
{
    return fcntl(handle_, F_GETFD) == -1;
}

std::string fuzz_peer::written() const
{
    std::string all;
    for (const peer_event &event : events_) {
        if (event.what == peer_event::sent)
            all += event.bytes;
    }
    return all;
}

std::vector<fuzz_peer::burst> fuzz_peer::bursts() const
{
    std::vector<burst> all;
    bool open_burst = false;
    unsigned failures = 0;
    for (size_t i = 0; i < events_.size(); ++i) {
        const peer_event &event = events_[i];
        if (event.what == peer_event::sent) {
            if (event.bytes.empty())
                continue;
            if (!open_burst)
                all.push_back({{}, i});
            all.back().bytes += event.bytes;
            open_burst = true;
        } else if (event.what != peer_event::send_failed || ++failures == spell) {
            open_burst = false;
        }
    }
    return all;
}

bool fuzz_peer::write_failed() const
{
    const auto count = [this](peer_event::kind what) {
        return std::count_if(events_.begin(), events_.end(), [what](const peer_event &event) {
            return event.what == what && event.bytes.empty();
        });
    };
    switch (mode_) {
    case write_mode::again:
        return count(peer_event::send_failed) == spell;
    case write_mode::takes_none:
        return count(peer_event::sent) > 0;
    case write_mode::again_once:
        return false;
    default:
        return count(peer_event::send_failed) > 0;
    }
}

int fuzz_peer::poll(short wanted, short *got)
{
    *got = 0;
    if ((wanted & POLLOUT) != 0) {
        const bool refused = is_due() && (mode_ == write_mode::no_room || mode_ == write_mode::hangs_up);
        if (refused)
            events_.push_back({peer_event::send_failed, {}});
        if (!refused)
            *got = POLLOUT;
        else if (mode_ == write_mode::hangs_up)
            *got = POLLHUP;
        return *got != 0 ? 1 : 0;
    }
    const char event = steps_.empty() ? 't' : steps_.front().event;
    if (gone_ || event == 'h') {
        gone_ = true;
        *got = POLLHUP;
    } else if (event == 'p') {
        *got = POLLERR;
    } else if (event != 't' && event != 'w' && event != 'i') {
        *got = POLLIN;
        polled_ = true;
        return 1;
    }
    events_.push_back({peer_event::receive_failed, {}});
    if (!steps_.empty() && event != 'w')
        steps_.pop_front();
    if (event == 'i' && !gone_) {
        errno = EINTR;
        return -1;
    }
    return *got != 0 ? 1 : 0;
}

bool fuzz_peer::is_due() const
{
    switch (mode_) {
    case write_mode::again_once:
        return writes_ == write_number_;
    case write_mode::again:
        return writes_ >= write_number_ && writes_ < write_number_ + spell;
    default:
        return writes_ >= write_number_;
    }
}

long fuzz_peer::read(void *buffer, size_t size)
{
    const char event = steps_.empty() ? 't' : steps_.front().event;
    const bool polled = polled_;
    polled_ = false;
    if (event == 0) {
        std::string &bytes = steps_.front().bytes;
        const size_t count = std::min(size, bytes.size());
        memcpy(buffer, bytes.data(), count);
        events_.push_back({peer_event::received, bytes.substr(0, count), polled});
        bytes.erase(0, count);
        if (bytes.empty())
            steps_.pop_front();
        return static_cast<long>(count);
    }
    if (!steps_.empty() && event != 'w')
        steps_.pop_front();
    if (event == '0') {
        events_.push_back({peer_event::received, {}, polled});
        return 0;
    }
    events_.push_back({peer_event::receive_failed, {}});
    errno = event == 'e' ? EIO : EAGAIN;
    return -1;
}

long fuzz_peer::write(const void *data, size_t size)
{
    const bool due = is_due();
    ++writes_;
    size_t taken = size;
    switch (mode_) {
    case write_mode::pieces:
        taken = std::min<size_t>(size, write_number_ + 1);
        break;
    case write_mode::takes_none:
        taken = due ? 0 : size;
        break;
    case write_mode::again_once:
    case write_mode::again:
    case write_mode::fails:
        if (due) {
            events_.push_back({peer_event::send_failed, {}});
            errno = mode_ == write_mode::fails ? EIO : EAGAIN;
            return -1;
        }
        break;
    default:
        break;
    }
    events_.push_back({peer_event::sent, std::string(static_cast<const char *>(data), taken)});
    if (taken > 0 && !steps_.empty() && steps_.front().event == 'w')
        steps_.pop_front();
    return static_cast<long>(taken);
}

int fuzz_peer::available() const
{
    return !steps_.empty() ? static_cast<int>(steps_.front().bytes.size()) : 0;
}

extern "C" {

int poll(pollfd *watched, nfds_t count, int timeout)
{
    fuzz_peer *const peer = count == 1 ? peer_of(watched->fd) : nullptr;
    if (peer != nullptr)
        return peer->poll(watched->events, &watched->revents);
    timespec limit{timeout / 1000, static_cast<long>(timeout % 1000) * 1000000};
    return ppoll(watched, count, timeout >= 0 ? &limit : nullptr, nullptr);
}

ssize_t read(int handle, void *buffer, size_t size)
{
    fuzz_peer *const peer = peer_of(handle);
    return peer != nullptr ? peer->read(buffer, size) : syscall(SYS_read, handle, buffer, size);
}

ssize_t write(int handle, const void *data, size_t size)
{
    fuzz_peer *const peer = peer_of(handle);
    return peer != nullptr ? peer->write(data, size) : syscall(SYS_write, handle, data, size);
}

int ioctl(int handle, unsigned long request, ...) __THROW
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const fuzz_peer *const peer = peer_of(handle);
    if (peer == nullptr || request != FIONREAD)
        return static_cast<int>(syscall(SYS_ioctl, handle, request, argument));
    *static_cast<int *>(argument) = peer->available();
    return 0;
}

// The locks of a run. No name is to be had where nobody may bind one, and a socket would take the number that
// is meant for the port; on the device's node, which all programs share, a lock would be met by others.
int socket(int domain, int type, int protocol) __THROW
{
    if (current == nullptr || domain != AF_UNIX)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    errno = EACCES;
    return -1;
}

int flock(int handle, int operation) __THROW
{
    return peer_of(handle) != nullptr ? 0 : static_cast<int>(syscall(SYS_flock, handle, operation));
}

int usleep(useconds_t)
{
    return 0;
}

} // extern "C"
