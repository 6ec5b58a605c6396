#include "xml.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdlib>

static constexpr char log_source[] = "../xml.c";

namespace {

constexpr char file_name_open[] = "<file_name>";
constexpr char file_name_close[] = "</file_name>";

bool contains(const char *line, const char *text)
{
    return strstr(line, text) != nullptr;
}

// The first character of the value of `name="`, or null; `function` is who asks.
const char *find_attribute_value(const char *line, const char *name, const char *function)
{
    const char *const found = strstr(line, name);
    if (found == nullptr) {
        log_as(function, CORE_LOG_DBG, "unable to find %s", name);
        return nullptr;
    }
    const char *const equals = found + strlen(name);
    if (*equals != '=') {
        log_as(function, CORE_LOG_ERR, "unable to find '=', instead found %c", *equals);
        return nullptr;
    }
    if (equals[1] != '"') {
        log_as(function, CORE_LOG_ERR, "unable to find '\"', instead found %c", equals[1]);
        return nullptr;
    }
    return equals + 2;
}

bool copy_string_attribute(const char *line, const char *name, char *dest, size_t max_dest_size)
{
    static constexpr char function[] = "get_string_attribute";
    const char *const value = find_attribute_value(line, name, function);
    if (value == nullptr)
        return false;
    const char *const end = strchr(value, '"');
    if (end == nullptr) {
        log_as(function, CORE_LOG_ERR, "unable to find final '\"'");
        return false;
    }
    const auto length = static_cast<size_t>(end - value);
    if (length >= max_dest_size) {
        log_as(function, CORE_LOG_ERR, "attribute size %ld > max_dest_size", static_cast<long>(length));
        return false;
    }
    memcpy(dest, value, length);
    if (length == 0 || dest[0] == '\0')
        return false;
    log_as(function, CORE_LOG_DBG, "%s: %s", name, dest);
    return true;
}

bool convert_uint_attribute(const char *line, const char *name, uint32_t *value)
{
    static constexpr char function[] = "get_uint_attribute";
    const char *const text = find_attribute_value(line, name, function);
    if (text == nullptr)
        return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(text, &end, 10);
    // A minus sign, also one behind blanks, makes strtoul wrap around to a number that nobody wrote.
    const bool is_negative = memchr(text, '-', static_cast<size_t>(end - text)) != nullptr;
    if (errno != 0 || number > UINT32_MAX || is_negative) {
        log_as(function, CORE_LOG_ERR, "unable to perform conversion");
        return false;
    }
    if (*end != '"') {
        log_as(function, CORE_LOG_ERR, "invalid conversion");
        return false;
    }
    *value = static_cast<uint32_t>(number);
    log_as(function, CORE_LOG_DBG, "%s: %u", name, *value);
    return true;
}

} // namespace

line_type get_line_type(const char *line, bool in_comment)
{
    static constexpr struct {
        const char *text;
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
    const bool ends_comment = contains(line, "-->");
    if (contains(line, "<!--"))
        return ends_comment ? LINE_COMMENT : LINE_COMMENT_START;
    if (ends_comment)
        return LINE_COMMENT_END;
    if (!contains(line, "<") || !contains(line, ">"))
        return LINE_OTHER;
    for (const auto &element : elements) {
        if (!in_comment && contains(line, element.text))
            return element.type;
    }
    return contains(line, "<data>") || contains(line, "</data>") ? LINE_OTHER : LINE_COMMAND;
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
    constexpr size_t tags_length = sizeof file_name_open - 1 + sizeof file_name_close - 1;
    const char *const open = strstr(line, file_name_open);
    const char *const close = strstr(line, file_name_close);
    if (strlen(line) <= tags_length || open == nullptr || close == nullptr || open > close) {
        log_err("bogus line:");
        log_err("%s", line);
        return false;
    }
    const char *const begin = open + strlen(file_name_open);
    const auto length = static_cast<size_t>(close - begin);
    const size_t kept = length < dest_size ? length : dest_size - 1;
    memcpy(dest, begin, kept);
    dest[kept] = '\0';
    return true;
}

bool is_valid_xml(const char *line)
{
    if (line == nullptr || contains(line, "<?xml") || contains(line, ">"))
        return true;
    log_err("invalid xml:");
    log_err("%s", line);
    return false;
}
