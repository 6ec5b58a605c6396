#include "update.hpp"

#include "core.hpp"
#include "fake_discovery.hpp"
#include "image-list.hpp"
#include "interrupt.hpp"
#include "json.hpp"
#include "log_capture.hpp"
#include "modem-search.hpp"
#include "options.hpp"
#include "package.hpp"
#include "scripted-port.hpp"
#include "temp_dir.hpp"
#include "usb_probe.hpp"
#include "virtual-time.hpp"

#include <filesystem>
#include <gtest/gtest.h>

using texts = std::vector<std::string>;
using ports = std::vector<std::pair<std::string, std::string>>;

namespace {

const char several_modems[] = "multiple modems not supported, please keep a single modem attached:";
const char bailing_out[] = "dry-run requested, bailing out";
const char probing_failed[] = "failure in modem probing, trying fw update anyway";

const std::string switch_frame("\x4B\x65\x01\x00\x54\x0F\x7E", 7);

core_usb_event arrival(uint32_t vid, uint32_t pid)
{
    core_usb_event event{};
    event.id = {vid, pid};
    strlcpy(event.path, "/sys/bus/usb/devices/1-2", sizeof event.path);
    return event;
}

core_usb_event removal(uint32_t vid, uint32_t pid)
{
    core_usb_event event = arrival(vid, pid);
    event.removed = true;
    return event;
}

class Driver : public ::testing::Test {
  protected:
    // A package of the given version, without image files, as the firmware directory.
    void give_package(const std::string &version = "49.01.103")
    {
        dir.write("contents.xml", "<?xml version=\"1.0\"?>\n<contents>\n<partition_file>\n"
                                  "<file_name>rawprogram_nand.xml</file_name>\n</partition_file>\n"
                                  "<device_programmer>\n<file_name>programmer.mbn</file_name>\n"
                                  "</device_programmer>\n</contents>\n");
        dir.write("rawprogram_nand.xml",
                  "<?xml version=\"1.0\"?>\n<data>\n<erase label=\"boot\"/>\n</data>\n");
        dir.write("programmer.mbn", "programmer");
        dir.write("information.contents", "PKG VER : " + version + "\n");
        options.firmware_directory = dir.path().c_str();
    }

    void scan_finds(const std::vector<core_device_info> &devices)
    {
        discovery.enumerations.push_back({.result = 0, .devices = devices});
    }
    void scan_answers(int result) { discovery.enumerations.push_back({.result = result, .devices = {}}); }
    void event(const core_usb_event &what)
    {
        discovery.events.push_back({.result = 0, .event = what, .before = {}});
    }
    void event_error(int result)
    {
        discovery.events.push_back({.result = result, .event = {}, .before = {}});
    }

    int scan() { return update_with_scan(modems, 8, options.json); }
    int listen() { return update_after_listening(modems, 8, options.json); }

    // The texts of a level, without those of the modules that the driver calls.
    texts driver_texts(int level) const
    {
        texts found;
        for (const logged_message &message : log.messages()) {
            if (message.level == level && message.file == "../main.c")
                found.push_back(message.text);
        }
        return found;
    }

    fake_discovery &discovery = fake_discovery::instance();
    virtual_time &sleep = virtual_time::instance();
    temp_dir dir;
    log_capture log;
    modem modems[8] = {};

    // A modem whose AT port cannot be opened, one without an AT port, and those in download mode.
    const core_device_info mute = make_device(
        "fff0", "1001", {{"/nonexistent/0", "00"}, {"/nonexistent/1", "01"}, {"/nonexistent/2", "02"}});
    const core_device_info without_at =
        make_device("17cb", "011a", {{"/dev/wwan0mbim0", ""}, {"/dev/wwan0qcdm0", ""}});
    const core_device_info firehose = make_device("17cb", "0309", {{"/nonexistent/firehose0", ""}});
    const core_device_info download = make_device("05c6", "9008", {{"/nonexistent/0", "00"}});
    const core_device_info makers_download = make_device("fff1", "2f01", {{"/nonexistent/0", "00"}});
};

// One name for each function's tests.
class BusScanRetry : public Driver {};
class UpdateWithScan : public Driver {};
class Listening : public Driver {};
class UpdateWithPort : public Driver {};
class UpdateProcedure : public Driver {};
class PortModem : public Driver {};
class PrintModem : public Driver {};
class ShowModems : public Driver {};
class Interrupt : public Driver {};

// A modem that answers the probing.
class answering_modem {
  public:
    explicit answering_modem(const std::string &version_lines)
    {
        port.takes("ATE0\r").sends("\r\nOK\r\n");
        port.takes("AT#CGMM\r").sends("\r\n#CGMM: KA100\r\n\r\nOK\r\n");
        port.takes("AT#CGSN\r").sends("\r\n#CGSN: 356938035643809\r\n\r\nOK\r\n");
        port.takes("AT#SWPKGV\r").sends(version_lines);
    }

