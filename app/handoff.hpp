// The hand-off: brings an accepted modem into download mode, waits for the download device, uploads the
// programmer and has Firehose write the images.
//
// In: the modem array, the route, the package. Out: the result of the run. Waits: up to 30 s for an event or
// 20 looks a second apart for the download device, then 5 s for its port; a Sahara upload that asks to be
// repeated is repeated every 2 s without limit. SIGINT ends each.
#pragma once

#include "modem.hpp"
#include "route.hpp"

#include <cstddef>

// 0; the first failure of a stage; CORE_ENOTSUPPORTED when no download device came; CORE_ECANCELED.
[[nodiscard]] int hand_off(modem *modems, uint8_t max_modems, route way);
// Asked before a modem on a given port is switched: what is in download mode then would be taken for the one
// that comes back. 0, also where the platform cannot tell, or CORE_EINVAL (logged).
[[nodiscard]] int refuse_download_devices();
// Switches a PCIe modem through the kernel's MHI attribute. 0, also for a port name that does not tell which
// (the caller then waits as usual), or -1.
[[nodiscard]] int trigger_edl_mode(const modem *m);
// Writes `length` bytes to a sysfs attribute in one piece. 0 or -1.
[[nodiscard]] int write_sysfs_file(const char *path, const char *text, size_t length);
