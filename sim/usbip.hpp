// The messages of the USB/IP protocol between the kernel's virtual host controller and a device: headers of
// 48 bytes, every number big-endian (Documentation/usb/usbip_protocol.rst of the kernel).
//
//   host to device   CMD_SUBMIT, followed by the data of an OUT transfer; CMD_UNLINK
//   device to host   RET_SUBMIT, followed by the data of an IN transfer; RET_UNLINK
#pragma once

#include "bytes.hpp"

#include <array>
#include <cstdint>
#include <optional>

namespace sim {

inline constexpr size_t usbip_header_size = 48;

using usb_setup = std::array<uint8_t, 8>; // a control request, as USB 2.0 section 9.3 lays it out

// A transfer that the host submits, or (unlink) one that it takes back.
struct usbip_command {
    uint32_t seqnum = 0;
    bool unlink = false;
    bool in = false;
    uint8_t endpoint = 0; // number, without the direction
    uint32_t length = 0;  // of the data that follow, or at most wanted
    usb_setup setup{};    // endpoint 0 only
    uint32_t victim = 0;  // unlink: the seqnum of the transfer

    size_t body_size() const { return unlink || in ? 0 : length; }
};

// Nothing when the header is not one of the two, or of a transfer that no device here has: isochronous, or of
// an absurd length.
[[nodiscard]] std::optional<usbip_command> decode_command(view header);

// A transfer's result: 0 or a negative errno, and how many bytes moved.
octets encode_submit_reply(uint32_t seqnum, int32_t status, uint32_t moved);
octets encode_unlink_reply(uint32_t seqnum, int32_t status);

} // namespace sim
