#include "core-discovery-linux.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "sysfs_tree.hpp"
#include "virtual-time.hpp"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>

using std::chrono::milliseconds;
using texts = std::vector<std::string>;

namespace {

constexpr core_usb_id identifiers[] = {{0x05C6, 0x9008}, {0xFFF0, 0x1001}, {0x17CB, 0x0309}};
const core_usb_id_list list{3, identifiers};

class Discovery : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
        *discovery.socket.receive() = pair[0];
        *kernels.receive() = pair[1];
    }

    int enumerate(size_t room = 10)
    {
        size = room;
        return core_discovery_enumerate(&discovery, identifiers, 3, devices, &size);
    }
    int listen(int timeout_ms)
    {
        return core_discovery_listen(&discovery, core_usb_id_find_match, &list, &event, timeout_ms);
    }
    // Lets something happen so many milliseconds from now.
    static void after(int64_t ms, std::function<void()> what)
    {
        virtual_time::instance().after(ms, std::move(what));
    }
    void announce() const
    {
        static const char message[] = "add@/devices/x\0SUBSYSTEM=usb";
        ASSERT_EQ(send(kernels.get(), message, sizeof message, 0), static_cast<ssize_t>(sizeof message));
    }

    sysfs_tree tree;
    core_known_devices known{};
    core_reported_ports reported{};
    core_discovery discovery{tree.roots(), {}, &known, &reported};
    owned_socket kernels;
    log_capture log;
    core_device_info devices[10];
    size_t size = 0;
    core_usb_event event{};
};

class Enumerate : public Discovery {};
class Listen : public Discovery {};

void note_signal(int signo)
{
    core_signal_handler(signo);
}

} // namespace

TEST_F(Enumerate, FindsNoDevice)
{
    tree.add_usb("1-1", "1d6b", "0002");
    EXPECT_EQ(enumerate(), -19);
    EXPECT_EQ(size, 0U);
}

TEST_F(Enumerate, DescribesEachDeviceOfTheList)
{
    add_three_port_modem(tree, "1-10", 5, 1);
    tree.add_usb("1-1", "1d6b", "0002");
    const std::string download = tree.add_usb("1-2", "05c6", "9008");
    tree.add_tty(tree.add_interface(download, 0, "00"), "ttyUSB0");
    tree.add_wwan(tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309"), "wwan0at0");
    ASSERT_EQ(enumerate(), 0);
    ASSERT_EQ(size, 3U);
    EXPECT_STREQ(devices[0].pid, "9008");
    EXPECT_EQ(devices[0].path, download);
    EXPECT_EQ(devices[0].port_count, 1U);
    EXPECT_STREQ(devices[1].pid, "1001");
    EXPECT_EQ(devices[1].port_count, 3U);
    EXPECT_STREQ(devices[1].port_names[0], "/dev/ttyUSB1");
    EXPECT_STREQ(devices[2].pid, "0309");
    EXPECT_STREQ(devices[2].port_names[0], "/dev/wwan0at0");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Enumerate, FillsNoMoreThanThereIsRoomFor)
{
    for (const char *name : {"1-1", "1-2", "1-3"})
        tree.add_usb(name, "fff0", "1001");
    EXPECT_EQ(enumerate(2), 0);
    EXPECT_EQ(size, 2U);
}

TEST_F(Enumerate, ReportsPortsThatAreInUseAndSucceeds)
{
    add_three_port_modem(tree, "1-2");
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB1"));
    EXPECT_EQ(enumerate(), 0);
    EXPECT_EQ(enumerate(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB1 is in use by some-daemon (process 812): stop it first\n"});
}

TEST_F(Enumerate, WaitsForANode)
{
    add_three_port_modem(tree, "1-2");
    tree.remove("dev/ttyUSB2");
    after(200, [this] { tree.write("dev/ttyUSB2", ""); });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(enumerate(), 0); }), 200);
    EXPECT_EQ(devices[0].port_count, 3U);
}

TEST_F(Enumerate, ListsAPortWhoseNodeNeverComes)
{
    add_three_port_modem(tree, "1-2");
    tree.remove("dev/ttyUSB2");
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(enumerate(), 0); }), 2000);
    EXPECT_STREQ(devices[0].port_names[2], "/dev/ttyUSB2");
}

TEST_F(Listen, TellsAtOnceOfADeviceThatCameBeforeIt)
{
    tree.add_usb("1-2", "05c6", "9008");
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(5000), 0); }), 0);
    EXPECT_EQ(event.id.vid, 0x05C6U);
    EXPECT_EQ(event.id.pid, 0x9008U);
    EXPECT_FALSE(event.removed);
    EXPECT_EQ(event.path, tree.sys() + "/devices/pci0000:00/0000:00:14.0/usb1/1-2");
}

