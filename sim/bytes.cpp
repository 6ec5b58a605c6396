#include "bytes.hpp"

namespace sim {
namespace {

void append_le(octets &out, uint64_t value, unsigned size)
{
    for (unsigned i = 0; i < size; i++)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

} // namespace

void append_le32(octets &out, uint32_t value)
{
    append_le(out, value, 4);
}

void append_le64(octets &out, uint64_t value)
{
    append_le(out, value, 8);
}

uint32_t read_le32(view bytes, size_t at)
{
    uint32_t value = 0;
    for (unsigned i = 0; i < 4; i++)
        value |= static_cast<uint32_t>(bytes[at + i]) << (8 * i);
    return value;
}

octets to_octets(std::string_view text)
{
    return octets(text.begin(), text.end());
}

std::string_view as_text(view bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

} // namespace sim
