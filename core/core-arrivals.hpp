// Arrivals and removals: what sysfs shows now, compared with what the program has been told of.
//
// A device is told of by the enumeration that returns it or by the event of its arrival, and from then on is
// known: it arrives again only after it has left, and leaves once.
#pragma once

#include "core-discovery.hpp"
#include "core-sysfs.hpp"

// Zeroed before first use.
struct core_known_devices {
    static constexpr size_t room = 64;
    core_sysfs_device devices[room];
    size_t count;
};

// The program is told of the device, or of what has become of it.
void core_know_device(core_known_devices *known, const core_sysfs_device &device);

// Looks for one difference that `match` accepts for `list` and describes it in `event`; removals come before
// arrivals. A USB device arrives when all its interfaces are there, which is waited for, at most 2 s; a PCIe
// modem when it has a port. False when there is no difference.
[[nodiscard]] bool core_find_bus_event(const char *sys, core_known_devices *known, core_usb_id_matcher match,
                                       const core_usb_id_list *list, core_usb_event *event);
