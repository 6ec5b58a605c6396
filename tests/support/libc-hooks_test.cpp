#include "libc-hooks.hpp"

#include "temp_dir.hpp"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <thread>
#include <vector>

TEST(LibcHook, TakesThePlaceOfTheFunction)
{
    libc::access = [](const char *name, int mode) {
        return strcmp(name, "/") == 0 && mode == F_OK ? 42 : 43;
    };
    EXPECT_EQ(access("/", F_OK), 42);
}

TEST(LibcHook, LeavesTheFunctionWhereItIsEmpty)
{
    EXPECT_EQ(access("/", F_OK), 0);
    libc::access = libc::fails(EPERM);
    libc::access.reset();
    EXPECT_EQ(access("/", F_OK), 0);
}

TEST(LibcHook, MayAskTheFunctionItself)
{
    int calls = 0;
    libc::access = [&calls](const char *name, int mode) {
        ++calls;
        return access(name, mode);
    };
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/nonexistent", F_OK), -1);
    EXPECT_EQ(calls, 2);
}

TEST(LibcHook, CountsForTheTestsThreadAlone)
{
    libc::access = libc::fails(EPERM);
    int result = -1;
    std::thread other([&result] { result = access("/", F_OK); });
    other.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST(LibcHook, MayFailInOneCallOnly)
{
    libc::access = libc::fails_in_call(2, EPERM, access);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(access("/", F_OK), 0);
}

TEST(LibcHook, MayFailTheReadsOfFilesAlone)
{
    const temp_dir dir;
    const int file = open(dir.write("f", "x").c_str(), O_RDONLY);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "y", 1), 1);
    libc::fail_file_reads(EIO);
    char byte = 0;
    EXPECT_EQ(read(file, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    for (const int handle : {file, ends[0], ends[1]})
        close(handle);
}

namespace {

void write_to_system_log(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_INFO, format, arguments);
    va_end(arguments);
}

} // namespace

TEST(LibcHook, KeepsTheMachinesSystemLogClean)
{
    EXPECT_NONFATAL_FAILURE(write_to_system_log("text %d", 1), "to the system log: text 1");
    std::string logged;
    libc::vsyslog = [&logged](int, const char *text) { logged = text; };
    write_to_system_log("text %d", 2);
    EXPECT_EQ(logged, "text 2");
}

// One line for each function that libc-hooks.cpp stands in for: a name that the linker was not told would
// still be the C library's.
TEST(LibcHooks, AreAskedForEachFunction)
{
    std::vector<std::string> asked;
    const auto note = [&asked](const char *name, auto result) {
        return [&asked, name, result](auto...) {
            asked.emplace_back(name);
            return result;
        };
    };
    termios attributes{};
    timespec time{};
    timeval day{};
    struct stat status {};
    pollfd watched{};
    msghdr message{};
    int number = 0;
    libc::access = note("access", 0);
    libc::cfgetispeed = note("cfgetispeed", speed_t{});
    libc::cfgetospeed = note("cfgetospeed", speed_t{});
    libc::cfsetispeed = note("cfsetispeed", 0);
    libc::cfsetospeed = note("cfsetospeed", 0);
    libc::clock_gettime = note("clock_gettime", 0);
    libc::close = note("close", 0);
    libc::fstat = note("fstat", 0);
    libc::gettimeofday = note("gettimeofday", 0);
    libc::inotify_init = note("inotify_init", 0);
    libc::inotify_add_watch = note("inotify_add_watch", 0);
    libc::ioctl = note("ioctl", 0);
    libc::lseek = note("lseek", off_t{});
    libc::poll = note("poll", 0);
    libc::read = note("read", ssize_t{});
    libc::recvmsg = note("recvmsg", ssize_t{});
    libc::setvbuf = note("setvbuf", 0);
    libc::strdup = note("strdup", static_cast<char *>(nullptr));
    libc::tcgetattr = note("tcgetattr", 0);
    libc::tcsetattr = note("tcsetattr", 0);
    libc::usleep = note("usleep", 0);
    libc::write = note("write", ssize_t{});
    access("", 0);
    cfgetispeed(&attributes);
    cfgetospeed(&attributes);
    cfsetispeed(&attributes, B9600);
    cfsetospeed(&attributes, B9600);
    clock_gettime(CLOCK_MONOTONIC, &time);
    close(-1);
    fstat(-1, &status);
    gettimeofday(&day, nullptr);
    inotify_init();
    inotify_add_watch(-1, "", 0);
    ioctl(-1, FIONREAD, &number);
    lseek(-1, 0, SEEK_SET);
    poll(&watched, 1, 0);
    EXPECT_EQ(read(-1, &number, 0), 0);
    recvmsg(-1, &message, 0);
    setvbuf(stdout, nullptr, _IONBF, 0);
    free(strdup(""));
    tcgetattr(-1, &attributes);
    tcsetattr(-1, TCSANOW, &attributes);
    usleep(0);
    EXPECT_EQ(write(-1, &number, 0), 0);
    EXPECT_EQ(
        asked,
        (std::vector<std::string>{
            "access",    "cfgetispeed", "cfgetospeed",  "cfsetispeed",  "cfsetospeed",       "clock_gettime",
            "close",     "fstat",       "gettimeofday", "inotify_init", "inotify_add_watch", "ioctl",
            "lseek",     "poll",        "read",         "recvmsg",      "setvbuf",           "strdup",
            "tcgetattr", "tcsetattr",   "usleep",       "write"}));
}
