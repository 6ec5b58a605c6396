// Reading one request of the host: an XML declaration and one element in a <data> frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

struct firehose_request {
    std::string element;   // "program"; empty when the frame holds no element
    std::string_view line; // the element from '<' to '>'
};

// The length of the request at the start of `text`, up to and with "</data>"; nothing while it is not
// complete.
[[nodiscard]] std::optional<size_t> request_length(std::string_view text);

// Nothing when `text` has no declaration or no <data> frame.
[[nodiscard]] std::optional<firehose_request> parse_request(std::string_view text);

// The value of an attribute with exactly this name in double quotes.
[[nodiscard]] std::optional<std::string_view> attribute(std::string_view line, std::string_view name);
[[nodiscard]] std::optional<uint64_t> number_attribute(std::string_view line, std::string_view name,
                                                       uint64_t max);

} // namespace sim
