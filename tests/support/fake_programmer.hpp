// A flash programmer behind the stand-in for libusb: the test says which requests it takes and what it
// answers, in order. Everything not said fails the test, and so does everything that never came.
#pragma once

#include "core.hpp"
#include "fake_libusb.hpp"
#include "firehose.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <string>

inline const std::string ack_chunk =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" rawmode=\"false\" /></data>";
// To a request behind which raw data is to follow.
inline const std::string raw_ack_chunk =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" rawmode=\"true\" /></data>";
inline const std::string nak_chunk =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"NAK\" rawmode=\"false\" /></data>";
inline const std::string log_chunk =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<log value=\"Binary build date\" /></data>";

inline const std::string ping_request = "<?xml version=\"1.0\"?>\n<data>\n<nop value=\"ping\"/>\n</data>\n";
inline const std::string configure_request =
    "<?xml version=\"1.0\"?>\n<data>\n<configure "
    "MaxPayloadSizeToTargetInBytes=\"1048576\" MemoryName=\"nand\" />\n"
    "</data>\n";
inline const std::string reset_request =
    "<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\" DelayInSeconds=\"3\"/>\n</data>\n";

class fake_programmer {
  public:
    static constexpr int timed_out = -7; // LIBUSB_ERROR_TIMEOUT
    static constexpr int gone = -4;      // LIBUSB_ERROR_NO_DEVICE
    static constexpr int packet_size = 512;

    fake_programmer()
    {
        usb.reset();
        fake_interface interface {
        };
        interface.settings = {{{0x81, 2, packet_size}, {0x01, 2, packet_size}}};
        fake_device described{};
        described.vid = 0x05C6;
        described.pid = 0x9008;
        described.interfaces = {interface};
        usb.devices = {described};
    }
    fake_programmer(const fake_programmer &) = delete;
    fake_programmer &operator=(const fake_programmer &) = delete;
    ~fake_programmer()
    {
        if (is_open)
            firehose_close(&device);
        usb.verify();
    }

    // The next OUT transfer is exactly this.
    void takes(const std::string &data) { usb.transfers.push_back({0x01, data}); }
    void takes_with(const std::string &data, int result, int moved)
    {
        usb.transfers.push_back({0x01, data, result, moved});
    }
    void takes_zero_length_packet() { takes(""); }
    // The next IN transfer brings this chunk.
    void answers(const std::string &chunk) { usb.transfers.push_back({0x81, chunk}); }
    // This chunk is there already when the program looks for what still waits.
    void left_over(const std::string &chunk, int result = 0)
    {
        usb.transfers.push_back({0x81, chunk, result, -1, false, true});
    }
    void answers_nothing(int result = 0) { usb.transfers.push_back({0x81, "", result}); }

    // Opens the connection for a test of one step of the session.
    firehose_device *open()
    {
        const auto m = std::make_unique<modem>();
        is_open = firehose_open(m.get(), &device) == CORE_OK;
        EXPECT_TRUE(is_open);
        return &device;
    }

    fake_libusb &usb = fake_libusb::instance();

  private:
    firehose_device device{};
    bool is_open = false;
};
