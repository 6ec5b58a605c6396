#include "log_capture.hpp"

#include <cstdarg>
#include <cstdio>

static std::vector<logged_message> recorded_messages;
static std::vector<printed_line> recorded_lines;

static int record_message(int level, const char *file, const char *function, int line, char *message)
{
    recorded_messages.push_back(
        {level, file != nullptr ? file : "", function != nullptr ? function : "", line, message});
    return 0;
}

static int record_line(int level, const char *format, ...)
{
    char text[32768];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    recorded_lines.push_back({level, text});
    return length;
}

log_capture::log_capture(int level) : saved_level(log_level), saved_pprint(pretty_print_function)
{
    recorded_messages.clear();
    log_level = level;
    pretty_print_function = record_message;
}

log_capture::~log_capture()
{
    log_level = saved_level;
    pretty_print_function = saved_pprint;
}

const std::vector<logged_message> &log_capture::messages() const
{
    return recorded_messages;
}

void log_capture::clear()
{
    recorded_messages.clear();
}

std::vector<std::string> log_capture::texts(int level) const
{
    std::vector<std::string> found;
    for (const auto &message : recorded_messages) {
        if (message.level == level)
            found.push_back(message.text);
    }
    return found;
}

bool log_capture::has(int level, const std::string &text) const
{
    return count(level, text) > 0;
}

int log_capture::count(int level, const std::string &text) const
{
    int found = 0;
    for (const auto &message : recorded_messages)
        found += message.level == level && message.text == text ? 1 : 0;
    return found;
}

print_capture::print_capture() : saved(print_function)
{
    recorded_lines.clear();
    print_function = record_line;
}

print_capture::~print_capture()
{
    print_function = saved;
}

const std::vector<printed_line> &print_capture::lines() const
{
    return recorded_lines;
}

void print_capture::clear()
{
    recorded_lines.clear();
}
