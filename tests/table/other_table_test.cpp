// The product table of an integrator in place of the placeholder: everything derives from its rows.
#include "modem-table.hpp"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using pairs = std::vector<std::pair<uint32_t, uint32_t>>;

static pairs ids_of(const core_usb_id_list &list)
{
    pairs ids;
    for (unsigned i = 0; i < list.count; ++i)
        ids.emplace_back(list.ids[i].vid, list.ids[i].pid);
    return ids;
}

TEST(OtherTable, MakesTheModemList)
{
    EXPECT_EQ(
        ids_of(modem_list),
        (pairs{{0xFFF2, 1}, {0xFFF3, 3}, {0x17CB, 0x011A}, {0x17CB, 0x0309}, {0xFFF2, 2}, {0x05C6, 0x9008}}));
}

TEST(OtherTable, MakesTheDownloadModeList)
{
    EXPECT_EQ(ids_of(download_mode_list),
              (pairs{{0x05C6, 0x9008}, {0xFFF2, 2}, {0x17CB, 0x011A}, {0x17CB, 0x0309}}));
}

TEST(OtherTable, MakesThePortMaps)
{
    const core_usb_id id{0xFFF2, 1};
    const port_map map = get_port_map(&id);
    EXPECT_EQ(std::string(map.diagnostic), "04");
    EXPECT_EQ(std::string(map.at), "05,06");
    EXPECT_EQ(std::string(map.firmware_update), "");
    EXPECT_EQ(map.minimum_ports, 3);
}

TEST(OtherTable, MakesTheDownloadModeIdentities)
{
    const core_usb_id download{0xFFF2, 2};
    const core_usb_id normal{0xFFF2, 1};
    EXPECT_TRUE(is_download_mode_modem(&download));
    EXPECT_FALSE(is_download_mode_modem(&normal));
}

TEST(OtherTable, NamesTheFamilies)
{
    EXPECT_EQ(std::string(modem_families), "ONE, TWO");
}
