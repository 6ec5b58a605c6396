#include "zepho-getopts.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

namespace {

constexpr char log_source[] = "zepho-getopts.c";
constexpr char in_get_opts[] = "get_opts";
constexpr char in_get_value[] = "get_value";

// The arguments, the program's name included, and which of them are accounted for.
struct command_line {
    std::span<char *> arguments;
    std::array<bool, MAX_CLI_ARGS> consumed;
};

int get_unsigned_value(const char *text, uint32_t *out)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (*end != '\0') {
        log_as(in_get_value, CORE_LOG_ERR, "Invalid string\n");
        return CORE_EINVAL;
    }
    // A number above 32 bits fails as it does where a long has no more, and so does a negative one, which
    // strtoul wraps around.
    if (errno == 0 && (value > UINT32_MAX || strchr(text, '-') != nullptr))
        errno = ERANGE;
    if (errno != 0) {
        const int err = errno;
        log_as(in_get_value, CORE_LOG_ERR, "could not convert %s: error %d %s\n", text, err, strerror(err));
        return CORE_EINVAL;
    }
    *out = static_cast<uint32_t>(value);
    return CORE_OK;
}

bool is_help(std::string_view argument)
{
    return argument == "-h" || argument == "--help";
}

bool matches(const option_descriptor &flag, std::string_view argument)
{
    return argument == flag.long_name || (flag.short_name != nullptr && argument == flag.short_name);
}

// Stores the value of the flag at `*index` and moves the index to the last argument that it took.
int take_flag(command_line *line, const option_descriptor &flag, size_t *index)
{
    line->consumed[*index] = true;
    const char *text = "true";
    if (flag.type != OPTION_BOOLEAN) {
        ++*index;
        text = *index < line->arguments.size() ? line->arguments[*index] : nullptr;
        if (text == nullptr || is_flag(text)) {
            log_as(in_get_opts, CORE_LOG_ERR, "flag %s requires a value\n", flag.long_name);
            return CORE_EINVAL;
        }
        line->consumed[*index] = true;
    }
    const int err = get_value(&flag, text);
    if (err != CORE_OK)
        log_as(in_get_opts, CORE_LOG_ERR, "and error occurred parsing %s\n", flag.long_name);
    return err;
}

// Matches one row of the table against every argument.
int match_row(command_line *line, const option_descriptor &flag)
{
    bool found = false;
    for (size_t i = 1; i < line->arguments.size(); ++i) {
        const char *const argument = line->arguments[i];
        if (argument == nullptr || !is_flag(argument)) {
            line->consumed[i] = true;
            continue;
        }
        if (!is_valid_flag_syntax(argument)) {
            log_as(in_get_opts, CORE_LOG_ERR, "flag '%s' is invalid\n", argument);
            return CORE_EINVAL;
        }
        if (is_help(argument))
            return CORE_EAGAIN;
        if (!matches(flag, argument))
            continue;
        if (const int err = take_flag(line, flag, &i); err != CORE_OK)
            return err;
        found = true;
    }
    if (flag.required && !found) {
        log_as(in_get_opts, CORE_LOG_ERR, "flag '%s' is required\n", flag.long_name);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

void compose_help_line(const option_descriptor *flag, char *line)
{
    char prefix[8] = "       ";
    if (flag->short_name != nullptr)
        snprintf(prefix, sizeof prefix, " %2s or ", flag->short_name);
    const char *const need = flag->required ? "required" : "optional";
    if (flag->type != OPTION_BOOLEAN)
        snprintf(line, HELP_LINE_SIZE, "%s%-10s <value> : %s - %s", prefix, flag->long_name, flag->help,
                 need);
    else
        snprintf(line, HELP_LINE_SIZE, "%s%-18s : %s - %s", prefix, flag->long_name, flag->help, need);
}

} // namespace

bool is_flag(const char *string)
{
    CORE_ASSERT(string != NULL);
    return string[0] == '-';
}

bool is_valid_flag_syntax(const char *string)
{
    const std::string_view flag = string;
    if (flag.size() == 2)
        return flag[0] == '-' && flag[1] != '-';
    return flag.size() > 2 && flag.starts_with("--");
}

int get_value(const option_descriptor *flag, const char *text)
{
    if (text == nullptr)
        return CORE_EINVAL;
    switch (flag->type) {
    case OPTION_UNSIGNED:
        if (const int err = get_unsigned_value(text, static_cast<uint32_t *>(flag->destination));
            err != CORE_OK)
            return err;
        break;
    case OPTION_TEXT:
        strlcpy(static_cast<char *>(flag->destination), text, OPTION_TEXT_SIZE);
        break;
    case OPTION_BOOLEAN:
        *static_cast<bool *>(flag->destination) = std::string_view(text) == "true";
        break;
    default:
        log_err("unknown type value %u\n", flag->type);
        return CORE_EINVAL;
    }
    if (flag->present != nullptr)
        *flag->present = true;
    return CORE_OK;
}

int get_opts(int argc, char **argv, const option_descriptor *flags)
{
    CORE_ASSERT(flags);
    CORE_ASSERT(MAX_CLI_ARGS >= argc);
    command_line line{{argv, static_cast<size_t>(argc)}, {}};
    for (const option_descriptor *flag = flags; flag->long_name != nullptr; ++flag) {
        if (const int err = match_row(&line, *flag); err != CORE_OK)
            return err;
    }
    for (size_t i = 1; i < line.arguments.size(); ++i) {
        if (!line.consumed[i]) {
            log_err("unknown argument '%s'\n", argv[i]);
            return CORE_EINVAL;
        }
    }
    return CORE_OK;
}

// The library's interface: the updater itself does not call this.

uint8_t compose_help_message(const char *header, const option_descriptor *flags, uint8_t count,
                             help_line *lines, uint8_t max_lines)
{
    uint8_t written = 0;
    if (header != nullptr && written < max_lines)
        snprintf(lines[written++], HELP_LINE_SIZE, "%s", header);
    if (count == 0) {
        log_dbg("no flag to show\n");
        return written;
    }
    if (written < max_lines)
        snprintf(lines[written++], HELP_LINE_SIZE, "%s", "options:");
    for (uint8_t i = 0; i < count && written < max_lines; ++i)
        compose_help_line(&flags[i], lines[written++]);
    return written;
}
