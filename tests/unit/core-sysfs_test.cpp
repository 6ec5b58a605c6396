#include "core-sysfs.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "sysfs_tree.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <vector>

using texts = std::vector<std::string>;
using ports = std::vector<std::pair<std::string, std::string>>;

namespace {

bool every_one(const core_usb_id *, const void *)
{
    return true;
}

bool same_id(const core_usb_id *id, const void *context)
{
    return core_usb_id_equals(id, static_cast<const core_usb_id *>(context));
}

// Every test ends with a look at the log: nothing here may say a word.
class Sysfs : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_TRUE(log.messages().empty()); }

    std::vector<core_sysfs_device> find() const
    {
        std::vector<core_sysfs_device> found(16);
        found.resize(
            core_sysfs_find_devices(tree.roots().sys, every_one, nullptr, found.data(), found.size()));
        return found;
    }
    texts names() const
    {
        texts result;
        for (const core_sysfs_device &device : find())
            result.emplace_back(strrchr(device.path, '/') + 1);
        return result;
    }
    // The description of the only device.
    const core_device_info &describe()
    {
        const std::vector<core_sysfs_device> found = find();
        EXPECT_EQ(found.size(), 1U);
        EXPECT_TRUE(!found.empty() && core_sysfs_describe(tree.roots().sys, found.data(), &info));
        return info;
    }
    ports ports_of()
    {
        describe();
        ports result;
        for (uint32_t i = 0; i < info.port_count; ++i)
            result.emplace_back(info.port_names[i], info.interface_numbers[i]);
        return result;
    }

    sysfs_tree tree;
    log_capture log;
    core_device_info info{};
};

class FindDevices : public Sysfs {};
class UsbPorts : public Sysfs {};
class PcieModem : public Sysfs {};
class Describe : public Sysfs {};
class Attached : public Sysfs {};
class Complete : public Sysfs {};

} // namespace

TEST_F(FindDevices, FindsNoneWithoutABus)
{
    tree.remove("sys/bus");
    EXPECT_TRUE(find().empty());
}

TEST_F(FindDevices, TellsIdentifierAndRealPath)
{
    tree.add_usb("1-2.3", "05c6", "9008");
    const std::vector<core_sysfs_device> found = find();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].id.vid, 0x05C6U);
    EXPECT_EQ(found[0].id.pid, 0x9008U);
    EXPECT_FALSE(found[0].is_pcie);
    EXPECT_EQ(found[0].path, tree.sys() + "/devices/pci0000:00/0000:00:14.0/usb1/1-2.3");
}

TEST_F(FindDevices, OrdersByBusAndPortNumbers)
{
    for (const char *name : {"10-1", "1-10", "1-2.3", "2-1", "1-2", "1-2.10", "1-2.9.1"})
        tree.add_usb(name, "fff0", "1001");
    EXPECT_EQ(names(), (texts{"1-2", "1-2.3", "1-2.9.1", "1-2.10", "1-10", "2-1", "10-1"}));
}

TEST_F(FindDevices, PassesOverRootHubsAndInterfaces)
{
    tree.add_usb("usb1", "1d6b", "0002");
    tree.add_usb("1-2:1.0", "fff0", "1001");
    tree.add_usb("1-2", "fff0", "1001");
    EXPECT_EQ(names(), texts{"1-2"});
}

TEST_F(FindDevices, AsksForEveryIdentifier)
{
    tree.add_usb("1-1", "fff0", "1001");
    tree.add_usb("1-2", "05c6", "9008");
    const core_usb_id wanted{0x05C6, 0x9008};
    core_sysfs_device found[4];
    ASSERT_EQ(core_sysfs_find_devices(tree.roots().sys, same_id, &wanted, found, 4), 1U);
    EXPECT_STREQ(strrchr(found[0].path, '/'), "/1-2");
}

