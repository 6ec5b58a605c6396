// Every wait of the program, in one place. Milliseconds, but where the name says otherwise.
#pragma once

// A build for tests may make each wait another one; a modem is never updated by such a build.
#ifndef KESTREL_WAIT
#define KESTREL_WAIT(ms) (ms)
#endif

namespace timeouts {

constexpr unsigned ms(unsigned shipped)
{
    return KESTREL_WAIT(shipped);
}

// Driver
constexpr unsigned scan_retry_pause = ms(500);
constexpr int scan_calls = 16;
constexpr int download_device_event = ms(30000);
constexpr int download_device_tries = 20; // one a second
constexpr unsigned download_device_pause = ms(1000);
constexpr int download_port_tries = 50;
constexpr unsigned download_port_pause = ms(100);
constexpr unsigned sahara_retry_pause = ms(2000);

// AT
constexpr unsigned at_echo_off = ms(2000);
constexpr unsigned at_query = ms(500);
constexpr unsigned echo_off_pause = ms(500);
constexpr unsigned at_announced = ms(5000); // a wait that is longer is told of

// Sahara
constexpr unsigned sahara_settle = ms(500);
constexpr unsigned hello_header = ms(3000);
constexpr unsigned hello_remainder = ms(5000);
constexpr unsigned read_request = ms(500);
constexpr unsigned done_response = ms(5000);
constexpr unsigned download_acknowledged = ms(1000);
constexpr unsigned flush = ms(2000);

// Firehose
constexpr unsigned ack = ms(5000);
constexpr unsigned configure = ms(500);
constexpr unsigned reset_answer = ms(500);
constexpr unsigned reset_pause = ms(500);
constexpr unsigned after_reset = ms(1000);
constexpr unsigned otp = ms(500);

// Back-pressure of a port or endpoint
constexpr unsigned device_write = ms(5000);
constexpr unsigned usb_transfer = ms(30000);
constexpr unsigned stray_answer = ms(10); // after an answer: a doubled one's second is a transfer of its own
constexpr unsigned write_retry_pause = ms(1000);
constexpr int write_retries = 5;
constexpr unsigned empty_write_pause = ms(10); // after a write that took nothing
constexpr int empty_write_tries = 10;

// Waits that each message of the peer begins anew end as a whole, too: a modem that talks on and on, or takes
// a byte now and then, would hold the program for ever. Far above what a slow programmer needs.
constexpr unsigned answer_in_all = ms(300000);
constexpr unsigned at_answer_in_all = ms(15000);
constexpr unsigned write_in_all = ms(300000);
constexpr unsigned upload_in_all = ms(600000);
constexpr unsigned flush_in_all = ms(30000);

// The log: how long whoever reads it may make the run wait in all, and a write that was to take at once what
// it got.
constexpr unsigned output_in_all = ms(1000);
constexpr unsigned output_write = ms(1);

// Devices on the bus
constexpr unsigned arrived_device_pause = ms(1000);
constexpr int arrived_device_retries = 3;
constexpr int node_watch = ms(1000); // SIGINT is looked for as often
constexpr unsigned port_access = ms(2000);
constexpr unsigned port_access_pause = ms(50);
constexpr int bus_look = ms(500); // as often at least, and for SIGINT as well
constexpr unsigned interfaces = ms(2000);
constexpr unsigned interfaces_pause = ms(50);

} // namespace timeouts
