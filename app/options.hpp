// The program's command line: the option table, the rules behind it and the help text.
//
// In: the arguments. Out: the process-wide `options`. Runs once, before any device is touched.
#pragma once

#include "zepho-getopts.hpp"

// Zero at start; check_args fills it.
struct program_options {
    char port[OPTION_TEXT_SIZE];
    char meta[OPTION_TEXT_SIZE];
    char flat[OPTION_TEXT_SIZE];
    bool debug;
    bool enter_qdl;
    bool otp;
    bool skip_enter_qdl;
    bool force;
    bool dry_run;
    bool json;
    bool pcie;
    const char *firmware_directory; // the argument itself, null when none was given
};
extern program_options options;

// The option table, ended by a row without a name.
extern const option_descriptor option_table[];

// Parses and checks the arguments; switches JSON output and the debug threshold on. 0 when the update may
// start; the parser's result (-11 after "--help", -22); or 1.
[[nodiscard]] int check_args(int argc, char **argv);
// Logs usage, options and supported devices.
void print_help(const option_descriptor *flags);