    core_device_info device() const
    {
        return make_device("fff0", "1001",
                           {{"/nonexistent/0", "00"}, {port.path(), "01"}, {"/nonexistent/2", "02"}});
    }

  private:
    scripted_port port;
};

} // namespace

TEST_F(BusScanRetry, EndsWithTheFirstSuccess)
{
    scan_finds({download});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), 0);
    EXPECT_TRUE(sleep.slept.empty());
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(BusScanRetry, PausesHalfASecondAfterEachIncompleteEnumeration)
{
    scan_answers(-11);
    scan_finds({make_device("05c6", "9008", {})}); // its port is not there yet
    scan_finds({download});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), 0);
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{500, 500}));
    EXPECT_EQ(count_modems(modems, 8), 1);
}

TEST_F(BusScanRetry, CountsAModemOnceThatWasCompleteBeforeAnother)
{
    const core_device_info without_ports = make_device("fff1", "2f01", {});
    scan_finds({download, without_ports}); // the last one decides that it is too early
    scan_finds({download, makers_download});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), 0);
    EXPECT_EQ(count_modems(modems, 8), 2);
}

TEST_F(BusScanRetry, KeepsARecordThatNoScanFilled)
{
    prepare_port_modem(&modems[0], false, "/dev/ttyUSB7");
    scan_finds({make_device("05c6", "9008", {})});
    scan_finds({download});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), 0);
    EXPECT_EQ(count_modems(modems, 8), 2);
    EXPECT_STREQ(modems[0].modem_port[0].port_name, "/dev/ttyUSB7");
}

TEST_F(BusScanRetry, GivesUpAfterSixteenCalls)
{
    for (int i = 0; i < 16; ++i)
        scan_answers(-11);
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -11);
    EXPECT_EQ(discovery.enumerated.size(), 16U);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"failed port enumeration"});
}

TEST_F(BusScanRetry, PausesAfterTheLastCallToo)
{
    for (int i = 0; i < 16; ++i)
        scan_answers(-11);
    static_cast<void>(start_usb_bus_scan(&modem_list, modems, 8));
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(16, 500));
}

TEST_F(BusScanRetry, EndsWithAnInterruptThatComesInAPause)
{
    scan_answers(-11);
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -125);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>{500});
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(BusScanRetry, TakesNoModemAfterAnInterruptThatCameInTheScan)
{
    scan_finds({download});
    interrupt_handler(SIGINT); // as one that ends the scan's wait for a node
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -125);
    EXPECT_TRUE(sleep.slept.empty());
}

TEST_F(BusScanRetry, SucceedsWithTheSixteenthCall)
{
    for (int i = 0; i < 15; ++i)
        scan_answers(-11);
    scan_finds({download});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), 0);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
}

TEST_F(BusScanRetry, ReportsTooManyModems)
{
    scan_finds(std::vector<core_device_info>(9, download));
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -12);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"too many modems connected, increase MAX_MODEM_NUMBER"});
}

TEST_F(BusScanRetry, NotesThatNothingIsConnected)
{
    scan_answers(-19);
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -19);
    EXPECT_EQ(driver_texts(CORE_LOG_DBG), texts{"no device with compatible VID/PID has been found"});
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(BusScanRetry, PassesOnAnyOtherErrorWithoutAWord)
{
    scan_answers(-5);
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -5);
    EXPECT_TRUE(driver_texts(CORE_LOG_ERR).empty());
    EXPECT_TRUE(driver_texts(CORE_LOG_DBG).empty());
}

TEST_F(BusScanRetry, LogsAsTheDriver)
{
    scan_answers(-19);
    static_cast<void>(start_usb_bus_scan(&modem_list, modems, 8));
    EXPECT_EQ(log.messages().back().file, "../main.c");
    EXPECT_EQ(log.messages().back().function, "start_usb_bus_scan");
}

TEST_F(BusScanRetry, LooksForTheGivenTable)
{
    scan_answers(-19);
    static_cast<void>(start_usb_bus_scan(&download_mode_list, modems, 8));
    ASSERT_EQ(discovery.enumerated[0].size(), 5U);
    EXPECT_EQ(discovery.enumerated[0][0].pid, 0x9008U);
}

TEST_F(BusScanRetry, AllowsSevenPorts)
{
    ports found;
    for (int i = 0; i < 8; ++i)
        found.emplace_back("/dev/ttyUSB" + std::to_string(i), "0" + std::to_string(i));
    scan_finds({make_device("fff0", "1001", found)});
    EXPECT_EQ(start_usb_bus_scan(&modem_list, modems, 8), -12);
}

TEST_F(UpdateWithScan, ReportsAScanThatFails)
{
    scan_answers(-100);
    EXPECT_EQ(scan(), -100);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error scanning the bus"});
}

TEST_F(UpdateWithScan, LooksForTheWholeModemList)
{
    scan_answers(-100);
    scan();
    EXPECT_EQ(discovery.enumerated[0].size(), 30U);
}

TEST_F(UpdateWithScan, WaitsForAModemWhenNothingIsAttached)
{
    scan_answers(-19);
    event_error(-100);
    EXPECT_EQ(scan(), -100);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Waiting for the modem to attach"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed listening on the USB bus"});
}

