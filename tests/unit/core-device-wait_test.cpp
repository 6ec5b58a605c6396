#include "core-device.hpp"

#include "core.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <vector>

using strings = std::vector<std::string>;

static void handle_signal(int signo)
{
    core_signal_handler(signo);
}

namespace {

auto open_descriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

class WaitForSerial : public testing::Test {
  protected:
    WaitForSerial()
    {
        libc::inotify_init = [this] {
            ++inotify_inits;
            return inotify_init();
        };
        libc::inotify_add_watch = [this](int descriptor, const char *name, uint32_t mask) {
            watched_directory = name;
            watched_mask = mask;
            return inotify_add_watch(descriptor, name, mask | further_events);
        };
        libc::poll = [this](pollfd *watched, nfds_t count, int timeout) {
            poll_timeouts.push_back(timeout);
            const int number = ++polls;
            if (before_poll)
                before_poll(number);
            if (poll_errno != 0) {
                errno = poll_errno;
                return -1;
            }
            if (poll_events == 0)
                return poll(watched, count, timeout);
            watched->revents = poll_events;
            return 1;
        };
    }

    int wait() const { return core_wait_for_serial(port.c_str()); }

    void create(const std::string &name) const { dir.write(name, ""); }

    static void miss_every_node() { libc::access = libc::fails(ENOENT); }
    // The copy of this number, from 1, cannot be had.
    static void fail_strdup(int number)
    {
        libc::strdup = [number](const char *text) mutable -> char * {
            if (--number != 0)
                return strdup(text);
            errno = ENOMEM;
            return nullptr;
        };
    }
    // Ends the wait with the poll of this number, so that a wait that should go on fails no slower.
    void stop_at(int number) const
    {
        if (polls >= number)
            core_signal_handler(SIGINT);
    }

    temp_dir dir;
    std::string port = dir.at("ttyUSB0");
    log_capture log;

    int inotify_inits = 0;
    std::string watched_directory;
    uint32_t watched_mask = 0;
    uint32_t further_events = 0; // delivered although nobody asked for them
    std::atomic<int> polls{0};
    std::vector<int> poll_timeouts;
    int poll_errno = 0;
    short poll_events = 0;
    std::function<void(int)> before_poll; // gets the number of the poll, from 1
};

} // namespace

TEST_F(WaitForSerial, RefusesANullName)
{
    EXPECT_EQ(core_wait_for_serial(nullptr), -22);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "invalid port name\n");
    EXPECT_EQ(log.messages()[0].file, "core-device.c");
    EXPECT_EQ(log.messages()[0].function, "core_wait_for_serial");
}

TEST_F(WaitForSerial, EndsAtOnceWhenThePortExists)
{
    create("ttyUSB0");
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(polls, 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, MakesNoInotifyDescriptorWhenThePortExists)
{
    create("ttyUSB0");
    wait();
    EXPECT_EQ(inotify_inits, 0);
}

TEST_F(WaitForSerial, WatchesTheDirectoryForCreationsOnly)
{
    before_poll = [this](int) { create("ttyUSB0"); };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(watched_directory, dir.path());
    EXPECT_EQ(watched_mask, 0x100U);
}

TEST_F(WaitForSerial, WatchesTheCurrentDirectoryForABareName)
{
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    before_poll = [this](int) { create("ttyUSB0"); };
    EXPECT_EQ(core_wait_for_serial("ttyUSB0"), 0);
    EXPECT_EQ(watched_directory, ".");
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(WaitForSerial, EndsWhenThePortIsCreated)
{
    before_poll = [this](int) { create("ttyUSB0"); };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(polls, 1);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, port + " is created\n");
    EXPECT_EQ(log.messages()[0].function, "core_wait_for_serial");
}

TEST_F(WaitForSerial, EndsAtOnceWhenThePortComesWhileItIsBlocked)
{
    virtual_time::instance().after(700, [this] { create("ttyUSB0"); });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(), 0); }), 700);
    EXPECT_EQ(polls, 1);
}

TEST_F(WaitForSerial, EndsForALinkOfTheName)
{
    before_poll = [this](int) { EXPECT_EQ(symlink("/dev/null", port.c_str()), 0); };
    EXPECT_EQ(wait(), 0);
}

TEST_F(WaitForSerial, NoticesAPortThatIsAlreadyGoneAgain)
{
    before_poll = [this](int number) {
        if (number > 1)
            return stop_at(5);
        create("ttyUSB0");
        unlink(port.c_str());
    };
    EXPECT_EQ(wait(), 0);
    EXPECT_TRUE(log.has(CORE_LOG_DBG, port + " is created\n"));
}

TEST_F(WaitForSerial, FindsThePortAmongOtherEvents)
{
    miss_every_node(); // so that only the events tell
    before_poll = [this](int number) {
        if (number > 1)
            return stop_at(5);
        for (const char *const name : {"a", "a-name-of-some-length", "ttyUSB0", "z"})
            create(name);
    };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(polls, 1);
}

TEST_F(WaitForSerial, FindsThePortInALaterBuffer)
{
    miss_every_node();
    before_poll = [this](int number) {
        if (number > 1)
            return stop_at(50);
        for (int i = 0; i < 40; ++i) // 3200 bytes of events
            create(std::string(50, 'x') + std::to_string(i));
        create("ttyUSB0");
    };
    EXPECT_EQ(wait(), 0);
    EXPECT_GT(polls, 3);
}

