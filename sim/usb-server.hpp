// Runs a device on the kernel's virtual USB bus until the conversation ends.
//
// In normal mode it is a device of three interfaces: the diagnostic one (only DIAG frames are heard there)
// and two for AT commands, each answered where it came from. The switch to download mode takes it off the
// bus; after a while it comes back as the chip vendor's download device, and after a reset as the modem
// again, or not at all. A message is one transfer, handed to the host when it asks for it; a transfer from
// the host is handed to the device as a whole and noted in the transcript with its size, empty ones too.
#pragma once

#include "serving.hpp"
#include "usb-function.hpp"
#include "vhci-port.hpp"

namespace sim {

struct usb_settings {
    bool wanted = false;
    usb_id id = {0xFFF0, 0x1001}; // in normal mode
    uint32_t first_port = 0;      // of the host controller, to try first
    uint32_t away_ms = 1000;      // between leaving the bus and coming back
    // Between the host's first fetch and the first message after an arrival: none, what a device says by
    // itself waits in its endpoint. A serial port that was just opened echoes what comes in until its user
    // has made it raw; a device that is faster than that hears itself.
    uint32_t first_ms = 0;
};

// The device has been started and `port` is plugged in.
[[nodiscard]] served serve_usb(device &modem, vhci_port &port, const usb_settings &usb,
                               const serve_limits &limits, transcript &log, int stop_fd);

} // namespace sim
