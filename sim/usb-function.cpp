#include "usb-function.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace sim {
namespace {

// bRequest
constexpr uint8_t get_status = 0;
constexpr uint8_t clear_feature = 1;
constexpr uint8_t set_feature = 3;
constexpr uint8_t get_descriptor = 6;
constexpr uint8_t get_configuration = 8;
constexpr uint8_t set_configuration = 9;
constexpr uint8_t get_interface = 10;
constexpr uint8_t set_interface = 11;
constexpr uint8_t set_control_line_state = 0x22; // CDC PSTN 6.3.12, which serial drivers send to anything

// bmRequestType
constexpr uint8_t direction_in = 0x80;
constexpr uint8_t type_mask = 0x60;
constexpr uint8_t type_standard = 0x00;
constexpr uint8_t class_to_interface = 0x21;
constexpr uint8_t recipient_mask = 0x1F;
constexpr uint8_t to_device = 0;
constexpr uint8_t to_endpoint = 2;

constexpr uint16_t endpoint_halt = 0;

// bDescriptorType
constexpr uint8_t device_type = 1;
constexpr uint8_t configuration_type = 2;
constexpr uint8_t string_type = 3;
constexpr uint8_t interface_type = 4;
constexpr uint8_t endpoint_type = 5;
constexpr uint8_t qualifier_type = 6;

constexpr uint8_t vendor_class = 0xFF;
constexpr uint8_t bulk = 2;
constexpr uint8_t control_packet_size = 64;
constexpr uint8_t bus_powered = 0x80;
constexpr uint8_t half_an_ampere = 250; // units of 2 mA

constexpr std::array<std::string_view, 3> strings = {"kestrel", "simulated modem", "0123456789"};

uint8_t low(uint16_t value)
{
    return static_cast<uint8_t>(value);
}

uint8_t high(uint16_t value)
{
    return static_cast<uint8_t>(value >> 8);
}

uint16_t word(const usb_setup &setup, size_t at)
{
    return static_cast<uint16_t>(setup[at] | setup[at + 1] << 8);
}

const control_answer done{};
const control_answer stall{-EPIPE, {}};

void append_endpoint(octets &out, uint8_t address)
{
    const octets bytes = {7, endpoint_type, address, bulk, low(bulk_packet_size), high(bulk_packet_size), 0};
    out.insert(out.end(), bytes.begin(), bytes.end());
}

} // namespace

octets usb_function::device_descriptor() const
{
    return {18,
            device_type,
            0x00,
            0x02, // USB 2.0
            0,
            0,
            0,
            control_packet_size,
            low(id_.vid),
            high(id_.vid),
            low(id_.pid),
            high(id_.pid),
            0x00,
            0x01, // release
            1,
            2,
            3, // strings
            1};
}

octets usb_function::qualifier_descriptor() const
{
    return {10, qualifier_type, 0x00, 0x02, 0, 0, 0, control_packet_size, 1, 0};
}

octets usb_function::configuration_descriptor() const
{
    const auto size = static_cast<uint16_t>(9 + interfaces_ * (9 + 7 + 7));
    octets out = {9, configuration_type, low(size),     high(size), interfaces_, 1,
                  0, bus_powered,        half_an_ampere};
    for (uint8_t i = 0; i < interfaces_; i++) {
        const octets interface = {9, interface_type, i, 0, 2, vendor_class, vendor_class, vendor_class, 0};
        out.insert(out.end(), interface.begin(), interface.end());
        append_endpoint(out, static_cast<uint8_t>(direction_in | (i + 1)));
        append_endpoint(out, static_cast<uint8_t>(i + 1));
    }
    return out;
}

octets usb_function::string_descriptor(uint8_t index)
{
    if (index == 0)
        return {4, string_type, 0x09, 0x04}; // English
    if (index > strings.size())
        return {};
    const std::string_view text = strings[index - 1U];
    octets out = {static_cast<uint8_t>(2 + 2 * text.size()), string_type};
    for (const char character : text) {
        out.push_back(static_cast<uint8_t>(character));
        out.push_back(0);
    }
    return out;
}

octets usb_function::descriptor(uint8_t type, uint8_t index) const
{
    if (type == string_type)
        return string_descriptor(index);
    if (index != 0)
        return {};
    if (type == device_type)
        return device_descriptor();
    if (type == configuration_type)
        return configuration_descriptor();
    return type == qualifier_type ? qualifier_descriptor() : octets();
}

bool usb_function::has_endpoint(uint16_t address) const
{
    const unsigned number = address & 0x0FU;
    return (address & ~0x8FU) == 0 && number >= 1 && number <= interfaces_;
}

control_answer usb_function::change_halt(uint16_t address, bool set)
{
    if (!has_endpoint(address))
        return stall;
    halted_[slot(low(address))] = set;
    return done;
}

control_answer usb_function::answer_standard(const usb_setup &setup)
{
    const uint8_t recipient = setup[0] & recipient_mask;
    const uint16_t value = word(setup, 2);
    const uint16_t index = word(setup, 4);
    switch (setup[1]) {
    case get_status:
        return {0, {static_cast<uint8_t>(recipient == to_endpoint && halted(low(index)) ? 1 : 0), 0}};
    case clear_feature:
    case set_feature:
        return recipient == to_endpoint && value == endpoint_halt
                   ? change_halt(index, setup[1] == set_feature)
                   : stall;
    case get_descriptor: {
        octets bytes = recipient == to_device ? descriptor(high(value), low(value)) : octets();
        return bytes.empty() ? stall : control_answer{0, std::move(bytes)};
    }
    case get_configuration:
        return {0, {configuration_}};
    case set_configuration:
        if (value > 1)
            return stall;
        configuration_ = low(value);
        halted_.fill(false);
        return done;
    case get_interface:
        return index < interfaces_ ? control_answer{0, {0}} : stall;
    case set_interface:
        return index < interfaces_ && value == 0 ? done : stall;
    default:
        return stall;
    }
}

control_answer usb_function::answer_class(const usb_setup &setup) const
{
    const bool known = setup[0] == class_to_interface && setup[1] == set_control_line_state;
    return known && word(setup, 4) < interfaces_ ? done : stall;
}

control_answer usb_function::answer(const usb_setup &setup)
{
    const bool standard = (setup[0] & type_mask) == type_standard;
    control_answer out = standard ? answer_standard(setup) : answer_class(setup);
    const size_t wanted = (setup[0] & direction_in) != 0 ? word(setup, 6) : 0;
    out.bytes.resize(std::min(out.bytes.size(), wanted));
    return out;
}

} // namespace sim
