// What the kernel shows of attached devices: USB devices, modems on the MHI bus, and the ports of both.
//
// Everything that is read may vanish while it is read, and a device says of itself what it likes: what is
// missing, malformed or too long for its field is passed over without a word, never cut; a text ends with its
// first line. Nothing here logs, or allocates but directory listings, which are freed before each function
// returns. The kernel lets a look at a serial number or at the count of interfaces wait while it sets that
// device up; a signal ends the wait.
#pragma once

#include "core-usb-id.hpp"

#include <cstddef>
#include <cstdint>

// Where the three file systems are mounted, without a trailing slash.
struct core_roots {
    const char *sys;
    const char *dev;
    const char *proc;
};

// Room for the name of a device or a port, such as 1-2.3, mhi0 or ttyUSB0.
constexpr size_t CORE_SYSFS_NAME_SIZE = 64;

struct core_sysfs_device {
    core_usb_id id; // of the PCI device where `is_pcie` is set
    bool is_pcie;
    bool has_firehose_port; // PCIe only
    // Tells a device from the one that was at the same path before it: another number each time a USB device
    // is attached or a PCIe modem makes its ports anew; 0 for a PCIe modem without a port.
    uint64_t incarnation;
    char path[1024]; // real path; ends in the device's name
};

// Decides whether a device is wanted; `context` is the caller's.
using core_sysfs_filter = bool (*)(const core_usb_id *id, const void *context);

// Fills `devices` (room for `room`) with the wanted devices: USB devices in the order of their bus and port
// numbers, then PCIe modems in the order of their MHI controllers. Returns how many.
[[nodiscard]] size_t core_sysfs_find_devices(const char *sys, core_sysfs_filter wanted, const void *context,
                                             core_sysfs_device *devices, size_t room);
// True while that very device is attached: a USB device of the same incarnation, or the PCIe modem's
// controller.
[[nodiscard]] bool core_sysfs_is_attached(const core_sysfs_device *device);
// True when the kernel shows every interface that the active configuration has, false while none is active;
// always true for PCIe, and for a device that does not tell how many it has.
[[nodiscard]] bool core_sysfs_is_complete(const core_sysfs_device *device);

// Describes the device and its ports: at most CORE_DEVICE_MAX_PORTS, in the order of interface number and
// name. A port is "/dev/" and its name; its interface is "" for PCIe. No ports for a PCIe modem that had none
// when it was found. False when the device has gone.
[[nodiscard]] bool core_sysfs_describe(const char *sys, const core_sysfs_device *device,
                                       core_device_info *info);
