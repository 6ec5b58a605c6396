#include "handoff.hpp"

#include "core.hpp"
#include "fake_discovery.hpp"
#include "fake_libusb.hpp"
#include "image-list.hpp"
#include "interrupt.hpp"
#include "log_capture.hpp"
#include "modem-search.hpp"
#include "options.hpp"
#include "package.hpp"
#include "private_mounts.hpp"
#include "scripted-port.hpp"
#include "temp_dir.hpp"
#include "update.hpp"
#include "virtual-time.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <libusb.h>
#include <unistd.h>

using texts = std::vector<std::string>;

namespace {

// Little-endian words, as Sahara packets are made of.
std::string words(std::initializer_list<uint32_t> values)
{
    std::string bytes;
    for (const uint32_t value : values) {
        for (int shift = 0; shift < 32; shift += 8)
            bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    }
    return bytes;
}

std::string hello(uint32_t mode)
{
    return words({1, 48, 2, 1, 1024, mode, 0, 0, 0, 0, 0, 0});
}

std::string hello_response()
{
    return words({2, 48, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0});
}

const std::string switch_frame("\x4B\x65\x01\x00\x54\x0F\x7E", 7);

core_usb_event arrival()
{
    core_usb_event event{};
    event.id = {0x05C6, 0x9008};
    return event;
}

core_usb_event removal()
{
    core_usb_event event = arrival();
    event.removed = true;
    return event;
}

class HandOff : public ::testing::Test {
  protected:
    void SetUp() override
    {
        package.image_count = MAX_IMAGE_NUMBER;
        usb.init_result = LIBUSB_ERROR_OTHER; // what comes to Firehose ends there, unless a test goes on
        prepare_port_modem(&modems[0], false, port.path().c_str());
    }
    int run(bool already_in_qdl = false)
    {
        if (is_switched && !already_in_qdl)
            port.takes(switch_frame);
        return hand_off(modems, 8, plan_route(options, &modems[0], already_in_qdl));
    }

    void event(const core_usb_event &what)
    {
        discovery.events.push_back({.result = 0, .event = what, .before = {}});
    }
    void event_error(int result)
    {
        discovery.events.push_back({.result = result, .event = {}, .before = {}});
    }
    void scan_finds(const std::vector<core_device_info> &devices)
    {
        discovery.enumerations.push_back({.result = 0, .devices = devices});
    }
    void scan_answers(int result) { discovery.enumerations.push_back({.result = result, .devices = {}}); }

    // The texts of a level, without those of the modules that are called.
    texts driver_texts(int level) const
    {
        texts found;
        for (const logged_message &message : log.messages()) {
            if (message.level == level && message.file == "../main.c")
                found.push_back(message.text);
        }
        return found;
    }
    bool logged_from(const char *file) const
    {
        for (const logged_message &message : log.messages()) {
            if (message.file == file)
                return true;
        }
        return false;
    }

    // Leaves a mark where the next message of a port goes that cannot be opened: Sahara and Firehose fail at
    // once.
    void give_unopenable_port() { prepare_port_modem(&modems[0], true, "/nonexistent/port"); }

    fake_discovery &discovery = fake_discovery::instance();
    fake_libusb &usb = fake_libusb::instance();
    virtual_time &sleep = virtual_time::instance();
    temp_dir dir;
    log_capture log;
    scripted_port port;
    bool is_switched = true; // by the diagnostic frame, where the modem is not in download mode yet
    modem modems[8] = {};
    const core_device_info download = make_device("05c6", "9008", {{"/nonexistent/0", "00"}});
};

// One name for each stage's tests.
class Switch : public HandOff {};
class EnterQdl : public HandOff {};
class DownloadDeviceEvent : public HandOff {};
class ProgrammerUpload : public HandOff {};
class Writing : public HandOff {};
class WriteSysfsFile : public HandOff {};

const char no_listener[] = "failed listening on the USB bus";
const char no_upload[] = "unable to send the programmer through SAHARA";
const char no_writing[] = "unable to update the modem through FIREHOSE";

} // namespace

TEST_F(WriteSysfsFile, WritesTheGivenLength)
{
    const std::string path = dir.write("attribute", "");
    EXPECT_EQ(write_sysfs_file(path.c_str(), "123", 2), 0);
    EXPECT_EQ(read_file(path), "12");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WriteSysfsFile, WritesAtTheStart)
{
    const std::string path = dir.write("attribute", "0abc");
    EXPECT_EQ(write_sysfs_file(path.c_str(), "1", 1), 0);
    EXPECT_EQ(read_file(path), "1abc");
}

