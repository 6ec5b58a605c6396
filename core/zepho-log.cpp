#include "zepho-log.hpp"

#include "core-base.hpp"
#include "core-owners.hpp"
#include "log-sink.hpp"
#include "log-text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char log_source[] = "zepho-log.c";
constexpr char in_stdout_print[] = "stdout_print";

FILE *output_stream = nullptr; // the log file, null when none is open

struct standard_stream {
    log_sink sink;
    unsigned long dropped; // lines, since it was told last
};

log_patience patience;
log_line lines[2];
extern standard_stream standard_streams[2];
constinit standard_stream standard_streams[] = {
    {{STDOUT_FILENO, lines[0], patience, standard_streams[1].sink}, 0},
    {{STDERR_FILENO, lines[1], patience, standard_streams[0].sink}, 0},
};
log_sink *open_sink = nullptr; // a line of it is being composed

int add_to_line(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = open_sink->add(format, arguments);
    va_end(arguments);
    return result;
}

// In the form of the log, so that whoever reads it finds the line that it can read.
void add_dropped(standard_stream &stream)
{
    open_sink = &stream.sink;
    const core_log_print_fn in_force = std::exchange(print_function, add_to_line);
    log_as(in_stdout_print, CORE_LOG_WRN, "lines dropped here, as the output took none: %lu\n",
           stream.dropped);
    print_function = in_force;
}

// Which ends of the message under way are carriage returns of its format: those of the banner and of
// progress. All other control characters are somebody else's.
struct own_returns {
    bool first;
    bool last;
};
own_returns own = {};

// A message as the text printers show it.
struct shown_message {
    explicit shown_message(const char *message)
    {
        std::string_view foreign(message, strnlen(message, CORE_LOG_MESSAGE_SIZE));
        char *end = text;
        if (own.first && foreign.starts_with('\r')) {
            foreign.remove_prefix(1);
            *end++ = '\r';
        }
        const bool returns = own.last && foreign.ends_with('\r');
        if (returns)
            foreign.remove_suffix(1);
        end += log_text_escape(foreign, end);
        if (returns)
            *end++ = '\r';
        *end = '\0';
        ends_line = returns || foreign.ends_with('\n');
    }

    char text[CORE_LOG_MESSAGE_SIZE * LOG_TEXT_GROWTH + 1];
    bool ends_line;
};

// The prefix of a text line, empty at the default threshold and for anonymous messages.
void build_prefix(char (&prefix)[CORE_LOG_PREFIX_SIZE + 1], int level, const char *file, const char *function,
                  int line)
{
    prefix[0] = '\0';
    if (log_level == CORE_LOG_INF || file == nullptr || function == nullptr || line == 0)
        return;
    timespec now{};
    if (core_get_time(&now) != 0) {
        print_function(CORE_LOG_ERR, "%s", "could not get time for logs\n");
        now = {};
    }
    snprintf(prefix, sizeof prefix, "%lld.%.9ld %s %-s:%03d:%s() ", static_cast<long long>(now.tv_sec),
             static_cast<long>(now.tv_nsec), core_log_level_name(level), file, line, function);
}

} // namespace

int log_level = CORE_LOG_INF;
bool core_messages_enabled = true;
bool is_log_native_enabled = false;
core_log_print_fn print_function = stdout_print;
core_log_pprint_fn pretty_print_function = plain_print;

const char *core_log_level_name(int level)
{
    static constexpr const char *names[] = {"EMR", "ALR", "CRT", "ERR", "WRN", "NOT", "INF", "DBG", "VRB"};
    return level >= CORE_LOG_EMR && level <= CORE_LOG_VRB ? names[level] : "???";
}

int newline_print(int level, const char *file, const char *function, int line, char *message)
{
    char prefix[CORE_LOG_PREFIX_SIZE + 1] = {};
    build_prefix(prefix, level, file, function, line);
    const shown_message shown(message);
    return print_function(level, "%s%s%s", prefix, shown.text, shown.ends_line ? "" : "\n");
}

int plain_print(int level, const char *file, const char *function, int line, char *message)
{
    char prefix[CORE_LOG_PREFIX_SIZE + 1] = {};
    build_prefix(prefix, level, file, function, line);
    return print_function(level, "%s%s", prefix, shown_message(message).text);
}