TEST_F(Listen, DoesNotTellOfADeviceThatWasEnumerated)
{
    tree.add_usb("1-2", "05c6", "9008");
    EXPECT_EQ(enumerate(), 0);
    EXPECT_EQ(listen(100), -110);
}

TEST_F(Listen, TellsOfAPcieModemThatCameAfterTheEnumeration)
{
    EXPECT_EQ(enumerate(), -19);
    tree.add_wwan(tree.add_mhi("mhi0", "0000:01:00.0", "0x17cb", "0x0309"), "wwan0at0");
    EXPECT_EQ(listen(100), 0);
    EXPECT_EQ(event.id.vid, 0x17CBU);
}

TEST_F(Listen, TellsOfADeviceThatWasEnumeratedAndCameBack)
{
    tree.add_usb("1-2", "05c6", "9008", 5);
    enumerate();
    tree.remove_usb("1-2");
    tree.add_usb("1-2", "05c6", "9008", 6);
    EXPECT_EQ(listen(100), 0);
    EXPECT_TRUE(event.removed);
    EXPECT_EQ(listen(100), 0);
    EXPECT_FALSE(event.removed);
    EXPECT_EQ(listen(100), -110);
}

TEST_F(Listen, EndsWithItsTime)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(300), -110); }), 300);
}

TEST_F(Listen, WithoutTimeLooksOnce)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(0), -110); }), 0);
    tree.add_usb("1-2", "05c6", "9008");
    EXPECT_EQ(listen(0), 0);
}

TEST_F(Listen, WakesUpWithAMessage)
{
    // Sooner than the next look would be.
    after(50, [this] {
        tree.add_usb("1-2", "05c6", "9008");
        announce();
    });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(CORE_LISTEN_FOREVER), 0); }), 50);
    EXPECT_EQ(event.id.pid, 0x9008U);
}

TEST_F(Listen, TellsOfADeviceOnceHoweverManyMessagesCome)
{
    tree.add_usb("1-2", "05c6", "9008");
    for (int i = 0; i < 20; ++i)
        announce();
    EXPECT_EQ(listen(1000), 0);
    EXPECT_EQ(listen(100), -110);
}

TEST_F(Listen, NoticesADeviceWithoutAnyMessage)
{
    after(100, [this] { tree.add_usb("1-2", "05c6", "9008"); });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(CORE_LISTEN_FOREVER), 0); }), 500);
}

TEST_F(Listen, GoesOnWithoutASocket)
{
    discovery.socket.close();
    EXPECT_EQ(listen(100), -110);
    tree.add_usb("1-2", "05c6", "9008");
    EXPECT_EQ(listen(100), 0);
}

TEST_F(Listen, GivesABrokenSocketUp)
{
    const owned_socket file(open("/dev/null", O_RDWR));
    dup2(file.get(), discovery.socket.get());
    EXPECT_EQ(listen(300), -110);
    EXPECT_LT(discovery.socket.get(), 0);
}

TEST_F(Listen, DoesNotSpinOnMessagesThatConcernNoModem)
{
    static const char message[] = "change@/devices/battery\0SUBSYSTEM=power_supply";
    for (int i = 0; i < 5; ++i)
        ASSERT_GT(send(kernels.get(), message, sizeof message, 0), 0);
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(300), -110); }), 300);
}

TEST_F(Listen, EndsAtOnceAfterSigint)
{
    sigint_detected = 1;
    tree.add_usb("1-2", "05c6", "9008");
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(CORE_LISTEN_FOREVER), -4); }), 0);
}

TEST_F(Listen, EndsWithASigintThatInterruptsTheWait)
{
    const real_time here; // a signal ends a wait that is none of virtual time
    signal(SIGINT, note_signal);
    const pthread_t listener = pthread_self();
    std::thread user([listener] {
        std::this_thread::sleep_for(milliseconds(50));
        pthread_kill(listener, SIGINT);
    });
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(listen(CORE_LISTEN_FOREVER), -4);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, milliseconds(450)); // before the next look
    user.join();
}

TEST_F(Listen, EndsWithinHalfASecondWithASigintThatInterruptsNothing)
{
    // As one that comes between the look at the flag and the wait.
    after(100, [] { sigint_detected = 1; });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(listen(CORE_LISTEN_FOREVER), -4); }), 500);
}
