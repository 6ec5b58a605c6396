#include "usb_probe.hpp"

#include "core.hpp"
#include "fake_discovery.hpp"
#include "log_capture.hpp"

#include <gtest/gtest.h>

using texts = std::vector<std::string>;
using ports = std::vector<std::pair<std::string, std::string>>;

TEST(PortName, OfADeviceNodeIsValid)
{
    EXPECT_TRUE(is_valid_port_name("/dev/ttyUSB0"));
}
TEST(PortName, ThatIsEmptyIsValid)
{
    EXPECT_TRUE(is_valid_port_name(""));
}
TEST(PortName, OfEveryBoundaryCharacterIsValid)
{
    EXPECT_TRUE(is_valid_port_name("azAZ09/"));
}
TEST(PortName, WithADashIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("/dev/tty-USB0"));
}
TEST(PortName, WithADotIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("/dev/ttyUSB.0"));
}
TEST(PortName, WithABlankIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("/dev/ttyUSB0 "));
}
TEST(PortName, WithAnUnderscoreIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("tty_USB0"));
}
TEST(PortName, WithALineFeedIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("\nttyUSB0"));
}
TEST(PortName, WithAByteAboveAsciiIsNotValid)
{
    EXPECT_FALSE(is_valid_port_name("tty\xC3\xA4"));
}

TEST(PortName, WithACharacterNextToTheValidOnesIsNotValid)
{
    for (const char c : {'`', '{', '@', '[', ':', '.'})
        EXPECT_FALSE(is_valid_port_name(std::string(1, c).c_str())) << c;
}

TEST(FindSubstring, GivesItsPlace)
{
    const char *const text = "01,02";
    EXPECT_EQ(find_substring(text, "02"), text + 3);
}
TEST(FindSubstring, FindsTheWholeText)
{
    EXPECT_NE(find_substring("00", "00"), nullptr);
}
TEST(FindSubstring, DoesNotFindWhatIsNotThere)
{
    EXPECT_EQ(find_substring("01,02", "03"), nullptr);
}
TEST(FindSubstring, DoesNotFindInNoText)
{
    EXPECT_EQ(find_substring(nullptr, "00"), nullptr);
}
TEST(FindSubstring, DoesNotFindNoNeedle)
{
    EXPECT_EQ(find_substring("00", nullptr), nullptr);
}
TEST(FindSubstring, DoesNotFindAnEmptyNeedle)
{
    EXPECT_EQ(find_substring("00", ""), nullptr);
}
TEST(FindSubstring, DoesNotFindInAnEmptyText)
{
    EXPECT_EQ(find_substring("", "00"), nullptr);
}

namespace {

modem modem_with_id(uint32_t vid, uint32_t pid)
{
    modem m{};
    m.usb_id = {vid, pid};
    m.is_pcie = vid == 0x17CB;
    return m;
}

std::vector<uint32_t> types_of(const modem &m)
{
    std::vector<uint32_t> types;
    for (uint8_t i = 0; i < m.modem_port_size; ++i)
        types.push_back(m.modem_port[i].port_type);
    return types;
}

texts names_of(const modem &m)
{
    texts names;
    for (uint8_t i = 0; i < m.modem_port_size; ++i)
        names.emplace_back(m.modem_port[i].port_name);
    return names;
}

ports numbered_ports(int count)
{
    ports made;
    for (int i = 0; i < count; ++i)
        made.emplace_back("/dev/ttyUSB" + std::to_string(i), "0" + std::to_string(i));
    return made;
}

class GatherPorts : public ::testing::Test {
  protected:
    int gather(const ports &found, uint8_t max_ports = 7)
    {
        const core_device_info info = make_device("0000", "0000", found);
        return gather_serial_ports(&m, &info, max_ports);
    }

    log_capture log;
    modem m = modem_with_id(0xFFF0, 0x1001); // diagnostic 00, AT 01 and 02, three ports
};

} // namespace

