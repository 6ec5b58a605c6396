// Decimal numbers in texts that others wrote.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace sim {

// Digits only (no sign, no blank), at most `max`; nothing otherwise.
[[nodiscard]] std::optional<uint64_t> parse_number(std::string_view text, uint64_t max);

} // namespace sim
