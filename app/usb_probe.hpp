// The bus scan: turns the devices on the bus into modem records with classified ports.
//
// In: a list of identifiers. Out: records in the free slots of the caller's array. Nothing here waits.
#pragma once

#include "modem-table.hpp"
#include "modem.hpp"

// Fills free slots of `modems` with the matching devices, at most `max_ports` ports each. The result is that
// of the last device: 0; CORE_EAGAIN while its ports are incomplete; CORE_ENOMEM for a full array or port
// list; or the enumeration's error (CORE_ENOTSUPPORTED, CORE_ENODEV).
[[nodiscard]] int scan_usb_bus(const core_usb_id_list *ids, modem *modems, uint8_t max_modems,
                               uint8_t max_ports);
// Fills the record's ports from the device's. 0, CORE_EAGAIN (fewer than the product's minimum) or
// CORE_ENOMEM (more than `max_ports`, which is at most MAX_MODEM_PORTS).
[[nodiscard]] int gather_serial_ports(modem *m, const core_device_info *info, uint8_t max_ports);
// True when every character is a letter, a digit or '/'; an empty name is valid.
[[nodiscard]] bool is_valid_port_name(const char *name);
// strstr(3), but null (not found) for a null text or a null or empty needle.
[[nodiscard]] const char *find_substring(const char *haystack, const char *needle);
