#include "modem-table.hpp"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

// "05C6:9008"
std::string text_of(const core_usb_id &id)
{
    char text[32];
    snprintf(text, sizeof text, "%04X:%04X", id.vid, id.pid);
    return text;
}

std::vector<std::string> texts_of(const core_usb_id_list &list, size_t first, size_t count)
{
    std::vector<std::string> found;
    for (size_t i = first; i < first + count && i < list.count; ++i)
        found.push_back(text_of(list.ids[i]));
    return found;
}

void expect_map(uint32_t vid, uint32_t pid, const char *diagnostic, const char *at,
                const char *firmware_update, int minimum_ports)
{
    const core_usb_id id{vid, pid};
    const port_map map = get_port_map(&id);
    EXPECT_STREQ(map.diagnostic, diagnostic);
    EXPECT_STREQ(map.at, at);
    EXPECT_STREQ(map.firmware_update, firmware_update);
    EXPECT_EQ(map.minimum_ports, minimum_ports);
}

bool is_maker(const core_usb_id &id)
{
    return id.vid == 0xFFF0 || id.vid == 0xFFF1;
}

} // namespace

TEST(ModemList, HasThirtyIdentifiers)
{
    EXPECT_EQ(modem_list.count, 30);
}

TEST(ModemList, BeginsWithTheMakersModemsInNormalOperation)
{
    for (size_t i = 0; i < 25; ++i) {
        const core_usb_id &id = modem_list.ids[i];
        EXPECT_TRUE(is_maker(id)) << text_of(id);
        EXPECT_FALSE(is_download_mode_modem(&id)) << text_of(id);
    }
}

TEST(ModemList, HasMakersIdentifiersOfTwoVendors)
{
    std::set<uint32_t> vendors;
    for (size_t i = 0; i < 25; ++i)
        vendors.insert(modem_list.ids[i].vid);
    EXPECT_EQ(vendors, (std::set<uint32_t>{0xFFF0, 0xFFF1}));
}

TEST(ModemList, GoesOnWithPcieThenDownloadModeAndEndsWithTheChipVendorsDevice)
{
    EXPECT_EQ(texts_of(modem_list, 25, 5),
              (std::vector<std::string>{"17CB:011A", "17CB:0309", "FFF0:1F01", "FFF1:2F01", "05C6:9008"}));
}

TEST(ModemList, HoldsNoIdentifierTwice)
{
    std::set<std::string> seen;
    for (unsigned i = 0; i < modem_list.count; ++i)
        EXPECT_TRUE(seen.insert(text_of(modem_list.ids[i])).second) << text_of(modem_list.ids[i]);
}

TEST(ModemList, HoldsValidIdentifiersOnly)
{
    for (unsigned i = 0; i < modem_list.count; ++i) {
        const core_usb_id &id = modem_list.ids[i];
        EXPECT_TRUE(id.vid >= 1 && id.vid <= 0xFFFF && id.pid >= 1 && id.pid <= 0xFFFF) << text_of(id);
    }
}

TEST(DownloadModeList, HasTheChipVendorsDeviceTheMakersAndPcieInThatOrder)
{
    EXPECT_EQ(download_mode_list.count, 5);
    EXPECT_EQ(texts_of(download_mode_list, 0, 5),
              (std::vector<std::string>{"05C6:9008", "FFF0:1F01", "FFF1:2F01", "17CB:011A", "17CB:0309"}));
}

TEST(DownloadModeList, IsPartOfTheModemList)
{
    for (unsigned i = 0; i < download_mode_list.count; ++i) {
        const auto matches = [i](const core_usb_id &id) {
            return id.vid == download_mode_list.ids[i].vid && id.pid == download_mode_list.ids[i].pid;
        };
        EXPECT_EQ(std::count_if(modem_list.ids, modem_list.ids + modem_list.count, matches), 1)
            << text_of(download_mode_list.ids[i]);
    }
}

TEST(PortMap, OfTheDownloadDevice)
{
    expect_map(0x05C6, 0x9008, "", "", "00", 1);
}
TEST(PortMap, OfTheFirstPcieModem)
{
    expect_map(0x17CB, 0x011A, "-1", "-1", "-1", 2);
}
TEST(PortMap, OfTheSecondPcieModem)
{
    expect_map(0x17CB, 0x0309, "-1", "-1", "-1", 2);
}
TEST(PortMap, OfAMakersModemWithThreePorts)
{
    expect_map(0xFFF0, 0x1001, "00", "01,02", "", 3);
}
TEST(PortMap, OfAMakersModemWithTheDiagnosticPortLast)
{
    expect_map(0xFFF0, 0x1010, "03", "02", "", 3);
}
TEST(PortMap, OfAMakersModemWithTwoPorts)
{
    expect_map(0xFFF1, 0x2020, "02", "01", "", 2);
}
TEST(PortMap, OfAMakersDownloadModeDevice)
{
    expect_map(0xFFF0, 0x1F01, "", "", "00", 1);
}
TEST(PortMap, OfTheOtherMakersDownloadModeDevice)
{
    expect_map(0xFFF1, 0x2F01, "", "", "00", 1);
}
TEST(PortMap, GoesByTheProductIdAlone)
{
    expect_map(0x1234, 0x9008, "", "", "00", 1);
}
TEST(PortMap, OfAnUnknownProductIsEmpty)
{
    expect_map(0x05C6, 0x9009, "", "", "", 0);
}

