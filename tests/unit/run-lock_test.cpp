#include "run-lock.hpp"

#include "core-lock.hpp"
#include "core.hpp"
#include "log_capture.hpp"
#include "other-process.hpp"
#include "private_mounts.hpp"
#include "pty.hpp"
#include "temp_dir.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

using texts = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

std::string in_use(const std::string &what, const other_process &other)
{
    return what + " is in use by unit-app (process " + std::to_string(other.id()) +
           "): wait until it has ended";
}

class RunLock : public ::testing::Test {
  protected:
    // FIFOs are ports, too, and each is a place of its own.
    std::string add_fifo(const std::string &name) const
    {
        const std::string path = dir.at(name);
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        return path;
    }
    int hold(const std::string &port) { return hold_port(port.c_str()); }

    temp_dir dir;
    log_capture log;
};

// With a bus of its own, and names of its own besides.
class RunLockOnABus : public RunLock {
  protected:
    void SetUp() override
    {
        std::string reason;
        if (!private_mounts::empty_sys(&reason) || !private_mounts::empty_dev(&reason))
            GTEST_SKIP() << reason;
    }
    // A serial converter's port, with its node or without.
    static void add_port(const std::string &device, const std::string &name)
    {
        const std::string interface = "/sys/devices/usb1/" + device + "/" + device + ":1.0";
        fs::create_directories(interface + "/" + name);
        fs::create_directories("/sys/class/tty/" + name);
        fs::create_symlink(interface + "/" + name, "/sys/class/tty/" + name + "/device");
        private_mounts::write("/dev/" + name, "");
    }
    static void remove_port(const std::string &name)
    {
        fs::remove_all("/sys/class/tty/" + name);
        fs::remove("/dev/" + name);
    }
    static void add_usb_device(const std::string &name, const std::string &vendor, int number)
    {
        const std::string device = "/sys/bus/usb/devices/" + name;
        private_mounts::write(device + "/idVendor", vendor + "\n");
        private_mounts::write(device + "/idProduct", "9008\n");
        private_mounts::write(device + "/busnum", "1\n");
        private_mounts::write(device + "/devnum", std::to_string(number) + "\n");
        private_mounts::write("/dev/bus/usb/001/00" + std::to_string(number), "");
    }
};

constexpr core_usb_id download_id = {0x05C6, 0x9008};

modem modem_with_ports(const std::vector<std::string> &names)
{
    modem m{};
    for (const std::string &name : names)
        strlcpy(m.modem_port[m.modem_port_size++].port_name, name.c_str(), sizeof m.modem_port[0].port_name);
    return m;
}

} // namespace

