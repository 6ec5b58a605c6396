#include "route.hpp"

#include "core.hpp"

#include <gtest/gtest.h>

namespace {

modem found(const char *first_port, core_usb_id id = {0xFFF0, 0x1001})
{
    modem m{};
    m.probing_mode = PROBING_USB;
    m.usb_id = id;
    m.modem_port_size = 1;
    strlcpy(m.modem_port[0].port_name, first_port, sizeof m.modem_port[0].port_name);
    return m;
}

} // namespace

TEST(Route, FollowsFromTheModemAndTheOptions)
{
    const struct {
        bool already_in_qdl, pcie_modem, pcie_option, enter_qdl;
        bool switches, stops, uploads;
    } cases[] = {
        {false, false, false, false, true, false, true}, {true, false, false, false, false, false, true},
        {true, true, false, false, false, false, true},  {false, true, true, false, true, false, false},
        {true, true, true, false, false, false, false},  {false, true, false, false, true, false, false},
        {false, false, true, false, true, false, true},  {true, false, true, false, false, false, false},
        {false, false, false, true, true, true, false},  {true, false, false, true, false, true, false},
        {false, true, false, true, true, true, false},   {true, false, true, true, false, false, false},
        {true, true, true, true, false, false, false},
    };
    for (const auto &c : cases) {
        modem m = found("/dev/ttyUSB0");
        m.is_pcie = c.pcie_modem;
        program_options wanted{};
        wanted.pcie = c.pcie_option;
        wanted.enter_qdl = c.enter_qdl;
        const route way = plan_route(wanted, &m, c.already_in_qdl);
        EXPECT_EQ(way.switches, c.switches) << &c - cases;
        EXPECT_EQ(way.stops, c.stops) << &c - cases;
        EXPECT_EQ(way.uploads, c.uploads) << &c - cases;
    }
}

TEST(Route, OfAFoundFirehosePortNeedsNoOption)
{
    const modem m = found("/dev/wwan0firehose0");
    EXPECT_TRUE(is_in_download_mode(&m));
    EXPECT_FALSE(plan_route({}, &m, true).uploads);
}

TEST(Route, OfAFirehosePortFromTheCommandLineNeedsTheOption)
{
    modem m = found("/dev/wwan0firehose0");
    m.probing_mode = PROBING_PORT;
    EXPECT_FALSE(is_in_download_mode(&m));
    EXPECT_TRUE(plan_route({}, &m, true).uploads);
}

TEST(Route, KnowsTheDownloadDevicesByTheirIdentifier)
{
    const modem chip = found("/dev/ttyUSB0", {0x05C6, 0x9008});
    const modem maker = found("/dev/ttyUSB0", {0xFFF0, 0x1F01});
    const modem normal = found("/dev/ttyUSB0");
    EXPECT_TRUE(is_in_download_mode(&chip));
    EXPECT_TRUE(is_in_download_mode(&maker));
    EXPECT_FALSE(is_in_download_mode(&normal));
}
