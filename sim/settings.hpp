// What the simulated modem is asked to be: plain values, filled by the option parser of the program or by a
// test.
#pragma once

#include "fault-plan.hpp"
#include "outbox.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sim {

enum class stage { normal, sahara, firehose, ended };
enum class read_order { forward, backward, twice, shuffle };

struct settings {
    // Stages
    stage start = stage::normal;
    stage until = stage::firehose; // the last stage to complete
    bool stay = false;             // after the power reset: normal mode again

    // Normal mode: the whole answer to a command, how long it takes, and the unsolicited result codes around
    // it
    std::vector<std::pair<std::string, std::string>> at_answers;
    uint32_t at_delay_ms = 0;
    std::vector<std::string> at_before;
    std::vector<std::string> at_after;

    // Boot loader
    uint32_t hello_mode = 0;
    uint32_t hello_version = 2;
    uint32_t hello_compatible = 1;
    bool no_hello = false;
    uint32_t request_bits = 32;
    uint64_t programmer_size = 4096;
    uint64_t read_size = 4096;
    read_order order = read_order::forward;
    uint32_t image_id = 13;
    uint32_t platform = 1;
    uint32_t end_status = 0;
    std::optional<uint32_t> done_status; // the platform's own when missing

    // Programmer
    bool plain_answers = false;      // no log lines, no attributes, but what must be
    std::optional<uint64_t> payload; // counter-offer
    uint32_t log_start = 0;
    uint32_t log_before = 0;
    uint32_t log_after = 0;
    std::vector<std::string> otp;

    // Everywhere
    delivery how = delivery::whole;
    std::vector<fault> faults;
    std::string flash;
    std::string flash_from; // what an earlier run left
    bool discard = false;
};

} // namespace sim
