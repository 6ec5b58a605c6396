// What the fronts of the simulated modem have in common: how long they wait, and how a conversation ended.
#pragma once

#include "device.hpp"

#include <cstdint>
#include <string>

namespace sim {

struct serve_limits {
    uint64_t timeout_ms = 0; // for the whole conversation; 0: none
    uint32_t gap_ms = 1;     // at least, between two units without input between them
    uint32_t drain_ms =
        1000; // pseudo-terminal: a unit is written at last after this wait for the host to read
    uint32_t linger_ms = 5000; // at the end: for the host to close the port, or to fetch what waits
};

// How the conversation ended, or that a planned hang-up or a readable stop descriptor ended it.
struct served {
    ending how = ending::complete;
    std::string trouble; // one line when `how` is not complete
};

} // namespace sim
