#include "core-place.hpp"

#include "core.hpp"
#include "sysfs_tree.hpp"

#include <array>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/sysmacros.h>

namespace fs = std::filesystem;

namespace {

constexpr char no_place[] = "";

struct stat node_of(mode_t type, dev_t number = 0)
{
    struct stat node {};
    node.st_mode = type | 0600;
    node.st_rdev = number;
    node.st_dev = 7;
    node.st_ino = 4711;
    return node;
}

struct stat serial_port(unsigned minor_number)
{
    return node_of(S_IFCHR, makedev(188, minor_number));
}

class Place : public ::testing::Test {
  protected:
    // Links of sys/class and sys/dev, as the kernel arranges them.
    void link(const std::string &name, const std::string &target) const
    {
        const fs::path path = tree.sys() + "/" + name;
        fs::create_directories(path.parent_path());
        fs::create_symlink(target, path);
    }

    std::string find(const std::string &port, const struct stat *node = nullptr) const
    {
        std::array<char, CORE_PLACE_SIZE> place{};
        return core_find_place(tree.roots().sys, port.c_str(), node, place) ? place.data() : no_place;
    }
    std::string find(const std::string &port, const struct stat &node) const { return find(port, &node); }

    // A serial converter's port on a modem behind a hub.
    std::string add_port(const std::string &name) const
    {
        const std::string interface = tree.sys() + "/devices/pci0000:00/usb1/1-2/1-2.3/1-2.3:1.0";
        tree.add_tty(interface, name);
        return interface + "/" + name;
    }

    sysfs_tree tree;
};

class UsbPlaces : public Place {
  protected:
    std::vector<std::string> places(size_t room = 8) const
    {
        std::vector<core_usb_place> found(room);
        found.resize(core_find_usb_places(tree.roots().sys, {0x05C6, 0x9008}, found));
        std::vector<std::string> result;
        for (const core_usb_place &each : found)
            result.push_back(std::string(each.place) + " " + each.node);
        std::sort(result.begin(), result.end());
        return result;
    }
};

} // namespace

TEST_F(Place, OfASerialConverterIsTheUsbDeviceAboveIt)
{
    link("class/tty/ttyUSB0/device", add_port("ttyUSB0"));
    EXPECT_EQ(find("/dev/ttyUSB0"), "usb/1-2.3");
}

TEST_F(Place, OfACommunicationDeviceIsThatOfItsInterface)
{
    link("class/tty/ttyACM0/device", tree.add_interface(tree.add_usb("3-1", "fff0", "1001"), 0, "00"));
    EXPECT_EQ(find("/dev/ttyACM0"), "usb/3-1");
}

TEST_F(Place, IsThatOfTheNumberWhateverTheNameSays)
{
    link("class/tty/ttyUSB0/device", add_port("ttyUSB0"));
    link("dev/char/188:3", tree.add_interface(tree.add_usb("1-4", "fff0", "1001"), 0, "00"));
    EXPECT_EQ(find("/dev/ttyUSB0", serial_port(3)), "usb/1-4");
    EXPECT_EQ(find("/dev/ttyUSB0", serial_port(4)), "usb/1-2.3");
}

TEST_F(Place, OfALinkIsThatOfThePort)
{
    link("class/tty/ttyUSB0/device", add_port("ttyUSB0"));
    const std::string by_id = tree.dev("by-id");
    fs::create_symlink("ttyUSB0", by_id);
    EXPECT_EQ(find(by_id), "usb/1-2.3");
}

TEST_F(Place, OfAModemOnTheMhiBusIsItsPciAddress)
{
    const std::string mhi = tree.add_mhi("mhi0", "0000:01:00.0", "17cb", "0309");
    tree.add_wwan(mhi, "wwan0at0");
    EXPECT_EQ(find("/dev/wwan0at0"), "pci/0000:01:00.0");
    EXPECT_EQ(find("/dev/wwan0at0", node_of(S_IFCHR, makedev(240, 0))), "pci/0000:01:00.0");
}

TEST_F(Place, OfAModemOnTheMhiBusIsToldWithoutItsPorts)
{
    tree.add_mhi("mhi1", "0000:02:00.0", "17cb", "0309");
    EXPECT_EQ(find("/dev/wwan1at0"), "pci/0000:02:00.0");
    EXPECT_EQ(find("/dev/wwan0at0"), no_place);
    EXPECT_EQ(find("/dev/wwan"), no_place);
}

TEST_F(Place, OfAControllerWithoutAnAddressIsItsName)
{
    fs::create_directories(tree.sys() + "/bus/mhi/devices/mhi0");
    EXPECT_EQ(find("/dev/wwan0at0"), "mhi/mhi0");
}

TEST_F(Place, OfAWwanPortOfAUsbModemIsTheUsbDevice)
{
    tree.add_wwan(tree.add_interface(tree.add_usb("1-6", "fff0", "1001"), 0, "00"), "wwan0at0");
    EXPECT_EQ(find("/dev/wwan0at0"), "usb/1-6");
}

