// Asks a modem for its identity over its AT port: model name, IMEI, installed package versions.
//
// In: a modem record with ports. Out: the record's texts filled. The port is opened and closed here; a failed
// query leaves the fields filled before it. Waits: a mute modem is waited for a long time, on purpose.
#pragma once

#include "modem.hpp"

// Opens the AT port `path`, configures it, turns the echo off and reads the model name. 0, and `*device` is
// open and the caller's to close; or an error, and it is closed.
[[nodiscard]] int at_handshake(const char *path, int *device, modem *m);
// Tries up to 11 times. 0; CORE_EPROTO when the modem refuses; CORE_ECANCELED after SIGINT.
[[nodiscard]] int turn_off_echo(int device);
// The queries, each on an open device. 0; CORE_EPROTO when the modem refuses; or an error of the AT channel.
[[nodiscard]] int get_model(int device, modem *m);
[[nodiscard]] int get_imei(int device, modem *m);
[[nodiscard]] int get_swpkgv(int device, modem *m);
// Handshake and the queries of the modem's probing mode. 0, at once when `skip` is set; CORE_ENODEV without
// an AT port; or the first failure.
[[nodiscard]] int collect_modem_basic_information(modem *m, bool skip);
// The same for every record in use among the first `count`. The result of the last one; CORE_EINVAL when none
// is in use; at once the first failure other than CORE_ENODEV.
[[nodiscard]] int collect_modem_array_basic_information(modem *modems, uint8_t count, bool skip);
