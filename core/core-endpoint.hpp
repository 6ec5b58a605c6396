// A USB bulk channel through libusb, for a device that no tty driver serves: opening by identifier or by
// system name, taking the interface from the kernel's driver, bulk transfers with their zero-length packet
// (USB 2.0 section 5.8.3).
//
// An open record owns a libusb context and a device handle until core_usb_endpoint_close. Results are core
// error codes, or libusb's own codes passed through (configuration, detach and claim failures); callers treat
// any non-zero value as failure. Waits: 30 s for each transfer.
#pragma once

#include "core-usb-id.hpp"

#include <cstddef>
#include <cstdint>

struct libusb_context;
struct libusb_device;
struct libusb_device_handle;

// Endpoint address that stands for none.
constexpr uint8_t CORE_ENDPOINT_NONE = 0xFF;

struct core_endpoint {
    libusb_context *context;      // null when closed
    libusb_device_handle *handle; // null when closed
    uint8_t interface;            // claimed for every transfer
    uint8_t in_endpoint;          // address, CORE_ENDPOINT_NONE for none
    uint8_t out_endpoint;         // address, CORE_ENDPOINT_NONE for none
    uint16_t max_packet_size;     // wMaxPacketSize of the OUT endpoint, in bytes
    bool send_zero_length_packet; // end OUT transfers of whole packets with an empty one
};

// Opens the device of `info` (by the system path in `info->name`, or by its identifier when that is empty)
// and takes the last non-control endpoint of each direction over all interfaces. 0; CORE_EINVAL for an empty
// identifier text; CORE_EGENERIC; CORE_ENODEV; or a libusb code. A failed record may be closed.
[[nodiscard]] int endpoint_open(const core_device_info *info, core_endpoint *ep);
// Closes what is open. Always 0; a null record is an assertion failure.
int endpoint_close(core_endpoint *ep);
// One bulk transfer of `len` bytes (at most INT_MAX) in the given direction; `*transferred` receives the
// count. 0, also when a transfer failed otherwise than by its time-out; CORE_ETIMEDOUT; CORE_EINVAL for a
// closed record or a length out of range; or libusb's code for a failed claim.
[[nodiscard]] int endpoint_transfer(core_endpoint *ep, bool out, void *buf, size_t len, int *transferred);
// Writes the device's system name ("1-2.3", "usb2" for a root hub) and returns its length, 0 on failure.
[[nodiscard]] int get_sys_name(char *buf, size_t size, libusb_device *dev);

// What the application calls.
[[nodiscard]] int core_usb_endpoint_open(const core_device_info *info, core_endpoint *ep);
int core_usb_endpoint_close(core_endpoint *ep);
[[nodiscard]] int core_usb_endpoint_write(core_endpoint *ep, const void *buf, size_t len, int *transferred);
[[nodiscard]] int core_usb_endpoint_read(core_endpoint *ep, void *buf, size_t len, int *transferred);
// Takes what waits already, at most `len` bytes, or comes within `timeout_ms` (not 0): one read, in silence.
// `*transferred` may be 0. 0, CORE_EINVAL for a closed record, CORE_EGENERIC, or libusb's code for a failed
// claim.
[[nodiscard]] int core_usb_endpoint_take(core_endpoint *ep, void *buf, size_t len, unsigned timeout_ms,
                                         int *transferred);

// The library's interface: the updater itself calls none of these.

// As endpoint_open, by identifier, for one interface; CORE_ENODEV also for an interface that the device does
// not have.
[[nodiscard]] int interface_open(const core_device_info *info, core_endpoint *ep, uint8_t interface);
[[nodiscard]] int core_usb_interface_open(const core_device_info *info, core_endpoint *ep, int interface);
