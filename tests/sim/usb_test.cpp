// The modem on the USB bus: the kernel's messages, what the device says of itself, and the way onto the bus.
// The bytes are those of USB 2.0 chapter 9 and of the kernel's description of USB/IP.
#include "options.hpp"
#include "usb-function.hpp"
#include "usbip.hpp"
#include "vhci-port.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace sim {
namespace {

octets hex(std::string_view text)
{
    octets out;
    unsigned value = 0;
    int digits = 0;
    for (const char c : text) {
        if (c == ' ')
            continue;
        value = value * 16 + static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
        if (++digits % 2 == 0) {
            out.push_back(static_cast<uint8_t>(value));
            value = 0;
        }
    }
    return out;
}

TEST(Usbip, ReadsABulkOutTransfer)
{
    const auto it = decode_command(hex("00000001 00000d05 0001000f 00000000 00000002 00000000 00100000 "
                                       "00000000 00000000 00000000 0000000000000000"));
    ASSERT_TRUE(it);
    EXPECT_EQ(it->seqnum, 0xD05U);
    EXPECT_FALSE(it->unlink);
    EXPECT_FALSE(it->in);
    EXPECT_EQ(it->endpoint, 2);
    EXPECT_EQ(it->length, 1048576U);
    EXPECT_EQ(it->body_size(), 1048576U);
}

TEST(Usbip, AnInTransferHasNoBody)
{
    const auto it = decode_command(hex("00000001 00000001 0001000f 00000001 00000001 00000200 00000400 "
                                       "00000000 ffffffff 00000004 0000000000000000"));
    ASSERT_TRUE(it);
    EXPECT_TRUE(it->in);
    EXPECT_EQ(it->length, 1024U);
    EXPECT_EQ(it->body_size(), 0U);
}

TEST(Usbip, ReadsAControlRequest)
{
    const auto it = decode_command(hex("00000001 00000007 0001000f 00000001 00000000 00000200 00000040 "
                                       "00000000 00000000 00000000 8006000100004000"));
    ASSERT_TRUE(it);
    EXPECT_EQ(it->endpoint, 0);
    EXPECT_EQ(it->setup, (usb_setup{0x80, 0x06, 0x00, 0x01, 0x00, 0x00, 0x40, 0x00}));
}

TEST(Usbip, ReadsAnUnlink)
{
    const auto it = decode_command(hex("00000002 00000d06 0001000f 00000000 00000000 00000d05 00000000 "
                                       "00000000 00000000 00000000 0000000000000000"));
    ASSERT_TRUE(it);
    EXPECT_TRUE(it->unlink);
    EXPECT_EQ(it->seqnum, 0xD06U);
    EXPECT_EQ(it->victim, 0xD05U);
    EXPECT_EQ(it->body_size(), 0U);
}

TEST(Usbip, RefusesWhatNoDeviceHereHas)
{
    const std::string_view head = "00000001 00000001 0001000f ";
    const std::string_view tail = " 00000000 00000000 00000000 0000000000000000";
    const auto with = [&](std::string_view middle) {
        return decode_command(hex(std::string(head).append(middle).append(tail)));
    };
    EXPECT_TRUE(with("00000000 0000000f 00000000 04000000"));
    EXPECT_FALSE(with("00000000 0000000f 00000000 04000001")) << "longer than 64 MiB";
    EXPECT_FALSE(with("00000000 00000010 00000000 00000000")) << "endpoint 16";
    EXPECT_FALSE(with("00000002 00000001 00000000 00000000")) << "neither in nor out";
    EXPECT_FALSE(decode_command(hex("00000001 00000001 0001000f 00000000 00000001 00000000 00000000 "
                                    "00000000 00000001 00000000 0000000000000000")))
        << "isochronous";
    EXPECT_FALSE(decode_command(octets(48, 0))) << "command 0";
    EXPECT_FALSE(decode_command(octets(47, 0))) << "too short";
}

TEST(Usbip, WritesTheResultOfATransfer)
{
    EXPECT_EQ(encode_submit_reply(0x11223344, 0, 79),
              hex("00000003 11223344 00000000 00000000 00000000 00000000 0000004f "
                  "00000000 00000000 00000000 0000000000000000"));
    EXPECT_EQ(encode_submit_reply(1, -32, 0),
              hex("00000003 00000001 00000000 00000000 00000000 ffffffe0 00000000 "
                  "00000000 00000000 00000000 0000000000000000"));
}

TEST(Usbip, WritesTheResultOfAnUnlink)
{
    EXPECT_EQ(encode_unlink_reply(2, -104),
              hex("00000004 00000002 00000000 00000000 00000000 ffffff98 00000000 "
                  "00000000 00000000 00000000 0000000000000000"));
}

constexpr usb_id normal_id = {0xFFF0, 0x1001};

control_answer ask(usb_function &function, std::string_view setup)
{
    const octets bytes = hex(setup);
    usb_setup request{};
    std::copy(bytes.begin(), bytes.end(), request.begin());
    return function.answer(request);
}

TEST(UsbFunction, DeviceDescriptor)
{
    usb_function modem(normal_id, 3);
    const control_answer answer = ask(modem, "80 06 0001 0000 1200");
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.bytes, hex("12 01 0002 00 00 00 40 f0ff 0110 0001 01 02 03 01"));
}

