// Which parts of its image the boot loader asks for, and in which order.
#pragma once

#include "settings.hpp"

#include <cstdint>
#include <vector>

namespace sim {

struct read_request {
    uint64_t offset;
    uint64_t length;
};

// The most blocks a plan may have.
inline constexpr uint64_t most_reads = 1U << 22;

// `size` bytes in blocks of `block` (not 0), the last one shorter. The order shuffle is the same in every
// run.
std::vector<read_request> plan_reads(uint64_t size, uint64_t block, read_order order);

} // namespace sim
