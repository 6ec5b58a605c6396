#include "firehose-words.hpp"

namespace sim {
namespace {

constexpr std::string_view declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

std::string attribute(std::string_view name, std::string_view value)
{
    std::string out(" ");
    return out.append(name).append("=\"").append(value).append("\"");
}

std::string number(std::string_view name, uint64_t value)
{
    return attribute(name, std::to_string(value));
}

std::string response(bool good, const std::string &attributes = "")
{
    return "<response" + attribute("value", good ? "ACK" : "NAK") + attributes + " />";
}

} // namespace

std::string firehose_words::log(std::string_view value) const
{
    return "<log" + attribute("value", value) + (plain_ ? "/>" : " />");
}

std::string firehose_words::escaped(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

std::string firehose_words::answer(bool good, raw_mode raw) const
{
    if (plain_ || raw == raw_mode::none)
        return response(good);
    return response(good, attribute("rawmode", raw == raw_mode::begins ? "true" : "false"));
}

std::string firehose_words::configured(bool good, uint64_t payload, uint64_t supported) const
{
    if (plain_)
        return response(good, good ? "" : number("MaxPayloadSizeToTargetInBytesSupported", supported));
    return response(good, number("MinVersionSupported", 1) + attribute("MemoryName", "NAND") +
                              number("MaxPayloadSizeFromTargetInBytes", 4096) +
                              number("MaxPayloadSizeToTargetInBytes", payload) +
                              number("MaxPayloadSizeToTargetInBytesSupported", supported) +
                              number("MaxXMLSizeInBytes", 4096) + number("Version", 1) +
                              attribute("TargetName", "KX910"));
}

std::string firehose_words::unknown_answer()
{
    return "<response value=\"WAIT\" />";
}

std::string firehose_words::message(const std::string &element) const
{
    const std::string_view line_feed = plain_ ? "\n" : "";
    return std::string(declaration)
        .append("<data>")
        .append(line_feed)
        .append(element)
        .append(line_feed)
        .append("</data>");
}

std::vector<std::string> firehose_words::start_lines() const
{
    if (plain_)
        return {};
    return {"INFO: Programmer \"KX910\" 4.2 (NAND & nothing else)",
            "INFO: Binary build date: Jun 12 2023 @ 10:11:12",
            "INFO: Supported functions: program erase nop patch configure power getstorageinfo",
            "INFO: End of supported functions"};
}

} // namespace sim
