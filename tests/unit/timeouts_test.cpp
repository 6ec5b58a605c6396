// The waits that are shipped. A build for tests may shorten them; what a modem meets are these.
#include "timeouts.hpp"

#include <gtest/gtest.h>

struct shipped_wait {
    const char *name;
    unsigned value;
    unsigned expected;
};

// Shown behind the test's name.
void PrintTo(const shipped_wait &wait, std::ostream *out)
{
    *out << wait.expected;
}

class ShippedWait : public testing::TestWithParam<shipped_wait> {};

TEST_P(ShippedWait, HasItsValue)
{
    EXPECT_EQ(GetParam().value, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ShippedWait,
    testing::Values(shipped_wait{"scan_retry_pause", timeouts::scan_retry_pause, 500},
                    shipped_wait{"scan_calls", timeouts::scan_calls, 16},
                    shipped_wait{"download_device_event", timeouts::download_device_event, 30000},
                    shipped_wait{"download_device_tries", timeouts::download_device_tries, 20},
                    shipped_wait{"download_device_pause", timeouts::download_device_pause, 1000},
                    shipped_wait{"download_port_tries", timeouts::download_port_tries, 50},
                    shipped_wait{"download_port_pause", timeouts::download_port_pause, 100},
                    shipped_wait{"sahara_retry_pause", timeouts::sahara_retry_pause, 2000},
                    shipped_wait{"at_echo_off", timeouts::at_echo_off, 2000},
                    shipped_wait{"at_query", timeouts::at_query, 500},
                    shipped_wait{"echo_off_pause", timeouts::echo_off_pause, 500},
                    shipped_wait{"at_announced", timeouts::at_announced, 5000},
                    shipped_wait{"at_answer_in_all", timeouts::at_answer_in_all, 15000},
                    shipped_wait{"sahara_settle", timeouts::sahara_settle, 500},
                    shipped_wait{"hello_header", timeouts::hello_header, 3000},
                    shipped_wait{"hello_remainder", timeouts::hello_remainder, 5000},
                    shipped_wait{"read_request", timeouts::read_request, 500},
                    shipped_wait{"done_response", timeouts::done_response, 5000},
                    shipped_wait{"download_acknowledged", timeouts::download_acknowledged, 1000},
                    shipped_wait{"flush", timeouts::flush, 2000}, shipped_wait{"ack", timeouts::ack, 5000},
                    shipped_wait{"configure", timeouts::configure, 500},
                    shipped_wait{"reset_answer", timeouts::reset_answer, 500},
                    shipped_wait{"reset_pause", timeouts::reset_pause, 500},
                    shipped_wait{"after_reset", timeouts::after_reset, 1000},
                    shipped_wait{"otp", timeouts::otp, 500},
                    shipped_wait{"device_write", timeouts::device_write, 5000},
                    shipped_wait{"usb_transfer", timeouts::usb_transfer, 30000},
                    shipped_wait{"stray_answer", timeouts::stray_answer, 10},
                    shipped_wait{"write_retry_pause", timeouts::write_retry_pause, 1000},
                    shipped_wait{"write_retries", timeouts::write_retries, 5},
                    shipped_wait{"empty_write_pause", timeouts::empty_write_pause, 10},
                    shipped_wait{"empty_write_tries", timeouts::empty_write_tries, 10},
                    shipped_wait{"answer_in_all", timeouts::answer_in_all, 300000},
                    shipped_wait{"write_in_all", timeouts::write_in_all, 300000},
                    shipped_wait{"upload_in_all", timeouts::upload_in_all, 600000},
                    shipped_wait{"flush_in_all", timeouts::flush_in_all, 30000},
                    shipped_wait{"output_in_all", timeouts::output_in_all, 1000},
                    shipped_wait{"output_write", timeouts::output_write, 1},
                    shipped_wait{"arrived_device_pause", timeouts::arrived_device_pause, 1000},
                    shipped_wait{"arrived_device_retries", timeouts::arrived_device_retries, 3},
                    shipped_wait{"node_watch", timeouts::node_watch, 1000},
                    shipped_wait{"port_access", timeouts::port_access, 2000},
                    shipped_wait{"port_access_pause", timeouts::port_access_pause, 50},
                    shipped_wait{"bus_look", timeouts::bus_look, 500},
                    shipped_wait{"interfaces", timeouts::interfaces, 2000},
                    shipped_wait{"interfaces_pause", timeouts::interfaces_pause, 50}),
    [](const testing::TestParamInfo<shipped_wait> &wait) { return std::string(wait.param.name); });
