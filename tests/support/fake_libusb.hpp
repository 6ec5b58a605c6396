// A strict scripted stand-in for libusb, linked in its place. It describes one bus of devices and answers
// bulk transfers from a script; a call that the script does not expect fails the test, and so does one that
// never came (verify()).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

struct fake_endpoint {
    uint8_t address;
    uint8_t attributes; // 2 bulk, 3 interrupt, 0 control
    uint16_t max_packet_size;
};

struct fake_interface {
    uint8_t number;
    bool driver_active = false;
    int detach_result = 0;
    std::vector<std::vector<fake_endpoint>> settings;
};

struct fake_device {
    uint16_t vid;
    uint16_t pid;
    uint8_t bus = 1;
    std::vector<uint8_t> ports;
    std::vector<fake_interface> interfaces;
    int open_result = 0;
    int config_result = 0;
    bool port_overflow = false; // libusb_get_port_numbers answers LIBUSB_ERROR_OVERFLOW
};

// One expected transfer. For OUT, `data` is what must be written (all of it, unless `any_data`), `moved` how
// many bytes the device takes (-1: all). For IN, `data` is what the device answers.
struct fake_transfer {
    uint8_t endpoint;
    std::string data;
    int result = 0;
    int moved = -1;
    bool any_data = false;
    bool waits = false; // IN: there already when the code under test looks for what still waits
};

class fake_libusb {
  public:
    static fake_libusb &instance();
    // Forgets everything; one device may be given right away.
    void reset();
    // Checks that the script is used up and that contexts, handles, lists, descriptors and claims are
    // released.
    void verify();

    std::vector<fake_device> devices;
    std::deque<fake_transfer> transfers;
    // When set, takes the data of every OUT transfer in place of the script, and nothing is kept of them.
    std::function<void(const unsigned char *data, int length)> sink;
    int init_result = 0;
    int claim_result = 0;
    int device_list_result = 0;       // negative: libusb_get_device_list fails with it
    bool no_device_of_handle = false; // libusb_get_device answers null

    // How often the code under test has looked for what still waits. That it found nothing is recorded
    // nowhere else.
    int looks = 0;
    bool looking = false; // between such a look and its release

    // What happened, in order: "init", "option 3", "open 05c6:9008", "detach 0", "claim 0", "out 01 512",
    // "in 81 1024", "release 0", "close", "exit" ...
    std::vector<std::string> calls;
    // Time-outs of the transfers, in order, in milliseconds.
    std::vector<unsigned> timeouts;
    // Data of every OUT transfer, in order.
    std::vector<std::string> written;

    int open_contexts = 0;
    int open_handles = 0;
    int open_lists = 0;
    int open_descriptors = 0;
    int open_claims = 0;
};
