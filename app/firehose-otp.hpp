// The OTP read of a Firehose session. Waits: 0.5 s for each part of the answer on a serial device.
#pragma once

#include "firehose.hpp"

// Reads the OTP values of the module and logs each as one line.
[[nodiscard]] int get_otp(firehose_device *device);
[[nodiscard]] int print_otp_response(firehose_device *device);
