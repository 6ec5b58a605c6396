// Every wait of the updater, in one place. Milliseconds, but where the name says otherwise.
#pragma once

namespace timeouts {

// Driver
constexpr unsigned scan_retry_pause = 500;
constexpr int scan_calls = 16;
constexpr int download_device_event = 30000;
constexpr int download_device_tries = 20; // one a second
constexpr unsigned download_device_pause = 1000;
constexpr int download_port_tries = 50;
constexpr unsigned download_port_pause = 100;
constexpr unsigned sahara_retry_pause = 2000;

// AT
constexpr unsigned echo_off_pause = 500;

// Sahara
constexpr unsigned sahara_settle = 500;
constexpr unsigned hello_header = 3000;
constexpr unsigned hello_remainder = 5000;
constexpr unsigned read_request = 500;
constexpr unsigned done_response = 5000;
constexpr unsigned download_acknowledged = 1000;
constexpr unsigned flush = 2000;

// Firehose
constexpr unsigned ack = 5000;
constexpr unsigned configure = 500;
constexpr unsigned reset_answer = 500;
constexpr unsigned reset_pause = 500;
constexpr unsigned after_reset = 1000;
constexpr unsigned otp = 500;

// Back-pressure of a port or endpoint
constexpr unsigned write_retry_pause = 1000;
constexpr int write_retries = 5;

} // namespace timeouts
