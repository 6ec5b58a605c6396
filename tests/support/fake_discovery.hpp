// A stand-in for the platform's discovery (core-discovery.hpp): answers from two queues that the test fills.
// An unexpected call fails the test.
#pragma once

#include "core-discovery.hpp"

#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

struct enumerate_answer {
    int result = 0;
    std::vector<core_device_info> devices;
};

struct listen_answer {
    int result = 0;
    core_usb_event event{};
    std::function<void()> before; // run while "waiting", may be empty
};

struct fake_discovery {
    std::deque<enumerate_answer> enumerations;
    std::deque<listen_answer> events;
    // What was asked, call by call.
    std::vector<std::vector<core_usb_id>> enumerated;
    std::vector<int> listened; // time-outs

    static fake_discovery &instance();
    void reset();
};

// A device record with identifier and ports ("/dev/ttyUSB0", "00") filled in.
core_device_info make_device(const char *vid, const char *pid,
                             const std::vector<std::pair<std::string, std::string>> &ports);
