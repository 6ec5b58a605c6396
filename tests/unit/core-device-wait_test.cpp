#include "core-device.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"

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
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

using strings = std::vector<std::string>;
using clock_type = std::chrono::steady_clock;

// Stand-ins for the C library's calls. Each does what the real one does unless a test says otherwise; what
// belongs to the test's own threads passes through.
static std::atomic<int> inotify_inits{0};
static bool inotify_init_fails = false;
static std::string watched_directory;
static uint32_t watched_mask = 0;
static uint32_t further_events = 0; // delivered although nobody asked for them
static bool every_node_is_missing = false;
static int strdups_until_failure = -1; // negative: never
static int failing_reads = 0;
static std::atomic<int> polls{0};
static std::vector<int> poll_timeouts;
static int poll_errno = 0;
static short poll_events = 0;
static std::function<void(int)> before_poll; // gets the number of the poll, from 1

extern "C" int inotify_init() noexcept
{
    ++inotify_inits;
    if (inotify_init_fails) {
        errno = EMFILE;
        return -1;
    }
    return inotify_init1(0);
}

extern "C" int inotify_add_watch(int descriptor, const char *name, uint32_t mask) noexcept
{
    watched_directory = name;
    watched_mask = mask;
    return static_cast<int>(syscall(SYS_inotify_add_watch, descriptor, name, mask | further_events));
}

extern "C" int access(const char *name, int type) noexcept
{
    if (every_node_is_missing) {
        errno = ENOENT;
        return -1;
    }
    return faccessat(AT_FDCWD, name, type, 0);
}

extern "C" char *strdup(const char *text) noexcept
{
    if (strdups_until_failure == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    if (strdups_until_failure > 0)
        --strdups_until_failure;
    const size_t size = strlen(text) + 1;
    auto *const copy = static_cast<char *>(malloc(size));
    if (copy != nullptr)
        memcpy(copy, text, size);
    return copy;
}

extern "C" int poll(pollfd *watched, nfds_t count, int timeout)
{
    poll_timeouts.push_back(timeout);
    const int number = ++polls;
    if (before_poll)
        before_poll(number);
    if (poll_errno != 0) {
        errno = poll_errno;
        return -1;
    }
    if (poll_events != 0) {
        watched->revents = poll_events;
        return 1;
    }
    const timespec limit{timeout / 1000, timeout % 1000 * 1000000L};
    return ppoll(watched, count, timeout < 0 ? nullptr : &limit, nullptr);
}

extern "C" ssize_t read(int descriptor, void *buffer, size_t size)
{
    if (failing_reads > 0) {
        --failing_reads;
        errno = EIO;
        return -1;
    }
    return syscall(SYS_read, descriptor, buffer, size);
}

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
    ~WaitForSerial() override { before_poll = nullptr; }

    int wait() const { return core_wait_for_serial(port.c_str()); }

    void create(const std::string &name) const { dir.write(name, ""); }

    // Ends the wait with the poll of this number, so that a wait that should go on fails no slower.
    static void stop_at(int number)
    {
        if (polls >= number)
            core_signal_handler(SIGINT);
    }

    temp_dir dir;
    std::string port = dir.at("ttyUSB0");
    log_capture log;
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

TEST_F(WaitForSerial, EndsWithinASecondWhenBlocked)
{
    clock_type::time_point created;
    std::thread creator([&] {
        while (polls == 0)
            std::this_thread::yield();
        created = clock_type::now();
        create("ttyUSB0");
    });
    EXPECT_EQ(wait(), 0);
    const auto ended = clock_type::now();
    creator.join();
    EXPECT_LT(ended - created, std::chrono::seconds(1));
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
    every_node_is_missing = true; // so that only the events tell
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
    every_node_is_missing = true;
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
    every_node_is_missing = true;
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
    clock_type::time_point set;
    std::thread interrupter([&] {
        while (polls == 0)
            std::this_thread::yield();
        set = clock_type::now();
        core_signal_handler(SIGINT);
    });
    EXPECT_EQ(wait(), -19);
    const auto ended = clock_type::now();
    interrupter.join();
    EXPECT_LT(ended - set, std::chrono::milliseconds(1900));
    EXPECT_EQ(polls, 1);
}

TEST_F(WaitForSerial, EndsSilentlyWhenSigintInterruptsIt)
{
    ASSERT_NE(signal(SIGINT, handle_signal), SIG_ERR);
    before_poll = [](int) {
        core_signal_handler(SIGINT);
        poll_errno = EINTR; // what poll(2) answers when the handler has run
    };
    EXPECT_EQ(wait(), -19);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForSerial, IsInterruptedByTheSignalItself)
{
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
    const auto start = clock_type::now();
    const int result = wait();
    const auto end = clock_type::now();
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
    inotify_init_fails = true;
    EXPECT_EQ(wait(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"inotify_init\n"});
}

TEST_F(WaitForSerial, ReportsANameThatCannotBeCopiedForItsDirectory)
{
    strdups_until_failure = 0;
    const int result = wait();
    strdups_until_failure = -1;
    EXPECT_EQ(result, -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not copy port '" + port + "' for dirname: error 12 Cannot allocate memory"});
}

TEST_F(WaitForSerial, ReportsANameThatCannotBeCopiedForItsLastPart)
{
    strdups_until_failure = 1;
    const int result = wait();
    strdups_until_failure = -1;
    EXPECT_EQ(result, -12);
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
    failing_reads = 1;
    every_node_is_missing = true;
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