TEST_F(FindDevices, FillsNoMoreThanThereIsRoomFor)
{
    for (const char *name : {"1-1", "1-2", "1-3"})
        tree.add_usb(name, "fff0", "1001");
    core_sysfs_device found[2];
    EXPECT_EQ(core_sysfs_find_devices(tree.roots().sys, every_one, nullptr, found, 2), 2U);
    EXPECT_STREQ(strrchr(found[1].path, '/'), "/1-2");
}

TEST_F(FindDevices, PassesOverALinkThatLeadsNowhere)
{
    std::filesystem::create_symlink("../../../devices/gone", tree.sys() + "/bus/usb/devices/1-1");
    tree.add_usb("1-2", "fff0", "1001");
    EXPECT_EQ(names(), texts{"1-2"});
}

TEST_F(FindDevices, PassesOverALinkThatLeadsToAnotherDevice)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    std::filesystem::create_symlink(device, tree.sys() + "/bus/usb/devices/1-1");
    EXPECT_EQ(names(), texts{"1-2"});
}

TEST_F(FindDevices, PassesOverADeviceWithoutIdentifier)
{
    tree.remove(tree.add_usb("1-1", "fff0", "1001").substr(tree.sys().size() - 3) + "/idProduct");
    EXPECT_TRUE(find().empty());
}

TEST_F(FindDevices, PassesOverIdentifiersThatAreNone)
{
    int number = 1;
    for (const char *text : {"", "fffg", "10000", "0000", "-1", "ff f0", "ffffffffffffffffffffffff"})
        tree.add_usb("1-" + std::to_string(number++), text, "1001");
    EXPECT_TRUE(find().empty());
}

TEST_F(FindDevices, ReadsAttributesWithoutALineEnd)
{
    const std::string device = tree.add_usb("1-1", "0000", "0000");
    const std::string name = device.substr(tree.sys().size() - 3);
    tree.write(name + "/idVendor", "05c6");
    tree.write(name + "/idProduct", "9008");
    ASSERT_EQ(find().size(), 1U);
    EXPECT_EQ(find()[0].id.pid, 0x9008U);
}

TEST_F(FindDevices, TellsADeviceFromItsSuccessorOnThePath)
{
    tree.add_usb("1-1", "fff0", "1001", 5);
    const uint64_t first = find()[0].incarnation;
    tree.add_usb("1-1", "fff0", "1001", 6);
    EXPECT_NE(find()[0].incarnation, first);
    tree.add_usb("1-1", "fff0", "1001", 5);
    EXPECT_EQ(find()[0].incarnation, first);
}

TEST_F(PcieModem, ComesAfterTheUsbDevices)
{
    tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    tree.add_usb("1-1", "fff0", "1001");
    EXPECT_EQ(names(), (texts{"1-1", "mhi0"}));
}

TEST_F(PcieModem, HasTheIdentifierOfItsPciDevice)
{
    tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    const std::vector<core_sysfs_device> found = find();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].id.vid, 0x17CBU);
    EXPECT_EQ(found[0].id.pid, 0x0309U);
    EXPECT_TRUE(found[0].is_pcie);
    EXPECT_EQ(found[0].path, tree.sys() + "/devices/pci0000:00/0000:00:1c.0/0000:01:00.0/mhi0");
}

TEST_F(PcieModem, IsTheControllerAndNoneOfItsChannels)
{
    tree.add_mhi("mhi0_IPCR", "0000:01:00.0", "0x17cb", "0x0309");
    tree.add_mhi("mhi", "0000:02:00.0", "0x17cb", "0x0309");
    EXPECT_TRUE(find().empty());
}

TEST_F(PcieModem, IsOrderedByTheNumberOfItsController)
{
    tree.add_mhi("mhi10", "0000:03:00.0", "0x17cb", "0x0309");
    tree.add_mhi("mhi2", "0000:02:00.0", "0x17cb", "0x0309");
    EXPECT_EQ(names(), (texts{"mhi2", "mhi10"}));
}

