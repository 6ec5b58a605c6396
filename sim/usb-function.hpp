// What the modem is on the bus: its descriptors and its answers to control requests (USB 2.0 chapter 9).
// Every interface is of the vendor's class and has one bulk pair: interface 0 endpoints 0x81 and 0x01,
// interface 1 0x82 and 0x02, and so on, the IN endpoint first.
#pragma once

#include "usbip.hpp"

#include <array>
#include <cstdint>
#include <string>

namespace sim {

struct usb_id {
    uint16_t vid = 0;
    uint16_t pid = 0;
};

// The chip vendor's download device.
inline constexpr usb_id download_usb_id = {0x05C6, 0x9008};
inline constexpr uint8_t normal_interfaces = 3; // diagnostic, AT, AT
inline constexpr uint16_t bulk_packet_size = 512;

struct control_answer {
    int32_t status = 0; // 0 or -EPIPE: the request is not known
    octets bytes;       // of an IN request, cut to what was asked for
};

class usb_function {
  public:
    usb_function(usb_id id, uint8_t interfaces) : id_(id), interfaces_(interfaces) {}

    control_answer answer(const usb_setup &setup);

    // Whether an endpoint address is halted: answers STALL until the host clears it.
    bool halted(uint8_t address) const { return halted_[slot(address)]; }
    void halt(uint8_t address) { halted_[slot(address)] = true; }

    octets device_descriptor() const;
    octets qualifier_descriptor() const;
    octets configuration_descriptor() const;
    static octets string_descriptor(uint8_t index); // empty: there is none

  private:
    static size_t slot(uint8_t address) { return (address & 0x0FU) | (address & 0x80U) >> 3; }
    bool has_endpoint(uint16_t address) const;
    octets descriptor(uint8_t type, uint8_t index) const;

    control_answer answer_standard(const usb_setup &setup);
    control_answer change_halt(uint16_t address, bool set);
    control_answer answer_class(const usb_setup &setup) const;

    usb_id id_;
    uint8_t interfaces_;
    uint8_t configuration_ = 0;
    std::array<bool, 32> halted_{};
};

} // namespace sim