TEST_F(UpdateWithScan, EndsWithoutAWordAfterAnInterrupt)
{
    scan_answers(-11);
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(scan(), -125);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(UpdateWithScan, RefusesTwoModems)
{
    scan_finds({mute, download});
    EXPECT_EQ(scan(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{several_modems});
}

TEST_F(UpdateWithScan, DescribesTheModemsThatItRefuses)
{
    scan_finds({mute, download});
    scan();
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x1001"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x9008"));
}

TEST_F(UpdateWithScan, RefusesNoModemLikeSeveral)
{
    scan_finds({});
    EXPECT_EQ(scan(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{several_modems});
}

TEST_F(UpdateWithScan, RefusesAModemInDownloadModeWithoutForceButSucceeds)
{
    give_package();
    scan_finds({download});
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"cannot check firmware compatibility in QDL mode, --force option is mandatory"});
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "found supported modem"));
}

TEST_F(UpdateWithScan, TakesAMakersDownloadModeDeviceAsInDownloadMode)
{
    give_package();
    scan_finds({makers_download});
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"cannot check firmware compatibility in QDL mode, --force option is mandatory"});
}

TEST_F(UpdateWithScan, DoesNotDescribeAModemInDownloadMode)
{
    give_package();
    scan_finds({download});
    scan();
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "Probing mode: usb"));
}

TEST_F(UpdateWithScan, TakesAFirehosePortAsDownloadMode)
{
    give_package();
    scan_finds({firehose});
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"cannot check firmware compatibility in QDL mode, --force option is mandatory"});
}

TEST_F(UpdateWithScan, GoesFromAFirehosePortStraightToFirehose)
{
    give_package();
    options.force = true;
    scan_finds({firehose});
    EXPECT_EQ(scan(), -2); // the port that Firehose opens does not exist
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"unable to update the modem through FIREHOSE"});
    for (const logged_message &message : log.messages())
        EXPECT_NE(message.file, "../sahara.c");
}

TEST_F(UpdateWithScan, LooksAtTheFirstPortOnlyForFirehose)
{
    give_package();
    options.force = true;
    options.dry_run = true;
    scan_finds({make_device("17cb", "011a", {{"/dev/wwan0mbim0", ""}, {"/dev/wwan0firehose0", ""}})});
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "firmware compatibility cannot be checked"));
}

TEST_F(UpdateWithScan, GoesOnWhenProbingFails)
{
    give_package();
    options.force = true;
    options.dry_run = true;
    scan_finds({mute});
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.count(CORE_LOG_DBG, probing_failed), 1);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateWithScan, SaysNothingOfAModemWithoutAnAtPort)
{
    give_package();
    options.force = true;
    options.dry_run = true;
    scan_finds({without_at});
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.count(CORE_LOG_DBG, probing_failed), 0);
}

TEST_F(UpdateWithScan, DescribesTheModemThatItUpdates)
{
    give_package();
    options.force = true;
    options.dry_run = true;
    scan_finds({mute});
    scan();
    EXPECT_EQ(log.count(CORE_LOG_DBG, "Probing mode: usb"), 1);
}

TEST_F(UpdateWithScan, ComparesTheVersionThatTheModemTells)
{
    const answering_modem answering("\r\n49.01.102-P0F.010102\r\nM0F\r\nP0F\r\nA0F\r\n\r\nOK\r\n");
    give_package("49.01.103");
    options.dry_run = true;
    scan_finds({answering.device()});
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Versions: 49.01.102-P0F.010102;M0F;P0F;A0F"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "performing an upgrade"));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateWithScan, RefusesADowngradeOfTheModem)
{
    const answering_modem answering("\r\n49.01.102-P0F.010102\r\nM0F\r\nP0F\r\nA0F\r\n\r\nOK\r\n");
    give_package("49.01.101");
    options.dry_run = true;
    scan_finds({answering.device()});
    EXPECT_EQ(scan(), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"downgrade may not be safe, --force option is mandatory"});
    EXPECT_EQ(driver_texts(CORE_LOG_DBG).back(), "flashing is not possible");
}

TEST_F(UpdateWithScan, DescribesTheModemAsAnArrivalInJsonMode)
{
    const answering_modem answering("\r\n49.01.102-P0F.010102\r\nM0F\r\nP0F\r\nA0F\r\n\r\nOK\r\n");
    const print_capture print;
    give_package("49.01.103");
    options.json = true;
    options.dry_run = true;
    ASSERT_TRUE(setup_json_output());
    json_set_event(true); // what an earlier event left
    const log_capture quiet;
    scan_finds({answering.device()});
    EXPECT_EQ(scan(), 0);
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(
        print.lines()[0].text.find("\"type\": \"ADD\", \"modem\": [{\"probing_mode\": \"usb\", \"vid\": "
                                   "\"0xFFF0\", \"pid\": \"0x1001\", "),
        std::string::npos);
}