TEST_F(PcieModem, ListsItsPortsByNumberWithoutAnInterface)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    for (const char *port : {"wwan0qcdm0", "wwan0at10", "wwan0at2", "wwan0mbim0"})
        tree.add_wwan(mhi, port);
    EXPECT_EQ(ports_of(), (ports{{"/dev/wwan0at2", ""},
                                 {"/dev/wwan0at10", ""},
                                 {"/dev/wwan0mbim0", ""},
                                 {"/dev/wwan0qcdm0", ""}}));
}

TEST_F(PcieModem, IsNotGivenThePortsOfAnother)
{
    const std::string first = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    tree.add_wwan(first, "wwan0at0");
    tree.add_wwan(tree.sys() + "/devices/pci0000:00/0000:00:1c.0/0000:01:00.01/mhi1", "wwan1at0");
    EXPECT_EQ(ports_of(), (ports{{"/dev/wwan0at0", ""}}));
}

TEST_F(PcieModem, HasNoSerialNumber)
{
    tree.write("sys/devices/pci0000:00/0000:00:1c.0/0000:01:00.0/mhi0/serial", "4711\n");
    tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    EXPECT_STREQ(describe().serial, "");
}

TEST_F(PcieModem, IsTheSameWhileMorePortsCome)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    EXPECT_EQ(find()[0].incarnation, 0U);
    tree.add_wwan(mhi, "wwan0at0");
    const uint64_t first = find()[0].incarnation;
    EXPECT_NE(first, 0U);
    tree.add_wwan(mhi, "wwan0qcdm0");
    EXPECT_EQ(find()[0].incarnation, first);
}

TEST_F(PcieModem, IsAnotherOnceItHasAFirehosePort)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    tree.add_wwan(mhi, "wwan0at0");
    const core_sysfs_device before = find()[0];
    tree.remove_wwan(mhi);
    tree.add_wwan(mhi, "wwan0firehose0");
    const core_sysfs_device after = find()[0];
    EXPECT_FALSE(before.has_firehose_port);
    EXPECT_TRUE(after.has_firehose_port);
    EXPECT_NE(after.incarnation, before.incarnation);
}

TEST_F(PcieModem, HasNoPortsThatCameAfterItWasFound)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    const core_sysfs_device found = find()[0];
    tree.add_wwan(mhi, "wwan0at0");
    EXPECT_TRUE(core_sysfs_describe(tree.roots().sys, &found, &info));
    EXPECT_EQ(info.port_count, 0U);
}

TEST_F(UsbPorts, OfASerialConverterAreListedByInterface)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    tree.add_tty(tree.add_interface(device, 2, "02"), "ttyUSB0");
    tree.add_tty(tree.add_interface(device, 0, "00"), "ttyUSB2");
    tree.add_tty(tree.add_interface(device, 1, "01"), "ttyUSB1");
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyUSB2", "00"}, {"/dev/ttyUSB1", "01"}, {"/dev/ttyUSB0", "02"}}));
}

TEST_F(UsbPorts, OfOneInterfaceAreListedByTheirNumbers)
{
    const std::string interface = tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 0, "00");
    for (const char *name : {"ttyUSB10", "ttyUSB9", "ttyUSB11"})
        tree.add_tty(interface, name);
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyUSB9", "00"}, {"/dev/ttyUSB10", "00"}, {"/dev/ttyUSB11", "00"}}));
}

TEST_F(UsbPorts, OfACommunicationDeviceAreListed)
{
    tree.add_acm(tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 3, "03"), "ttyACM0");
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyACM0", "03"}}));
}

TEST_F(UsbPorts, OfSeveralKindsOnAnInterfaceAreListedByName)
{
    const std::string interface = tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 0, "00");
    tree.add_tty(interface, "ttyUSB0");
    tree.add_acm(interface, "ttyACM0");
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyACM0", "00"}, {"/dev/ttyUSB0", "00"}}));
}

