#include "at-answers.hpp"

#include <algorithm>
#include <array>
#include <charconv>

namespace sim {
namespace {

struct at_row {
    std::string_view command;
    std::string_view answer;
};

constexpr std::array<at_row, 7> built_in = {{
    {"AT", "\r\nOK\r\n"},
    {"ATE0", "\r\nOK\r\n"},
    {"ATE1", "\r\nOK\r\n"},
    {"AT#CGMM", "\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n"},
    {"AT+GMM", "\r\nKX910C1-WW\r\n\r\nOK\r\n"},
    {"AT#CGSN", "\r\n#CGSN: 004999010640000\r\n\r\nOK\r\n"},
    {"AT#SWPKGV", "\r\n49.01.102-B002-P0A.000200\r\n49.01.102\r\nP0A.000200\r\nA.00.02\r\n\r\nOK\r\n"},
}};

std::string capitals(std::string_view text)
{
    std::string out(text);
    for (char &c : out)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return out;
}

// One byte after a backslash; `rest` loses what was read.
std::optional<char> unescape(std::string_view &rest)
{
    if (rest.empty())
        return std::nullopt;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (letter == 'r')
        return '\r';
    if (letter == 'n')
        return '\n';
    if (letter == '\\')
        return '\\';
    unsigned value = 0;
    if (letter != 'x' || rest.size() < 2)
        return std::nullopt;
    const auto [stopped, error] = std::from_chars(rest.data(), rest.data() + 2, value, 16);
    if (error != std::errc() || stopped != rest.data() + 2)
        return std::nullopt;
    rest.remove_prefix(2);
    return static_cast<char>(value);
}

} // namespace

std::optional<std::string> find_at_answer(const std::vector<at_answer> &own, std::string_view command)
{
    const std::string wanted = capitals(command);
    const auto fits = [&wanted](const at_answer &it) { return capitals(it.first) == wanted; };
    const auto mine = std::find_if(own.rbegin(), own.rend(), fits);
    if (mine != own.rend())
        return mine->second;
    const auto row = std::ranges::find(built_in, wanted, &at_row::command);
    return row == built_in.end() ? std::nullopt : std::optional<std::string>(row->answer);
}

std::string at_command_word(std::string_view command)
{
    return capitals(command.substr(0, command.find_first_of("=?")));
}

std::optional<at_answer> parse_at_answer(std::string_view text)
{
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0)
        return std::nullopt;
    auto answer = parse_at_text(text.substr(equals + 1));
    return answer ? std::optional(at_answer(text.substr(0, equals), std::move(*answer))) : std::nullopt;
}

std::optional<std::string> parse_at_text(std::string_view text)
{
    std::string out;
    for (std::string_view rest = text; !rest.empty();) {
        // cppcheck-suppress containerOutOfBounds ; passes over the condition of the loop
        const char c = rest.front();
        rest.remove_prefix(1);
        const auto byte = c == '\\' ? unescape(rest) : std::optional<char>(c);
        if (!byte)
            return std::nullopt;
        out += *byte;
    }
    return out;
}

} // namespace sim