TEST_F(Place, OfAPortWithoutABusIsItsNumber)
{
    link("dev/char/4:64", tree.write("sys/devices/pnp0/00:01/tty/ttyS0/dev", "4:64\n"));
    EXPECT_EQ(find("/dev/ttyS0", node_of(S_IFCHR, makedev(4, 64))), "device/4:64");
    EXPECT_EQ(find("/dev/ttyS1", node_of(S_IFCHR, makedev(4, 65))), "device/4:65");
}

TEST_F(Place, OfAPseudoTerminalIsItsFileAndWhenItWasMade)
{
    // The same number once more is another terminal.
    struct stat node = node_of(S_IFCHR, makedev(136, 3));
    EXPECT_EQ(find("/dev/pts/3", node), "file/7:4711:0.000000000");
    node.st_ctim = {1234, 5};
    EXPECT_EQ(find("/dev/pts/3", node), "file/7:4711:1234.000000005");
}

TEST_F(Place, OfAFifoIsItsFile)
{
    struct stat node = node_of(S_IFIFO);
    node.st_ctim = {1234, 5}; // of what was written to it last
    EXPECT_EQ(find("/run/fifo", node), "file/7:4711");
}

TEST_F(Place, OfWhatIsNotThereIsNone)
{
    EXPECT_EQ(find("/dev/ttyUSB0"), no_place);
    EXPECT_EQ(find(""), no_place);
    EXPECT_EQ(find("/dev/" + std::string(5000, 'x')), no_place);
}

TEST_F(Place, IsNoneOfTheDevicesThatAreNamedAlike)
{
    // Only the last of these is a device with a place.
    for (const char *name : {"usb1", "1-", "-2", "1-2:1.0", "x-2", "1-x", "1", "mhi", "mhi0_DUN", "mhix"})
        link("class/tty/" + std::string(name) + "/device",
             tree.write("sys/devices/a/" + std::string(name), ""));
    for (const char *name : {"usb1", "1-", "-2", "1-2:1.0", "x-2", "1-x", "1", "mhi", "mhi0_DUN", "mhix"})
        EXPECT_EQ(find(name), no_place) << name;
    link("class/tty/1-2/device", tree.write("sys/devices/a/1-2", ""));
    EXPECT_EQ(find("1-2"), "usb/1-2");
}

TEST_F(Place, ThatIsTooLongIsNone)
{
    link("class/tty/ttyUSB0/device", tree.write("sys/devices/1-" + std::string(100, '1') + "/x", ""));
    EXPECT_EQ(find("/dev/ttyUSB0"), no_place);
}

TEST(PseudoTerminal, IsKnownByItsMajor)
{
    for (const unsigned number : {136U, 143U})
        EXPECT_TRUE(core_is_pseudo_terminal(node_of(S_IFCHR, makedev(number, 9)))) << number;
    for (const unsigned number : {4U, 135U, 144U, 188U})
        EXPECT_FALSE(core_is_pseudo_terminal(node_of(S_IFCHR, makedev(number, 9)))) << number;
    EXPECT_FALSE(core_is_pseudo_terminal(node_of(S_IFBLK, makedev(136, 9))));
}

TEST_F(UsbPlaces, AreThoseOfTheIdentifier)
{
    tree.add_usb("1-2", "05c6", "9008", 12);
    tree.add_usb("1-3", "05c6", "9009");
    tree.add_usb("1-4", "fff0", "9008");
    tree.add_usb("1-10", "05c6", "9008", 113);
    EXPECT_EQ(places(), (std::vector<std::string>{"usb/1-10 bus/usb/001/113", "usb/1-2 bus/usb/001/012"}));
}

TEST_F(UsbPlaces, AreNoMoreThanThereIsRoomFor)
{
    tree.add_usb("1-2", "05c6", "9008");
    tree.add_usb("1-3", "05c6", "9008");
    EXPECT_EQ(places(1).size(), 1U);
}

TEST_F(UsbPlaces, AreNoneOfInterfacesAndRootHubs)
{
    tree.add_usb("usb1", "05c6", "9008");
    tree.add_usb("1-2:1.0", "05c6", "9008");
    EXPECT_TRUE(places().empty());
}

TEST_F(UsbPlaces, AreNoneOfWhatDoesNotTellAllOfIt)
{
    for (const char *attribute : {"idVendor", "idProduct", "busnum", "devnum"}) {
        const std::string device = tree.add_usb("1-2", "05c6", "9008");
        ASSERT_EQ(places().size(), 1U);
        fs::remove(device + "/" + attribute);
        EXPECT_TRUE(places().empty()) << attribute;
        tree.write(fs::relative(device, tree.sys() + "/..").string() + "/" + attribute, "none\n");
        EXPECT_TRUE(places().empty()) << attribute;
    }
}

TEST(UsbPlacesWithoutABus, AreNone)
{
    std::array<core_usb_place, 2> found{};
    EXPECT_EQ(core_find_usb_places("/nonexistent", {0x05C6, 0x9008}, found), 0U);
}