TEST_F(UsbPorts, OfTheWwanClassAreListedWithTheirInterface)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    tree.add_interface(device, 0, "00");
    tree.add_wwan(tree.add_interface(device, 4, "04"), "wwan0at0");
    EXPECT_EQ(ports_of(), (ports{{"/dev/wwan0at0", "04"}}));
}

TEST_F(UsbPorts, NameTheInterfaceInDecimalDigits)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    tree.add_tty(tree.add_interface(device, 0, "0a"), "ttyUSB0");
    tree.add_tty(tree.add_interface(device, 1, "63"), "ttyUSB1");
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyUSB0", "10"}, {"/dev/ttyUSB1", "99"}}));
}

TEST_F(UsbPorts, OfAnInterfaceThatTwoDigitsCannotNameAreNotListed)
{
    tree.add_tty(tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 0, "64"), "ttyUSB0");
    EXPECT_EQ(ports_of(), ports{});
}

TEST_F(UsbPorts, OfAnInterfaceWithoutANumberAreNotListed)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    tree.add_tty(device + "/1-2:1.0", "ttyUSB0");
    tree.add_tty(tree.add_interface(device, 1, "x"), "ttyUSB1");
    tree.add_tty(tree.add_interface(device, 2, "02"), "ttyUSB2");
    EXPECT_EQ(ports_of(), (ports{{"/dev/ttyUSB2", "02"}}));
}

TEST_F(UsbPorts, WithoutATtyAreNotListed)
{
    std::filesystem::create_directories(tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 0, "00") +
                                        "/ttyUSB0");
    EXPECT_EQ(ports_of(), ports{});
}

TEST_F(UsbPorts, AreNoOtherFolders)
{
    const std::string interface = tree.add_interface(tree.add_usb("1-2", "fff0", "1001"), 0, "00");
    for (const char *name : {"ttyUSB", "ttyUSB0x", "ttyUSBs", "ttyS0"})
        tree.add_tty(interface, name);
    tree.add_tty(interface, "ttyUSB" + std::string(70, '1'));
    tree.add_acm(interface, "ttyUSB0");
    EXPECT_EQ(ports_of(), ports{});
}

TEST_F(UsbPorts, OfADeviceBehindAHubAreNotTheHubs)
{
    const std::string hub = tree.add_usb("1-2", "1d6b", "0002");
    tree.add_tty(tree.add_interface(hub + "/1-2.3", 0, "00"), "ttyUSB0");
    EXPECT_EQ(ports_of(), ports{});
}

TEST_F(UsbPorts, AreTheFirstTenOfMore)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001");
    for (int i = 11; i >= 0; --i)
        tree.add_tty(tree.add_interface(device, 11 - i,
                                        i < 10    ? "0" + std::to_string(i)
                                        : i == 10 ? "0a"
                                                  : "0b"),
                     "ttyUSB" + std::to_string(i));
    const ports found = ports_of();
    ASSERT_EQ(found.size(), 10U);
    EXPECT_EQ(found.front(), (std::pair<std::string, std::string>{"/dev/ttyUSB0", "00"}));
    EXPECT_EQ(found.back(), (std::pair<std::string, std::string>{"/dev/ttyUSB9", "09"}));
}

TEST_F(Describe, GivesTheRealPathTwiceAndTheIdentifierInFourDigits)
{
    const std::string device = tree.add_usb("1-2.3", "5c6", "9008");
    describe();
    EXPECT_EQ(info.name, device);
    EXPECT_EQ(info.path, device);
    EXPECT_STREQ(info.vid, "05c6");
    EXPECT_STREQ(info.pid, "9008");
}

TEST_F(Describe, GivesTheSerialNumber)
{
    tree.write(tree.add_usb("1-2", "fff0", "1001").substr(tree.sys().size() - 3) + "/serial", "0123ABC\n");
    EXPECT_STREQ(describe().serial, "0123ABC");
}

