// One JSON object on one line (RFC 8259), built member by member. Bytes outside printable ASCII are written
// as \u00XX, so that any received text gives valid JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sim {

class json_members {
  public:
    json_members &text(std::string_view name, std::string_view value);
    json_members &number(std::string_view name, uint64_t value);
    json_members &fraction(std::string_view name, double seconds); // six digits after the point
    json_members &hex32(std::string_view name, uint32_t value);    // as a text of eight hex digits
    json_members &append(const json_members &more);

    // The members without the braces: "\"a\":1,\"b\":\"x\"".
    const std::string &str() const { return members_; }
    std::string object() const { return "{" + members_ + "}"; }

  private:
    void name(std::string_view text);
    std::string members_;
};

} // namespace sim
