#include "pty.hpp"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using clock_type = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

milliseconds remaining(clock_type::time_point end)
{
    const auto left = std::chrono::duration_cast<milliseconds>(end - clock_type::now());
    return std::max(left, milliseconds(0));
}

// poll(2) in real time, in which a terminal lives.
int wait_for_input(pollfd *watched, milliseconds limit)
{
    const timespec time{static_cast<time_t>(limit.count() / 1000),
                        static_cast<long>(limit.count() % 1000) * 1000000};
    return ppoll(watched, 1, &time, nullptr);
}

} // namespace

pty::pty() : master_(posix_openpt(O_RDWR | O_NOCTTY))
{
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        abort();
    path_ = ptsname(master_);
    held_slave_ = open(path_.c_str(), O_RDWR | O_NOCTTY);
    termios attributes{};
    if (held_slave_ < 0 || tcgetattr(held_slave_, &attributes) != 0)
        abort();
    cfmakeraw(&attributes);
    if (tcsetattr(held_slave_, TCSANOW, &attributes) != 0)
        abort();
}

pty::~pty()
{
    if (held_slave_ >= 0)
        close(held_slave_);
    if (master_ >= 0)
        close(master_);
}

void pty::send(const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(master_, bytes.data() + done, bytes.size() - done);
        if (count <= 0)
            return;
        done += static_cast<size_t>(count);
    }
}

std::string pty::receive(size_t size, milliseconds limit)
{
    const auto end = clock_type::now() + limit;
    std::string bytes;
    while (bytes.size() < size) {
        pollfd watched{master_, POLLIN, 0};
        if (wait_for_input(&watched, remaining(end)) <= 0 || (watched.revents & POLLIN) == 0)
            break;
        char buffer[4096];
        const size_t wanted = size - bytes.size();
        const ssize_t count = read(master_, buffer, wanted < sizeof buffer ? wanted : sizeof buffer);
        if (count <= 0)
            break;
        bytes.append(buffer, static_cast<size_t>(count));
    }
    return bytes;
}

std::string pty::receive_until_quiet(milliseconds quiet)
{
    std::string bytes;
    for (;;) {
        pollfd watched{master_, POLLIN, 0};
        if (wait_for_input(&watched, quiet) <= 0 || (watched.revents & POLLIN) == 0)
            return bytes;
        char buffer[4096];
        const ssize_t count = read(master_, buffer, sizeof buffer);
        if (count <= 0)
            return bytes;
        bytes.append(buffer, static_cast<size_t>(count));
    }
}

bool pty::wait_drained(milliseconds limit)
{
    const auto end = clock_type::now() + limit;
    do {
        // The count alone would miss bytes on their way between the two sides; poll(2) waits for those.
        pollfd watched{held_slave_, POLLIN, 0};
        int waiting = 0;
        if (wait_for_input(&watched, milliseconds(0)) == 0 && ioctl(held_slave_, FIONREAD, &waiting) == 0 &&
            waiting == 0)
            return true;
        std::this_thread::sleep_for(milliseconds(1));
    } while (clock_type::now() < end);
    return false;
}

void pty::hang_up()
{
    close(held_slave_);
    close(master_);
    held_slave_ = -1;
    master_ = -1;
}
