// The way of one run, decided once from the command line and the modem's record. The check of the package
// reads it, because it asks only for what the run will use, and the hand-off walks it.
#pragma once

#include "modem.hpp"
#include "options.hpp"

struct route {
    bool switches; // the modem is in normal mode and is switched into download mode first
    bool stops;    // the run ends in download mode
    bool uploads;  // the programmer is uploaded before the images are written
};

// True for a modem that takes the programmer or the images as it is: one in download mode, or one whose first
// port is the programmer's.
[[nodiscard]] bool is_in_download_mode(const modem *m);
// The way from here. A modem that is switched comes back as another device: ask again with its record.
[[nodiscard]] route plan_route(const program_options &wanted, const modem *m, bool already_in_qdl);
