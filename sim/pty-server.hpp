// Runs a device on a pseudo-terminal until the conversation ends. Everything is driven by poll; the only
// short waits are those for the host to read one answer before the next one is written.
#pragma once

#include "bus-file.hpp"
#include "pty-port.hpp"
#include "serving.hpp"

namespace sim {

// The device has been started and the port is open. A readable `stop_fd` (-1: none) ends the service. Where a
// bus is kept, the switch to download mode is what it is on a real one: what the host did not read before is
// lost.
[[nodiscard]] served serve(device &modem, pty_port &port, bus_file &bus, const serve_limits &limits,
                           int stop_fd);

} // namespace sim