TEST_F(WriteSysfsFile, CreatesNothing)
{
    const std::string path = dir.at("missing");
    EXPECT_EQ(write_sysfs_file(path.c_str(), "1", 1), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to open " + path + ", No such file or directory"});
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(WriteSysfsFile, ReportsAWriteThatFails)
{
    EXPECT_EQ(write_sysfs_file("/dev/full", "1", 1), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to write to /dev/full, No space left on device"});
    EXPECT_EQ(log.messages().back().function, "write_sysfs_file");
    EXPECT_EQ(log.messages().back().file, "../main.c");
}

namespace {

class TriggerEdl : public HandOff {
  protected:
    void SetUp() override
    {
        HandOff::SetUp();
        std::string reason;
        if (!private_mounts::empty_sys(&reason))
            GTEST_SKIP() << reason;
        private_mounts::write(attribute('0'), "-");
        private_mounts::write(attribute('3'), "-");
    }

    static std::string attribute(char index)
    {
        return std::string("/sys/bus/mhi/devices/mhi") + index + "/trigger_edl";
    }
    int trigger(const char *port_name)
    {
        modems[0].is_pcie = true;
        is_switched = false;
        strlcpy(modems[0].modem_port[0].port_name, port_name, sizeof modems[0].modem_port[0].port_name);
        return trigger_edl_mode(&modems[0]);
    }
};

} // namespace

TEST_F(TriggerEdl, WritesOneToTheAttributeOfTheFirstModem)
{
    EXPECT_EQ(trigger("/dev/wwan0at0"), 0);
    EXPECT_EQ(read_file(attribute('0')), "1");
    EXPECT_EQ(read_file(attribute('3')), "-");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(TriggerEdl, TakesTheCharacterBehindTheMarkAsIndex)
{
    EXPECT_EQ(trigger("/dev/wwan3at0"), 0);
    EXPECT_EQ(read_file(attribute('0')), "-");
    EXPECT_EQ(read_file(attribute('3')), "1");
}

TEST_F(TriggerEdl, NeedsSixCharactersFromTheMarkOn)
{
    EXPECT_EQ(trigger("wwan0a"), 0);
    EXPECT_EQ(read_file(attribute('0')), "1");
}

TEST_F(TriggerEdl, SucceedsWithoutAnIndexInAShorterName)
{
    EXPECT_EQ(trigger("/dev/wwan0"), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"not able to detect mhi index"});
    EXPECT_EQ(read_file(attribute('0')), "-");
}

TEST_F(TriggerEdl, SucceedsWithoutTheMark)
{
    EXPECT_EQ(trigger("/dev/ttyUSB0"), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"not able to detect mhi index"});
    EXPECT_EQ(log.messages().back().function, "trigger_edl_mode");
}

TEST_F(TriggerEdl, ReportsAModemThatTheKernelDoesNotKnow)
{
    EXPECT_EQ(trigger("/dev/wwan1at0"), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"unable to open /sys/bus/mhi/devices/mhi1/trigger_edl, No such file or directory",
                     "unable to write trigger_edl file (mhi path /sys/bus/mhi/devices/mhi1/trigger_edl)"}));
}

TEST_F(TriggerEdl, SwitchesAPcieModemInPlaceOfTheDiagnosticFrame)
{
    modems[0].is_pcie = true;
    is_switched = false;
    strlcpy(modems[0].modem_port[0].port_name, "/dev/wwan0at0", sizeof modems[0].modem_port[0].port_name);
    options.enter_qdl = true;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(read_file(attribute('0')), "1");
    EXPECT_FALSE(logged_from("../diag.c"));
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Entered QDL mode, stopping"});
}

TEST_F(TriggerEdl, EndsTheRunWhenItFails)
{
    modems[0].is_pcie = true;
    is_switched = false;
    strlcpy(modems[0].modem_port[0].port_name, "/dev/wwan1at0", sizeof modems[0].modem_port[0].port_name);
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR).back(), "unable to set the modem to firmware update mode");
}

TEST_F(TriggerEdl, GoesOnToTheWaitWithoutAnIndex)
{
    modems[0].is_pcie = true;
    is_switched = false;
    event_error(-5);
    EXPECT_EQ(run(), -5);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), (texts{"not able to detect mhi index", no_listener}));
}

