// What every fuzz target shares: the entry point that libFuzzer and the replay program call, checks that end
// the program, an input that is taken apart piece by piece, and a log that formats everything and prints
// nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// One execution. Each target defines it; the result is always 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// A property of the code under test: prints the condition and aborts when it does not hold.
#define fuzz_check(condition) ((condition) ? void() : fuzz_failed(#condition, __FILE__, __LINE__))
[[noreturn]] void fuzz_failed(const char *condition, const char *file, int line);

// The input, taken from its front. What is not there reads as 0 or as empty.
class fuzz_input {
  public:
    fuzz_input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

    uint8_t take_byte();
    // Little-endian.
    uint32_t take_u32();
    uint64_t take_u64();
    // Up to the next separator, which goes too, or to the end.
    std::string take_until(char separator);
    std::string rest() const { return std::string(rest_); }
    bool empty() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

// The text with its terminator in memory of just that size, so that a read beyond it is seen. As C does, a
// text ends at its first zero.
std::vector<char> exact_text(const std::string &text);

// Makes the log format every message, as debug text output does, and throw it away.
void quiet_log();
// The lines that were printed since the last quiet_log(), when they are to be looked at.
void keep_printed_lines(bool keep);
const std::vector<std::string> &printed_lines();

// True when the `size` bytes at `text` hold a terminator.
bool is_terminated(const char *text, size_t size);
bool contains(const std::string &text, const std::string &part);
bool starts_with(const std::string &text, const std::string &part);