TEST(PortMap, IsThereForEveryProductOfTheModemList)
{
    for (unsigned i = 0; i < modem_list.count; ++i)
        EXPECT_GE(get_port_map(&modem_list.ids[i]).minimum_ports, 1) << text_of(modem_list.ids[i]);
}

TEST(PortMap, ListsTwoDigitInterfacesSeparatedByCommas)
{
    for (unsigned i = 0; i < modem_list.count; ++i) {
        const port_map map = get_port_map(&modem_list.ids[i]);
        for (const std::string list : {map.diagnostic, map.at, map.firmware_update}) {
            EXPECT_LT(list.size(), 64U);
            if (list.empty() || list == "-1")
                continue;
            ASSERT_EQ(list.size() % 3, 2U) << text_of(modem_list.ids[i]) << " \"" << list << '"';
            for (size_t k = 0; k < list.size(); ++k)
                EXPECT_TRUE(k % 3 == 2 ? list[k] == ',' : isdigit(list[k]) != 0) << '"' << list << '"';
        }
    }
}

// A port name is classified by the first list that holds its interface: no interface may be in two of them.
TEST(PortMap, NamesEachInterfaceOnce)
{
    for (unsigned i = 0; i < modem_list.count; ++i) {
        const port_map map = get_port_map(&modem_list.ids[i]);
        std::set<std::string> seen;
        for (const std::string list : {map.diagnostic, map.at, map.firmware_update}) {
            for (size_t k = 0; list != "-1" && k + 2 <= list.size(); k += 3)
                EXPECT_TRUE(seen.insert(list.substr(k, 2)).second) << text_of(modem_list.ids[i]);
        }
    }
}

static bool is_pcie(uint32_t vid, uint32_t pid)
{
    const core_usb_id id{vid, pid};
    return is_pcie_modem(&id);
}

TEST(PcieIdentifier, IsTheFirst)
{
    EXPECT_TRUE(is_pcie(0x17CB, 0x011A));
}
TEST(PcieIdentifier, IsTheSecond)
{
    EXPECT_TRUE(is_pcie(0x17CB, 0x0309));
}
TEST(PcieIdentifier, IsNoOtherProduct)
{
    EXPECT_FALSE(is_pcie(0x17CB, 0x0308));
}
TEST(PcieIdentifier, IsNoOtherVendor)
{
    EXPECT_FALSE(is_pcie(0x05C6, 0x011A));
}
TEST(PcieIdentifier, IsNotTheDownloadDevice)
{
    EXPECT_FALSE(is_pcie(0x05C6, 0x9008));
}

static bool is_download_mode(uint32_t vid, uint32_t pid)
{
    const core_usb_id id{vid, pid};
    return is_download_mode_modem(&id);
}

TEST(DownloadMode, IsTheChipVendorsDevice)
{
    EXPECT_TRUE(is_download_mode(0x05C6, 0x9008));
}
TEST(DownloadMode, IsTheMakersFirst)
{
    EXPECT_TRUE(is_download_mode(0xFFF0, 0x1F01));
}
TEST(DownloadMode, IsTheMakersSecond)
{
    EXPECT_TRUE(is_download_mode(0xFFF1, 0x2F01));
}
TEST(DownloadMode, IsNoOtherVendorsProduct)
{
    EXPECT_FALSE(is_download_mode(0xFFF0, 0x9008));
}
TEST(DownloadMode, IsNoPcieModem)
{
    EXPECT_FALSE(is_download_mode(0x17CB, 0x011A));
}
TEST(DownloadMode, IsNoModemInNormalOperation)
{
    EXPECT_FALSE(is_download_mode(0xFFF0, 0x1001));
}
TEST(DownloadMode, IsNoEmptyIdentifier)
{
    EXPECT_FALSE(is_download_mode(0, 0));
}

TEST(DownloadDevice, IsNamedAsTheKernelShowsIt)
{
    EXPECT_STREQ(QDL_VENDOR_TEXT, "5c6");
    EXPECT_STREQ(QDL_PRODUCT_TEXT, "9008");
}

TEST(ModemFamilies, AreSeparatedByCommas)
{
    EXPECT_STREQ(modem_families, "KA100, KA110, KB200, KB210, KC300");
}
