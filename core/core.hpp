// Core utilities: start and stop, the choice of the log's destination, the time of day and little-endian
// conversion. Together with core-base.hpp the first thing that every module includes.
//
// Everything here is synchronous and holds no state. Nothing waits.
#pragma once

#include "core-base.hpp"

// Starts the library. Always 0.
[[nodiscard]] int core_init();

// Stops the library: closes the log file, if one is open. May be called more than once.
void core_deinit();

// Chooses where log lines go: the system log (true) or standard output and standard error (false). Returns 0.
int core_log_set_native(bool native);

// Convert between little-endian wire order (core_letoh: from, core_htole: to) and host order. Sizes are in
// bytes: 1, 2, 4 or 8 and both the same; anything else is a programming error that is logged and ends the
// process with exit status 1. Neither pointer needs alignment; the two must not overlap unless equal.
void core_letoh(void *dest, size_t dest_size, const void *src, size_t src_size);
void core_htole(void *dest, size_t dest_size, const void *src, size_t src_size);

// The store steps of the two conversions: write the low `dest_size` (1, 2, 4, 8) bytes of `value` to `dest`,
// in host order (_ec_mtoh) or little-endian (_ec_htom). Any other size logs a warning and writes nothing.
void _ec_mtoh(void *dest, size_t dest_size, uint64_t value); // NOLINT(bugprone-reserved-identifier)
void _ec_htom(void *dest, size_t dest_size, uint64_t value); // NOLINT(bugprone-reserved-identifier)

// The library's interface: the updater itself does not call this.

// Seconds and microseconds since the epoch, UTC; seconds are the low 32 bits.
struct core_time_of_day {
    uint32_t seconds;
    uint32_t microseconds;
};

// Reads the wall clock into `out`. 0, or the mapped errno with `out` zeroed.
[[nodiscard]] int core_get_time_of_day(core_time_of_day *out);