int core_log(int level, const char *file, const char *function, int line, const char *format, ...)
{
    if (!core_messages_enabled && file != nullptr && strstr(file, "core-") != nullptr)
        return 0;
    if (level > log_level)
        return 0;
    char message[CORE_LOG_MESSAGE_SIZE + 1] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    const bool is_whole = length >= 0 && static_cast<size_t>(length) < sizeof message;
    const std::string_view shape = format;
    const own_returns outer =
        std::exchange(own, {shape.starts_with('\r'), is_whole && shape.ends_with('\r')});
    const int result = pretty_print_function(level, file, function, line, message);
    own = outer;
    return result;
}

void core_log_set_level(int level)
{
    log_level = level;
}

int core_log_set_print(core_log_print_fn function)
{
    if (function == file_print && output_stream == nullptr) {
        log_err("No output file path set");
        return -1;
    }
    print_function = function;
    return 0;
}

void core_log_close_output()
{
    if (output_stream == nullptr)
        return;
    fflush(output_stream);
    fclose(output_stream);
    output_stream = nullptr;
    print_function = stdout_print;
}

// A program may log one more line after this, so the closed file is forgotten, not left to be written to.
void core_log_deinit()
{
    core_log_close_output();
}

int stdout_print(int level, const char *format, ...)
{
    standard_stream &stream = standard_streams[level <= CORE_LOG_ERR ? 1 : 0];
    int result = -1;
    if (stream.sink.begin()) {
        if (stream.dropped > 0)
            add_dropped(stream);
        va_list arguments;
        va_start(arguments, format);
        result = stream.sink.add(format, arguments);
        va_end(arguments);
    }
    const bool taken = result >= 0 && stream.sink.end();
    stream.dropped = taken ? 0 : stream.dropped + 1;
    return taken ? result : -1;
}

int file_print(int, const char *format, ...)
{
    CORE_ASSERT(output_stream != NULL);
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(output_stream, format, arguments);
    va_end(arguments);
    return result;
}

int syslog_print(int level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(level, format, arguments);
    va_end(arguments);
    return 0;
}

void core_print_buffer_to_level(const void *buffer, uint32_t length, uint32_t bytes_per_line, int level)
{
    if (level > log_level)
        return;
    if (buffer == nullptr) {
        core_log(CORE_LOG_ERR, nullptr, nullptr, 0, "Passed buffer pointer is null\n");
        return;
    }
    core_log(level, nullptr, nullptr, 0, "Printing buffer %p of %u bytes\n", buffer, length);
    const size_t row = bytes_per_line != 0 ? bytes_per_line : 1;
    const owned_text text(static_cast<char *>(calloc(row, 4)));
    if (text == nullptr) {
        core_log(CORE_LOG_ERR, nullptr, nullptr, 0, "String allocation error\n");
        return;
    }
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    for (size_t start = 0; start < length; start += row) {
        const size_t count = std::min(length - start, row);
        for (size_t i = 0; i < count; ++i)
            snprintf(text.get() + 3 * i, 4, "%02X ", bytes[start + i]);
        core_log(level, nullptr, nullptr, 0, "[%04u] %s\n", static_cast<unsigned>(start), text.get());
    }
}

void core_print_ombra_version()
{
    log_inf("\rOmbra version %s.%s.%s-%s\n", "2", "0", "2", "0");
}

void log_strip_newline(char *text)
{
    const size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n')
        text[length - 1] = '\0';
}

// The library's interface: the updater itself calls none of these.

int core_log_get_level()
{
    return log_level;
}

void core_log_enable_core_messages(bool enabled)
{
    core_messages_enabled = enabled;
}

int core_log_set_output(const char *path, bool append)
{
    errno = 0;
    FILE *const stream = fopen(path, append ? "a" : "w");
    if (stream == nullptr) {
        const int err = errno;
        log_err("could not open file %s for logging: error %d, %s\n", path, err, strerror(err));
        return map_errno_to_core_err(err);
    }
    if (output_stream != nullptr)
        fclose(output_stream);
    output_stream = stream;
    print_function = file_print;
    return 0;
}

void core_print_buffer(const void *buffer, uint32_t length, uint32_t bytes_per_line)
{
    core_print_buffer_to_level(buffer, length, bytes_per_line, CORE_LOG_DBG);
}