TEST_F(Switch, SendsTheDiagnosticFrame)
{
    event_error(-5);
    EXPECT_EQ(run(), -5);
    EXPECT_EQ(port.written(), switch_frame);
}

TEST_F(Switch, EndsTheRunWhenItFails)
{
    modems[0].modem_port[0].port_type = PORT_AT;
    is_switched = false;
    EXPECT_EQ(run(), -19);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"unable to set the modem to firmware update mode"});
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(Switch, IsNotSentToAModemInDownloadMode)
{
    options.enter_qdl = true;
    EXPECT_EQ(run(true), 0);
    EXPECT_EQ(port.written(), "");
}

TEST_F(Switch, LeavesAModemAloneAfterAnInterruption)
{
    keep_running = 0;
    is_switched = false;
    EXPECT_EQ(run(), -125);
    EXPECT_EQ(port.written(), "");
}

TEST_F(Writing, IsNotBegunAfterAnInterruption)
{
    keep_running = 0;
    is_switched = false;
    options.pcie = true;
    EXPECT_EQ(run(true), -125);
    EXPECT_FALSE(logged_from("../firehose.c"));
}

TEST_F(EnterQdl, StopsAfterTheSwitch)
{
    options.enter_qdl = true;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(port.written().size(), 7U);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Entered QDL mode, stopping"});
    EXPECT_TRUE(discovery.listened.empty());
}

TEST_F(EnterQdl, IsToldUnderTheNameOfTheWholeProcedure)
{
    options.enter_qdl = true;
    run();
    EXPECT_EQ(log.messages().back().text, "Entered QDL mode, stopping");
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(EnterQdl, DoesNotStopAPcieModemInDownloadMode)
{
    options.enter_qdl = true;
    options.pcie = true;
    EXPECT_EQ(run(true), -99);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
    EXPECT_TRUE(log.texts(CORE_LOG_INF).empty());
}

TEST_F(DownloadDeviceEvent, IsWaitedForThirtySeconds)
{
    event_error(-110);
    EXPECT_EQ(run(), -110);
    EXPECT_EQ(discovery.listened, std::vector<int>{30000});
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_listener});
}

TEST_F(DownloadDeviceEvent, IsMissedUnderTheNameOfTheWholeProcedure)
{
    event_error(-110);
    run();
    EXPECT_EQ(log.messages().back().text, no_listener);
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(DownloadDeviceEvent, IsNotProbedUnderTheNameOfTheWholeProcedure)
{
    event(arrival());
    scan_answers(-19);
    run();
    EXPECT_EQ(log.messages().back().text, "modem not probed");
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(DownloadDeviceEvent, IsNotWaitedForWhenTheModemIsInDownloadModeAlready)
{
    give_unopenable_port();
    EXPECT_EQ(run(true), -102);
    EXPECT_TRUE(discovery.listened.empty());
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
}

TEST_F(DownloadDeviceEvent, MayFollowARemoval)
{
    event(removal());
    event(arrival());
    scan_finds({download});
    EXPECT_EQ(run(), -102); // Sahara cannot open the port
    EXPECT_EQ(discovery.listened, (std::vector<int>{30000, 30000}));
    EXPECT_EQ(discovery.enumerated.size(), 1U);
}

TEST_F(DownloadDeviceEvent, IsWaitedForUntilAnErrorAfterARemoval)
{
    event(removal());
    event_error(-5);
    EXPECT_EQ(run(), -5);
    EXPECT_TRUE(discovery.enumerated.empty());
}

TEST_F(DownloadDeviceEvent, HasTheDownloadModeListScanned)
{
    event(arrival());
    scan_finds({download});
    run();
    ASSERT_EQ(discovery.enumerated.size(), 1U);
    ASSERT_EQ(discovery.enumerated[0].size(), 5U);
    EXPECT_EQ(discovery.enumerated[0][0].pid, 0x9008U);
}

TEST_F(DownloadDeviceEvent, ReplacesTheRecordOfTheModemBefore)
{
    modems[4].probing_mode = PROBING_USB;
    event(arrival());
    scan_finds({download});
    run();
    EXPECT_EQ(count_modems(modems, 8), 1);
    EXPECT_EQ(modems[0].probing_mode, 2U);
    EXPECT_STREQ(modems[0].modem_port[0].port_name, "/nonexistent/0");
    EXPECT_EQ(modems[0].modem_port[0].port_type, 3U);
}

TEST_F(DownloadDeviceEvent, IsNotFollowedByAtCommands)
{
    event(arrival());
    scan_finds({download});
    run();
    EXPECT_FALSE(logged_from("../at_channel.c"));
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
}

TEST_F(DownloadDeviceEvent, EndsWithAScanThatFails)
{
    event(arrival());
    scan_answers(-5);
    EXPECT_EQ(run(), -5);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(DownloadDeviceEvent, EndsWithPortsThatNeverCome)
{
    event(arrival());
    for (int i = 0; i < 16; ++i)
        scan_finds({make_device("05c6", "9008", {})});
    EXPECT_EQ(run(), -11);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"failed port enumeration"});
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(16, 500));
}

