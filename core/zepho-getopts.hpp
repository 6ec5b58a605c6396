// A small table-driven command-line parser: it matches each row of an option table against every argument,
// converts and stores the values, and refuses malformed, unknown and incomplete flags. Arguments that do not
// begin with "-" are positional and left to the caller.
//
// The table, the arguments and every destination belong to the caller. Nothing waits or allocates.
#pragma once

#include <cstddef>
#include <cstdint>

// Most arguments a program may be given, its own name included.
constexpr int MAX_CLI_ARGS = 30;
// Size of the destination of a text option.
constexpr size_t OPTION_TEXT_SIZE = 256;

enum option_type : uint32_t {
    OPTION_BOOLEAN = 0,  // bool: true when the flag is given; takes no value
    OPTION_UNSIGNED = 3, // uint32_t, decimal
    OPTION_TEXT = 4,     // char[OPTION_TEXT_SIZE]; longer values are cut
    OPTION_END = 7,      // for the row that ends a table, whose long name is null
};

struct option_descriptor {
    const char *long_name;  // with its "--"; null ends the table
    const char *short_name; // with its "-"; null or empty when there is none
    uint32_t type;
    void *destination;
    bool required;
    const char *help;
    bool *present; // may be null; set to true when a value was stored
};

// Parses the arguments after argv[0]. 0; CORE_EAGAIN (-11) when "-h" or "--help" was met; CORE_EINVAL for
// every parse error (logged). Values stored before a failure stay stored. More than MAX_CLI_ARGS arguments or
// a null table are assertion failures.
[[nodiscard]] int get_opts(int argc, char **argv, const option_descriptor *flags);
// Converts `text` and stores it in the option's destination. 0 or CORE_EINVAL.
[[nodiscard]] int get_value(const option_descriptor *flag, const char *text);
// True when the first character is "-". A null text is an assertion failure.
[[nodiscard]] bool is_flag(const char *string);
// True for "-x" (x not a dash) and for three or more characters that begin with "--".
[[nodiscard]] bool is_valid_flag_syntax(const char *string);

// The library's interface: the updater itself does not call this.

// Size of one line of a composed help message.
constexpr size_t HELP_LINE_SIZE = 512;
using help_line = char[HELP_LINE_SIZE];

// Fills at most `max_lines` lines with `header` (may be null) and a line for each of the first `count` rows.
// Returns the number of lines written.
[[nodiscard]] uint8_t compose_help_message(const char *header, const option_descriptor *flags, uint8_t count,
                                           help_line *lines, uint8_t max_lines);
