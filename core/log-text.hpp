// What of a text may reach a terminal. A modem, a package and a device on the bus choose much of what is
// logged; raw, their control characters would move the cursor, hide lines or change the terminal.
#pragma once

#include <cstddef>
#include <string_view>

// Length in bytes of the well-formed UTF-8 sequence that the text, which is not empty, begins with (RFC
// 3629); 0 when there is none.
[[nodiscard]] size_t utf8_sequence_length(std::string_view text);

// Whether one such sequence is a control character: U+0000 to U+001F, U+007F to U+009F.
[[nodiscard]] bool is_control_character(std::string_view character);

// Writes `text` to `out`, without terminator: the bytes of control characters but tab and line feed, and
// bytes that are no UTF-8, as \xNN. Returns how many were written, LOG_TEXT_GROWTH bytes for each one of
// `text` at most.
constexpr size_t LOG_TEXT_GROWTH = 4;
size_t log_text_escape(std::string_view text, char *out);
