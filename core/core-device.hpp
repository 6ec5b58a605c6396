// A tty character device (AT, diagnostic and download ports) behind a descriptor: open and close, raw
// configuration, speed, modem lines, reads and writes guarded by poll(2), and the wait for a device node.
//
// Handles are descriptors owned by the caller. Every operation returns a core error code and logs its failure
// once, with errno and its text; a failure never closes the handle. Waits: the time-outs given by the caller,
// 5000 ms for writability, and core_wait_for_serial, which only SIGINT ends.
#pragma once

#include "core-owners.hpp"
#include "core-usb-id.hpp"

#include <cstddef>
#include <cstdint>

// Opens `path` for reading and writing, non-blocking; `*handle` receives the descriptor, -1 on failure. 0 or
// the mapped errno. No terminal settings are touched.
[[nodiscard]] int core_device_open(const char *path, int *handle);
// Closes the descriptor. 0 or the mapped errno.
int core_device_close(int handle);
using owned_device = owned_handle<core_device_close>;

// Makes the terminal raw (cfmakeraw(3)) and sets or clears hardware flow control (CRTSCTS). 0, also for a
// handle that is no terminal, or the mapped errno.
[[nodiscard]] int core_set_hw_flow_control(int handle, bool enable);
// Raw, without hardware flow control.
[[nodiscard]] int core_device_set_raw_mode(int handle);

// Sets or clears DTR and RTS. Always 0.
int core_set_control_signals(int handle, bool dtr, bool rts);
// Sets both speeds: 115200, 230400, 460800, 921600, 2000000 or 3000000; any other rate is CORE_EINVAL. A
// driver that ignores the rate is no error. 0 or the mapped errno.
[[nodiscard]] int core_device_set_baud_rate(int handle, unsigned rate);

// One read(2) of at most `len` bytes; `*nread` receives the count. 0; CORE_EAGAIN, silently, when nothing is
// there; or the mapped errno.
[[nodiscard]] int core_device_read(int handle, void *buf, size_t len, size_t *nread);
// One poll(2) for `events`. 0 when one of them is there, CORE_ETIMEDOUT, CORE_ECANCELED after a hang-up,
// CORE_EGENERIC for a device error, CORE_EINTR (silently) or the mapped errno.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
[[nodiscard]] int _core_device_poll(int handle, int64_t timeout_ms, short events);
// The same for input.
[[nodiscard]] int core_device_poll(int handle, int64_t timeout_ms);
// Waits for input, then reads once; the results of core_device_poll and core_device_read.
[[nodiscard]] int core_device_read_timeout(int handle, void *buf, size_t len, unsigned timeout_ms,
                                           size_t *nread);
// Waits for room, then one write(2); `*written` may be less than `len`. 0 or the error of poll or write.
[[nodiscard]] int core_device_write(int handle, const void *buf, size_t len, size_t *written);
// Bytes waiting to be read. 0 or the mapped errno.
[[nodiscard]] int core_device_get_bytes_available(int handle, int *count);

// The library's interface: the updater itself calls none of these.

// Modem lines, each 0 or 1.
struct core_serial_state {
    uint8_t dsr; // data set ready, or line enable
    uint8_t cts; // clear to send
    uint8_t cd;  // carrier detect
    uint8_t ri;  // ring indicator
};

// Reads the modem lines. CORE_EINVAL for a null `state`, else 0: lines that cannot be read leave it zeroed.
[[nodiscard]] int core_get_serial_state(int handle, core_serial_state *state);
// Writes the whole buffer again from its start until `len` bytes in all were taken. 0; CORE_EIO after ten
// writes in a row that took nothing, 10 ms apart; or the error of poll or write.
[[nodiscard]] int core_device_recoursive_write(int handle, const void *buf, size_t len);
// Discards what waits in both directions (tcflush(3)). 0 or CORE_EIO.
[[nodiscard]] int core_device_flush(int handle);
// Resolves `path` into `out`, which holds PATH_MAX bytes (realpath(3)). 0, CORE_EINVAL for a null or empty
// path or a null `out`, or the mapped errno.
[[nodiscard]] int core_get_real_path(const char *path, char *out);
// Waits until the device node `port` exists. 0; CORE_ENODEV when SIGINT ended the wait (seen within a
// second); CORE_EINVAL for a null name; CORE_ENOMEM; CORE_EGENERIC when its directory cannot be watched.
[[nodiscard]] int core_wait_for_serial(const char *port);

// True when the record's identifier texts equal `vid` and `pid` in their first five characters; case counts.
// All three must be non-null (assertion).
[[nodiscard]] bool core_device_has_vid_pid(const core_device_info *info, const char *vid, const char *pid);
