// Bytes on the wire: the little-endian fields of the boot loader's packets and the change between bytes and
// text. Everything is done field by field, so the result does not depend on the byte order of this machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using octets = std::vector<uint8_t>;
using view = std::span<const uint8_t>;

void append_le32(octets &out, uint32_t value);
void append_le64(octets &out, uint64_t value);

// The caller guarantees that `at` + 4 bytes are there.
uint32_t read_le32(view bytes, size_t at);

octets to_octets(std::string_view text);
std::string_view as_text(view bytes);

} // namespace sim
