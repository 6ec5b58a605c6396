// The JSON description of the modems: one event that says which modems there are, for a supervising program.
//
// The entry tables and the output buffer are process-wide; they point into the modem records while an event
// is composed. Nothing waits.
#pragma once

#include "modem.hpp"

// Switches all output to JSON. False when the output buffer was refused.
[[nodiscard]] bool setup_json_output();
// What the next description reports: a removal, or an arrival.
void json_set_event(bool removed);
// Prints one event that describes every modem with a model name, nothing when there is none.
void json_print_modems(const modem *modems, uint8_t max_modems);
