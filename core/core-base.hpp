// What the platform library stands on and what logs nothing: the result convention, errno mapping, the SIGINT
// flag, the monotonic clock, a millisecond sleep and bounded string functions. The log itself rests on this.
//
// Everything here is synchronous and holds no state but one process-wide flag. Only core_sleep waits.
#pragma once

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <span>
#include <string_view>

// Core error codes. Every operation of this library returns 0 for success or one of these. The numbers are
// the negated errno numbers of generic Linux on every processor, and a few of the library's own.
enum core_err : int {
    CORE_OK = 0,
    CORE_EPERM = -1,           // operation not permitted
    CORE_ENOENT = -2,          // no such file or directory
    CORE_EINTR = -4,           // interrupted system call
    CORE_EIO = -5,             // input/output error
    CORE_EAGAIN = -11,         // try again
    CORE_ENOMEM = -12,         // out of memory
    CORE_EACCES = -13,         // permission denied
    CORE_EBUSY = -16,          // device or resource busy
    CORE_ENODEV = -19,         // no such device; a wait ended by SIGINT
    CORE_EINVAL = -22,         // invalid argument
    CORE_ENOSPC = -28,         // no space left on device
    CORE_EPROTO = -71,         // protocol error
    CORE_ENOTSUPPORTED = -100, // operation not supported on this platform
    CORE_EGENERIC = -102,      // failure without a code of its own
    CORE_ETIMEDOUT = -110,     // time-out
    CORE_ECANCELED = -125,     // cancelled, or the peer hung up
    CORE_EVERSION = -126,      // version refused
};

// An assertion that is checked in every build type: prints the condition on standard error and aborts.
#define CORE_ASSERT(condition) ((condition) ? void() : core_assertion_failed(#condition, __FILE__, __LINE__))
[[noreturn]] void core_assertion_failed(const char *condition, const char *file, int line);

// What a step answers: nothing when the steps behind it are to go on, or the result to end with at once.
using ending = std::optional<int>;
constexpr std::nullopt_t go_on = std::nullopt;

// Set to 1 by core_signal_handler on SIGINT and never cleared; long waits poll it.
extern volatile std::sig_atomic_t sigint_detected;

// Translates an errno value of this platform into a core error code; CORE_EGENERIC for any errno without a
// row of its own (ENOMEM and 0 included). Goes by name, so a time-out is -110 on every processor.
[[nodiscard]] int map_errno_to_core_err(int err);

// To be called from the application's signal handler. For SIGINT sets sigint_detected; returns 0. Any other
// signal number: returns 2 and changes nothing. Async-signal-safe.
int core_signal_handler(int signo);

// Sleeps `ms` milliseconds (the product with 1000 is taken in 32 bits) and returns what usleep returned; a
// signal ends the sleep early.
int core_sleep(unsigned ms);

// Reads the monotonic clock into `out`. 0, or -1 on failure; logs nothing.
[[nodiscard]] int core_get_time(timespec *out);

// Whether `part` occurs in `text`, and what stands behind its first occurrence.
[[nodiscard]] inline bool text_contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}
[[nodiscard]] inline std::optional<std::string_view> text_behind(std::string_view text, std::string_view part)
{
    const size_t found = text.find(part);
    if (found == std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(found + part.size());
    return text;
}
// The text up to the first of `marks`, all of it where there is none.
[[nodiscard]] inline std::string_view text_before(std::string_view text, std::string_view marks)
{
    return {text.data(), std::min(text.find_first_of(marks), text.size())};
}
// What stands behind the last slash of a path; the whole of it where there is none.
[[nodiscard]] inline std::string_view core_last_component(std::string_view path)
{
    path.remove_prefix(path.rfind('/') + 1); // 0 where there is none
    return path;
}

// strlcpy(3) and strlcat(3), where the C library has none: bounded copy and append into a buffer of `size`
// bytes, always terminated when `size` is not 0; the result is the length that was tried for.
#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)
extern "C" size_t strlcpy(char *dest, const char *src, size_t size);
extern "C" size_t strlcat(char *dest, const char *src, size_t size);
#endif

// printf(3) into a buffer, which is always terminated; false when the text had to be cut.
[[nodiscard]] bool core_compose(std::span<char> out, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// True when every byte of the record is zero: how the tables of this system mark a free slot.
[[nodiscard]] bool core_is_zero(const void *record, size_t size);

// The library's interface: the updater itself does not call this.

// Case-insensitive substring search (strcasestr(3)): the first match inside `haystack`, or null.
[[nodiscard]] const char *core_strcasestr(const char *haystack, const char *needle);
