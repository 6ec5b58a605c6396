// Where a modem is: its place on the bus, which is the same through all of its restarts, whatever its ports
// are called meanwhile. And its USB devices, as far as another program could have one of them.
//
// Read from sysfs and stat(2); nothing here logs or waits, and nothing is opened but attributes of sysfs.
#pragma once

#include "core-usb-id.hpp"

#include <cstddef>
#include <span>
#include <sys/stat.h>

constexpr size_t CORE_PLACE_SIZE = 80;

// Tells the place of the device that a port belongs to: "usb/1-2.3" (bus and ports on the way), "pci/" and
// the PCI address of a modem on the MHI bus. A port without such a place is its own: "device/4:64" by its
// number, or "file/" and what tells a FIFO or a pseudo-terminal from all others. `node` is what stat(2) tells
// of the port, null where there is none; a wwan port, whose name tells the controller, has its place also
// then. False where there is none.
[[nodiscard]] bool core_find_place(const char *sys, const char *port, const struct stat *node,
                                   std::span<char, CORE_PLACE_SIZE> place);
// True for the far end of a pseudo-terminal; who plays the modem may keep it open as well.
[[nodiscard]] bool core_is_pseudo_terminal(const struct stat &node);

struct core_usb_place {
    char place[CORE_PLACE_SIZE]; // as above
    char node[32];               // below /dev: "bus/usb/001/005"
};
// Finds the attached USB devices with that identifier, as many as there is room for; returns how many.
[[nodiscard]] size_t core_find_usb_places(const char *sys, const core_usb_id &id,
                                          std::span<core_usb_place> found);
