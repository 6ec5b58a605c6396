#include "read-plan.hpp"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

void shuffle(std::vector<read_request> &reads)
{
    uint32_t state = 20011; // any fixed start gives the same order every time
    for (size_t i = reads.size(); i > 1; i--) {
        state = state * 1664525U + 1013904223U;
        std::swap(reads[i - 1], reads[(state >> 8) % i]);
    }
}

} // namespace

std::vector<read_request> plan_reads(uint64_t size, uint64_t block, read_order order)
{
    std::vector<read_request> reads;
    const int copies = order == read_order::twice ? 2 : 1;
    for (uint64_t offset = 0; offset < size; offset += block)
        reads.insert(reads.end(), static_cast<size_t>(copies), {offset, std::min(block, size - offset)});
    if (order == read_order::backward)
        std::ranges::reverse(reads);
    if (order == read_order::shuffle)
        shuffle(reads);
    return reads;
}

} // namespace sim
