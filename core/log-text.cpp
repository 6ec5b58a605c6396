#include "log-text.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

size_t utf8_sequence_length(std::string_view text)
{
    struct row {
        unsigned char first_low, first_high, second_low, second_high;
        uint8_t length;
    };
    static constexpr row rows[] = {
        {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
        {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
        {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
    };
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80)
        return 1;
    const auto *const r = std::ranges::find_if(rows, [first = byte(0)](const row &each) {
        return first >= each.first_low && first <= each.first_high;
    });
    if (r == std::end(rows) || text.size() < r->length || byte(1) < r->second_low || byte(1) > r->second_high)
        return 0;
    for (size_t i = 2; i < r->length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    }
    return r->length;
}

bool is_control_character(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1)
        return first < 0x20 || first == 0x7F;
    return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

size_t log_text_escape(std::string_view text, char *out)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    char *end = out;
    while (!text.empty()) {
        const size_t length = utf8_sequence_length(text);
        const std::string_view character(text.data(), std::max(length, size_t{1}));
        text.remove_prefix(character.size());
        const bool is_shown = length > 0 && !is_control_character(character);
        if (is_shown || character == "\t" || character == "\n") {
            end = std::ranges::copy(character, end).out;
            continue;
        }
        for (const char c : character) {
            const auto byte = static_cast<unsigned char>(c);
            const char escaped[LOG_TEXT_GROWTH] = {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
            end = std::ranges::copy(escaped, end).out;
        }
    }
    return static_cast<size_t>(end - out);
}
