// The Firehose stage: one conversation with the running flash programmer, from the open connection to the
// reset.
//
// In: a modem record (PCIe mark, download port) and the package. Out: 0 once every image is written and
// acknowledged. The connection is opened and closed here; every run that got a connection ends with a power
// reset. Waits: those of firehose.hpp.
#pragma once

#include "image-list.hpp"
#include "modem.hpp"

// The stage: open, ping, configure, then the package's commands (or the OTP read), reset, close. 0 or the
// first failure.
[[nodiscard]] int firehose_update(const modem *m, const image_list *package, bool otp);
