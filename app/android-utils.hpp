// A direct walk of the kernel's USB device directory, to see the download-mode device where the platform has
// no discovery of its own. wait_for_usb_device waits, one second a try; SIGINT ends it early.
#pragma once

#include <cstdint>

// What a device's uevent file tells. Texts are cut to 32 characters.
struct system_information {
    char DEVNAME[33];
    char DEVTYPE[33];
    char driver[33]; // no key of a uevent file fills it
    int32_t MAJOR;
    int32_t MINOR;
    char PRODUCT[33]; // vendor/product/release, lower-case hexadecimal without leading zeros
};

// Parses one uevent file. False, and an ERR line, when it cannot be opened.
[[nodiscard]] bool get_sysinfo_by_uevent(const char *path, system_information *out);
// True when a USB device is present whose PRODUCT contains both texts.
[[nodiscard]] bool find_usb_device_by_product(const char *vid_text, const char *pid_text);
// Looks up to `tries` times, a second after each miss; true at the first hit.
[[nodiscard]] bool wait_for_usb_device(const char *vid_text, const char *pid_text, int tries);