TEST_F(Describe, LeavesAMissingSerialNumberEmpty)
{
    tree.add_usb("1-2", "fff0", "1001");
    EXPECT_STREQ(describe().serial, "");
}

TEST_F(Describe, CutsNoSerialNumberThatIsTooLong)
{
    const std::string name = tree.add_usb("1-2", "fff0", "1001").substr(tree.sys().size() - 3);
    tree.write(name + "/serial", std::string(1023, 's'));
    EXPECT_EQ(describe().serial, std::string(1023, 's'));
    tree.write(name + "/serial", std::string(1024, 's'));
    EXPECT_STREQ(describe().serial, "");
}

TEST_F(Describe, FailsForADeviceThatHasGone)
{
    tree.add_usb("1-2", "fff0", "1001");
    const core_sysfs_device found = find()[0];
    tree.remove_usb("1-2");
    EXPECT_FALSE(core_sysfs_describe(tree.roots().sys, &found, &info));
}

TEST_F(Attached, IsAUsbDeviceUntilItLeaves)
{
    tree.add_usb("1-2", "fff0", "1001");
    const core_sysfs_device found = find()[0];
    EXPECT_TRUE(core_sysfs_is_attached(&found));
    tree.remove_usb("1-2");
    EXPECT_FALSE(core_sysfs_is_attached(&found));
}

TEST_F(Attached, IsNotWhatTookThePath)
{
    tree.add_usb("1-2", "fff0", "1001", 5);
    const core_sysfs_device found = find()[0];
    tree.add_usb("1-2", "fff0", "1001", 6);
    EXPECT_FALSE(core_sysfs_is_attached(&found));
    tree.add_usb("1-2", "fff0", "1002", 5);
    EXPECT_FALSE(core_sysfs_is_attached(&found));
}

TEST_F(Attached, IsAPcieModemThatRestarts)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309");
    tree.add_wwan(mhi, "wwan0at0");
    const core_sysfs_device found = find()[0];
    tree.remove_wwan(mhi);
    EXPECT_TRUE(core_sysfs_is_attached(&found));
    tree.remove_mhi("mhi0", "0000:01:00.0");
    EXPECT_FALSE(core_sysfs_is_attached(&found));
}

TEST_F(Complete, IsADeviceWithAllItsInterfaces)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001", 5, 2);
    const core_sysfs_device found = find()[0];
    EXPECT_FALSE(core_sysfs_is_complete(&found));
    tree.add_interface(device, 0, "00");
    EXPECT_FALSE(core_sysfs_is_complete(&found));
    tree.add_interface(device, 3, "03");
    EXPECT_TRUE(core_sysfs_is_complete(&found));
}

TEST_F(Complete, IsNotADeviceWithoutAConfigurationYet)
{
    // The kernel shows the device, and announces it, before it chooses a configuration; the file is empty
    // then.
    tree.write(tree.add_usb("1-2", "fff0", "1001").substr(tree.sys().size() - 3) + "/bNumInterfaces", "");
    const core_sysfs_device found = find()[0];
    EXPECT_FALSE(core_sysfs_is_complete(&found));
}

TEST_F(Complete, CountsNoLinkToADeviceThatItDependsOn)
{
    const std::string device = tree.add_usb("1-2", "fff0", "1001", 5, 2);
    tree.add_interface(device, 0, "00");
    std::filesystem::create_directory_symlink("../usb4", device + "/supplier:pci:0000:00:0d.2");
    const core_sysfs_device found = find()[0];
    EXPECT_FALSE(core_sysfs_is_complete(&found));
}

TEST_F(Complete, IsADeviceThatDoesNotTellHowManyItHas)
{
    tree.remove(tree.add_usb("1-2", "fff0", "1001", 5, 2).substr(tree.sys().size() - 3) + "/bNumInterfaces");
    const core_sysfs_device found = find()[0];
    EXPECT_TRUE(core_sysfs_is_complete(&found));
}
