// A stand-in for clock_gettime(3), linked in its place by the one test file that includes this: the monotonic
// clock of the calling thread can be put forward, or refused, so that limits of minutes are tested at once.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

struct fake_clock {
    int64_t ahead_ms = 0;    // how far the monotonic clock is ahead of the real one
    int64_t per_read_ms = 0; // how far each reading puts it forward
    bool broken = false;

    static fake_clock &instance()
    {
        static thread_local fake_clock only;
        return only;
    }
    void reset() { *this = {}; }
};

// Sets the clock right again at the end of its life.
struct restored_clock {
    restored_clock() = default;
    restored_clock(const restored_clock &) = delete;
    restored_clock &operator=(const restored_clock &) = delete;
    ~restored_clock() { fake_clock::instance().reset(); }
};

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    fake_clock &fake = fake_clock::instance();
    if (clock != CLOCK_MONOTONIC || result != 0)
        return result;
    if (fake.broken)
        return -1;
    fake.ahead_ms += fake.per_read_ms;
    now->tv_sec += static_cast<time_t>(fake.ahead_ms / 1000);
    now->tv_nsec += static_cast<long>(fake.ahead_ms % 1000) * 1000000;
    if (now->tv_nsec >= 1000000000) {
        now->tv_nsec -= 1000000000;
        ++now->tv_sec;
    }
    return 0;
}
