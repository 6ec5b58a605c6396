#include "firehose-request.hpp"

#include "numbers.hpp"

#include <algorithm>

namespace sim {
namespace {

constexpr std::string_view frame_start = "<data>";
constexpr std::string_view frame_end = "</data>";
constexpr std::string_view blanks = " \t\r\n";

std::string_view element_line(std::string_view frame)
{
    const size_t start = frame.find('<');
    if (start == std::string_view::npos)
        return {};
    const size_t end = frame.find('>', start);
    return end == std::string_view::npos ? std::string_view() : frame.substr(start, end + 1 - start);
}

std::string_view skip_blanks(std::string_view text)
{
    const size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

} // namespace

std::optional<size_t> request_length(std::string_view text)
{
    const size_t end = text.find(frame_end);
    return end == std::string_view::npos ? std::nullopt : std::optional<size_t>(end + frame_end.size());
}

std::optional<firehose_request> parse_request(std::string_view text)
{
    const size_t start = text.find(frame_start);
    const size_t end = text.find(frame_end);
    if (!text.starts_with("<?xml") || start == std::string_view::npos || end == std::string_view::npos ||
        end < start)
        return std::nullopt;
    firehose_request out;
    const size_t inside = start + frame_start.size();
    out.line = element_line(text.substr(inside, end - inside));
    if (out.line.size() > 2)
        out.element = out.line.substr(1, out.line.find_first_of(" \t\r\n/>", 1) - 1);
    return out;
}

std::optional<std::string_view> attribute(std::string_view line, std::string_view name)
{
    std::string_view rest = line.substr(std::min(line.find_first_of(blanks), line.size()));
    while (!(rest = skip_blanks(rest)).empty()) {
        const size_t quote = rest.find("=\"");
        if (quote == std::string_view::npos)
            return std::nullopt;
        const size_t end = rest.find('"', quote + 2);
        if (end == std::string_view::npos)
            return std::nullopt;
        if (rest.substr(0, quote) == name)
            return rest.substr(quote + 2, end - quote - 2);
        rest = rest.substr(end + 1);
    }
    return std::nullopt;
}

std::optional<uint64_t> number_attribute(std::string_view line, std::string_view name, uint64_t max)
{
    const auto value = attribute(line, name);
    return value ? parse_number(*value, max) : std::nullopt;
}

} // namespace sim