TEST_F(DownloadDeviceEvent, EndsWithoutAWordWhenTheScanIsInterrupted)
{
    event(arrival());
    scan_finds({make_device("05c6", "9008", {})});
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(run(), -125);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(DownloadDeviceEvent, EndsWithoutAModemToProbeWhenTheDeviceIsGoneAgain)
{
    event(arrival());
    scan_answers(-19);
    EXPECT_EQ(run(), -22);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"modem not probed"});
}

TEST_F(DownloadDeviceEvent, EndsWithSeveralModems)
{
    event(arrival());
    scan_finds({download, make_device("fff1", "2f01", {{"/nonexistent/1", "00"}})});
    EXPECT_EQ(run(), -22);
    EXPECT_EQ(
        driver_texts(CORE_LOG_ERR),
        texts{
            "the tool does not support multiple modems in QDL mode,                             please keep a "
            "single modem attached"});
}

TEST_F(DownloadDeviceEvent, OfAPcieModemLeadsStraightToFirehose)
{
    event(arrival());
    scan_finds({make_device("17cb", "011a", {{"/nonexistent/firehose0", ""}})});
    EXPECT_EQ(run(), -2); // the port that Firehose opens does not exist
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
    EXPECT_FALSE(logged_from("../sahara.c"));
}

TEST_F(DownloadDeviceEvent, OfAPcieModemInNormalModeIsNotTheOne)
{
    event(arrival());
    scan_finds({make_device("17cb", "011a", {{"/nonexistent/at0", ""}, {"/nonexistent/at1", ""}})});
    event(arrival());
    scan_finds({make_device("17cb", "011a", {{"/nonexistent/firehose0", ""}})});
    EXPECT_EQ(run(), -2); // the port that Firehose opens does not exist
    EXPECT_EQ(discovery.listened, (std::vector<int>{30000, 30000}));
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
}

