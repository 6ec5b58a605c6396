// The switch of a USB modem into download mode: one DIAG frame on its diagnostic port.
//
// The port is opened and closed here. No answer is read: the modem leaves the bus and comes back as the
// download device, which the caller waits for. Waits: 5 s for a port that takes nothing.
#pragma once

#include "modem.hpp"

// 0; CORE_ENODEV without a diagnostic port; CORE_EGENERIC when it cannot be opened; CORE_EINVAL or CORE_EBUSY
// when it is none, or another program has it; or the write's error.
[[nodiscard]] int switch_QDload_mode(const modem *m);
