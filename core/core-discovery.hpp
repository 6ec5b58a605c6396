// The platform's discovery: enumerating USB devices and listening for them.
//
// A platform that has neither answers CORE_ENOTSUPPORTED from both, at once; the callers then go other ways.
#pragma once

#include "core-usb-id.hpp"

#include <cstddef>

// A device that came or went.
struct core_usb_event {
    core_usb_id id;
    char path[1024];
    bool removed;
};

// Decides whether a device belongs to the list that the listener was given.
using core_usb_id_matcher = bool (*)(const core_device_info *info, const core_usb_id_list *list);

// Time-out of the listener that stands for "for ever".
constexpr int CORE_LISTEN_FOREVER = -1;

// Fills `devices` with the connected devices of the `count` identifiers. `*size` is the array's capacity on
// the way in and the number of devices found on the way out. 0, CORE_ENODEV, CORE_ENOTSUPPORTED or an error.
[[nodiscard]] int core_device_enumerate(const core_usb_id *identifiers, size_t count,
                                        core_device_info *devices, size_t *size);

// Blocks until a device that `match` accepts for `list` arrives or leaves and describes it in `event`.
// `timeout_ms` in milliseconds, or CORE_LISTEN_FOREVER. 0, CORE_ETIMEDOUT, CORE_ENOTSUPPORTED or an error.
[[nodiscard]] int core_device_usb_id_event_listener(core_usb_id_matcher match, const core_usb_id_list *list,
                                                    core_usb_event *event, int timeout_ms);
