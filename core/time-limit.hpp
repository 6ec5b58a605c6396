// The end of a wait that a peer could draw out for ever.
#pragma once

#include <cstdint>

// Starts to run when it is made.
class time_limit {
  public:
    // `ms` milliseconds of the monotonic clock.
    explicit time_limit(unsigned ms);
    // True once the time is over; also when the clock cannot be read, so that a wait ends in any case.
    [[nodiscard]] bool passed() const;

  private:
    int64_t end_ms_; // -1: the clock could not be read
};
