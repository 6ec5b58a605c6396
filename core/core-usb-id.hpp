// USB identifiers: the vendor/product pair as unit of device identity, its parsing, comparison and search,
// and what is told of a device that has one. Nothing here waits.
#pragma once

#include <cstdint>

// Both 1..0xFFFF; an identifier with a zero in it is empty.
struct core_usb_id {
    uint32_t vid;
    uint32_t pid;
};

// Identifiers in order of preference; the array belongs to the caller.
struct core_usb_id_list {
    uint8_t count;
    const core_usb_id *ids;
};

// Most tty ports that one device record describes.
constexpr uint32_t CORE_DEVICE_MAX_PORTS = 10;

// What the platform's enumeration tells of one device.
struct core_device_info {
    char name[1024]; // the device's system path as the endpoint code matches it: it ends in a name like 1-2.3
    char serial[1024]; // USB serial number, empty when there is none
    char vid[5];       // four hexadecimal digits
    char pid[5];       // four hexadecimal digits
    char port_names[CORE_DEVICE_MAX_PORTS][1024];
    char interface_numbers[CORE_DEVICE_MAX_PORTS]
                          [3]; // two decimal digits: the interface that carries the port
    uint32_t port_count;       // valid entries of the two lists
    char path[1024];           // the device's path
};

// Parses two hexadecimal texts ("05c6", "0x9008"). True when both parse; `out->vid` may be set when the
// product id then fails. Null texts give false without a message.
[[nodiscard]] bool core_usb_id_from_str(core_usb_id *out, const char *vid, const char *pid);
[[nodiscard]] bool core_usb_id_is_empty(const core_usb_id *id);
[[nodiscard]] bool core_usb_id_equals(const core_usb_id *a, const core_usb_id *b);
// True when the device's identifier is in the list; texts that do not parse are logged and match nothing.
[[nodiscard]] bool core_usb_id_find_match(const core_device_info *info, const core_usb_id_list *list);