TEST(UsbFunction, DownloadDeviceHasOneInterfaceOfTwoEndpointsInBeforeOut)
{
    usb_function modem(download_usb_id, 1);
    EXPECT_EQ(ask(modem, "80 06 0001 0000 1200").bytes,
              hex("12 01 0002 00 00 00 40 c605 0890 0001 01 02 03 01"));
    EXPECT_EQ(ask(modem, "80 06 0002 0000 ff00").bytes, hex("09 02 2000 01 01 00 80 fa "
                                                            "09 04 00 00 02 ff ff ff 00 "
                                                            "07 05 81 02 0002 00 "
                                                            "07 05 01 02 0002 00"));
}

TEST(UsbFunction, NormalModeHasThreeInterfacesWithABulkPairEach)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 06 0002 0000 ff00").bytes,
              hex("09 02 4e00 03 01 00 80 fa "
                  "09 04 00 00 02 ff ff ff 00  07 05 81 02 0002 00  07 05 01 02 0002 00 "
                  "09 04 01 00 02 ff ff ff 00  07 05 82 02 0002 00  07 05 02 02 0002 00 "
                  "09 04 02 00 02 ff ff ff 00  07 05 83 02 0002 00  07 05 03 02 0002 00"));
}

TEST(UsbFunction, NeverAnswersMoreThanWasAskedFor)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 06 0002 0000 0900").bytes, hex("09 02 4e00 03 01 00 80 fa"));
    EXPECT_EQ(ask(modem, "80 06 0001 0000 0000").bytes, octets());
}

TEST(UsbFunction, DeviceQualifier)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 06 0006 0000 0a00").bytes, hex("0a 06 0002 00 00 00 40 01 00"));
}

TEST(UsbFunction, Strings)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 06 0003 0000 ff00").bytes, hex("04 03 0904"));
    EXPECT_EQ(ask(modem, "80 06 0303 0904 ff00").bytes,
              hex("16 03 3000 3100 3200 3300 3400 3500 3600 3700 3800 3900"));
    EXPECT_EQ(ask(modem, "80 06 0403 0904 ff00").status, -EPIPE);
}

TEST(UsbFunction, ConfigurationIsSetAndTold)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 08 0000 0000 0100").bytes, hex("00"));
    EXPECT_EQ(ask(modem, "00 09 0100 0000 0000").status, 0);
    EXPECT_EQ(ask(modem, "80 08 0000 0000 0100").bytes, hex("01"));
    EXPECT_EQ(ask(modem, "00 09 0200 0000 0000").status, -EPIPE);
}

TEST(UsbFunction, InterfacesHaveOneSettingOnly)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "01 0b 0000 0200 0000").status, 0);
    EXPECT_EQ(ask(modem, "01 0b 0100 0200 0000").status, -EPIPE);
    EXPECT_EQ(ask(modem, "01 0b 0000 0300 0000").status, -EPIPE);
}

TEST(UsbFunction, StatusIsTwoBytes)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "80 00 0000 0000 0200").bytes, hex("0000"));
}

TEST(UsbFunction, AHaltedEndpointIsToldAndCleared)
{
    usb_function modem(normal_id, 3);
    modem.halt(0x82);
    EXPECT_TRUE(modem.halted(0x82));
    EXPECT_FALSE(modem.halted(0x02)) << "the other direction";
    EXPECT_EQ(ask(modem, "82 00 0000 8200 0200").bytes, hex("0100"));
    EXPECT_EQ(ask(modem, "02 01 0000 8200 0000").status, 0);
    EXPECT_FALSE(modem.halted(0x82));
    EXPECT_EQ(ask(modem, "02 01 0000 8400 0000").status, -EPIPE) << "no such endpoint";
}

TEST(UsbFunction, TheLineStateOfASerialDriverIsAccepted)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "21 22 0300 0100 0000").status, 0);
    EXPECT_EQ(ask(modem, "21 22 0300 0300 0000").status, -EPIPE) << "no such interface";
}

TEST(UsbFunction, OtherRequestsAreRefused)
{
    usb_function modem(normal_id, 3);
    EXPECT_EQ(ask(modem, "21 20 0000 0000 0700").status, -EPIPE) << "line coding";
    EXPECT_EQ(ask(modem, "40 01 0000 0000 0000").status, -EPIPE) << "the vendor's";
    EXPECT_EQ(ask(modem, "80 06 000f 0000 0500").status, -EPIPE) << "binary object store";
    EXPECT_EQ(ask(modem, "00 05 0100 0000 0000").status, -EPIPE) << "the kernel keeps SET_ADDRESS to itself";
}

