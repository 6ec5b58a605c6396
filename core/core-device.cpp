#include "core-device.hpp"

#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-device.c";
constexpr char in_core_device_set_baud_rate[] = "core_device_set_baud_rate";

struct baud_rate {
    unsigned rate;
    speed_t speed;
};

constexpr baud_rate baud_rates[] = {
    {115200, B115200}, {230400, B230400},   {460800, B460800},
    {921600, B921600}, {2000000, B2000000}, {3000000, B3000000},
};

// Logs what has just failed with its errno, in the name of the function that calls this. The mapped errno.
int report_errno(int level, const char *what, const char *function = __builtin_FUNCTION(),
                 int line = __builtin_LINE())
{
    const int err = errno;
    core_log(level, log_source, function, line, "%s error %d %s\n", what, err, strerror(err));
    return map_errno_to_core_err(err);
}

int get_attributes(int handle, termios *attributes)
{
    *attributes = {};
    errno = 0;
    if (tcgetattr(handle, attributes) == 0)
        return CORE_OK;
    return report_errno(CORE_LOG_ERR, "could not get device configuration:", in_core_device_set_baud_rate);
}

int set_speed(int handle, termios *attributes, speed_t speed)
{
    if (cfsetispeed(attributes, speed) != 0)
        return report_errno(CORE_LOG_ERR, "cfsetispeed", in_core_device_set_baud_rate);
    if (cfsetospeed(attributes, speed) != 0)
        return report_errno(CORE_LOG_ERR, "cfsetospeed", in_core_device_set_baud_rate);
    if (tcsetattr(handle, TCSANOW, attributes) != 0)
        return report_errno(CORE_LOG_DBG, "could not set device config:", in_core_device_set_baud_rate);
    return CORE_OK;
}

} // namespace

int core_device_open(const char *path, int *handle)
{
    // Never as controlling terminal: a modem that leaves the bus would hang up the whole program.
    *handle = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY);
    if (*handle != -1)
        return CORE_OK;
    const int err = errno;
    log_err("could not open device %s: error %d %s\n", path, err, strerror(err));
    return map_errno_to_core_err(err);
}

int core_device_close(int handle)
{
    errno = 0;
    return close(handle) == 0 ? CORE_OK : report_errno(CORE_LOG_DBG, "could not close handle:");
}

int core_set_hw_flow_control(int handle, bool enable)
{
    termios attributes{};
    errno = 0;
    if (tcgetattr(handle, &attributes) != 0) {
        if (errno == ENOTTY)
            return CORE_OK;
        return report_errno(CORE_LOG_ERR, "could not get device configuration:");
    }
    cfmakeraw(&attributes);
    if (enable)
        attributes.c_cflag |= CRTSCTS;
    else
        attributes.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    errno = 0;
    if (tcsetattr(handle, TCSANOW, &attributes) != 0)
        return report_errno(CORE_LOG_ERR, "could not set device config:");
    return CORE_OK;
}

int core_device_set_raw_mode(int handle)
{
    return core_set_hw_flow_control(handle, false);
}

int core_set_control_signals(int handle, bool dtr, bool rts)
{
    int lines = 0;
    if (ioctl(handle, TIOCMGET, &lines) != 0) {
        report_errno(CORE_LOG_DBG, "could not get serial setting:");
        return CORE_OK;
    }
    lines = dtr ? lines | TIOCM_DTR : lines & ~TIOCM_DTR;
    lines = rts ? lines | TIOCM_RTS : lines & ~TIOCM_RTS;
    if (ioctl(handle, TIOCMSET, &lines) != 0)
        report_errno(CORE_LOG_DBG, "could not set serial setting:");
    return CORE_OK;
}

int core_device_set_baud_rate(int handle, unsigned rate)
{
    log_dbg("setting baudrate %u\n", rate);
    termios attributes;
    if (const int err = get_attributes(handle, &attributes); err != CORE_OK)
        return err;
    const auto *const row = std::ranges::find(baud_rates, rate, &baud_rate::rate);
    if (row == std::end(baud_rates)) {
        log_err("invalid baud rate %u\n", rate);
        return CORE_EINVAL;
    }
    if (const int err = set_speed(handle, &attributes, row->speed); err != CORE_OK)
        return err;
    if (const int err = get_attributes(handle, &attributes); err != CORE_OK)
        return err;
    // USB serial ports have no line rate: a driver that ignores it is no error.
    if (cfgetispeed(&attributes) != row->speed || cfgetospeed(&attributes) != row->speed)
        log_dbg("baud rate has not changed\n");
    return CORE_OK;
}

