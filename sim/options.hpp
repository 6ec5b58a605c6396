// The command line of kestrel-sim.
#pragma once

#include "serving.hpp"
#include "settings.hpp"
#include "usb-server.hpp"

#include <string>

namespace sim {

struct program_options {
    settings device;
    serve_limits limits;
    usb_settings usb;
    std::string transcript; // path; empty: none
    std::string record;     // path; empty: none
    std::string link;       // path; empty: none
    std::string bus;        // path; empty: none
    bool help = false;
    bool version = false;
};

// Empty: the command line was read into `out`. Otherwise one line, without a line feed, that says what is
// wrong with it.
[[nodiscard]] std::string parse_options(int argc, char **argv, program_options &out);

// The text of --help, made from the option table.
std::string help_text();
std::string version_text(); // "kestrel-sim 1.6.1-0\n"

} // namespace sim
