#include "core-device.hpp"

#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

static constexpr char log_source[] = "core-device.c";

int core_device_open(const char *path, int *handle)
{
    // Never as controlling terminal: a modem that leaves the bus would hang up the whole program.
    *handle = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY);
    if (*handle == -1) {
        const int err = errno;
        log_err("could not open device %s: error %d %s\n", path, err, strerror(err));
        return map_errno_to_core_err(err);
    }
    return CORE_OK;
}

int core_device_close(int handle)
{
    errno = 0;
    if (close(handle) != 0) {
        const int err = errno;
        log_dbg("could not close handle: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    return CORE_OK;
}

int core_set_hw_flow_control(int handle, bool enable)
{
    termios attributes{};
    errno = 0;
    if (tcgetattr(handle, &attributes) != 0) {
        const int err = errno;
        if (err == ENOTTY)
            return CORE_OK;
        log_err("could not get device configuration: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    cfmakeraw(&attributes);
    if (enable)
        attributes.c_cflag |= CRTSCTS;
    else
        attributes.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    errno = 0;
    if (tcsetattr(handle, TCSANOW, &attributes) != 0) {
        const int err = errno;
        log_err("could not set device config: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    return CORE_OK;
}

int core_device_set_raw_mode(int handle)
{
    return core_set_hw_flow_control(handle, false);
}

int core_get_serial_state(int handle, core_serial_state *state)
{
    if (state == nullptr)
        return CORE_EINVAL;
    *state = {};
    int lines = 0;
    if (ioctl(handle, TIOCMGET, &lines) != 0) {
        const int err = errno;
        log_dbg("could not get serial setting: error %d %s\n", err, strerror(err));
        return CORE_OK;
    }
    state->dsr = (lines & (TIOCM_DSR | TIOCM_LE)) != 0;
    state->cts = (lines & TIOCM_CTS) != 0;
    state->cd = (lines & TIOCM_CD) != 0;
    state->ri = (lines & TIOCM_RI) != 0;
    return CORE_OK;
}

int core_set_control_signals(int handle, bool dtr, bool rts)
{
    int lines = 0;
    if (ioctl(handle, TIOCMGET, &lines) != 0) {
        const int err = errno;
        log_dbg("could not get serial setting: error %d %s\n", err, strerror(err));
        return CORE_OK;
    }
    lines = dtr ? lines | TIOCM_DTR : lines & ~TIOCM_DTR;
    lines = rts ? lines | TIOCM_RTS : lines & ~TIOCM_RTS;
    if (ioctl(handle, TIOCMSET, &lines) != 0) {
        const int err = errno;
        log_dbg("could not set serial setting: error %d %s\n", err, strerror(err));
    }
    return CORE_OK;
}

struct baud_rate {
    unsigned rate;
    speed_t speed;
};

static constexpr baud_rate baud_rates[] = {
    {115200, B115200}, {230400, B230400},   {460800, B460800},
    {921600, B921600}, {2000000, B2000000}, {3000000, B3000000},
};

static int get_attributes(int handle, termios *attributes)
{
    *attributes = {};
    errno = 0;
    if (tcgetattr(handle, attributes) == 0)
        return CORE_OK;
    const int err = errno;
    log_as("core_device_set_baud_rate", CORE_LOG_ERR, "could not get device configuration: error %d %s\n",
           err, strerror(err));
    return map_errno_to_core_err(err);
}

int core_device_set_baud_rate(int handle, unsigned rate)
{
    log_dbg("setting baudrate %u\n", rate);
    termios attributes;
    if (const int err = get_attributes(handle, &attributes); err != CORE_OK)
        return err;
    const auto *const row = std::find_if(std::begin(baud_rates), std::end(baud_rates),
                                         [rate](const baud_rate &r) { return r.rate == rate; });
    if (row == std::end(baud_rates)) {
        log_err("invalid baud rate %u\n", rate);
        return CORE_EINVAL;
    }
    if (cfsetispeed(&attributes, row->speed) != 0) {
        const int err = errno;
        log_err("cfsetispeed error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    if (cfsetospeed(&attributes, row->speed) != 0) {
        const int err = errno;
        log_err("cfsetospeed error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    if (tcsetattr(handle, TCSANOW, &attributes) != 0) {
        const int err = errno;
        log_dbg("could not set device config: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
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
    if (count == -1) {
        const int err = errno;
        if (err != EAGAIN)
            log_err("could not read data from handle: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
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
    if (count == -1) {
        const int err = errno;
        log_err("could not write data to handle: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    *written = static_cast<size_t>(count);
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
        if (count == -1) {
            const int err = errno;
            log_err("could not write data to handle: error %d %s\n", err, strerror(err));
            return map_errno_to_core_err(err);
        }
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

int core_device_get_bytes_available(int handle, int *count)
{
    const int result = ioctl(handle, FIONREAD, count);
    if (result == -1) {
        const int err = errno;
        log_err("ioctl FIONREAD returned error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    return result;
}

bool core_device_has_vid_pid(const core_device_info *info, const char *vid, const char *pid)
{
    CORE_ASSERT(info);
    CORE_ASSERT(vid);
    CORE_ASSERT(pid);
    return strncmp(info->vid, vid, sizeof info->vid) == 0 && strncmp(info->pid, pid, sizeof info->pid) == 0;
}
