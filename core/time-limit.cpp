#include "time-limit.hpp"

#include "core-base.hpp"

namespace {

constexpr int64_t no_time = -1;

int64_t monotonic_ms()
{
    timespec now{};
    if (core_get_time(&now) != 0)
        return no_time;
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace

time_limit::time_limit(unsigned ms)
{
    const int64_t now = monotonic_ms();
    end_ms_ = now == no_time ? no_time : now + ms;
}

bool time_limit::passed() const
{
    const int64_t now = monotonic_ms();
    return now == no_time || end_ms_ == no_time || now >= end_ms_;
}
