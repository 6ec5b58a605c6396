#include "xml.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdlib>

namespace {

constexpr char log_source[] = "../xml.c";
constexpr char in_get_string_attribute[] = "get_string_attribute";
constexpr char in_get_uint_attribute[] = "get_uint_attribute";
constexpr std::string_view file_name_open = "<file_name>";
constexpr std::string_view file_name_close = "</file_name>";

// What stands behind `name="`, up to the end of the line; `function` is who asks.
std::optional<std::string_view> find_attribute_value(const char *line, const char *name, const char *function)
{
    const std::optional<std::string_view> found = text_behind(line, name);
    if (!found) {
        log_as(function, CORE_LOG_DBG, "unable to find %s", name);
        return std::nullopt;
    }
    const char *const equals = found->data(); // in the line, which ends in a zero
    if (*equals != '=') {
        log_as(function, CORE_LOG_ERR, "unable to find '=', instead found %c", *equals);
        return std::nullopt;
    }
    if (equals[1] != '"') {
        log_as(function, CORE_LOG_ERR, "unable to find '\"', instead found %c", equals[1]);
        return std::nullopt;
    }
    return equals + 2;
}

bool copy_string_attribute(const char *line, const char *name, char *dest, size_t max_dest_size)
{
    const std::optional<std::string_view> rest = find_attribute_value(line, name, in_get_string_attribute);
    if (!rest)
        return false;
    const std::string_view value = text_before(*rest, "\"");
    if (value.size() == rest->size()) {
        log_as(in_get_string_attribute, CORE_LOG_ERR, "unable to find final '\"'");
        return false;
    }
    if (value.size() >= max_dest_size) {
        log_as(in_get_string_attribute, CORE_LOG_ERR, "attribute size %ld > max_dest_size",
               static_cast<long>(value.size()));
        return false;
    }
    memcpy(dest, value.data(), value.size());
    if (value.empty() || dest[0] == '\0')
        return false;
    log_as(in_get_string_attribute, CORE_LOG_DBG, "%s: %s", name, dest);
    return true;
}

bool convert_uint_attribute(const char *line, const char *name, uint32_t *value)
{
    const std::optional<std::string_view> rest = find_attribute_value(line, name, in_get_uint_attribute);
    if (!rest)
        return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(rest->data(), &end, 10);
    const std::string_view read(rest->data(), static_cast<size_t>(end - rest->data()));
    // A minus sign, also one behind blanks, makes strtoul wrap around to a number that nobody wrote.
    if (errno != 0 || number > UINT32_MAX || text_contains(read, "-")) {
        log_as(in_get_uint_attribute, CORE_LOG_ERR, "unable to perform conversion");
        return false;
    }
    if (*end != '"') {
        log_as(in_get_uint_attribute, CORE_LOG_ERR, "invalid conversion");
        return false;
    }
    *value = static_cast<uint32_t>(number);
    log_as(in_get_uint_attribute, CORE_LOG_DBG, "%s: %u", name, *value);
    return true;
}

// The text between the two tags of a file name.
std::optional<std::string_view> find_file_name(std::string_view line)
{
    const size_t open = line.find(file_name_open);
    const size_t close = line.find(file_name_close);
    if (line.size() <= file_name_open.size() + file_name_close.size() || open > close ||
        close == std::string_view::npos)
        return std::nullopt;
    const size_t begin = open + file_name_open.size();
    return std::string_view(line.data() + begin, close - begin);
}

} // namespace

line_type get_line_type(const char *line, bool in_comment)
{
    static constexpr struct {
        std::string_view text;
        line_type type;
    } elements[] = {
        {"<partition_file", LINE_PARTITION_FILE},
        {"<device_programmer", LINE_DEVICE_PROGRAMMER},
        {"<file_name", LINE_FILE_NAME},
    };
    if (line == nullptr) {
        log_err("null line");
        return LINE_NULL;
    }
    // Comment marks first: a line of "<!--" or "-->" alone has not both brackets of an element.
    const bool ends_comment = text_contains(line, "-->");
    if (text_contains(line, "<!--"))
        return ends_comment ? LINE_COMMENT : LINE_COMMENT_START;
    if (ends_comment)
        return LINE_COMMENT_END;
    if (!text_contains(line, "<") || !text_contains(line, ">"))
        return LINE_OTHER;
    for (const auto &element : elements) {
        if (!in_comment && text_contains(line, element.text))
            return element.type;
    }
    return text_contains(line, "<data>") || text_contains(line, "</data>") ? LINE_OTHER : LINE_COMMAND;
}

bool get_string_attribute(const char *line, const char *name, char *dest, int max_dest_size)
{
    if (line == nullptr || name == nullptr || dest == nullptr || max_dest_size <= 0) {
        log_err("invalid arguments");
        return false;
    }
    if (copy_string_attribute(line, name, dest, static_cast<size_t>(max_dest_size)))
        return true;
    log_dbg("%s", line);
    return false;
}

bool get_uint_attribute(const char *line, const char *name, uint32_t *value)
{
    if (convert_uint_attribute(line, name, value))
        return true;
    log_dbg("%s", line);
    return false;
}

bool get_value(char *dest, size_t dest_size, const char *line, line_type type)
{
    if (type != LINE_FILE_NAME)
        return false;
    if (dest == nullptr || dest_size == 0 || line == nullptr) {
        log_err("invalid args");
        return false;
    }
    const std::optional<std::string_view> name = find_file_name(line);
    if (!name) {
        log_err("bogus line:");
        log_err("%s", line);
        return false;
    }
    const size_t kept = std::min(name->size(), dest_size - 1);
    memcpy(dest, name->data(), kept);
    dest[kept] = '\0';
    return true;
}

bool is_valid_xml(const char *line)
{
    if (line == nullptr || text_contains(line, "<?xml") || text_contains(line, ">"))
        return true;
    log_err("invalid xml:");
    log_err("%s", line);
    return false;
}
