// The monotonic clock, in microseconds since an arbitrary start.
#pragma once

#include <cstdint>
#include <ctime>

namespace sim {

inline uint64_t monotonic_us()
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

} // namespace sim
