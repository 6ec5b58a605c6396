#include "zepho-getopts.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

static constexpr char log_source[] = "zepho-getopts.c";

bool is_flag(const char *string)
{
    CORE_ASSERT(string != NULL);
    return string[0] == '-';
}

bool is_valid_flag_syntax(const char *string)
{
    const size_t length = strlen(string);
    if (length == 2)
        return string[0] == '-' && string[1] != '-';
    return length >= 3 && string[0] == '-' && string[1] == '-';
}

static int get_unsigned_value(const option_descriptor *flag, const char *text)
{
    static constexpr char function[] = "get_value";
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (*end != '\0') {
        log_as(function, CORE_LOG_ERR, "Invalid string\n");
        return CORE_EINVAL;
    }
    // A number above 32 bits fails as it does where a long has no more, and so does a negative one, which
    // strtoul wraps around.
    if (errno == 0 && (value > UINT32_MAX || strchr(text, '-') != nullptr))
        errno = ERANGE;
    if (errno != 0) {
        const int err = errno;
        log_as(function, CORE_LOG_ERR, "could not convert %s: error %d %s\n", text, err, strerror(err));
        return CORE_EINVAL;
    }
    *static_cast<uint32_t *>(flag->destination) = static_cast<uint32_t>(value);
    return CORE_OK;
}

int get_value(const option_descriptor *flag, const char *text)
{
    if (text == nullptr)
        return CORE_EINVAL;
    switch (flag->type) {
    case OPTION_UNSIGNED:
        if (const int err = get_unsigned_value(flag, text); err != CORE_OK)
            return err;
        break;
    case OPTION_TEXT:
        strlcpy(static_cast<char *>(flag->destination), text, OPTION_TEXT_SIZE);
        break;
    case OPTION_BOOLEAN:
        *static_cast<bool *>(flag->destination) = strcmp(text, "true") == 0;
        break;
    default:
        log_err("unknown type value %u\n", flag->type);
        return CORE_EINVAL;
    }
    if (flag->present != nullptr)
        *flag->present = true;
    return CORE_OK;
}

static bool matches(const option_descriptor *flag, const char *argument)
{
    return strcmp(argument, flag->long_name) == 0 ||
           (flag->short_name != nullptr && strcmp(argument, flag->short_name) == 0);
}

// Stores the value of the flag at argv[*index] and moves the index to the last argument that it took.
static int take_flag(int argc, char **argv, const option_descriptor *flag, int *index, bool *consumed)
{
    static constexpr char function[] = "get_opts";
    consumed[*index] = true;
    const char *text = "true";
    if (flag->type != OPTION_BOOLEAN) {
        const int next = *index + 1;
        if (next >= argc || argv[next] == nullptr || is_flag(argv[next])) {
            log_as(function, CORE_LOG_ERR, "flag %s requires a value\n", flag->long_name);
            return CORE_EINVAL;
        }
        text = argv[next];
        consumed[next] = true;
        *index = next;
    }
    const int err = get_value(flag, text);
    if (err != CORE_OK)
        log_as(function, CORE_LOG_ERR, "and error occurred parsing %s\n", flag->long_name);
    return err;
}

// Matches one row of the table against every argument.
static int match_row(int argc, char **argv, const option_descriptor *flag, bool *consumed)
{
    static constexpr char function[] = "get_opts";
    bool found = false;
    for (int i = 1; i < argc; ++i) {
        const char *const argument = argv[i];
        if (argument == nullptr || !is_flag(argument)) {
            consumed[i] = true;
            continue;
        }
        if (!is_valid_flag_syntax(argument)) {
            log_as(function, CORE_LOG_ERR, "flag '%s' is invalid\n", argument);
            return CORE_EINVAL;
        }
        if (strcmp(argument, "-h") == 0 || strcmp(argument, "--help") == 0)
            return CORE_EAGAIN;
        if (!matches(flag, argument))
            continue;
        if (const int err = take_flag(argc, argv, flag, &i, consumed); err != CORE_OK)
            return err;
        found = true;
    }
    if (flag->required && !found) {
        log_as(function, CORE_LOG_ERR, "flag '%s' is required\n", flag->long_name);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

int get_opts(int argc, char **argv, const option_descriptor *flags)
{
    CORE_ASSERT(flags);
    CORE_ASSERT(MAX_CLI_ARGS >= argc);
    bool consumed[MAX_CLI_ARGS] = {};
    for (const option_descriptor *flag = flags; flag->long_name != nullptr; ++flag) {
        if (const int err = match_row(argc, argv, flag, consumed); err != CORE_OK)
            return err;
    }
    for (int i = 1; i < argc; ++i) {
        if (!consumed[i]) {
            log_err("unknown argument '%s'\n", argv[i]);
            return CORE_EINVAL;
        }
    }
    return CORE_OK;
}

static void compose_help_line(const option_descriptor *flag, char *line)
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
