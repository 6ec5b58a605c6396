#include "core-arrivals.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "sysfs_tree.hpp"
#include "virtual-time.hpp"

#include <gtest/gtest.h>

namespace {

constexpr core_usb_id modem_and_pcie[] = {{0xFFF0, 0x1001}, {0x17CB, 0x0309}};
constexpr core_usb_id download_and_pcie[] = {{0x05C6, 0x9008}, {0x17CB, 0x0309}};
const core_usb_id_list modem_ids{2, modem_and_pcie};
const core_usb_id_list download_ids{2, download_and_pcie};

class BusEvent : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_TRUE(log.messages().empty()); }

    // The next event, such as "+ fff0:1001 1-2"; "" for none.
    std::string next(const core_usb_id_list &list = modem_ids)
    {
        core_usb_event event{};
        if (!core_find_bus_event(tree.roots().sys, &known, core_usb_id_find_match, &list, &event))
            return "";
        char id[16];
        snprintf(id, sizeof id, "%04x:%04x", event.id.vid, event.id.pid);
        EXPECT_EQ(std::string(event.path).rfind(tree.sys() + "/devices/", 0), 0U);
        return std::string(event.removed ? "- " : "+ ") + id + " " + (strrchr(event.path, '/') + 1);
    }
    std::string add_pcie() { return tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309"); }

    sysfs_tree tree;
    log_capture log;
    virtual_time &sleep = virtual_time::instance();
    core_known_devices known{};
};

class UsbEvent : public BusEvent {};
class PcieEvent : public BusEvent {};

} // namespace

TEST_F(UsbEvent, DoesNotComeFromAnEmptyBus)
{
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, TellsOfAnArrivalOnce)
{
    add_three_port_modem(tree, "1-2");
    EXPECT_EQ(next(), "+ fff0:1001 1-2");
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, TellsOfEachDevice)
{
    tree.add_usb("1-10", "fff0", "1001");
    tree.add_usb("1-9", "fff0", "1001");
    EXPECT_EQ(next(), "+ fff0:1001 1-9");
    EXPECT_EQ(next(), "+ fff0:1001 1-10");
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, DoesNotTellOfADeviceThatIsNotAskedFor)
{
    tree.add_usb("1-1", "fff0", "1001");
    EXPECT_EQ(next(download_ids), "");
    EXPECT_EQ(next(modem_ids), "+ fff0:1001 1-1");
}

TEST_F(UsbEvent, DoesNotTellOfADeviceThatIsKnown)
{
    tree.add_usb("1-1", "fff0", "1001");
    core_sysfs_device device{};
    ASSERT_EQ(
        core_sysfs_find_devices(
            tree.roots().sys, [](const core_usb_id *, const void *) { return true; }, nullptr, &device, 1),
        1U);
    core_know_device(&known, device);
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, TellsOfARemovalOnce)
{
    tree.add_usb("1-1", "fff0", "1001");
    next();
    tree.remove_usb("1-1");
    EXPECT_EQ(next(), "- fff0:1001 1-1");
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, DoesNotTellOfTheRemovalOfADeviceThatIsNotAskedFor)
{
    tree.add_usb("1-1", "fff0", "1001");
    next();
    tree.remove_usb("1-1");
    EXPECT_EQ(next(download_ids), "");
}

TEST_F(UsbEvent, TellsOfADeviceThatLeftAndCameBackBetweenTwoLooks)
{
    tree.add_usb("1-1", "fff0", "1001", 5);
    next();
    tree.add_usb("1-1", "fff0", "1001", 6);
    EXPECT_EQ(next(), "- fff0:1001 1-1");
    EXPECT_EQ(next(), "+ fff0:1001 1-1");
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, TellsOfTheDownloadDeviceThatTookTheModemsPlace)
{
    tree.add_usb("1-1", "fff0", "1001", 5);
    next();
    tree.remove_usb("1-1");
    tree.add_usb("1-1", "05c6", "9008", 6);
    EXPECT_EQ(next(download_ids), "+ 05c6:9008 1-1");
    EXPECT_EQ(next(download_ids), "");
}

TEST_F(UsbEvent, WaitsForTheInterfaces)
{
    const std::string device = tree.add_usb("1-1", "fff0", "1001", 5, 2);
    sleep.when_slept = [this, &device] {
        const int index = static_cast<int>(sleep.slept.size()) - 1;
        tree.add_interface(device, index, "0" + std::to_string(index));
    };
    EXPECT_EQ(next(), "+ fff0:1001 1-1");
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{50, 50}));
}