TEST_F(UpdateWithScan, DescribesSeveralModemsInJsonMode)
{
    const print_capture print;
    options.json = true;
    ASSERT_TRUE(setup_json_output());
    const log_capture quiet;
    scan_finds({download, makers_download});
    EXPECT_EQ(scan(), -22);
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(print.lines()[0].text.find("\"modem_size\": 2}\n"), std::string::npos);
}

TEST_F(Listening, SaysWhatItWaitsFor)
{
    event_error(-100);
    EXPECT_EQ(listen(), -100);
    ASSERT_EQ(log.messages().size(), 2U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_INF);
    EXPECT_EQ(log.messages()[0].text, "Waiting for the modem to attach");
    EXPECT_EQ(log.messages()[0].function, "update_after_listening");
    EXPECT_EQ(log.messages()[1].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[1].text, "failed listening on the USB bus");
}

TEST_F(Listening, HasNoTimeOut)
{
    event_error(-100);
    listen();
    EXPECT_EQ(discovery.listened, std::vector<int>{-1});
}

TEST_F(Listening, EndsWithAnyErrorOfTheWait)
{
    event_error(-110);
    EXPECT_EQ(listen(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed listening on the USB bus"});
}

TEST_F(Listening, GoesOnAfterARemoval)
{
    event(removal(0xFFF0, 0x1001));
    event_error(-5);
    EXPECT_EQ(listen(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"device FFF0:1001, type remove, path /sys/bus/usb/devices/1-2"});
    EXPECT_TRUE(discovery.enumerated.empty());
}

TEST_F(Listening, ScansTheModemListAfterAnArrival)
{
    event(arrival(0x05C6, 0x9008));
    scan_answers(-100);
    EXPECT_EQ(listen(), -100);
    ASSERT_EQ(discovery.enumerated.size(), 1U);
    EXPECT_EQ(discovery.enumerated[0].size(), 30U);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "device 05C6:9008, type add, path /sys/bus/usb/devices/1-2"));
}

TEST_F(Listening, EndsWithAScanThatFails)
{
    event(arrival(0xFFF0, 0x1001));
    scan_answers(-5);
    EXPECT_EQ(listen(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed USB bus scan"});
}

TEST_F(Listening, EndsWithPortsThatNeverCome)
{
    event(arrival(0xFFF0, 0x1001));
    for (int i = 0; i < 16; ++i)
        scan_answers(-11);
    EXPECT_EQ(listen(), -11);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"failed port enumeration", "failed USB bus scan"}));
}

TEST_F(Listening, GoesOnWhenTheScanFindsNoDevice)
{
    event(arrival(0xFFF0, 0x1001));
    scan_answers(-19);
    event(arrival(0x05C6, 0x9008));
    scan_finds({download});
    give_package();
    EXPECT_EQ(listen(), 0);
    EXPECT_EQ(discovery.listened, (std::vector<int>{-1, -1}));
}

TEST_F(Listening, GoesOnWhenTheScanFindsAnEmptyBus)
{
    event(arrival(0xFFF0, 0x1001));
    scan_finds({});
    event_error(-5);
    EXPECT_EQ(listen(), -5);
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "found supported modem"));
}

TEST_F(Listening, RepeatsAScanWhilePortsAreMissing)
{
    event(arrival(0x05C6, 0x9008));
    scan_finds({make_device("05c6", "9008", {})});
    scan_finds({download});
    give_package();
    EXPECT_EQ(listen(), 0);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>{500});
}

TEST_F(Listening, ClearsTheArrayBeforeEachScan)
{
    modems[0].probing_mode = PROBING_USB;
    modems[7].probing_mode = PROBING_USB;
    event(arrival(0x05C6, 0x9008));
    scan_finds({download});
    give_package();
    EXPECT_EQ(listen(), 0);
    EXPECT_EQ(count_modems(modems, 8), 1);
}

TEST_F(Listening, RefusesSeveralModemsAndDescribesThem)
{
    event(arrival(0xFFF0, 0x1001));
    scan_finds({mute, download});
    EXPECT_EQ(listen(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{several_modems});
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x1001"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x9008"));
}

TEST_F(Listening, TakesTheDownloadDeviceAsInDownloadMode)
{
    event(arrival(0x05C6, 0x9008));
    scan_finds({download});
    give_package();
    EXPECT_EQ(listen(), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "found supported modem"));
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"cannot check firmware compatibility in QDL mode, --force option is mandatory"});
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "Probing mode: usb"));
}

TEST_F(Listening, TakesAFirehosePortAsDownloadModeOverPcie)
{
    event(arrival(0x17CB, 0x0309));
    scan_finds({firehose});
    give_package();
    options.force = true;
    EXPECT_EQ(listen(), -2); // the port that Firehose opens does not exist
    EXPECT_FALSE(options.pcie) << "the command line alone writes the options";
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"unable to update the modem through FIREHOSE"});
}

