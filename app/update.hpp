// The update driver: finds the modem, checks the package against it, brings it into download mode and has the
// images written. Every stage is one call into another module; the order, the branching between the three
// entries, the waits and the retries are here.
//
// In: `options` and the modem array. Out: the result of the run. A modem that never comes back is waited for
// as long as the waits of timeouts.hpp say; SIGINT ends them.
#pragma once

#include "modem.hpp"

// The three entries. Results: 0, or the first failure of a stage; CORE_EINVAL for several modems,
// CORE_ECANCELED after SIGINT, CORE_ENOTSUPPORTED where the platform finds no devices.
[[nodiscard]] int update_with_scan(modem *modems, uint8_t max_modems, bool json);
[[nodiscard]] int update_after_listening(modem *modems, uint8_t max_modems, bool json);
[[nodiscard]] int update_with_port(modem *modems, uint8_t max_modems, bool skip_enter_qdl, const char *port);

// The common tail: package, its check, compatibility, dry-run stop, hand-off. 0 also for a modem in download
// mode that is not forced.
[[nodiscard]] int start_update_procedure(modem *modems, uint8_t max_modems, bool already_in_qdl);