TEST_F(UsbEvent, WaitsForTheConfigurationThatBringsTheInterfaces)
{
    const std::string device = tree.add_usb("1-1", "fff0", "1001", 5, 1);
    const std::string count = device.substr(tree.sys().size() - 3) + "/bNumInterfaces";
    tree.write(count, "");
    sleep.when_slept = [this, &device, &count] {
        tree.write(count, " 1\n");
        if (sleep.slept.size() == 2)
            tree.add_interface(device, 0, "00");
    };
    EXPECT_EQ(next(), "+ fff0:1001 1-1");
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{50, 50}));
}

TEST_F(UsbEvent, ComesAfterTwoSecondsWithoutTheInterfaces)
{
    tree.add_usb("1-1", "fff0", "1001", 5, 2);
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(next(), "+ fff0:1001 1-1"); }), 2000);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(40, 50));
}

TEST_F(UsbEvent, DoesNotComeOfADeviceThatLeavesBeforeItsInterfacesAreThere)
{
    tree.add_usb("1-1", "fff0", "1001", 5, 2);
    sleep.when_slept = [this] { tree.remove_usb("1-1"); };
    EXPECT_EQ(next(), "");
    EXPECT_EQ(next(), "");
}

TEST_F(UsbEvent, TellsOfMoreDevicesThanItRemembers)
{
    for (int i = 1; i <= 100; ++i) {
        tree.add_usb("1-" + std::to_string(i), "fff0", "1001", i);
        EXPECT_EQ(next(), "+ fff0:1001 1-" + std::to_string(i));
        tree.remove_usb("1-" + std::to_string(i));
        EXPECT_EQ(next(), "- fff0:1001 1-" + std::to_string(i));
    }
    for (int i = 1; i <= 30; ++i)
        tree.add_usb("2-" + std::to_string(i), "fff0", "1001", i);
    for (int i = 1; i <= 30; ++i)
        EXPECT_EQ(next(), "+ fff0:1001 2-" + std::to_string(i));
    EXPECT_EQ(next(), "");
}

TEST_F(PcieEvent, ComesWithTheFirstPort)
{
    const std::string mhi = add_pcie();
    EXPECT_EQ(next(), "");
    tree.add_wwan(mhi, "wwan0at0");
    EXPECT_EQ(next(), "+ 17cb:0309 mhi0");
    tree.add_wwan(mhi, "wwan0qcdm0");
    EXPECT_EQ(next(), "");
}

TEST_F(PcieEvent, ComesAtOnceOfAModemThatTheEnumerationMissed)
{
    tree.add_wwan(add_pcie(), "wwan0at0");
    EXPECT_EQ(next(), "+ 17cb:0309 mhi0");
}

TEST_F(PcieEvent, ComesAgainWhenTheModemRestartedInDownloadMode)
{
    const std::string mhi = add_pcie();
    tree.add_wwan(mhi, "wwan0at0");
    next();
    tree.remove_wwan(mhi);
    EXPECT_EQ(next(download_ids), "");
    tree.add_wwan(mhi, "wwan0firehose0");
    EXPECT_EQ(next(download_ids), "+ 17cb:0309 mhi0");
    EXPECT_EQ(next(download_ids), "");
}

TEST_F(PcieEvent, ComesAgainWhenTheRestartFellBetweenTwoLooks)
{
    const std::string mhi = add_pcie();
    tree.add_wwan(mhi, "wwan0at0");
    next();
    tree.remove_wwan(mhi);
    tree.add_wwan(mhi, "wwan0firehose0");
    EXPECT_EQ(next(download_ids), "+ 17cb:0309 mhi0");
}

TEST_F(PcieEvent, TellsOfAControllerThatLeaves)
{
    tree.add_wwan(add_pcie(), "wwan0at0");
    next();
    tree.remove_mhi("mhi0", "0000:01:00.0");
    EXPECT_EQ(next(), "- 17cb:0309 mhi0");
    EXPECT_EQ(next(), "");
}

TEST_F(PcieEvent, ComesOfAModemThatWasWithoutPortsAtFirst)
{
    const std::string mhi = add_pcie();
    EXPECT_EQ(next(download_ids), "");
    tree.add_wwan(mhi, "wwan0firehose0");
    EXPECT_EQ(next(download_ids), "+ 17cb:0309 mhi0");
}