TEST_F(GatherPorts, ClassifiesDiagnosticAndAtPorts)
{
    EXPECT_EQ(gather({{"/dev/ttyUSB0", "00"}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB2", "02"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{1, 2, 2}));
    EXPECT_EQ(names_of(m), (texts{"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2"}));
    EXPECT_EQ(m.modem_port_size, 3);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GatherPorts, KeepsTheOrderOfDiscovery)
{
    EXPECT_EQ(gather({{"/dev/ttyUSB9", "02"}, {"/dev/ttyUSB1", "00"}, {"/dev/ttyUSB4", "01"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{2, 1, 2}));
    EXPECT_EQ(names_of(m), (texts{"/dev/ttyUSB9", "/dev/ttyUSB1", "/dev/ttyUSB4"}));
}

TEST_F(GatherPorts, LeavesTheModelNameOfAModemInNormalOperation)
{
    EXPECT_EQ(gather(numbered_ports(3)), 0);
    EXPECT_STREQ(m.model_name, "");
}

TEST_F(GatherPorts, LeavesAnUnlistedInterfaceUnknown)
{
    EXPECT_EQ(gather({{"/dev/ttyUSB0", "00"}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB5", "05"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{1, 2, 0}));
}

TEST_F(GatherPorts, LeavesAPortWithoutAnInterfaceUnknown)
{
    EXPECT_EQ(gather({{"/dev/ttyUSB0", ""}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB2", "02"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{0, 2, 2}));
}

TEST_F(GatherPorts, NeverGoesByTheNameOfAUsbModemsPort)
{
    EXPECT_EQ(gather({{"/dev/at0", "07"}, {"/dev/firehose0", "08"}, {"/dev/ttyUSB2", "00"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{0, 0, 1}));
    EXPECT_STREQ(m.model_name, "");
}

TEST_F(GatherPorts, AsksAgainWhileAPortIsMissing)
{
    EXPECT_EQ(gather(numbered_ports(2)), -11);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"No ports found: maybe enumeration did not complete?"});
}

TEST_F(GatherPorts, AsksAgainWithoutAnyPort)
{
    EXPECT_EQ(gather({}), -11);
    EXPECT_EQ(m.modem_port_size, 0);
}

TEST_F(GatherPorts, SkipsANameWithADash)
{
    EXPECT_EQ(
        gather(
            {{"/dev/tty-0", "00"}, {"/dev/ttyUSB0", "00"}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB2", "02"}}),
        0);
    EXPECT_EQ(names_of(m), (texts{"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2"}));
}

TEST_F(GatherPorts, DoesNotCountASkippedNameForTheMinimum)
{
    EXPECT_EQ(gather({{"/dev/ttyUSB.0", "00"}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB2", "02"}}), -11);
    EXPECT_EQ(m.modem_port_size, 2);
}

TEST_F(GatherPorts, TakesSevenPorts)
{
    EXPECT_EQ(gather(numbered_ports(7)), 0);
    EXPECT_EQ(m.modem_port_size, 7);
}

TEST_F(GatherPorts, RefusesAnEighthPort)
{
    EXPECT_EQ(gather(numbered_ports(8)), -12);
    EXPECT_EQ(m.modem_port_size, 7);
}

TEST_F(GatherPorts, RefusesAnEighthEntryBeforeItLooksAtItsName)
{
    ports found = numbered_ports(7);
    found.emplace_back("/dev/not-a-port", "00");
    EXPECT_EQ(gather(found), -12);
}

TEST_F(GatherPorts, TakesAsManyPortsAsTheCallerAllows)
{
    EXPECT_EQ(gather(numbered_ports(3), 3), 0);
    EXPECT_EQ(m.modem_port_size, 3);
}

TEST_F(GatherPorts, RefusesOnePortMoreThanTheCallerAllows)
{
    EXPECT_EQ(gather(numbered_ports(4), 3), -12);
}

TEST_F(GatherPorts, StaysInsideTheRecordWhateverTheCallerAllows)
{
    EXPECT_EQ(gather(numbered_ports(10), 255), -12);
    EXPECT_EQ(m.modem_port_size, 7);
}

TEST_F(GatherPorts, StaysInsideTheDevicesListsWhateverItsCount)
{
    core_device_info info = make_device("0000", "0000", {});
    info.port_count = 1000; // all its names are empty, which is valid
    EXPECT_EQ(gather_serial_ports(&m, &info, 7), -12);
}

TEST_F(GatherPorts, FindsTheFirmwareUpdatePortOfTheDownloadDevice)
{
    m = modem_with_id(0x05C6, 0x9008);
    EXPECT_EQ(gather({{"/dev/ttyUSB0", "00"}}), 0);
    EXPECT_EQ(types_of(m), std::vector<uint32_t>{3});
    EXPECT_STREQ(m.model_name, "QDL");
}

TEST_F(GatherPorts, FindsTheFirmwareUpdatePortOfAMakersDownloadModeDevice)
{
    m = modem_with_id(0xFFF1, 0x2F01);
    EXPECT_EQ(gather({{"/dev/ttyUSB0", "00"}}), 0);
    EXPECT_EQ(types_of(m), std::vector<uint32_t>{3});
    EXPECT_STREQ(m.model_name, "QDL");
}

TEST_F(GatherPorts, TakesAnUnknownProductWithoutPorts)
{
    m = modem_with_id(0x1234, 0x5678);
    EXPECT_EQ(gather({}), 0);
}

TEST_F(GatherPorts, ClassifiesAPcieModemsPortsByName)
{
    m = modem_with_id(0x17CB, 0x011A);
    EXPECT_EQ(gather({{"/dev/wwan0at0", ""}, {"/dev/wwan0firehose0", ""}, {"/dev/wwan0mbim0", ""}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{2, 3, 0}));
    EXPECT_STREQ(m.model_name, "QDL");
}

TEST_F(GatherPorts, FindsNoInterfaceInAPcieModemsMap)
{
    m = modem_with_id(0x17CB, 0x0309);
    EXPECT_EQ(gather({{"/dev/wwan0mbim0", "00"}, {"/dev/wwan0qcdm0", "01"}}), 0);
    EXPECT_EQ(types_of(m), (std::vector<uint32_t>{0, 0}));
}

TEST_F(GatherPorts, KeepsAPcieModemWithAFirehosePortAlone)
{
    m = modem_with_id(0x17CB, 0x011A);
    EXPECT_EQ(gather({{"/dev/wwan0firehose0", ""}}), 0);
    EXPECT_EQ(types_of(m), std::vector<uint32_t>{3});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GatherPorts, AsksAgainForAPcieModemWithAnAtPortAlone)
{
    m = modem_with_id(0x17CB, 0x011A);
    EXPECT_EQ(gather({{"/dev/wwan0at0", ""}}), -11);
}

namespace {

const core_usb_id two_ids[] = {{0xFFF0, 0x1001}, {0x05C6, 0x9008}};
const core_usb_id_list two_list{2, two_ids};

class BusScan : public ::testing::Test {
  protected:
    void SetUp() override { fake.reset(); }

    int scan(uint8_t max_modems = 8) { return scan_usb_bus(&two_list, modems.data(), max_modems, 7); }

    fake_discovery &fake = fake_discovery::instance();
    log_capture log;
    std::vector<modem> modems = std::vector<modem>(8);
    const core_device_info normal = make_device("fff0", "1001", numbered_ports(3));
    const core_device_info incomplete = make_device("fff0", "1002", numbered_ports(2));
    const core_device_info download = make_device("05c6", "9008", {{"/dev/ttyUSB5", "00"}});
};

} // namespace

TEST_F(BusScan, AsksForTheWholeListAtOnce)
{
    fake.enumerations = {{.result = -19, .devices = {}}};
    scan();
    ASSERT_EQ(fake.enumerated.size(), 1U);
    ASSERT_EQ(fake.enumerated[0].size(), 2U);
    EXPECT_EQ(fake.enumerated[0][0].vid, 0xFFF0U);
    EXPECT_EQ(fake.enumerated[0][0].pid, 0x1001U);
    EXPECT_EQ(fake.enumerated[0][1].vid, 0x05C6U);
    EXPECT_EQ(fake.enumerated[0][1].pid, 0x9008U);
}

TEST_F(BusScan, LogsTheListAndTheCountOfDevices)
{
    fake.enumerations = {{.result = 0, .devices = {normal}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"usb_ids size = 2", " FFF0:1001, ", " 05C6:9008, ",
                                              "USB bus scan device list size = 1"}));
    EXPECT_EQ(log.messages().back().file, "../usb_probe.c");
    EXPECT_EQ(log.messages().back().function, "scan_usb_bus");
}

TEST_F(BusScan, EndsWhereThePlatformEnumeratesNothing)
{
    fake.enumerations = {{.result = -100, .devices = {}}};
    EXPECT_EQ(scan(), -100);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"usb_ids size = 2", " FFF0:1001, ", " 05C6:9008, "}));
    EXPECT_FALSE(is_modem_present(&modems[0]));
}

TEST_F(BusScan, PassesOnThatNothingIsConnected)
{
    fake.enumerations = {{.result = -19, .devices = {}}};
    EXPECT_EQ(scan(), -19);
}

TEST_F(BusScan, FillsTheRecord)
{
    core_device_info device = normal;
    strlcpy(device.serial, "0123456789ABCDEF", sizeof device.serial);
    strlcpy(device.path, "/sys/bus/usb/devices/1-2.3", sizeof device.path);
    fake.enumerations = {{.result = 0, .devices = {device}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(modems[0].probing_mode, 2U);
    EXPECT_EQ(modems[0].usb_id.vid, 0xFFF0U);
    EXPECT_EQ(modems[0].usb_id.pid, 0x1001U);
    EXPECT_STREQ(modems[0].usb_serial, "0123456789ABCDEF");
    EXPECT_STREQ(modems[0].dev_path, "/sys/bus/usb/devices/1-2.3");
    EXPECT_FALSE(modems[0].is_pcie);
    EXPECT_EQ(types_of(modems[0]), (std::vector<uint32_t>{1, 2, 2}));
    EXPECT_FALSE(is_modem_present(&modems[1]));
}

TEST_F(BusScan, CallsAMissingSerialUnknown)
{
    fake.enumerations = {{.result = 0, .devices = {normal}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_STREQ(modems[0].usb_serial, "unknown");
}

TEST_F(BusScan, KeepsTheLongestSerialAndPathThatFit)
{
    core_device_info device = normal;
    memset(device.serial, 's', sizeof device.serial - 1);
    memset(device.path, 'p', sizeof device.path - 1);
    fake.enumerations = {{.result = 0, .devices = {device}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(std::string(modems[0].usb_serial), std::string(1023, 's'));
    EXPECT_EQ(std::string(modems[0].dev_path), std::string(1023, 'p'));
}

TEST_F(BusScan, MarksAPcieModem)
{
    fake.enumerations = {
        {.result = 0,
         .devices = {make_device("17cb", "0309", {{"/dev/wwan0at0", ""}, {"/dev/wwan0mbim0", ""}})}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(modems[0].is_pcie);
    EXPECT_EQ(types_of(modems[0]), (std::vector<uint32_t>{2, 0}));
}

TEST_F(BusScan, NamesTheDownloadDevice)
{
    fake.enumerations = {{.result = 0, .devices = {download}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_STREQ(modems[0].model_name, "QDL");
}

TEST_F(BusScan, FillsFreeSlotsOnly)
{
    modems[0].probing_mode = PROBING_PORT;
    fake.enumerations = {{.result = 0, .devices = {normal, download}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(modems[0].probing_mode, 1U);
    EXPECT_EQ(modems[1].usb_id.pid, 0x1001U);
    EXPECT_EQ(modems[2].usb_id.pid, 0x9008U);
}

TEST_F(BusScan, FreesTheSlotOfAnIncompleteDevice)
{
    fake.enumerations = {{.result = 0, .devices = {incomplete}}};
    EXPECT_EQ(scan(), -11);
    EXPECT_FALSE(is_modem_present(&modems[0]));
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "No ports found: maybe enumeration did not complete?"));
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "Unable to gather serial ports for FFF0:1002");
}

TEST_F(BusScan, DropsADeviceWithTooManyPorts)
{
    fake.enumerations = {{.result = 0, .devices = {make_device("fff0", "1001", numbered_ports(8))}}};
    EXPECT_EQ(scan(), -12);
    EXPECT_FALSE(is_modem_present(&modems[0]));
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "Unable to gather serial ports for FFF0:1001");
}

TEST_F(BusScan, SucceedsWhenTheLastDeviceIsComplete)
{
    fake.enumerations = {{.result = 0, .devices = {incomplete, normal}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(modems[0].usb_id.pid, 0x1001U); // the freed slot is taken again
    EXPECT_FALSE(is_modem_present(&modems[1]));
}

TEST_F(BusScan, FailsWhenTheLastDeviceIsIncomplete)
{
    fake.enumerations = {{.result = 0, .devices = {normal, incomplete}}};
    EXPECT_EQ(scan(), -11);
    EXPECT_TRUE(is_modem_present(&modems[0]));
    EXPECT_FALSE(is_modem_present(&modems[1]));
}

TEST_F(BusScan, RefusesMoreDevicesThanTheArrayHolds)
{
    fake.enumerations = {{.result = 0, .devices = {normal, download}}};
    EXPECT_EQ(scan(1), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"Found more than 1 modems, please report bug to developers"});
    EXPECT_FALSE(is_modem_present(&modems[0]));
}

TEST_F(BusScan, TakesAsManyDevicesAsTheArrayHolds)
{
    fake.enumerations = {{.result = 0, .devices = {normal, download}}};
    EXPECT_EQ(scan(2), 0);
    EXPECT_TRUE(is_modem_present(&modems[1]));
}

TEST_F(BusScan, RefusesADeviceWhenEverySlotIsTaken)
{
    modems[0].probing_mode = PROBING_PORT;
    fake.enumerations = {{.result = 0, .devices = {normal}}};
    EXPECT_EQ(scan(1), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"No more empty slot in modem array"});
}

TEST_F(BusScan, SucceedsWithoutADevice)
{
    fake.enumerations = {{.result = 0, .devices = {}}};
    EXPECT_EQ(scan(), 0);
    EXPECT_FALSE(is_modem_present(&modems[0]));
}
