#include "libc-hooks.hpp"

#include "restored-state.hpp"
#include "scripted-port.hpp"
#include "virtual-time.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

const std::thread::id test_thread = std::this_thread::get_id();
const restored_state restored(libc::reset);

std::vector<libc::any_hook *> &hooks()
{
    static auto *const all = new std::vector<libc::any_hook *>;
    return *all;
}

bool is_time_virtual()
{
    return libc::is_test_thread() && !virtual_time::instance().is_real;
}

scripted_port *port_of(int handle)
{
    return libc::is_test_thread() ? scripted_port::of(handle) : nullptr;
}

} // namespace

libc::any_hook::any_hook()
{
    hooks().push_back(this);
}

bool libc::is_test_thread()
{
    return std::this_thread::get_id() == test_thread;
}

void libc::reset()
{
    for (any_hook *const each : hooks())
        each->reset();
}

void libc::fail_file_reads(int number)
{
    read = [number](int handle, void *data, size_t size) -> ssize_t {
        struct stat status {};
        if (scripted_port::of(handle) != nullptr || ::fstat(handle, &status) != 0 || !S_ISREG(status.st_mode))
            return ::read(handle, data, size);
        errno = number;
        return -1;
    };
}

// What the linker calls in the place of a function (__wrap_), and what it calls the function itself
// (__real_). The C library has two of those that know offsets; the sources ask for the wide one.
#ifdef __GLIBC__
#define REAL_FSTAT __real_fstat64
#define WRAP_FSTAT __wrap_fstat64
#define REAL_LSEEK __real_lseek64
#define WRAP_LSEEK __wrap_lseek64
#else
#define REAL_FSTAT __real_fstat
#define WRAP_FSTAT __wrap_fstat
#define REAL_LSEEK __real_lseek
#define WRAP_LSEEK __wrap_lseek
#endif

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_access(const char *name, int mode);
int __wrap_access(const char *name, int mode)
{
    return libc::access ? libc::access(name, mode) : __real_access(name, mode);
}

speed_t __real_cfgetispeed(const termios *attributes);
speed_t __wrap_cfgetispeed(const termios *attributes)
{
    return libc::cfgetispeed ? libc::cfgetispeed(attributes) : __real_cfgetispeed(attributes);
}

speed_t __real_cfgetospeed(const termios *attributes);
speed_t __wrap_cfgetospeed(const termios *attributes)
{
    return libc::cfgetospeed ? libc::cfgetospeed(attributes) : __real_cfgetospeed(attributes);
}

int __real_cfsetispeed(termios *attributes, speed_t speed);
int __wrap_cfsetispeed(termios *attributes, speed_t speed)
{
    return libc::cfsetispeed ? libc::cfsetispeed(attributes, speed) : __real_cfsetispeed(attributes, speed);
}

int __real_cfsetospeed(termios *attributes, speed_t speed);
int __wrap_cfsetospeed(termios *attributes, speed_t speed)
{
    return libc::cfsetospeed ? libc::cfsetospeed(attributes, speed) : __real_cfsetospeed(attributes, speed);
}

int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    if (libc::clock_gettime)
        return libc::clock_gettime(clock, now);
    if (clock != CLOCK_MONOTONIC || !is_time_virtual())
        return __real_clock_gettime(clock, now);
    return virtual_time::instance().read(now);
}

int __real_close(int handle);
int __wrap_close(int handle)
{
    return libc::close ? libc::close(handle) : __real_close(handle);
}

int REAL_FSTAT(int handle, struct stat *status);
int WRAP_FSTAT(int handle, struct stat *status)
{
    if (libc::fstat)
        return libc::fstat(handle, status);
    const int result = REAL_FSTAT(handle, status);
    if (result == 0 && port_of(handle) != nullptr)
        scripted_port::disguise(status);
    return result;
}

int __real_gettimeofday(timeval *now, void *zone);
int __wrap_gettimeofday(timeval *now, void *zone)
{
    return libc::gettimeofday ? libc::gettimeofday(now) : __real_gettimeofday(now, zone);
}

int __real_inotify_init();
int __wrap_inotify_init()
{
    return libc::inotify_init ? libc::inotify_init() : __real_inotify_init();
}

int __real_inotify_add_watch(int handle, const char *name, uint32_t mask);
int __wrap_inotify_add_watch(int handle, const char *name, uint32_t mask)
{
    return libc::inotify_add_watch ? libc::inotify_add_watch(handle, name, mask)
                                   : __real_inotify_add_watch(handle, name, mask);
}