TEST_F(DownloadDeviceEvent, IsIgnoredAfterAnInterrupt)
{
    discovery.events.push_back(
        {.result = 0, .event = arrival(), .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(run(), -125);
    EXPECT_TRUE(discovery.enumerated.empty());
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
    EXPECT_TRUE(driver_texts(CORE_LOG_INF).empty());
}

TEST_F(DownloadDeviceEvent, IsNotWaitedForAgainAfterAnInterrupt)
{
    discovery.events.push_back(
        {.result = 0, .event = removal(), .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(run(), -125);
}

TEST_F(DownloadDeviceEvent, TellsOfAnInterruptRatherThanOfTheWaitsError)
{
    discovery.events.push_back({.result = -4, .event = {}, .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(run(), -125);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(DownloadDeviceEvent, IsNotLookedForInSysfsAfterAnInterrupt)
{
    discovery.events.push_back({.result = -100, .event = {}, .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(run(), -125);
    EXPECT_TRUE(sleep.slept.empty());
}

namespace {

// Where the platform has no listener.
class DownloadDeviceInSysfs : public HandOff {
  protected:
    void SetUp() override
    {
        HandOff::SetUp();
        std::string reason;
        if (!private_mounts::empty_sys(&reason) || !private_mounts::empty_dev(&reason))
            GTEST_SKIP() << reason;
        event_error(-100);
    }

    static void attach() { private_mounts::write("/sys/bus/usb/devices/1-2/uevent", uevent); }
    // Makes the terminal of the test the port that the download device gets.
    void give_port() { ASSERT_EQ(symlink(port.path().c_str(), download_port), 0); }

    static constexpr char uevent[] = "DEVTYPE=usb_device\nPRODUCT=5c6/9008/0\n";
    static constexpr char download_port[] = "/dev/ttyUSB0";
};

} // namespace

TEST_F(DownloadDeviceInSysfs, IsLookedForTwentyTimesASecondApart)
{
    EXPECT_EQ(run(), -100);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(20, 1000));
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_listener});
}

TEST_F(DownloadDeviceInSysfs, IsMissedUnderTheNameOfTheWholeProcedure)
{
    run();
    EXPECT_EQ(log.messages().back().text, no_listener);
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(DownloadDeviceInSysfs, GetsTheFirstUsbPort)
{
    attach();
    EXPECT_EQ(run(), -102); // where there is no such port
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to open device path /dev/ttyUSB0"));
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
    EXPECT_EQ(modems[0].probing_mode, 1U);
    EXPECT_EQ(modems[0].modem_port_size, 1);
    EXPECT_STREQ(modems[0].modem_port[0].port_name, "/dev/ttyUSB0");
    EXPECT_EQ(modems[0].modem_port[0].port_type, 3U);
}

TEST_F(DownloadDeviceInSysfs, MayComeWithTheTwentiethLook)
{
    sleep.when_slept = [this] {
        if (sleep.slept.size() == 19)
            attach();
    };
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(std::count(sleep.slept.begin(), sleep.slept.end(), 1000U), 19);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
}

TEST_F(DownloadDeviceInSysfs, IsGivenFiveSecondsToGetItsPort)
{
    attach();
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(50, 100));
}

TEST_F(DownloadDeviceInSysfs, MayGetItsPortLater)
{
    attach();
    sleep.when_slept = [this] {
        if (sleep.slept.size() == 3)
            give_port();
    };
    is_switched = false;
    port.takes(switch_frame)
        .takes(hello_response())
        .takes(words({7, 8})); // to a modem that says nothing, a reset
    run();
    EXPECT_FALSE(log.has(CORE_LOG_ERR, "unable to open device path /dev/ttyUSB0"));
    EXPECT_EQ(std::count(sleep.slept.begin(), sleep.slept.end(), 100U), 3);
}

TEST_F(DownloadDeviceInSysfs, IsNoLongerWaitedForAtItsPortAfterAnInterrupt)
{
    attach();
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(run(), -125);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>{100});
    EXPECT_FALSE(logged_from("../sahara.c"));
}

TEST_F(DownloadDeviceInSysfs, IsNotScannedFor)
{
    attach();
    run();
    EXPECT_TRUE(discovery.enumerated.empty());
}

TEST_F(DownloadDeviceInSysfs, OfAPcieModemLeadsStraightToFirehose)
{
    modems[0].is_pcie = true;
    is_switched = false;
    attach();
    EXPECT_EQ(run(), -2); // no such port
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), (texts{"not able to detect mhi index", no_writing}));
    EXPECT_FALSE(logged_from("../sahara.c"));
}

TEST_F(DownloadDeviceInSysfs, IsNoLongerLookedForAfterAnInterrupt)
{
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(run(), -125);
    EXPECT_EQ(sleep.slept.size(), 1U);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

// From the switch to the reset, as a platform without a listener goes.
TEST_F(DownloadDeviceInSysfs, GetsTheProgrammerAndTheImages)
{
    attach();
    give_port();
    strlcpy(package.programmer_path, dir.write("programmer.mbn", "PROGRAMMER").c_str(), 1024);
    strlcpy(package.images[0].command, "<erase label=\"boot\"/>", sizeof package.images[0].command);
    usb.init_result = 0;
    usb.devices = {{.vid = 0x05C6,
                    .pid = 0x9008,
                    .bus = 1,
                    .ports = {2},
                    .interfaces = {{.number = 0, .settings = {{{0x81, 2, 512}, {0x01, 2, 512}}}}}}};
    const std::string ack = "<?xml version=\"1.0\"?><data><response value=\"ACK\"/></data>";
    for (int i = 0; i < 4; ++i) { // nop, configure, erase, power reset
        usb.transfers.push_back({.endpoint = 0x01, .data = "", .any_data = true});
        usb.transfers.push_back({.endpoint = 0x81, .data = ack});
    }
    is_switched = false;
    port.takes(switch_frame);
    port.sends(hello(0)).takes(hello_response());
    port.sends(words({3, 20, 13, 2, 6})).takes("OGRAMM"); // six bytes from offset 2
    port.sends(words({4, 16, 13, 0})).takes(words({5, 8}));
    port.sends(words({6, 12, 0}));
    EXPECT_EQ(run(), 0);
    ASSERT_EQ(usb.written.size(), 4U);
    EXPECT_NE(usb.written[0].find("<nop value=\"ping\"/>"), std::string::npos);
    EXPECT_NE(usb.written[1].find("<configure "), std::string::npos);
    EXPECT_NE(usb.written[2].find("<erase label=\"boot\"/>"), std::string::npos);
    EXPECT_NE(usb.written[3].find("<power value=\"reset\" "), std::string::npos);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(ProgrammerUpload, IsRepeatedAfterTwoSecondsWhileTheModemRestarts)
{
    prepare_port_modem(&modems[0], true, port.path().c_str());
    for (int i = 0; i < 2; ++i)
        port.sends(hello(2)).takes(words({240, 8})).sends(words({241, 8}));
    port.sends(hello(0)).takes(hello_response());
    port.sends(words({3})); // too short a packet counts as the end of a good upload
    EXPECT_EQ(run(true), -99);
    EXPECT_EQ(log.count(CORE_LOG_INF, "Sending programmer"), 1);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{500, 2000, 500, 2000, 500}));
}

TEST_F(ProgrammerUpload, IsNotRepeatedAfterAnInterrupt)
{
    prepare_port_modem(&modems[0], true, port.path().c_str());
    port.sends(hello(2)).takes(words({240, 8})).sends(words({241, 8}));
    sleep.when_slept = [this] {
        if (sleep.slept.back() == 2000)
            interrupt_handler(SIGINT);
    };
    EXPECT_EQ(run(true), -125);
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{500, 2000}));
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(ProgrammerUpload, EndsTheRunWhenItFails)
{
    give_unopenable_port();
    EXPECT_EQ(run(true), -102);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
    EXPECT_EQ(usb.calls, texts{});
}

TEST_F(ProgrammerUpload, IsNotRepeatedAfterAnyOtherFailure)
{
    give_unopenable_port();
    run(true);
    EXPECT_TRUE(sleep.slept.empty());
}

TEST_F(ProgrammerUpload, NeedsAFirmwareUpdatePort)
{
    EXPECT_EQ(run(true), -19); // the record has a diagnostic port only
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"no sahara port found", no_upload}));
}

