// CRC-32 of received data (the polynomial of IEEE 802.3, reflected, as in RFC 1952 section 8), so that the
// transcript can name what an image held.
#pragma once

#include "bytes.hpp"

namespace sim {

class crc32 {
  public:
    void update(view bytes);
    uint32_t value() const { return ~state_; }
    void reset() { state_ = 0xFFFFFFFF; }

  private:
    uint32_t state_ = 0xFFFFFFFF;
};

} // namespace sim
