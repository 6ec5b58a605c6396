// Stand-ins for a few C library calls: failures that no device or file here shows by itself, and pauses that
// need no time. Included by one source file of a test program, whose definitions then take the place of the C
// library's. Everything is set for the calling thread alone, so that a thread that plays the modem is not
// hit.
#pragma once

#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#ifndef __THROW
#define __THROW
#endif

namespace libc_hooks {

// Plain data: the hooks also run before and after everything that has constructors.
template <typename T> struct script {
    static constexpr unsigned room = 32;
    T items[room];
    unsigned count;
    unsigned next;

    void add(T item)
    {
        if (count < room)
            items[count++] = item;
    }
    T take() { return next < count ? items[next++] : T{}; }
    bool empty() const { return next == count; }
};

// What the next writes to descriptors above 2 do: fail with this errno; 0 writes.
inline thread_local script<int> write_errors;
// Pauses of at least 10 ms return at once and are recorded, in milliseconds.
inline thread_local bool skip_pauses;
inline thread_local script<unsigned> pauses;
// When set, the calls on regular files (read, lseek, fstat) and on terminals (tcgetattr) fail with this
// errno.
inline thread_local int file_read_error;
inline thread_local int file_seek_error;
inline thread_local int file_size_error;
inline thread_local int terminal_error;

// Back to the C library's own ways, for a test that is not alone in its process.
inline void reset()
{
    write_errors = {};
    skip_pauses = false;
    pauses = {};
    file_read_error = 0;
    file_seek_error = 0;
    file_size_error = 0;
    terminal_error = 0;
}

inline std::vector<unsigned> recorded_pauses()
{
    return {pauses.items, pauses.items + pauses.count};
}

inline int real_fstat(int handle, struct stat *status)
{
    return fstatat(handle, "", status, AT_EMPTY_PATH);
}

inline bool is_regular_file(int handle)
{
    struct stat status {};
    return real_fstat(handle, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace libc_hooks

extern "C" {

ssize_t write(int handle, const void *data, size_t size)
{
    if (handle > 2 && !libc_hooks::write_errors.empty()) {
        if (const int err = libc_hooks::write_errors.take(); err != 0) {
            errno = err;
            return -1;
        }
    }
    return syscall(SYS_write, handle, data, size);
}

ssize_t read(int handle, void *data, size_t size)
{
    if (libc_hooks::file_read_error != 0 && libc_hooks::is_regular_file(handle)) {
        errno = libc_hooks::file_read_error;
        return -1;
    }
    return syscall(SYS_read, handle, data, size);
}

off_t lseek(int handle, off_t offset, int whence) __THROW
{
    if (libc_hooks::file_seek_error != 0) {
        errno = libc_hooks::file_seek_error;
        return -1;
    }
    using function = off_t (*)(int, off_t, int);
    void *const wide = dlsym(RTLD_NEXT, "lseek64"); // where there are two, this is the one of 64 bits
    static const auto real = reinterpret_cast<function>(wide != nullptr ? wide : dlsym(RTLD_NEXT, "lseek"));
    return real(handle, offset, whence);
}

int fstat(int handle, struct stat *status) __THROW
{
    if (libc_hooks::file_size_error != 0) {
        errno = libc_hooks::file_size_error;
        return -1;
    }
    return libc_hooks::real_fstat(handle, status);
}

int tcgetattr(int handle, termios *attributes) __THROW
{
    if (libc_hooks::terminal_error != 0) {
        errno = libc_hooks::terminal_error;
        return -1;
    }
    using function = int (*)(int, termios *);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "tcgetattr"));
    return real(handle, attributes);
}

int usleep(useconds_t microseconds)
{
    if (libc_hooks::skip_pauses && microseconds >= 10000) {
        libc_hooks::pauses.add(microseconds / 1000);
        return 0;
    }
    timespec pause{static_cast<time_t>(microseconds / 1000000),
                   static_cast<long>(microseconds % 1000000) * 1000};
    return nanosleep(&pause, nullptr);
}

} // extern "C"
