#include "fuzz.hpp"

#include "log-output.hpp"
#include "zepho-log.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static bool keep_lines;
static std::vector<std::string> lines;

void fuzz_failed(const char *condition, const char *file, int line)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    abort();
}

uint8_t fuzz_input::take_byte()
{
    if (rest_.empty())
        return 0;
    const auto byte = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
}

uint32_t fuzz_input::take_u32()
{
    uint32_t value = 0;
    for (unsigned shift = 0; shift < 32; shift += 8)
        value |= static_cast<uint32_t>(take_byte()) << shift;
    return value;
}

uint64_t fuzz_input::take_u64()
{
    const uint64_t low = take_u32();
    return low | static_cast<uint64_t>(take_u32()) << 32;
}

std::string fuzz_input::take_until(char separator)
{
    const size_t end = rest_.find(separator);
    const std::string taken(rest_.substr(0, end));
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return taken;
}

std::vector<char> exact_text(const std::string &text)
{
    const char *const begin = text.c_str();
    return {begin, begin + strlen(begin) + 1};
}

static int print_nothing(int, const char *format, ...)
{
    static char text[32768];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (keep_lines)
        lines.emplace_back(text);
    return length;
}

void quiet_log()
{
    lines.clear();
    print_function = print_nothing;
    core_log_set_level(CORE_LOG_DBG);
    core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
}

void keep_printed_lines(bool keep)
{
    keep_lines = keep;
}

const std::vector<std::string> &printed_lines()
{
    return lines;
}

bool is_terminated(const char *text, size_t size)
{
    return memchr(text, 0, size) != nullptr;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

bool starts_with(const std::string &text, const std::string &part)
{
    return text.compare(0, part.size(), part) == 0;
}
