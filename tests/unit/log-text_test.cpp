#include "log-text.hpp"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string escaped(const std::string &text)
{
    std::vector<char> room(text.size() * LOG_TEXT_GROWTH);
    return {room.data(), log_text_escape(text, room.data())};
}

TEST(LogText, ShowsEachByteAsItIsOrAsItsNumber)
{
    for (int byte = 0; byte < 256; ++byte) {
        const std::string raw(1, static_cast<char>(byte));
        char number[8];
        snprintf(number, sizeof number, "\\x%02X", static_cast<unsigned>(byte));
        const bool is_shown = byte == 9 || byte == 10 || (byte >= 32 && byte <= 126);
        EXPECT_EQ(escaped("a" + raw + "z"), "a" + (is_shown ? raw : number) + "z");
    }
}

TEST(LogText, ShowsTheSecondControlCharactersOfUtf8AsTheirBytes)
{
    for (int byte = 0x80; byte < 0xC0; ++byte) {
        const std::string raw = "\xC2" + std::string(1, static_cast<char>(byte));
        char number[16];
        snprintf(number, sizeof number, "\\xC2\\x%02X", static_cast<unsigned>(byte));
        EXPECT_EQ(escaped(raw + "z"), (byte < 0xA0 ? number : raw) + "z");
    }
}

struct text_row {
    const char *name;
    std::string text;
    std::string shown;
};

void PrintTo(const text_row &row, std::ostream *out)
{
    *out << row.name;
}

class ShownText : public testing::TestWithParam<text_row> {};

TEST_P(ShownText, IsAsWritten)
{
    EXPECT_EQ(escaped(GetParam().text), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(Table, ShownText,
                         testing::Values(text_row{"empty", "", ""},
                                         text_row{"plain", "abc \\x41 /~\"", "abc \\x41 /~\""},
                                         text_row{"colour", "\x1B[31mred", "\\x1B[31mred"},
                                         text_row{"lines", "one\r\ntwo\n", "one\\x0D\ntwo\n"},
                                         text_row{"nul", std::string("a\0b", 3), "a\\x00b"},
                                         text_row{"two_bytes", "caf\xC3\xA9", "caf\xC3\xA9"},
                                         text_row{"a_byte_of_c1_in_a_letter", "\xC3\x9B[2J", "\xC3\x9B[2J"},
                                         text_row{"three_bytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
                                         text_row{"four_bytes", "\xF0\x9F\x93\xB6", "\xF0\x9F\x93\xB6"},
                                         text_row{"latin_1",
                                                  "l\xE4"
                                                  "bel",
                                                  "l\\xE4"
                                                  "bel"},
                                         text_row{"raw_c1",
                                                  "\x9B"
                                                  "2J",
                                                  "\\x9B"
                                                  "2J"},
                                         text_row{"overlong_escape", "\xC0\x9B", "\\xC0\\x9B"},
                                         text_row{"surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
                                         text_row{"cut", "\xE2\x82", "\\xE2\\x82"},
                                         text_row{"cut_by_another", "\xE2\x82\x1B", "\\xE2\\x82\\x1B"}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(LogText, GrowsByNoMoreThanItSays)
{
    EXPECT_EQ(escaped(std::string(100, '\x1B')).size(), 400U);
    EXPECT_EQ(escaped("\xC2\x9B").size(), 8U);
}

} // namespace
