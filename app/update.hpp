// The update driver: finds the modem, checks the package against it, brings it into download mode and has the
// images written. Every stage is one call into another module; the order, the branching between the three
// entries, the waits and the retries are here.
//
// In: `options` and the modem array. Out: the result of the run. A modem that never comes back is waited for
// as long as the waits of timeouts.hpp say; SIGINT ends them.
#pragma once

#include "modem.hpp"

#include <csignal>

// 1 until SIGINT; the waits check it and end the run with CORE_ECANCELED.
extern volatile std::sig_atomic_t keep_running;
// The handler for SIGINT: sets the flag of the platform library and clears keep_running, nothing else.
void interrupt_handler(int signo);

// The three entries. Results: 0, or the first failure of a stage; CORE_EINVAL for several modems,
// CORE_ECANCELED after SIGINT, CORE_ENOTSUPPORTED where the platform finds no devices.
int update_with_scan(modem *modems, uint8_t max_modems, bool json);
int update_after_listening(modem *modems, uint8_t max_modems, bool json);
int update_with_port(modem *modems, uint8_t max_modems, bool skip_enter_qdl, const char *port);

// The common tail: package, its check, compatibility, dry-run stop, hand-off. 0 also for a modem in download
// mode that is not forced.
int start_update_procedure(modem *modems, uint8_t max_modems, bool already_in_qdl);

// Scans the bus, again and again while the enumeration is incomplete (at most 16 times, 500 ms apart).
// Results of scan_usb_bus; CORE_ECANCELED, without a word, after SIGINT.
int start_usb_bus_scan(const core_usb_id_list *table, modem *modems, uint8_t max_modems);
// Fills the first record from a port named on the command line.
void prepare_port_modem(modem *m, bool skip_enter_qdl, const char *port);

// Counting and printing the records in use.
uint8_t count_modems(const modem *modems, uint8_t max_modems);
void print_modem(const modem *m);
void print_modems(const modem *modems, uint8_t max_modems);
// As JSON in JSON mode, else as debug lines.
void show_modems(const modem *modems, uint8_t max_modems);
