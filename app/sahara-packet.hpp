// The packets of the Sahara protocol. Every field is an unsigned little-endian number of 4 bytes, of 8 in
// READ_DATA_64BIT behind its header; every packet begins with its command and with its own length in bytes.
//
//   packet               command  length  fields behind the header, each at its offset           sent by
//   HELLO                      1      48  8 version, 12 compatible version, 16 longest packet,   modem
//                                         20 mode, 24..47 six reserved words
//   HELLO_RESPONSE             2      48  8 version, 12 compatible version, 16 status, 20 mode,  tool
//                                         24..47 six reserved words
//   READ_DATA                  3      20  8 image id, 12 offset, 16 length                       modem
//   END_IMAGE_TX               4      16  8 image id, 12 status                                  modem
//   DONE                       5       8                                                         tool
//   DONE_RESPONSE              6      12  8 image transfer status                                modem
//   RESET                      7       8                                                         tool
//   READ_DATA_64BIT           18      32  8 image id, 16 offset, 24 length, 8 bytes each         modem
//   RESET_STATE_MACHINE       19       8                                                         tool
//   ENTER_DOWNLOAD_MODE      240       8  the maker's own                                        tool
//   DOWNLOAD_MODE_ACK        241     any  the maker's own, no field is read                      modem
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace sahara {

enum command_id : uint32_t {
    HELLO = 1,
    HELLO_RESPONSE = 2,
    READ_DATA = 3,
    END_IMAGE_TX = 4,
    DONE = 5,
    DONE_RESPONSE = 6,
    RESET = 7,
    READ_DATA_64BIT = 18,
    RESET_STATE_MACHINE = 19,
    ENTER_DOWNLOAD_MODE = 240,
    DOWNLOAD_MODE_ACK = 241,
};

// Lengths of whole packets, in bytes.
constexpr size_t HEADER_SIZE = 8;
constexpr size_t HELLO_SIZE = 48; // the longest, its response as well
constexpr size_t READ_DATA_SIZE = 20;
constexpr size_t END_IMAGE_SIZE = 16;
constexpr size_t READ_DATA_64BIT_SIZE = 32;
constexpr size_t DONE_RESPONSE_SIZE = 12;

// A number in a packet: where it lies and how wide it is (4 or 8), in bytes.
struct field {
    size_t offset;
    size_t size;
};
constexpr field COMMAND{0, 4};
constexpr field LENGTH{4, 4};
constexpr field HELLO_VERSION{8, 4};             // of HELLO and its response
constexpr field HELLO_COMPATIBLE_VERSION{12, 4}; // of HELLO and its response
constexpr field HELLO_MODE{20, 4};
constexpr field READ_OFFSET{12, 4};
constexpr field READ_LENGTH{16, 4};
constexpr field READ_OFFSET_64BIT{16, 8};
constexpr field READ_LENGTH_64BIT{24, 8};
constexpr field END_IMAGE_STATUS{12, 4};
constexpr field DONE_STATUS{8, 4};

// One packet, zero at first: what is not written, or was not received, is 0.
struct packet {
    std::array<uint8_t, HELLO_SIZE> bytes{};

    uint64_t get(field f) const;
    uint32_t get_u32(field f) const { return static_cast<uint32_t>(get(f)); }
    void put(field f, uint32_t value); // a field of 4 bytes
    uint32_t command() const { return get_u32(COMMAND); }
    bool is_read_request() const { return command() == READ_DATA || command() == READ_DATA_64BIT; }
};

// A packet of `length` bytes with its header filled in.
[[nodiscard]] packet make_packet(command_id command, size_t length);

} // namespace sahara
