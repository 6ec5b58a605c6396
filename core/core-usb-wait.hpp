// Looking for a USB device of a list, and waiting for one to be attached: the library's interface, which the
// updater itself has no need of.
//
// The two operations rest on the platform's discovery (core-discovery.hpp) and wait as long as it does.
#pragma once

#include "core-usb-id.hpp"

// Looks for the first connected device in list order and fills `info`. 0; CORE_ENODEV for an empty list;
// CORE_ENOTSUPPORTED; or the enumeration's last result.
[[nodiscard]] int core_usb_id_get_device_if_connected(const core_usb_id_list *list, core_device_info *info);
// Returns 0 when a device of the list is connected, and else waits for one, without a time-out. Results of
// the discovery's two entry points.
[[nodiscard]] int core_usb_id_wait_for_devices(const core_usb_id_list *list);
