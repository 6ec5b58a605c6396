// Finding the modem: scans of the bus until the enumeration is complete, the record of a port that was named
// on the command line, and what is said of the modems that were found.
//
// In: a list of identifiers, or a port. Out: records in the caller's array. Waits: up to 8 s for a complete
// enumeration; SIGINT ends it.
#pragma once

#include "modem.hpp"

// Scans the bus, again and again while the enumeration is incomplete (at most 16 times, 500 ms apart).
// Results of scan_usb_bus; CORE_ECANCELED, without a word, after SIGINT.
[[nodiscard]] int start_usb_bus_scan(const core_usb_id_list *table, modem *modems, uint8_t max_modems);
// Fills the first record from a port named on the command line.
void prepare_port_modem(modem *m, bool skip_enter_qdl, const char *port);

// Counting and printing the records in use.
[[nodiscard]] uint8_t count_modems(const modem *modems, uint8_t max_modems);
void print_modem(const modem *m);
void print_modems(const modem *modems, uint8_t max_modems);
// As JSON in JSON mode, else as debug lines.
void show_modems(const modem *modems, uint8_t max_modems);
