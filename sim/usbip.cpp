#include "usbip.hpp"

#include <algorithm>

namespace sim {
namespace {

constexpr uint32_t cmd_submit = 1;
constexpr uint32_t cmd_unlink = 2;
constexpr uint32_t ret_submit = 3;
constexpr uint32_t ret_unlink = 4;

constexpr uint32_t direction_in = 1;
constexpr uint32_t last_endpoint = 15;
constexpr uint32_t longest_transfer = 64 * 1024 * 1024;
constexpr uint32_t not_isochronous = UINT32_MAX; // some hosts say 0

uint32_t read_be32(view bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++)
        value = value << 8 | bytes[at + i];
    return value;
}

void put_be32(octets &out, size_t at, uint32_t value)
{
    for (size_t i = 0; i < 4; i++)
        out[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

octets reply(uint32_t command, uint32_t seqnum, int32_t status)
{
    octets out(usbip_header_size, 0);
    put_be32(out, 0, command);
    put_be32(out, 4, seqnum);
    put_be32(out, 20, static_cast<uint32_t>(status));
    return out;
}

} // namespace

std::optional<usbip_command> decode_command(view header)
{
    if (header.size() != usbip_header_size)
        return std::nullopt;
    const uint32_t command = read_be32(header, 0);
    usbip_command out;
    out.seqnum = read_be32(header, 4);
    out.unlink = command == cmd_unlink;
    if (out.unlink) {
        out.victim = read_be32(header, 20);
        return out;
    }
    const uint32_t direction = read_be32(header, 12);
    const uint32_t endpoint = read_be32(header, 16);
    const uint32_t packets = read_be32(header, 32);
    out.length = read_be32(header, 24);
    if (command != cmd_submit || direction > direction_in || endpoint > last_endpoint ||
        out.length > longest_transfer || (packets != 0 && packets != not_isochronous))
        return std::nullopt;
    out.in = direction == direction_in;
    out.endpoint = static_cast<uint8_t>(endpoint);
    std::ranges::copy(header.last(out.setup.size()), out.setup.begin());
    return out;
}

octets encode_submit_reply(uint32_t seqnum, int32_t status, uint32_t moved)
{
    octets out = reply(ret_submit, seqnum, status);
    put_be32(out, 24, moved);
    return out;
}

octets encode_unlink_reply(uint32_t seqnum, int32_t status)
{
    return reply(ret_unlink, seqnum, status);
}

} // namespace sim
