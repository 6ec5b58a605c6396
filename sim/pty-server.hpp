// Runs a device on a pseudo-terminal until the conversation ends. Everything is
// driven by poll; the only short waits are those for the host to read one
// answer before the next one is written.
#pragma once

#include "device.hpp"
#include "pty-port.hpp"

#include <cstdint>
#include <string>

namespace sim {

struct serve_limits {
    uint64_t timeout_ms = 0;   // for the whole conversation; 0: none
    uint32_t gap_ms = 1;       // at least, between two units without input between them
    uint32_t drain_ms = 1000;  // a unit is written at last after this wait for the host to read
    uint32_t linger_ms = 5000; // at the end: for the host to close the port
};

// How the conversation ended, or that a planned hang-up or a readable `stop_fd`
// (-1: none) ended it.
struct served {
    ending how = ending::complete;
    std::string trouble; // one line when `how` is not complete
};

// The device has been started and the port is open.
served serve(device &modem, pty_port &port, const serve_limits &limits, int stop_fd);

} // namespace sim
