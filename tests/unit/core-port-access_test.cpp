#include "core-port-access.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "sysfs_tree.hpp"
#include "virtual-time.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using texts = std::vector<std::string>;

namespace {

class PortAccess : public ::testing::Test {
  protected:
    PortAccess()
    {
        for (const char *name : {"/dev/ttyUSB0", "/dev/ttyUSB1"})
            strlcpy(device.port_names[device.port_count++], name, sizeof device.port_names[0]);
        for (const char *name : {"ttyUSB0", "ttyUSB1"}) {
            tree.write(std::string("dev/") + name, "");
            chmod(tree.dev(name).c_str(), 0666);
        }
    }

    void report() { core_report_port_holders(tree.roots(), &device, 1, &reported); }

    sysfs_tree tree;
    log_capture log;
    virtual_time &sleep = virtual_time::instance();
    core_device_info device{};
    core_reported_ports reported{};
};

class AwaitPorts : public PortAccess {};
class PortHolder : public PortAccess {};

} // namespace

TEST_F(AwaitPorts, TakesNoTimeWhenAllAreThere)
{
    core_await_port_access(tree.roots(), &device, 1);
    EXPECT_TRUE(sleep.slept.empty());
}

TEST_F(AwaitPorts, GoesOnUntilEveryNodeIsThere)
{
    tree.remove("dev/ttyUSB0");
    tree.remove("dev/ttyUSB1");
    sleep.when_slept = [this] { tree.write(sleep.slept.size() < 3 ? "dev/ttyUSB0" : "dev/ttyUSB1", ""); };
    core_await_port_access(tree.roots(), &device, 1);
    EXPECT_EQ(sleep.slept, (std::vector<unsigned>{50, 50, 50}));
}

TEST_F(AwaitPorts, EndsAfterTwoSecondsWithoutAWord)
{
    tree.remove("dev/ttyUSB0");
    tree.remove("dev/ttyUSB1");
    EXPECT_EQ(duration_of([this] { core_await_port_access(tree.roots(), &device, 1); }), 2000);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>(40, 50));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(AwaitPorts, EndsWithSigint)
{
    tree.remove("dev/ttyUSB0");
    sleep.when_slept = [] { sigint_detected = 1; };
    core_await_port_access(tree.roots(), &device, 1);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>{50});
}

TEST_F(AwaitPorts, GoesOnUntilThePermissionsAreSet)
{
    // access(2) goes by the real user: root gives its own up for nobody's, and may still change the mode.
    chmod(tree.dev("..").c_str(), 0755);
    const uid_t user = getuid();
    ASSERT_TRUE(geteuid() != 0 || setresuid(65534, 0, 0) == 0);
    chmod(tree.dev("ttyUSB1").c_str(), 0);
    sleep.when_slept = [this] { chmod(tree.dev("ttyUSB1").c_str(), 0666); };
    core_await_port_access(tree.roots(), &device, 1);
    EXPECT_EQ(sleep.slept, std::vector<unsigned>{50});
    EXPECT_TRUE(geteuid() != 0 || setresuid(user, 0, 0) == 0);
}

TEST_F(PortHolder, IsNotReportedWhereThereIsNone)
{
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB7"));
    report();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolder, IsReportedWithThePortAndTheProcess)
{
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB1"));
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB1 is in use by some-daemon (process 812): stop it first\n"});
    EXPECT_EQ(log.messages()[0].file, "core-discovery.c");
    EXPECT_EQ(log.messages()[0].function, "core_device_enumerate");
}

TEST_F(PortHolder, IsToldHowToStopWhereItIsModemManager)
{
    tree.add_process(812, "ModemManager", tree.dev("ttyUSB0"));
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB0 is in use by ModemManager (process 812): stop it first, for example: "
                    "systemctl stop ModemManager\n"});
}

TEST_F(PortHolder, IsReportedForEachPort)
{
    tree.add_process(812, "first", tree.dev("ttyUSB0"));
    tree.add_process(813, "second", tree.dev("ttyUSB1"));
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"port /dev/ttyUSB0 is in use by first (process 812): stop it first\n",
                     "port /dev/ttyUSB1 is in use by second (process 813): stop it first\n"}));
}

TEST_F(PortHolder, IsReportedOnce)
{
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB0"));
    for (int i = 0; i < 16; ++i)
        report();
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(PortHolder, ThatComesLaterIsReportedThen)
{
    report();
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB0"));
    report();
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(PortHolder, IsNeverTheProgramItself)
{
    tree.add_process(getpid(), "kestrel", tree.dev("ttyUSB0"));
    report();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolder, IsNotWhoHadADeviceThatHasGone)
{
    tree.add_process(812, "some-daemon", tree.dev("ttyUSB0") + " (deleted)");
    report();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolder, IsNotWhoHasAnotherDeviceOfThatName)
{
    tree.add_process(812, "some-daemon", tree.write("container/dev/ttyUSB0", ""));
    report();
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolder, IsReportedUnderWhateverPathItHasTheDevice)
{
    std::filesystem::create_directory(tree.dev("../container"));
    std::filesystem::create_hard_link(tree.dev("ttyUSB0"), tree.dev("../container/ttyUSB0"));
    tree.add_process(812, "some-daemon", tree.dev("../container/ttyUSB0"));
    report();
    EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(PortHolder, CannotWriteControlCharactersIntoTheLog)
{
    tree.add_process(812, "\x1b[31mred", tree.dev("ttyUSB0"));
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB0 is in use by ?[31mred (process 812): stop it first\n"});
}

TEST_F(PortHolder, WithoutANameIsReportedAllTheSame)
{
    tree.add_process(812, "x", tree.dev("ttyUSB0"));
    tree.remove("proc/812/comm");
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB0 is in use by another program (process 812): stop it first\n"});
}

TEST_F(PortHolder, WithAnEmptyNameIsReportedAllTheSame)
{
    tree.add_process(812, "", tree.dev("ttyUSB0"));
    report();
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"port /dev/ttyUSB0 is in use by another program (process 812): stop it first\n"});
}

TEST_F(PortHolder, IsNotLookedForInWhatIsNoProcess)
{
    tree.write("proc/version", "");
    tree.write("proc/812/comm", "without descriptors\n");
    tree.write("proc/77x/comm", "x\n");
    tree.write("proc/77x/fd/nothing", "");
    report();
    EXPECT_TRUE(log.messages().empty());
}
