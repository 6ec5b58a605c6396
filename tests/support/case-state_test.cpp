// What no case leaves to the next (case-state.cpp).
#include "core.hpp"
#include "fake_discovery.hpp"
#include "fake_libusb.hpp"
#include "interrupt.hpp"
#include "libc-hooks.hpp"
#include "log-output.hpp"
#include "memory-limit.hpp"
#include "options.hpp"
#include "package.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"
#include "zepho-log.hpp"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void ignore_signal(int) {}

rlim_t memory()
{
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    return limit.rlim_cur;
}

mode_t mask()
{
    const mode_t now = umask(0);
    umask(now);
    return now;
}

auto handler()
{
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    return action.sa_handler;
}

const std::string folder_at_start = std::filesystem::current_path();
const rlim_t memory_at_start = memory();
const mode_t mask_at_start = mask();
const auto handler_at_start = handler();

// Each of these finds everything as it is at the start of the program, and changes it; all but the first that
// runs would see what another has left.
class State : public testing::TestWithParam<int> {};

} // namespace

TEST_P(State, OfTheLogCoreIsPutBack)
{
    EXPECT_EQ(log_level, CORE_LOG_INF);
    EXPECT_TRUE(core_messages_enabled);
    EXPECT_FALSE(is_log_native_enabled);
    EXPECT_EQ(print_function, stdout_print);
    EXPECT_FALSE(core_log_is_json());
    EXPECT_NE(__fbufsize(stdout), 1U);
    const temp_dir dir;
    core_log_set_level(CORE_LOG_VRB);
    core_log_enable_core_messages(false);
    core_log_set_native(true);
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    EXPECT_TRUE(core_log_is_json());
    EXPECT_EQ(__fbufsize(stdout), 1U);
}

TEST_P(State, OfTheProgramIsPutBack)
{
    EXPECT_EQ(sigint_detected, 0);
    EXPECT_EQ(keep_running, 1);
    EXPECT_EQ(interruptions, 0);
    EXPECT_FALSE(options.force);
    EXPECT_EQ(package.image_count, 0U);
    EXPECT_EQ(package.new_pkgver, nullptr);
    interrupt_handler(SIGINT);
    options.force = true;
    package.image_count = 5;
    package.new_pkgver = strdup("49.01.102");
}

TEST_P(State, OfTheStandInsIsPutBack)
{
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(virtual_time::instance().now_ms(), 0);
    EXPECT_TRUE(virtual_time::instance().slept.empty());
    EXPECT_TRUE(fake_libusb::instance().devices.empty());
    EXPECT_TRUE(fake_discovery::instance().listened.empty());
    libc::access = libc::fails(EPERM);
    usleep(1000000);
    fake_libusb::instance().devices.resize(1);
    fake_discovery::instance().listened.push_back(1);
}

TEST_P(State, OfTheProcessIsPutBack)
{
    EXPECT_EQ(handler(), handler_at_start);
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    EXPECT_EQ(timer.it_value.tv_sec, 0);
    EXPECT_EQ(std::filesystem::current_path(), folder_at_start);
    EXPECT_EQ(mask(), mask_at_start);
    EXPECT_EQ(memory(), memory_at_start);
    signal(SIGINT, ignore_signal);
    timer.it_value.tv_sec = 100;
    setitimer(ITIMER_REAL, &timer, nullptr);
    std::filesystem::current_path("/");
    umask(0777);
    limit_memory();
}

INSTANTIATE_TEST_SUITE_P(Case, State, testing::Values(1, 2));

namespace {

// Runs this program again for one case, with a variable set that tells it to misbehave; its output.
std::string output_of_misbehaving(const std::string &which)
{
    char program[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", program, sizeof program - 1), 0);
    const std::string command =
        "MISBEHAVE=1 '" + std::string(program) + "' --gtest_filter=" + which + " --gtest_output= 2>&1";
    FILE *const pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[4096];
    for (size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, count);
    EXPECT_NE(pclose(pipe), 0);
    return output;
}

bool is_to_misbehave()
{
    return getenv("MISBEHAVE") != nullptr;
}

} // namespace

TEST(CaseThat, LeavesADescriptorOpenFails)
{
    if (is_to_misbehave()) {
        EXPECT_GE(dup(1), 0);
        return;
    }
    EXPECT_NE(output_of_misbehaving("CaseThat.LeavesADescriptorOpenFails")
                  .find("descriptors before the case and after it"),
              std::string::npos);
}

TEST(CaseThat, LeavesTransfersUnusedFails)
{
    if (is_to_misbehave()) {
        fake_libusb::instance().transfers.push_back({0x01, "x"});
        return;
    }
    EXPECT_NE(
        output_of_misbehaving("CaseThat.LeavesTransfersUnusedFails").find("1 expected transfers never came"),
        std::string::npos);
}

TEST(CaseThat, LeavesAnswersOfTheDiscoveryUnusedFails)
{
    if (is_to_misbehave()) {
        fake_discovery::instance().enumerations.push_back({});
        return;
    }
    EXPECT_NE(output_of_misbehaving("CaseThat.LeavesAnswersOfTheDiscoveryUnusedFails")
                  .find("fewer scans than expected"),
              std::string::npos);
}