TEST_F(ProgrammerUpload, IsDoneForAPcieModemInDownloadModeWithoutTheOption)
{
    give_unopenable_port();
    modems[0].is_pcie = true;
    is_switched = false;
    EXPECT_EQ(run(true), -102);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
}

TEST_F(ProgrammerUpload, IsLeftOutForAModemInDownloadModeWithThePcieOption)
{
    give_unopenable_port();
    modems[0].is_pcie = true;
    is_switched = false;
    options.pcie = true;
    EXPECT_EQ(run(true), -2);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
    EXPECT_FALSE(logged_from("../sahara.c"));
}

TEST_F(ProgrammerUpload, IsNotLeftOutByThePcieOptionWhenTheModemHasToBeSwitched)
{
    options.pcie = true;
    event(arrival());
    scan_finds({download});
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(port.written().size(), 7U);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_upload});
}

TEST_F(Writing, ReportsThatFirehoseFailed)
{
    options.pcie = true;
    EXPECT_EQ(run(true), -99);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{no_writing});
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(Writing, ReadsTheOtpValuesWhenAskedFor)
{
    options.pcie = true; // straight to Firehose, over the endpoint of a USB record
    options.otp = true;
    usb.init_result = 0;
    usb.devices = {{.vid = 0x05C6,
                    .pid = 0x9008,
                    .bus = 1,
                    .ports = {2},
                    .interfaces = {{.number = 0, .settings = {{{0x81, 2, 512}, {0x01, 2, 512}}}}}}};
    const std::string ack = "<?xml version=\"1.0\"?><data><response value=\"ACK\"/></data>";
    strlcpy(package.images[0].command, "<erase label=\"boot\"/>", sizeof package.images[0].command);
    for (int i = 0; i < 4; ++i) { // nop, configure, OTP, power reset
        usb.transfers.push_back({.endpoint = 0x01, .data = "", .any_data = true});
        usb.transfers.push_back({.endpoint = 0x81, .data = ack});
    }
    EXPECT_EQ(run(true), 0);
    ASSERT_EQ(usb.written.size(), 4U);
    EXPECT_NE(usb.written[2].find("<getstorageinfo "), std::string::npos);
}
