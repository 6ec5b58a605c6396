#include "core-uevent.hpp"

#include "libc-hooks.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// Lines as the kernel sends them, each with its terminator.
std::string message(std::initializer_list<const char *> lines)
{
    std::string bytes;
    for (const char *line : lines)
        bytes.append(line, strlen(line) + 1);
    return bytes;
}

const std::string device_added =
    message({"add@/devices/pci0000:00/usb1/1-2", "ACTION=add", "DEVPATH=/devices/pci0000:00/usb1/1-2",
             "SUBSYSTEM=usb", "DEVTYPE=usb_device", "PRODUCT=5c6/9008/0", "SEQNUM=4711"});
const std::string disk_added =
    message({"add@/devices/virtual/block/loop0", "ACTION=add", "SUBSYSTEM=block", "SEQNUM=4712"});

bool concerns(const std::string &bytes)
{
    // A copy of the exact size, so that a read behind it is seen.
    const std::vector<char> exact(bytes.begin(), bytes.end());
    return core_uevent_concerns_modems(exact.data(), exact.size());
}

// A socket pair in the place of the kernel's.
class UeventSocket : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
        *ours.receive() = pair[0];
        *kernels.receive() = pair[1];
    }
    void send(const std::string &bytes) const
    {
        ASSERT_EQ(::send(kernels.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    core_uevents drain() const { return core_uevent_drain(ours.get()); }

    owned_socket ours, kernels;
};

} // namespace

TEST(UeventMessage, OfTheThreeSubsystemsConcernsModems)
{
    EXPECT_TRUE(concerns(device_added));
    EXPECT_TRUE(concerns(message({"remove@/devices/x/mhi0", "ACTION=remove", "SUBSYSTEM=mhi"})));
    EXPECT_TRUE(
        concerns(message({"add@/devices/x/mhi0/wwan/wwan0/wwan0at0", "SUBSYSTEM=wwan", "ACTION=add"})));
}

TEST(UeventMessage, OfAnotherSubsystemDoesNot)
{
    EXPECT_FALSE(concerns(disk_added));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM=usbmon"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM=us"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM="})));
}

TEST(UeventMessage, WithoutASubsystemDoesNot)
{
    EXPECT_FALSE(concerns(message({"add@/devices/x", "ACTION=add"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "XSUBSYSTEM=usb"})));
}

TEST(UeventMessage, ThatIsEmptyIsNone)
{
    EXPECT_FALSE(concerns(""));
    EXPECT_FALSE(core_uevent_concerns_modems(nullptr, 0));
}

TEST(UeventMessage, WithoutATerminatorIsNone)
{
    EXPECT_FALSE(concerns(device_added.substr(0, device_added.size() - 1)));
    EXPECT_FALSE(concerns("add@/devices/x"));
}

TEST(UeventMessage, WithoutAPathIsNone)
{
    EXPECT_FALSE(concerns(message({"add/devices/x", "SUBSYSTEM=usb"})));
    EXPECT_FALSE(concerns(message({"SUBSYSTEM=usb"})));
    EXPECT_FALSE(concerns(message({"", "SUBSYSTEM=usb@"})));
}

TEST(UeventMessage, OfTwoSubsystemsIsNone)
{
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM=usb", "SUBSYSTEM=block"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM=usb", "SUBSYSTEM=usb"})));
    EXPECT_FALSE(concerns(message({"add@/devices/x", "SUBSYSTEM=", "SUBSYSTEM=usb"})));
}

TEST(UeventMessage, OfRubbishIsNone)
{
    EXPECT_FALSE(concerns(std::string(8192, '\0')));
    EXPECT_FALSE(concerns(std::string(8192, '@')));
    EXPECT_FALSE(concerns(std::string(8191, '=') + '\0'));
}

TEST_F(UeventSocket, HasNothingToTellAtFirst)
{
    EXPECT_EQ(drain(), core_uevents::none);
}

TEST_F(UeventSocket, TellsOfADevice)
{
    send(device_added);
    EXPECT_EQ(drain(), core_uevents::some);
    EXPECT_EQ(drain(), core_uevents::none);
}

TEST_F(UeventSocket, TakesAllMessagesAtOnce)
{
    for (int i = 0; i < 5; ++i) {
        send(device_added);
        send(disk_added);
    }
    EXPECT_EQ(drain(), core_uevents::some);
    EXPECT_EQ(drain(), core_uevents::none);
}

TEST_F(UeventSocket, PassesOverWhatIsNoMessage)
{
    send("");
    send(std::string(8192, 'x'));
    send(disk_added);
    EXPECT_EQ(drain(), core_uevents::none);
    send("x");
    send(device_added);
    EXPECT_EQ(drain(), core_uevents::some);
}

TEST_F(UeventSocket, PassesOverAMessageThatIsTooLong)
{
    std::string bytes = device_added + std::string(9000, 'x');
    bytes[8191] = '\0'; // what is left of it would be well-formed
    send(bytes);
    EXPECT_EQ(drain(), core_uevents::none);
}

TEST_F(UeventSocket, TellsOfMessagesThatWereLost)
{
    libc::recvmsg = libc::fails_in_call(1, ENOBUFS, recvmsg); // which a socket pair does not show by itself
    EXPECT_EQ(drain(), core_uevents::some);
    EXPECT_EQ(drain(), core_uevents::none);
}

TEST_F(UeventSocket, GoesOnAfterASignal)
{
    libc::recvmsg = libc::fails_in_call(1, EINTR, recvmsg); // which a socket pair does not show by itself
    EXPECT_EQ(drain(), core_uevents::none);
    send(device_added);
    EXPECT_EQ(drain(), core_uevents::some);
}

TEST_F(UeventSocket, IsBrokenWhenItCannotBeRead)
{
    ours.close();
    EXPECT_EQ(drain(), core_uevents::broken);
}

namespace {

// A real socket of the kernel's messages.
class Subscription : public ::testing::Test {
  protected:
    void SetUp() override
    {
        *handle.receive() = core_uevent_subscribe();
        if (handle.get() < 0)
            GTEST_SKIP() << "no netlink socket: " << strerror(errno);
    }
    owned_socket handle;
};

} // namespace

TEST_F(Subscription, IsToTheKernelsOwnGroup)
{
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(handle.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    EXPECT_EQ(address.nl_family, AF_NETLINK);
    EXPECT_EQ(address.nl_groups, 1U);
}

TEST_F(Subscription, IsNotInheritedByPrograms)
{
    EXPECT_EQ(fcntl(handle.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(Subscription, DoesNotListenToOtherProcesses)
{
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(handle.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    const owned_socket other(socket(AF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT));
    address.nl_groups = 0;
    if (sendto(other.get(), device_added.data(), device_added.size(), 0,
               reinterpret_cast<sockaddr *>(&address), size) < 0)
        GTEST_SKIP() << "a process cannot send such messages here: " << strerror(errno);
    EXPECT_EQ(core_uevent_drain(handle.get()), core_uevents::none);
}