TEST_F(Listening, ReportsAProbingThatFailsAndGoesOn)
{
    event(arrival(0xFFF0, 0x1001));
    scan_finds({mute});
    give_package();
    options.force = true;
    options.dry_run = true;
    EXPECT_EQ(listen(), 0);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), (texts{probing_failed, bailing_out}));
}

TEST_F(Listening, ReportsAModemWithoutAnAtPort)
{
    event(arrival(0x17CB, 0x011A));
    scan_finds({without_at});
    give_package();
    options.force = true;
    options.dry_run = true;
    EXPECT_EQ(listen(), 0);
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), (texts{probing_failed, bailing_out}));
}

TEST_F(Listening, DescribesTheModemThatItUpdates)
{
    event(arrival(0x17CB, 0x011A));
    scan_finds({without_at});
    give_package();
    options.force = true;
    options.dry_run = true;
    listen();
    EXPECT_EQ(log.count(CORE_LOG_DBG, "PID: 0x011A"), 1);
}

TEST_F(Listening, ReportsAnUpdateThatFails)
{
    event(arrival(0xFFF0, 0x1001));
    scan_finds({mute});
    give_package();
    EXPECT_EQ(listen(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error -22 trying fw update");
    EXPECT_EQ(log.messages().back().function, "update_after_listening");
}

TEST_F(Listening, DescribesTheArrivalInJsonMode)
{
    const answering_modem answering("\r\n49.01.102-P0F.010102\r\nM0F\r\nP0F\r\nA0F\r\n\r\nOK\r\n");
    const print_capture print;
    options.json = true;
    options.dry_run = true;
    ASSERT_TRUE(setup_json_output());
    const log_capture quiet;
    event(removal(0xFFF0, 0x1001));
    event(arrival(0xFFF0, 0x1001));
    scan_finds({answering.device()});
    give_package();
    EXPECT_EQ(listen(), 0);
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(print.lines()[0].text.find("\"type\": \"ADD\", \"modem\": [{"), std::string::npos);
}

TEST_F(Listening, KeepsARemovalForTheNextDescription)
{
    const print_capture print;
    options.json = true;
    ASSERT_TRUE(setup_json_output());
    const log_capture quiet;
    event(removal(0x05C6, 0x9008));
    event_error(-5);
    EXPECT_EQ(listen(), -5);
    EXPECT_TRUE(print.lines().empty());
    strlcpy(modems[0].model_name, "KA100", sizeof modems[0].model_name);
    show_modems(modems, 8);
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(print.lines()[0].text.find("\"type\": \"REMOVE\", "), std::string::npos);
}

TEST_F(Listening, EndsAfterAnInterrupt)
{
    discovery.events.push_back(
        {.result = 0, .event = arrival(0xFFF0, 0x1001), .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(listen(), -125);
    EXPECT_EQ(log.texts(CORE_LOG_INF),
              (texts{"Waiting for the modem to attach", "Firmware update interrupted"}));
    EXPECT_TRUE(discovery.enumerated.empty());
}

TEST_F(Listening, TellsOfAnInterruptRatherThanOfTheWaitsError)
{
    discovery.events.push_back({.result = -4, .event = {}, .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(listen(), -125);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(Listening, EndsAfterAnInterruptOfTheScan)
{
    event(arrival(0xFFF0, 0x1001));
    scan_answers(-11);
    sleep.when_slept = [] { interrupt_handler(SIGINT); };
    EXPECT_EQ(listen(), -125);
    EXPECT_EQ(log.texts(CORE_LOG_INF),
              (texts{"Waiting for the modem to attach", "Firmware update interrupted"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(Listening, ClosesTheLogFileAfterAnInterrupt)
{
    ASSERT_EQ(core_log_set_output(dir.at("log").c_str(), false), 0);
    discovery.events.push_back({.result = 0, .event = {}, .before = [] { interrupt_handler(SIGINT); }});
    EXPECT_EQ(listen(), -125);
    EXPECT_EQ(print_function, stdout_print);
}

TEST_F(UpdateWithPort, IsRefusedWithoutForceBecauseNoVersionIsKnown)
{
    discovery.enumerations.push_back({.result = -100, .devices = {}});
    give_package();
    EXPECT_EQ(update_with_port(modems, 8, false, "/nonexistent/port"), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to get the package version of the modem"});
}

TEST_F(UpdateWithPort, IsForcedWithoutProbing)
{
    discovery.enumerations.push_back({.result = -100, .devices = {}});
    give_package();
    options.force = true;
    options.dry_run = true;
    EXPECT_EQ(update_with_port(modems, 8, false, "/nonexistent/port"), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "firmware compatibility cannot be checked"));
}

TEST_F(UpdateWithPort, SwitchesTheModemOverItsPort)
{
    discovery.enumerations.push_back({.result = -100, .devices = {}});
    scripted_port port;
    port.takes(switch_frame);
    give_package();
    options.force = true;
    options.enter_qdl = true;
    EXPECT_EQ(update_with_port(modems, 8, false, port.path().c_str()), 0);
    EXPECT_EQ(port.written(), switch_frame);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Entered QDL mode, stopping"});
}

// It would be taken for the modem that comes back from the switch, and get the programmer.
TEST_F(UpdateWithPort, RefusesAnyModemThatIsInDownloadModeAlready)
{
    scripted_port port;
    give_package();
    options.force = true;
    core_device_info other = make_device("05c6", "9008", {{"/dev/ttyUSB7", "00"}});
    strlcpy(other.path, "/sys/devices/1-7", sizeof other.path);
    discovery.enumerations.push_back({.result = 0, .devices = {other}});
    EXPECT_EQ(update_with_port(modems, 8, false, port.path().c_str()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"/sys/devices/1-7 is in download mode already: use "
                                             "--skip-enter-qdl, or keep a single modem attached"});
    EXPECT_EQ(port.written(), "");
}

// Its identifier does not tell its mode: it is the modem of the port.
TEST_F(UpdateWithPort, DoesNotRefuseAPcieModem)
{
    scripted_port port;
    port.takes(switch_frame);
    give_package();
    options.force = true;
    options.enter_qdl = true;
    discovery.enumerations.push_back(
        {.result = 0, .devices = {make_device("17cb", "0309", {{"/dev/wwan0at0", ""}})}});
    EXPECT_EQ(update_with_port(modems, 8, false, port.path().c_str()), 0);
}

TEST_F(UpdateWithPort, TakesTheModemAsInDownloadModeWhenTheSwitchIsSkipped)
{
    scripted_port port;
    give_package();
    options.force = true;
    options.enter_qdl = true;
    EXPECT_EQ(update_with_port(modems, 8, true, port.path().c_str()), 0);
    EXPECT_EQ(port.written(), "");
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "firmware compatibility cannot be checked"));
}

TEST_F(UpdateProcedure, PassesOnThatThereIsNoPackage)
{
    options.firmware_directory = dir.path().c_str();
    EXPECT_EQ(start_update_procedure(modems, 8, false), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"firmware not supported: " + dir.path()});
}

TEST_F(UpdateProcedure, LooksAtThePackageBeforeTheDownloadModeRule)
{
    options.firmware_directory = dir.path().c_str();
    EXPECT_EQ(start_update_procedure(modems, 8, true), -2);
}

TEST_F(UpdateProcedure, ChecksThePackageBeforeTheModemsVersion)
{
    give_package();
    dir.write("rawprogram_nand.xml", "<?xml version=\"1.0\"?>\n");
    EXPECT_EQ(start_update_procedure(modems, 8, false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"no command in " + dir.path() + "/rawprogram_nand.xml"});
}

TEST_F(UpdateProcedure, ChecksThePackageBeforeTheDownloadModeRule)
{
    give_package();
    std::filesystem::remove(dir.at("programmer.mbn"));
    EXPECT_EQ(start_update_procedure(modems, 8, true), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file is not there: " + dir.path() + "/programmer.mbn"});
}

TEST_F(UpdateProcedure, ChecksTheProgrammerInADryRunToo)
{
    give_package();
    std::filesystem::remove(dir.at("programmer.mbn"));
    options.dry_run = true;
    options.force = true;
    EXPECT_EQ(start_update_procedure(modems, 8, false), -2);
}

TEST_F(UpdateProcedure, NeedsNoProgrammerToStopInDownloadMode)
{
    discovery.enumerations.push_back({.result = -100, .devices = {}});
    scripted_port port;
    port.takes(switch_frame);
    give_package();
    std::filesystem::remove(dir.at("programmer.mbn"));
    options.force = true;
    options.enter_qdl = true;
    EXPECT_EQ(update_with_port(modems, 8, false, port.path().c_str()), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Entered QDL mode, stopping"});
}

TEST_F(UpdateProcedure, NeedsNoCommandsToReadOtpValues)
{
    give_package();
    dir.write("rawprogram_nand.xml", "<?xml version=\"1.0\"?>\n");
    options.dry_run = true;
    options.force = true;
    options.otp = true;
    EXPECT_EQ(start_update_procedure(modems, 8, false), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateProcedure, StopsWithoutTheModemsVersion)
{
    give_package();
    EXPECT_EQ(start_update_procedure(modems, 8, false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to get the package version of the modem"});
    EXPECT_EQ(log.messages().back().text, "flashing is not possible");
    EXPECT_EQ(log.messages().back().level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages().back().function, "start_update_procedure");
}

TEST_F(UpdateProcedure, StopsADryRunBeforeTheModemIsTouched)
{
    give_package();
    options.dry_run = true;
    strlcpy(modems[0].versions, "49.01.102-P0F", sizeof modems[0].versions);
    EXPECT_EQ(start_update_procedure(modems, 8, false), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateProcedure, RefusesADryRunOnAnIncompatibleModem)
{
    give_package();
    options.dry_run = true;
    strlcpy(modems[0].versions, "50.01.102-P0F", sizeof modems[0].versions);
    EXPECT_EQ(start_update_procedure(modems, 8, false), -1);
    EXPECT_FALSE(log.has(CORE_LOG_ERR, bailing_out));
}

TEST_F(UpdateProcedure, TakesAVersionOfALineThatEndsInACarriageReturn)
{
    give_package("49.01.103\r");
    options.dry_run = true;
    strlcpy(modems[0].versions, "49.01.102-P0F", sizeof modems[0].versions);
    EXPECT_EQ(start_update_procedure(modems, 8, false), 0);
    EXPECT_STREQ(package.new_pkgver, "49.01.103");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateProcedure, RefusesAVersionThatEndsInAnotherCharacter)
{
    give_package("49.01.103;");
    options.force = true;
    strlcpy(modems[0].versions, "49.01.102-P0F", sizeof modems[0].versions);
    EXPECT_EQ(start_update_procedure(modems, 8, false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"invalid length of version: 49.01.103;", "unsupported platform: 49.01.103;; reason: -22",
                     "invalid length of version: 49.01.103;", "wrong package version"}));
}

TEST_F(UpdateProcedure, ForcesADowngrade)
{
    give_package("49.01.101");
    options.dry_run = true;
    options.force = true;
    strlcpy(modems[0].versions, "49.01.102-P0F", sizeof modems[0].versions);
    EXPECT_EQ(start_update_procedure(modems, 8, false), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"performing a downgrade"});
}

TEST_F(UpdateProcedure, LeavesAModemInDownloadModeAloneWithoutForce)
{
    give_package();
    options.dry_run = true;
    EXPECT_EQ(start_update_procedure(modems, 8, true), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"cannot check firmware compatibility in QDL mode, --force option is mandatory"});
}

TEST_F(UpdateProcedure, StopsADryRunOnAModemInDownloadMode)
{
    give_package();
    options.dry_run = true;
    options.force = true;
    EXPECT_EQ(start_update_procedure(modems, 8, true), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{bailing_out});
}

TEST_F(UpdateProcedure, StopsADryRunBeforeTheEnterQdlStop)
{
    give_package();
    options.dry_run = true;
    options.enter_qdl = true;
    options.force = true;
    EXPECT_EQ(start_update_procedure(modems, 8, true), 0);
    EXPECT_FALSE(log.has(CORE_LOG_INF, "Entered QDL mode, stopping"));
}

TEST_F(UpdateProcedure, PassesOnTheResultOfTheHandOff)
{
    give_package();
    options.force = true;
    EXPECT_EQ(start_update_procedure(modems, 8, false), -19); // no diagnostic port to switch over
    EXPECT_EQ(driver_texts(CORE_LOG_ERR), texts{"unable to set the modem to firmware update mode"});
}

TEST_F(PortModem, HasOneDiagnosticPort)
{
    prepare_port_modem(&modems[0], false, "/dev/ttyUSB3");
    EXPECT_EQ(modems[0].probing_mode, 1U);
    EXPECT_EQ(modems[0].modem_port_size, 1);
    EXPECT_STREQ(modems[0].modem_port[0].port_name, "/dev/ttyUSB3");
    EXPECT_EQ(modems[0].modem_port[0].port_type, 1U);
    EXPECT_STREQ(modems[0].usb_serial, "unknown");
}

TEST_F(PortModem, HasOneFirmwareUpdatePortWhenTheSwitchIsSkipped)
{
    prepare_port_modem(&modems[0], true, "/dev/ttyUSB3");
    EXPECT_EQ(modems[0].modem_port_size, 1);
    EXPECT_EQ(modems[0].modem_port[0].port_type, 3U);
}

TEST_F(PortModem, CutsALongPath)
{
    prepare_port_modem(&modems[0], false, std::string(1024, 'p').c_str());
    EXPECT_EQ(std::string(modems[0].modem_port[0].port_name), std::string(1023, 'p'));
}

TEST_F(PortModem, LeavesThePcieMarkAsItIs)
{
    modems[0].is_pcie = true;
    prepare_port_modem(&modems[0], false, "/dev/wwan0at0");
    prepare_port_modem(&modems[1], false, "/dev/ttyUSB0");
    EXPECT_TRUE(modems[0].is_pcie);
    EXPECT_FALSE(modems[1].is_pcie);
}

TEST_F(PortModem, LeavesTheTextsOfTheProbing)
{
    strlcpy(modems[0].versions, "49.01.102-P0F", sizeof modems[0].versions);
    prepare_port_modem(&modems[0], true, "/dev/ttyUSB0");
    EXPECT_STREQ(modems[0].versions, "49.01.102-P0F");
}

TEST(CountModems, CountsRecordsThatAreNotEntirelyZero)
{
    modem modems[8] = {};
    modems[1].probing_mode = PROBING_USB;
    modems[7].versions[1023] = 'x';
    EXPECT_EQ(count_modems(modems, 8), 2);
}

TEST(CountModems, LooksAtTheGivenCountOnly)
{
    modem modems[8] = {};
    modems[7].probing_mode = PROBING_USB;
    EXPECT_EQ(count_modems(modems, 7), 0);
}

TEST(CountModems, CountsAFullArray)
{
    modem modems[8] = {};
    for (modem &m : modems)
        m.is_pcie = true;
    EXPECT_EQ(count_modems(modems, 8), 8);
}

TEST_F(PrintModem, TellsEveryField)
{
    modem &m = modems[0];
    m.probing_mode = PROBING_USB;
    m.usb_id = {0xFFF0, 0x101};
    strlcpy(m.dev_path, "/sys/1-2", sizeof m.dev_path);
    strlcpy(m.usb_serial, "0123", sizeof m.usb_serial);
    m.modem_port_size = 2;
    strlcpy(m.modem_port[0].port_name, "/dev/ttyUSB0", sizeof m.modem_port[0].port_name);
    m.modem_port[0].port_type = PORT_DIAGNOSTIC;
    strlcpy(m.modem_port[1].port_name, "/dev/ttyUSB1", sizeof m.modem_port[1].port_name);
    m.modem_port[1].port_type = PORT_AT;
    strlcpy(m.model_name, "KA100", sizeof m.model_name);
    strlcpy(m.imei, "356938035643809", sizeof m.imei);
    strlcpy(m.cfun, "1", sizeof m.cfun);
    strlcpy(m.versions, "49.01.102-P0F", sizeof m.versions);
    print_modem(&m);
    EXPECT_EQ(
        log.texts(CORE_LOG_DBG),
        (texts{"Probing mode: usb", "VID: 0xFFF0", "PID: 0x0101", "USB dev path: /sys/1-2",
               "USB serial: 0123", "Port: /dev/ttyUSB0, type: diagnostic", "Port: /dev/ttyUSB1, type: AT",
               "Model name: KA100", "IMEI: 356938035643809", "CFUN: 1", "Versions: 49.01.102-P0F"}));
    EXPECT_EQ(log.messages().size(), 11U);
}

TEST_F(PrintModem, LeavesOutImeiCfunAndVersionsThatAreEmpty)
{
    prepare_port_modem(&modems[0], true, "/dev/ttyUSB0");
    print_modem(&modems[0]);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Probing mode: port", "VID: 0x0000", "PID: 0x0000",
                                              "USB dev path: ", "USB serial: unknown",
                                              "Port: /dev/ttyUSB0, type: firmware update", "Model name: "}));
}

TEST_F(PrintModem, LeavesOutFreeRecords)
{
    modems[2].usb_id.pid = 0x1234;
    modems[5].usb_id.pid = 0x5678;
    print_modems(modems, 8);
    EXPECT_EQ(log.messages().size(), 12U); // six lines each, without ports
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x1234"));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "PID: 0x5678"));
}

TEST_F(PrintModem, LooksAtTheGivenCountOnly)
{
    modems[5].usb_id.pid = 0x5678;
    print_modems(modems, 5);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ShowModems, PrintsTextWithoutJsonMode)
{
    const print_capture print;
    strlcpy(modems[0].model_name, "KA100", sizeof modems[0].model_name);
    show_modems(modems, 8);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Model name: KA100"));
    EXPECT_TRUE(print.lines().empty());
}

TEST_F(ShowModems, PrintsAnEventInJsonMode)
{
    const print_capture print;
    ASSERT_TRUE(setup_json_output());
    const log_capture quiet;
    options.json = true;
    strlcpy(modems[0].model_name, "KA100", sizeof modems[0].model_name);
    show_modems(modems, 8);
    EXPECT_TRUE(quiet.messages().empty());
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(print.lines()[0].text.find("\"model_name\": \"KA100\""), std::string::npos);
}

TEST_F(Interrupt, TellsThePlatformLibraryAndTheLoops)
{
    EXPECT_EQ(keep_running, 1);
    interrupt_handler(2);
    EXPECT_EQ(keep_running, 0);
    EXPECT_EQ(sigint_detected, 1);
}

TEST_F(Interrupt, DoesNothingElse)
{
    interrupt_handler(2);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Interrupt, MeansTheSameWhicheverSignalItIs)
{
    interrupt_handler(15);
    EXPECT_EQ(keep_running, 0);
    EXPECT_EQ(sigint_detected, 1);
}

TEST_F(Interrupt, IsFollowedByOneThatEndsTheStepAsWell)
{
    interrupt_handler(2);
    EXPECT_FALSE(must_end_at_once());
    interrupt_handler(15);
    EXPECT_TRUE(must_end_at_once());
    interrupt_handler(2);
    EXPECT_EQ(interruptions, 2);
}

TEST_F(Interrupt, IsOutlastedByAStepInHandOnly)
{
    int waits = 0;
    const auto cut_short_once = [&waits] { return ++waits == 1 ? -4 : 0; };
    EXPECT_EQ(outlast_interrupt(cut_short_once), -4);
    waits = 0;
    const uninterrupted_step step;
    EXPECT_EQ(outlast_interrupt(cut_short_once), 0);
    interrupt_handler(2);
    interrupt_handler(2);
    waits = 0;
    EXPECT_EQ(outlast_interrupt(cut_short_once), -125);
}