TEST_F(WaitForSerial, TestsTheNameAgainInEveryPass)
{
    before_poll = [this](int number) {
        if (number == 1)
            std::filesystem::rename(dir.write("other", ""), port); // a move is no creation
        stop_at(5);
    };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(polls, 1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, IsNotEndedByOtherNames)
{
    before_poll = [this](int number) {
        if (number == 1) {
            for (const char *const name : {"other", "ttyUSB", "ttyUSB00", "xttyUSB0", "TTYUSB0"})
                create(name);
        }
        stop_at(6);
    };
    EXPECT_EQ(wait(), -19);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, IsNotEndedByAnEventThatIsNoCreation)
{
    further_events = IN_DELETE;
    miss_every_node();
    create("ttyUSB0");
    before_poll = [this](int) {
        unlink(port.c_str());
        stop_at(1);
    };
    EXPECT_EQ(wait(), -19);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, LooksForSigintOnceASecond)
{
    before_poll = [](int) { core_signal_handler(SIGINT); };
    wait();
    EXPECT_EQ(poll_timeouts, std::vector<int>{1000});
}

TEST_F(WaitForSerial, EndsWithinASecondOfSigint)
{
    // The flag is set, as by a signal that another thread received, while the wait is blocked.
    virtual_time::instance().after(1, [] { core_signal_handler(SIGINT); });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(), -19); }), 1000);
    EXPECT_EQ(polls, 1);
}

TEST_F(WaitForSerial, EndsSilentlyWhenSigintInterruptsIt)
{
    ASSERT_NE(signal(SIGINT, handle_signal), SIG_ERR);
    before_poll = [this](int) {
        core_signal_handler(SIGINT);
        poll_errno = EINTR; // what poll(2) answers when the handler has run
    };
    EXPECT_EQ(wait(), -19);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, IsInterruptedByTheSignalItself)
{
    const real_time here; // a signal ends a wait that is none of virtual time
    ASSERT_NE(signal(SIGINT, handle_signal), SIG_ERR);
    const pthread_t waiting = pthread_self();
    std::atomic<bool> done{false};
    std::thread interrupter([&] {
        while (polls == 0)
            std::this_thread::yield();
        // Once is not enough: the signal may come just before the wait blocks.
        while (!done) {
            pthread_kill(waiting, SIGINT);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const auto start = std::chrono::steady_clock::now();
    const int result = wait();
    const auto end = std::chrono::steady_clock::now();
    done = true;
    interrupter.join();
    EXPECT_EQ(result, -19);
    EXPECT_LT(end - start, std::chrono::milliseconds(900));
}

TEST_F(WaitForSerial, DoesNotWaitWhenSigintCameBefore)
{
    core_signal_handler(SIGINT);
    EXPECT_EQ(wait(), -19);
    EXPECT_EQ(polls, 0);
}

TEST_F(WaitForSerial, PrefersAPortThatExistsToSigint)
{
    create("ttyUSB0");
    core_signal_handler(SIGINT);
    EXPECT_EQ(wait(), 0);
}

TEST_F(WaitForSerial, ReportsADirectoryThatDoesNotExist)
{
    EXPECT_EQ(core_wait_for_serial("/nonexistent/ttyUSB0"), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"inotify_add_watch\n"});
    EXPECT_EQ(log.messages()[0].function, "core_wait_for_serial");
}

TEST_F(WaitForSerial, ReportsAMissingInotifyDescriptor)
{
    libc::inotify_init = libc::fails(EMFILE);
    EXPECT_EQ(wait(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"inotify_init\n"});
}

TEST_F(WaitForSerial, ReportsANameThatCannotBeCopiedForItsDirectory)
{
    fail_strdup(1);
    EXPECT_EQ(wait(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not copy port '" + port + "' for dirname: error 12 Cannot allocate memory"});
}

TEST_F(WaitForSerial, ReportsANameThatCannotBeCopiedForItsLastPart)
{
    fail_strdup(2);
    EXPECT_EQ(wait(), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not copy port '" + port + "' for basename: error 12 Cannot allocate memory"});
}

TEST_F(WaitForSerial, ReportsAPollThatFails)
{
    poll_errno = EINVAL;
    EXPECT_EQ(wait(), -102);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "Poll error 22, Invalid argument\n");
    EXPECT_EQ(log.messages()[0].function, "core_wait_for_serial");
}

TEST_F(WaitForSerial, ReportsAPollInterruptedByAnotherSignal)
{
    poll_errno = EINTR;
    EXPECT_EQ(wait(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"Poll error 4, Interrupted system call\n"});
}

TEST_F(WaitForSerial, ReportsAnErrorOfTheDescriptor)
{
    poll_events = POLLERR | POLLIN;
    EXPECT_EQ(wait(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"Poll device error\n"});
}

TEST_F(WaitForSerial, GoesOnAfterAReadThatFails)
{
    libc::read = libc::fails_in_call(1, EIO, read);
    miss_every_node();
    before_poll = [this](int number) {
        if (number == 1)
            create("ttyUSB0");
        stop_at(5);
    };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(polls, 2);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (strings{"Read error 5, Input/output error\n", port + " is created\n"}));
}

TEST_F(WaitForSerial, ReleasesItsDescriptorsInTheEnd)
{
    const auto before = open_descriptors();
    before_poll = [this](int) { create("ttyUSB0"); };
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WaitForSerial, ReleasesItsDescriptorsAfterAFailure)
{
    const auto before = open_descriptors();
    EXPECT_EQ(core_wait_for_serial("/nonexistent/ttyUSB0"), -102);
    poll_errno = EINVAL;
    EXPECT_EQ(wait(), -102);
    core_signal_handler(SIGINT);
    EXPECT_EQ(wait(), -19);
    EXPECT_EQ(open_descriptors(), before);
}