constexpr std::string_view status_text = "hub port sta spd dev      sockfd local_busid\n"
                                         "hs  0000 006 003 00010002 000007 1-1\n"
                                         "hs  0001 004 000 00000000 000000 0-0\n"
                                         "hs  0002 005 003 00010002 000008 0-0\n"
                                         "hs  0012 004 000 00000000 000000 0-0\n"
                                         "ss  0015 004 000 00000000 000000 0-0\n";

TEST(VhciPort, TheFirstFreeHighSpeedPortIsTaken)
{
    EXPECT_EQ(find_free_port(status_text, 0), 1U);
    EXPECT_EQ(find_free_port(status_text, 2), 12U);
    EXPECT_EQ(find_free_port(status_text, 13), std::nullopt) << "the rest is of another speed";
    EXPECT_EQ(find_free_port("", 0), std::nullopt);
}

struct parsed {
    program_options options;
    std::string wrong;
};

parsed parse(std::vector<std::string> words)
{
    words.insert(words.begin(), "kestrel-sim");
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    parsed out;
    out.wrong = parse_options(static_cast<int>(words.size()), argv.data(), out.options);
    return out;
}

TEST(UsbOptions, Defaults)
{
    const parsed it = parse({"--usb"});
    EXPECT_EQ(it.wrong, "");
    EXPECT_TRUE(it.options.usb.wanted);
    EXPECT_EQ(it.options.usb.id.vid, 0xFFF0);
    EXPECT_EQ(it.options.usb.id.pid, 0x1001);
    EXPECT_EQ(it.options.usb.away_ms, 1000U);
    EXPECT_EQ(it.options.usb.first_ms, 0U);
    EXPECT_EQ(it.options.usb.first_port, 0U);
    EXPECT_FALSE(parse({}).options.usb.wanted);
}

TEST(UsbOptions, Values)
{
    const parsed it =
        parse({"--usb", "--usb-id", "abcd:1", "--usb-away", "50", "--usb-first", "100", "--usb-port", "7"});
    EXPECT_EQ(it.wrong, "");
    EXPECT_EQ(it.options.usb.id.vid, 0xABCD);
    EXPECT_EQ(it.options.usb.id.pid, 1);
    EXPECT_EQ(it.options.usb.away_ms, 50U);
    EXPECT_EQ(it.options.usb.first_ms, 100U);
    EXPECT_EQ(it.options.usb.first_port, 7U);
}

TEST(UsbOptions, ABadIdentifierIsRefused)
{
    for (const char *text : {"", "fff0", "fff0:", ":1001", "0:1001", "fff0:12345", "fff0:10x1", "fff0:1001 "})
        EXPECT_EQ(parse({"--usb", "--usb-id", text}).wrong,
                  "--usb-id " + std::string(text) + ": two hexadecimal numbers expected, as in fff0:1001");
}

TEST(UsbOptions, WhatOnlyOneFrontCanDoIsRefusedForTheOther)
{
    EXPECT_EQ(parse({"--usb", "--link", "/tmp/modem"}).wrong,
              "--link and --bus are for a pseudo-terminal, not for --usb");
    EXPECT_EQ(parse({"--fault", "firehose.data=halt"}).wrong, "the fault kind halt needs --usb");
    EXPECT_EQ(parse({"--usb", "--fault", "firehose.data=halt"}).wrong, "");
    EXPECT_EQ(parse({"--usb", "--fault", "firehose.data-in=halt@100"}).wrong, "");
    EXPECT_EQ(parse({"--usb", "--fault", "diag=halt"}).wrong,
              "--fault diag=halt: this fault kind is not possible at this step");
}

TEST(UsbFaults, AHaltIsAnEventOfItsOwnAndTheLastOne)
{
    transcript log;
    fault wanted;
    ASSERT_EQ(parse_fault("firehose.nop=halt", wanted), "");
    fault_plan faults({wanted});
    outbox out(delivery::whole, faults, log);
    EXPECT_EQ(out.post({"firehose.log", "log", {1, 2}, {}}), posted::whole);
    EXPECT_EQ(out.post({"firehose.nop", "ack", {3, 4}, {}}), posted::spoiled);
    EXPECT_EQ(out.post({"firehose.log", "log", {5, 6}, {}}), posted::spoiled);
    EXPECT_FALSE(out.is_event());
    EXPECT_EQ(out.take().bytes, (octets{1, 2}));
    ASSERT_FALSE(out.empty());
    EXPECT_TRUE(out.is_event());
    const write_unit unit = out.take();
    EXPECT_TRUE(unit.halt_in);
    EXPECT_FALSE(unit.halt_out || unit.hang_up);
    EXPECT_TRUE(out.empty());
}

TEST(UsbFaults, WhatWaitsOfAnEarlierStageIsForgotten)
{
    transcript log;
    fault_plan faults({});
    outbox out(delivery::whole, faults, log);
    log.set_stage("normal");
    out.post({"at.AT", "at", {1}, {}});
    log.set_stage("sahara");
    out.post({"sahara.hello", "hello", {2}, {}});
    out.keep_only("sahara");
    EXPECT_EQ(out.take().bytes, octets{2});
    EXPECT_TRUE(out.empty());
}

} // namespace
} // namespace sim
