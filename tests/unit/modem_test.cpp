#include "modem.hpp"

#include "core.hpp"

#include <gtest/gtest.h>

TEST(PortTypeName, Unknown)
{
    EXPECT_STREQ(port_type_name(0), "unknown");
}
TEST(PortTypeName, Diagnostic)
{
    EXPECT_STREQ(port_type_name(1), "diagnostic");
}
TEST(PortTypeName, At)
{
    EXPECT_STREQ(port_type_name(2), "AT");
}
TEST(PortTypeName, FirmwareUpdate)
{
    EXPECT_STREQ(port_type_name(3), "firmware update");
}
TEST(PortTypeName, OfANumberThatIsNone)
{
    EXPECT_STREQ(port_type_name(4), "unknown");
}
TEST(PortTypeName, OfTheLargestNumber)
{
    EXPECT_STREQ(port_type_name(UINT32_MAX), "unknown");
}

TEST(ProbingModeName, Unknown)
{
    EXPECT_STREQ(probing_mode_name(0), "unknown");
}
TEST(ProbingModeName, Port)
{
    EXPECT_STREQ(probing_mode_name(1), "port");
}
TEST(ProbingModeName, Usb)
{
    EXPECT_STREQ(probing_mode_name(2), "usb");
}
TEST(ProbingModeName, OfANumberThatIsNone)
{
    EXPECT_STREQ(probing_mode_name(3), "unknown");
}

TEST(ModemRecord, HoldsSevenPorts)
{
    EXPECT_EQ(sizeof(modem::modem_port) / sizeof(modem_port_record), 7U);
}

TEST(ModemRecord, HasTextsOfTheirSizes)
{
    EXPECT_EQ(sizeof(modem::usb_serial), 1024U);
    EXPECT_EQ(sizeof(modem::dev_path), 1024U);
    EXPECT_EQ(sizeof(modem_port_record::port_name), 1024U);
    EXPECT_EQ(sizeof(modem::model_name), 128U);
    EXPECT_EQ(sizeof(modem::cfun), 128U);
    EXPECT_EQ(sizeof(modem::imei), 128U);
    EXPECT_EQ(sizeof(modem::versions), 1024U);
}

TEST(ModemArray, HoldsEightRecords)
{
    EXPECT_EQ(MAX_MODEM_NUMBER, 8);
}

TEST(ModemPresent, IsNoRecordOfZeroes)
{
    const modem m{};
    EXPECT_FALSE(is_modem_present(&m));
}

TEST(ModemPresent, ByItsFirstByte)
{
    modem m{};
    m.probing_mode = PROBING_PORT;
    EXPECT_TRUE(is_modem_present(&m));
}

TEST(ModemPresent, ByTheLastCharacterOfItsLastText)
{
    modem m{};
    m.versions[sizeof m.versions - 1] = 'x';
    EXPECT_TRUE(is_modem_present(&m));
}

TEST(ModemPresent, ByThePcieMarkAlone)
{
    modem m{};
    m.is_pcie = true;
    EXPECT_TRUE(is_modem_present(&m));
}

TEST(FreeModemSlot, IsTheFirstOfAnEmptyArray)
{
    modem modems[2] = {};
    EXPECT_EQ(find_free_modem_slot(modems, 2), &modems[0]);
}

TEST(FreeModemSlot, IsTheFirstGap)
{
    modem modems[4] = {};
    modems[0].probing_mode = PROBING_USB;
    modems[2].probing_mode = PROBING_USB;
    EXPECT_EQ(find_free_modem_slot(modems, 4), &modems[1]);
}

TEST(FreeModemSlot, IsNoneInAFullArray)
{
    modem modems[2] = {};
    modems[0].probing_mode = PROBING_USB;
    modems[1].usb_serial[0] = 'x';
    EXPECT_EQ(find_free_modem_slot(modems, 2), nullptr);
}

TEST(FreeModemSlot, IsLookedForInTheGivenCountOnly)
{
    modem modems[2] = {};
    modems[0].probing_mode = PROBING_USB;
    EXPECT_EQ(find_free_modem_slot(modems, 1), nullptr);
}

TEST(FreeModemSlot, IsNoneInAnArrayOfNone)
{
    modem modems[1] = {};
    EXPECT_EQ(find_free_modem_slot(modems, 0), nullptr);
}

static modem modem_with_types(std::initializer_list<uint32_t> types)
{
    modem m{};
    for (const uint32_t type : types)
        m.modem_port[m.modem_port_size++].port_type = type;
    return m;
}

TEST(FindPort, TakesTheFirstOfItsType)
{
    const modem m = modem_with_types({PORT_DIAGNOSTIC, PORT_AT, PORT_AT});
    EXPECT_EQ(find_port(&m, PORT_AT), &m.modem_port[1]);
}

TEST(FindPort, FindsNoneOfAnotherType)
{
    const modem m = modem_with_types({PORT_DIAGNOSTIC, PORT_AT});
    EXPECT_EQ(find_port(&m, PORT_FIRMWARE_UPDATE), nullptr);
}

TEST(FindPort, LooksAtUsedEntriesOnly)
{
    modem m = modem_with_types({PORT_DIAGNOSTIC, PORT_AT});
    m.modem_port_size = 1;
    EXPECT_EQ(find_port(&m, PORT_AT), nullptr);
}

TEST(FindPort, StaysInsideTheRecordWhateverItsCount)
{
    modem m{};
    m.modem_port_size = UINT8_MAX;
    EXPECT_EQ(find_port(&m, PORT_AT), nullptr);
}
