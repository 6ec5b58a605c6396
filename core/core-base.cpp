#include "core-base.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

volatile std::sig_atomic_t sigint_detected = 0;

void core_assertion_failed(const char *condition, const char *file, int line)
{
    fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
    abort();
}

int map_errno_to_core_err(int err)
{
    static constexpr struct {
        int platform;
        int core;
    } rows[] = {
        {EPERM, CORE_EPERM},   {ENOENT, CORE_ENOENT}, {EINTR, CORE_EINTR},         {EIO, CORE_EIO},
        {EAGAIN, CORE_EAGAIN}, {EACCES, CORE_EACCES}, {EBUSY, CORE_EBUSY},         {ENODEV, CORE_ENODEV},
        {EINVAL, CORE_EINVAL}, {ENOSPC, CORE_ENOSPC}, {ETIMEDOUT, CORE_ETIMEDOUT},
    };
    for (const auto &row : rows) {
        if (row.platform == err)
            return row.core;
    }
    return CORE_EGENERIC;
}

int core_signal_handler(int signo)
{
    if (signo != SIGINT)
        return 2;
    sigint_detected = 1;
    return 0;
}

int core_sleep(unsigned ms)
{
    // cppcheck-suppress usleepCalled ; its result is this function's
    return usleep(ms * 1000U);
}

int core_get_time(timespec *out)
{
    return clock_gettime(CLOCK_MONOTONIC, out);
}

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)
size_t strlcpy(char *dest, const char *src, size_t size)
{
    const size_t length = strlen(src);
    if (size != 0) {
        const size_t kept = length < size ? length : size - 1;
        memcpy(dest, src, kept);
        dest[kept] = '\0';
    }
    return length;
}

size_t strlcat(char *dest, const char *src, size_t size)
{
    const size_t used = strnlen(dest, size);
    if (used == size)
        return size + strlen(src);
    return used + strlcpy(dest + used, src, size - used);
}
#endif

bool core_compose(std::span<char> out, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(out.data(), out.size(), format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<size_t>(length) < out.size();
}

bool core_is_zero(const void *record, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(record);
    return size == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, size - 1) == 0);
}

// The library's interface: the updater itself does not call this.

const char *core_strcasestr(const char *haystack, const char *needle)
{
    // cppcheck-suppress CastIntegerToAddressAtReturn ; strcasestr(3) gives a pointer
    return strcasestr(haystack, needle);
}