TEST_F(RunLock, IsHadAgainByTheRunThatHasIt)
{
    const std::string port = add_fifo("port");
    EXPECT_EQ(hold(port), 0);
    EXPECT_EQ(hold(port), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RunLock, OfAnotherRunIsRefusedWithItsName)
{
    const std::string port = add_fifo("port");
    const other_process other([&] { return hold(port) == 0; });
    EXPECT_EQ(hold(port), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{in_use("port " + port, other)});
    EXPECT_EQ(log.messages().back().file, "../port.c");
    EXPECT_EQ(log.messages().back().function, "hold_port");
}

TEST_F(RunLock, IsThatOfAllNamesOfAPort)
{
    const std::string port = add_fifo("port");
    const std::string link = dir.at("link");
    const std::string second_name = dir.at("second");
    fs::create_symlink("port", link);
    fs::create_hard_link(port, second_name);
    const other_process other([&] { return hold(link) == 0; });
    for (const std::string &name : {port, link, second_name})
        EXPECT_EQ(hold(name), -16) << name;
}

TEST_F(RunLock, OfAnotherPortIsAnother)
{
    const std::string first = add_fifo("first");
    const std::string second = add_fifo("second");
    const other_process other([&] { return hold(first) == 0; });
    EXPECT_EQ(hold(second), 0);
}

TEST_F(RunLock, IsLeftBehindByNobody)
{
    const std::string port = add_fifo("port");
    other_process other([&] { return hold(port) == 0; });
    ASSERT_EQ(hold(port), -16);
    other.kill();
    EXPECT_EQ(hold(port), 0);
}

TEST_F(RunLock, EndsWithTheRun)
{
    const std::string port = add_fifo("port");
    ASSERT_EQ(hold(port), 0);
    release_modems();
    const other_process other([&] { return hold(port) == 0; });
    EXPECT_EQ(hold(port), -16);
}

TEST_F(RunLock, OfAPortThatHasGoneMeanwhileIsThatOfItsPath)
{
    const std::string port = add_fifo("port");
    const other_process other([&] { return hold(port) == 0; });
    fs::remove(port);
    EXPECT_EQ(hold(port), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{in_use("port " + port, other)});
    EXPECT_EQ(hold(dir.at("another")), 0);
}

TEST_F(RunLock, OfAPathIsNoObstacleForAnotherPortUnderIt)
{
    const std::string port = add_fifo("port");
    const other_process other([&] { return hold(port) == 0; });
    fs::rename(port, dir.at("kept")); // whose number is not to be had again
    add_fifo("port");
    EXPECT_EQ(hold(port), 0);
}

TEST_F(RunLock, OfAPseudoTerminalThatHasGoneIsNotThatOfTheNextWithItsNumber)
{
    auto first = std::make_unique<pty>();
    const std::string path = first->path();
    const other_process other([&] {
        const bool held = hold(path) == 0;
        first = nullptr;
        return held;
    });
    ASSERT_EQ(hold(path), -16);
    first = nullptr;
    const timespec tick{0, 20000000}; // what the kernel makes in one of its ticks is of one age
    nanosleep(&tick, nullptr);
    std::vector<std::unique_ptr<pty>> all;
    do
        all.push_back(std::make_unique<pty>());
    while (all.back()->path() != path && all.size() < 100);
    if (all.back()->path() != path)
        GTEST_SKIP() << "the number is somebody else's now";
    EXPECT_EQ(hold(path), 0);
}

TEST_F(RunLock, OfAPathIsNotTakenByWhoFindsNothingThere)
{
    const other_process other([&] { return hold(dir.at("port")) == 0; });
    EXPECT_EQ(hold(dir.at("port")), 0);
    const std::string port = add_fifo("port");
    EXPECT_EQ(hold(port), 0);
}

TEST_F(RunLock, IsDoneWithoutWhereThePathIsTooLongForAName)
{
    fs::create_directories(dir.at(std::string(100, 'x')));
    const std::string port = add_fifo(std::string(100, 'x') + "/port");
    EXPECT_EQ(hold(port), 0);
    EXPECT_EQ(hold(dir.at(std::string(100, 'x') + "/none")), 0);
}

TEST_F(RunLock, HoldsAllPortsOfAModem)
{
    const std::string first = add_fifo("first");
    const std::string second = add_fifo("second");
    const modem m = modem_with_ports({first, second});
    const other_process other([&] { return hold_modem(&m) == 0; });
    EXPECT_EQ(hold(first), -16);
    EXPECT_EQ(hold(second), -16);
}

TEST_F(RunLock, IsRefusedForAModemOneOfWhosePortsIsHeld)
{
    const std::string first = add_fifo("first");
    const std::string second = add_fifo("second");
    const other_process other([&] { return hold(second) == 0; });
    const modem m = modem_with_ports({first, second});
    EXPECT_EQ(hold_modem(&m), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{in_use("port " + second, other)});
}

TEST_F(RunLock, HasRoomForTheModemBeforeTheSwitchAndAfterIt)
{
    for (const char *when : {"before", "after"}) {
        std::vector<std::string> ports;
        for (int i = 0; i < MAX_MODEM_PORTS; ++i)
            ports.push_back(add_fifo(when + std::to_string(i)));
        const modem m = modem_with_ports(ports);
        EXPECT_EQ(hold_modem(&m), 0) << when;
    }
}

TEST_F(RunLock, EndsWhereTheRoomEnds)
{
    int err = 0;
    int count = 0;
    while (err == 0 && count < 200)
        err = hold(add_fifo(std::to_string(count++)));
    EXPECT_EQ(err, -12);
    EXPECT_GT(count, 32);
}

TEST_F(RunLockOnABus, IsThatOfThePlaceWhateverItsPortsAreCalled)
{
    add_port("1-2", "ttyUSB0");
    add_port("1-3", "ttyUSB1");
    const other_process other([this] { return hold("/dev/ttyUSB0") == 0; });
    remove_port("ttyUSB0");
    add_port("1-2", "ttyUSB4");
    EXPECT_EQ(hold("/dev/ttyUSB4"), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{in_use("port /dev/ttyUSB4", other)});
    EXPECT_EQ(hold("/dev/ttyUSB1"), 0);
}

TEST_F(RunLockOnABus, IsNotThatOfAnotherModemUnderTheSamePort)
{
    add_port("1-2", "ttyUSB0");
    const other_process other([this] { return hold("/dev/ttyUSB0") == 0; });
    remove_port("ttyUSB0");
    add_port("1-3", "ttyUSB0");
    EXPECT_EQ(hold("/dev/ttyUSB0"), 0);
}

TEST_F(RunLockOnABus, HoldsEveryUsbDeviceOfTheIdentifier)
{
    add_usb_device("1-2", "05c6", 5);
    add_usb_device("1-3", "05c6", 6);
    add_usb_device("1-4", "fff0", 7);
    const other_process other([] { return hold_usb_devices(download_id) == 0; });
    add_port("1-2", "ttyUSB0");
    add_port("1-3", "ttyUSB1");
    add_port("1-4", "ttyUSB2");
    EXPECT_EQ(hold("/dev/ttyUSB0"), -16);
    EXPECT_EQ(hold("/dev/ttyUSB1"), -16);
    EXPECT_EQ(hold("/dev/ttyUSB2"), 0);
    for (const auto &[number, result] : {std::pair(5, -16), std::pair(6, -16), std::pair(7, 0)}) {
        const owned_lock node(open(("/dev/bus/usb/001/00" + std::to_string(number)).c_str(), O_RDONLY));
        EXPECT_EQ(core_lock_file(node.get()), result) << number;
    }
}

TEST_F(RunLockOnABus, IsRefusedForAUsbDeviceOfAnotherRun)
{
    add_usb_device("1-2", "05c6", 5);
    add_port("1-2", "ttyUSB0");
    const other_process other([this] { return hold("/dev/ttyUSB0") == 0; });
    EXPECT_EQ(hold_usb_devices(download_id), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{in_use("USB device usb/1-2", other)});
    EXPECT_EQ(log.messages().back().function, "hold_usb_devices");
}

TEST_F(RunLockOnABus, IsNotRefusedForTheUsbDeviceOfAnotherModem)
{
    add_usb_device("1-2", "05c6", 5);
    add_usb_device("1-3", "05c6", 6);
    add_port("1-2", "ttyUSB0");
    add_port("1-3", "ttyUSB1");
    const other_process other(
        [this] { return hold("/dev/ttyUSB0") == 0 && hold_usb_devices(download_id) == 0; });
    EXPECT_EQ(hold("/dev/ttyUSB1"), 0);
    EXPECT_EQ(hold_usb_devices(download_id), 0);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
    const owned_lock node(open("/dev/bus/usb/001/006", O_RDONLY));
    EXPECT_EQ(core_lock_file(node.get()), -16) << "its own node is locked";
}

TEST_F(RunLockOnABus, IsRefusedForAUsbDeviceWhoseNodeIsLocked)
{
    add_usb_device("1-2", "05c6", 5);
    const other_process other([] { return core_lock_file(open("/dev/bus/usb/001/005", O_RDONLY)) == 0; });
    EXPECT_EQ(hold_usb_devices(download_id), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"USB device usb/1-2 is in use by unit-app (process " + std::to_string(other.id()) + ")"});
}

TEST_F(RunLockOnABus, LeavesAUsbDeviceWithoutANodeToLibusb)
{
    add_usb_device("1-2", "05c6", 5);
    fs::remove("/dev/bus/usb/001/005");
    EXPECT_EQ(hold_usb_devices(download_id), 0);
    EXPECT_EQ(hold_usb_devices(download_id), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RunLockOnABus, OfADownloadDeviceIsHadAgainByTheRunThatHasIt)
{
    add_port("1-2", "ttyUSB0");
    ASSERT_EQ(hold("/dev/ttyUSB0"), 0);
    add_usb_device("1-2", "05c6", 5);
    EXPECT_EQ(hold_usb_devices(download_id), 0);
    EXPECT_EQ(hold_usb_devices(download_id), 0);
}

TEST_F(RunLockOnABus, IsNoneWithoutUsbDevices)
{
    EXPECT_EQ(hold_usb_devices(download_id), 0);
}
