#include "pty-port.hpp"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>

#include <cerrno>
#include <cstring>

namespace sim {
namespace {

[[nodiscard]] bool make_raw(int fd)
{
    struct termios attributes {};
    if (tcgetattr(fd, &attributes) != 0)
        return false;
    cfmakeraw(&attributes);
    return tcsetattr(fd, TCSANOW, &attributes) == 0;
}

} // namespace

bool pty_port::failed(const char *what)
{
    error_ = std::string(what) + ": " + std::strerror(errno);
    return false;
}

bool pty_port::open()
{
    char name[128];
    master_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master_.open() || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0)
        return failed("pseudo-terminal");
    if (const int err = ptsname_r(master_.get(), name, sizeof name); err != 0) {
        errno = err;
        return failed("pseudo-terminal name");
    }
    path_ = name;
    slave_.reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!slave_.open() || !make_raw(slave_.get()))
        return failed(name);
    const int flags = fcntl(master_.get(), F_GETFL);
    if (flags < 0 || fcntl(master_.get(), F_SETFL, flags | O_NONBLOCK) != 0)
        return failed(name);
    return true;
}

bool pty_port::drained() const
{
    // poll and not FIONREAD: it first carries over what the kernel still holds between the two ends, so a
    // unit just written is never taken for read.
    struct pollfd waiting {
        slave_.get(), POLLIN, 0
    };
    return !slave_.open() || ::poll(&waiting, 1, 0) == 0;
}

std::optional<size_t> pty_port::read(std::span<uint8_t> room)
{
    const ssize_t done = ::read(master_.get(), room.data(), room.size());
    if (done > 0)
        return static_cast<size_t>(done);
    if (done < 0 && (errno == EAGAIN || errno == EINTR))
        return 0;
    return std::nullopt;
}

std::optional<size_t> pty_port::write(view bytes)
{
    const ssize_t done = ::write(master_.get(), bytes.data(), bytes.size());
    if (done >= 0)
        return static_cast<size_t>(done);
    if (errno == EAGAIN || errno == EINTR)
        return 0;
    return std::nullopt;
}

void pty_port::discard_unread()
{
    tcflush(slave_.get(), TCIFLUSH);
}

void pty_port::hang_up()
{
    slave_.reset();
    master_.reset();
}

} // namespace sim
