#include "json-line.hpp"

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace sim {
namespace {

void append_quoted(std::string &out, std::string_view text)
{
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte > 0x7E) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

} // namespace

void json_members::name(std::string_view text)
{
    if (!members_.empty())
        members_ += ',';
    append_quoted(members_, text);
    members_ += ':';
}

json_members &json_members::text(std::string_view name_text, std::string_view value)
{
    name(name_text);
    append_quoted(members_, value);
    return *this;
}

json_members &json_members::number(std::string_view name_text, uint64_t value)
{
    name(name_text);
    members_ += std::to_string(value);
    return *this;
}

json_members &json_members::fraction(std::string_view name_text, double seconds)
{
    // Written in two integers: a locale would change the decimal point of %f.
    const auto micros = static_cast<uint64_t>(std::llround(seconds * 1e6));
    char value[40];
    std::snprintf(value, sizeof value, "%" PRIu64 ".%06" PRIu64, micros / 1000000, micros % 1000000);
    name(name_text);
    members_ += value;
    return *this;
}

json_members &json_members::hex32(std::string_view name_text, uint32_t value)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08" PRIx32, value);
    return text(name_text, digits);
}

json_members &json_members::append(const json_members &more)
{
    if (!members_.empty() && !more.members_.empty())
        members_ += ',';
    members_ += more.members_;
    return *this;
}

} // namespace sim
