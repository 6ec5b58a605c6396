#include "numbers.hpp"

#include <charconv>

namespace sim {

std::optional<uint64_t> parse_number(std::string_view text, uint64_t max)
{
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stopped != end || value > max)
        return std::nullopt;
    return value;
}

} // namespace sim