int __real_ioctl(int handle, unsigned long request, void *argument);
int __wrap_ioctl(int handle, unsigned long request, void *argument)
{
    if (libc::ioctl)
        return libc::ioctl(handle, request, argument);
    scripted_port *const port = port_of(handle);
    return port != nullptr ? port->control(request, argument) : __real_ioctl(handle, request, argument);
}

off_t REAL_LSEEK(int handle, off_t offset, int whence);
off_t WRAP_LSEEK(int handle, off_t offset, int whence)
{
    return libc::lseek ? libc::lseek(handle, offset, whence) : REAL_LSEEK(handle, offset, whence);
}

int __real_poll(pollfd *watched, nfds_t count, int timeout);
int __wrap_poll(pollfd *watched, nfds_t count, int timeout)
{
    if (libc::poll)
        return libc::poll(watched, count, timeout);
    if (scripted_port *const port = count == 1 ? port_of(watched->fd) : nullptr)
        return port->wait(watched, timeout);
    if (!is_time_virtual() || timeout < 0)
        return __real_poll(watched, count, timeout);
    // Nobody but the test itself brings anything, now or at a planned time.
    int ready = 0;
    virtual_time::instance().pass(int64_t{timeout} * 1000, [&] {
        ready = __real_poll(watched, count, 0);
        return ready != 0;
    });
    return ready;
}

ssize_t __real_read(int handle, void *data, size_t size);
ssize_t __wrap_read(int handle, void *data, size_t size)
{
    if (libc::read)
        return libc::read(handle, data, size);
    scripted_port *const port = port_of(handle);
    return port != nullptr ? port->read(handle, data, size) : __real_read(handle, data, size);
}

ssize_t __real_recvmsg(int handle, msghdr *message, int flags);
ssize_t __wrap_recvmsg(int handle, msghdr *message, int flags)
{
    return libc::recvmsg ? libc::recvmsg(handle, message, flags) : __real_recvmsg(handle, message, flags);
}

int __real_setvbuf(FILE *stream, char *buffer, int mode, size_t size);
int __wrap_setvbuf(FILE *stream, char *buffer, int mode, size_t size)
{
    return libc::setvbuf ? libc::setvbuf(stream, buffer, mode, size)
                         : __real_setvbuf(stream, buffer, mode, size);
}

char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text)
{
    return libc::strdup ? libc::strdup(text) : __real_strdup(text);
}

int __real_tcgetattr(int handle, termios *attributes);
int __wrap_tcgetattr(int handle, termios *attributes)
{
    if (libc::tcgetattr)
        return libc::tcgetattr(handle, attributes);
    const scripted_port *const port = port_of(handle);
    if (port == nullptr)
        return __real_tcgetattr(handle, attributes);
    *attributes = port->settings;
    return 0;
}

int __real_tcsetattr(int handle, int actions, const termios *attributes);
int __wrap_tcsetattr(int handle, int actions, const termios *attributes)
{
    if (libc::tcsetattr)
        return libc::tcsetattr(handle, actions, attributes);
    scripted_port *const port = port_of(handle);
    if (port == nullptr)
        return __real_tcsetattr(handle, actions, attributes);
    port->settings = *attributes;
    return 0;
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds)
{
    if (libc::usleep)
        return libc::usleep(microseconds);
    if (!is_time_virtual())
        return __real_usleep(microseconds);
    virtual_time::instance().sleep(microseconds);
    return 0;
}

// The system log of the machine gets nothing: a case that writes to it says what becomes of the text.
void __wrap_vsyslog(int priority, const char *format, va_list arguments)
{
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    if (libc::vsyslog)
        libc::vsyslog(priority, text);
    else
        ADD_FAILURE() << "to the system log: " << text;
}

// What a build with checked buffer sizes calls in its place.
void __wrap___vsyslog_chk(int priority, int, const char *format, va_list arguments)
{
    __wrap_vsyslog(priority, format, arguments);
}

ssize_t __real_write(int handle, const void *data, size_t size);
ssize_t __wrap_write(int handle, const void *data, size_t size)
{
    if (libc::write)
        return libc::write(handle, data, size);
    scripted_port *const port = port_of(handle);
    return port != nullptr ? port->write(handle, data, size) : __real_write(handle, data, size);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
