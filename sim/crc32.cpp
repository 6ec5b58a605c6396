#include "crc32.hpp"

#include <array>

namespace sim {
namespace {

// Eight tables: eight bytes a step, so that the checksum does not slow the data phase of a large image down.
using table = std::array<uint32_t, 256>;

constexpr std::array<table, 8> make_tables()
{
    std::array<table, 8> made{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; bit++)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        made[0][i] = crc;
    }
    for (size_t k = 1; k < made.size(); k++)
        for (size_t i = 0; i < 256; i++)
            made[k][i] = (made[k - 1][i] >> 8) ^ made[0][made[k - 1][i] & 0xFF];
    return made;
}

constexpr auto tables = make_tables();

} // namespace

void crc32::update(view bytes)
{
    uint32_t crc = state_;
    while (bytes.size() >= 8) {
        const uint32_t low = crc ^ read_le32(bytes, 0);
        crc = tables[7][low & 0xFF] ^ tables[6][(low >> 8) & 0xFF] ^ tables[5][(low >> 16) & 0xFF] ^
              tables[4][low >> 24] ^ tables[3][bytes[4]] ^ tables[2][bytes[5]] ^ tables[1][bytes[6]] ^
              tables[0][bytes[7]];
        bytes = bytes.subspan(8);
    }
    for (const uint8_t byte : bytes)
        crc = (crc >> 8) ^ tables[0][(crc ^ byte) & 0xFF];
    state_ = crc;
}

} // namespace sim