int core_device_read(int handle, void *buf, size_t len, size_t *nread)
{
    *nread = 0;
    errno = 0;
    const ssize_t count = read(handle, buf, len);
    if (count == -1)
        return errno == EAGAIN ? CORE_EAGAIN : report_errno(CORE_LOG_ERR, "could not read data from handle:");
    *nread = static_cast<size_t>(count);
    return CORE_OK;
}

int _core_device_poll(int handle, int64_t timeout_ms, short events) // NOLINT(bugprone-reserved-identifier)
{
    pollfd watched{handle, events, 0};
    errno = 0;
    if (poll(&watched, 1, static_cast<int>(timeout_ms)) == -1) {
        const int err = errno;
        if (err != EINTR)
            log_err("Poll error %d, %s", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    if ((watched.revents & POLLHUP) != 0) {
        log_dbg("poll hang up\n");
        return CORE_ECANCELED;
    }
    if ((watched.revents & POLLERR) != 0) {
        log_err("poll device error\n");
        return CORE_EGENERIC;
    }
    return (watched.revents & events) != 0 ? CORE_OK : CORE_ETIMEDOUT;
}

int core_device_poll(int handle, int64_t timeout_ms)
{
    return _core_device_poll(handle, timeout_ms, POLLIN);
}

int core_device_read_timeout(int handle, void *buf, size_t len, unsigned timeout_ms, size_t *nread)
{
    *nread = 0;
    if (const int err = core_device_poll(handle, timeout_ms); err != CORE_OK)
        return err;
    return core_device_read(handle, buf, len, nread);
}

int core_device_write(int handle, const void *buf, size_t len, size_t *written)
{
    errno = 0;
    *written = 0;
    if (const int err = _core_device_poll(handle, timeouts::device_write, POLLOUT); err != CORE_OK)
        return err;
    const ssize_t count = write(handle, buf, len);
    if (count == -1)
        return report_errno(CORE_LOG_ERR, "could not write data to handle:");
    *written = static_cast<size_t>(count);
    return CORE_OK;
}

int core_device_get_bytes_available(int handle, int *count)
{
    const int result = ioctl(handle, FIONREAD, count);
    return result != -1 ? result : report_errno(CORE_LOG_ERR, "ioctl FIONREAD returned");
}

// The library's interface: the updater itself calls none of these.

int core_get_serial_state(int handle, core_serial_state *state)
{
    if (state == nullptr)
        return CORE_EINVAL;
    *state = {};
    int lines = 0;
    if (ioctl(handle, TIOCMGET, &lines) != 0) {
        report_errno(CORE_LOG_DBG, "could not get serial setting:");
        return CORE_OK;
    }
    state->dsr = (lines & (TIOCM_DSR | TIOCM_LE)) != 0;
    state->cts = (lines & TIOCM_CTS) != 0;
    state->cd = (lines & TIOCM_CD) != 0;
    state->ri = (lines & TIOCM_RI) != 0;
    return CORE_OK;
}

int core_device_recoursive_write(int handle, const void *buf, size_t len)
{
    if (const int err = _core_device_poll(handle, timeouts::device_write, POLLOUT); err != CORE_OK)
        return err;
    size_t written = 0;
    int tries = timeouts::empty_write_tries;
    while (written < len && tries > 0) {
        const ssize_t count = write(handle, buf, len); // the whole buffer again, on purpose
        if (count == -1)
            return report_errno(CORE_LOG_ERR, "could not write data to handle:");
        if (count > 0) {
            written += static_cast<size_t>(count);
            tries = timeouts::empty_write_tries;
        } else {
            --tries;
            core_sleep(timeouts::empty_write_pause);
        }
    }
    if (tries == 0) {
        log_err("write returned zero (written %d bytes out of %zu)\n", static_cast<int>(written), len);
        return CORE_EIO;
    }
    return CORE_OK;
}

int core_device_flush(int handle)
{
    return tcflush(handle, TCIOFLUSH) == 0 ? CORE_OK : CORE_EIO;
}

int core_get_real_path(const char *path, char *out)
{
    if (path == nullptr || path[0] == '\0' || out == nullptr)
        return CORE_EINVAL;
    return realpath(path, out) != nullptr ? CORE_OK : map_errno_to_core_err(errno);
}

bool core_device_has_vid_pid(const core_device_info *info, const char *vid, const char *pid)
{
    CORE_ASSERT(info);
    CORE_ASSERT(vid);
    CORE_ASSERT(pid);
    return strncmp(info->vid, vid, sizeof info->vid) == 0 && strncmp(info->pid, pid, sizeof info->pid) == 0;
}
