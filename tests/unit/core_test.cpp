#include "core.hpp"

#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

struct errno_row {
    const char *name;
    int platform;
    int core;
};

static void PrintTo(const errno_row &row, std::ostream *out)
{
    *out << row.platform;
}

class ErrnoMapping : public testing::TestWithParam<errno_row> {};

TEST_P(ErrnoMapping, GivesTheCoreCode)
{
    EXPECT_EQ(map_errno_to_core_err(GetParam().platform), GetParam().core);
}

INSTANTIATE_TEST_SUITE_P(Table, ErrnoMapping,
                         testing::Values(errno_row{"EPERM", EPERM, -1}, errno_row{"ENOENT", ENOENT, -2},
                                         errno_row{"EINTR", EINTR, -4}, errno_row{"EIO", EIO, -5},
                                         errno_row{"EAGAIN", EAGAIN, -11}, errno_row{"EACCES", EACCES, -13},
                                         errno_row{"EBUSY", EBUSY, -16}, errno_row{"ENODEV", ENODEV, -19},
                                         errno_row{"EINVAL", EINVAL, -22}, errno_row{"ENOSPC", ENOSPC, -28},
                                         errno_row{"ETIMEDOUT", ETIMEDOUT, -110}),
                         [](const auto &row) { return std::string(row.param.name); });

// Errors without a row of their own, those whose number looks like a core code included.
INSTANTIATE_TEST_SUITE_P(Others, ErrnoMapping,
                         testing::Values(errno_row{"zero", 0, -102}, errno_row{"ENOMEM", ENOMEM, -102},
                                         errno_row{"EBADF", EBADF, -102}, errno_row{"EISDIR", EISDIR, -102},
                                         errno_row{"ENOTTY", ENOTTY, -102}, errno_row{"EPIPE", EPIPE, -102},
                                         errno_row{"EPROTO", EPROTO, -102},
                                         errno_row{"ECANCELED", ECANCELED, -102},
                                         errno_row{"negative", -1, -102}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(CoreErrorCodes, HaveTheNumbersOfGenericLinux)
{
    EXPECT_EQ(CORE_OK, 0);
    EXPECT_EQ(CORE_EPERM, -1);
    EXPECT_EQ(CORE_ENOENT, -2);
    EXPECT_EQ(CORE_EINTR, -4);
    EXPECT_EQ(CORE_EIO, -5);
    EXPECT_EQ(CORE_EAGAIN, -11);
    EXPECT_EQ(CORE_ENOMEM, -12);
    EXPECT_EQ(CORE_EACCES, -13);
    EXPECT_EQ(CORE_EBUSY, -16);
    EXPECT_EQ(CORE_ENODEV, -19);
    EXPECT_EQ(CORE_EINVAL, -22);
    EXPECT_EQ(CORE_ENOSPC, -28);
    EXPECT_EQ(CORE_EPROTO, -71);
    EXPECT_EQ(CORE_ENOTSUPPORTED, -100);
    EXPECT_EQ(CORE_EGENERIC, -102);
    EXPECT_EQ(CORE_ETIMEDOUT, -110);
    EXPECT_EQ(CORE_ECANCELED, -125);
    EXPECT_EQ(CORE_EVERSION, -126);
}

TEST(CoreInit, Succeeds)
{
    EXPECT_EQ(core_init(), 0);
}

TEST(CoreDeinit, WritesOutTheLogFile)
{
    const temp_dir dir;
    ASSERT_EQ(core_log_set_output(dir.at("log").c_str(), false), 0);
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "a line\n");
    core_deinit();
    EXPECT_EQ(read_file(dir.at("log")), "a line\n");
}

TEST(CoreDeinit, LeavesALogThatMayStillBeWrittenTo)
{
    const temp_dir dir;
    ASSERT_EQ(core_log_set_output(dir.at("log").c_str(), false), 0);
    core_deinit();
    testing::internal::CaptureStdout();
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "the last line\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "the last line\n");
}

TEST(CoreDeinit, MayBeCalledTwice)
{
    const temp_dir dir;
    ASSERT_EQ(core_log_set_output(dir.at("log").c_str(), false), 0);
    core_deinit();
    core_deinit();
    EXPECT_EQ(print_function, stdout_print);
}

TEST(CoreSignalHandler, FlagIsClearAtStart)
{
    EXPECT_EQ(sigint_detected, 0);
}

TEST(CoreSignalHandler, SetsTheFlagOnSigint)
{
    EXPECT_EQ(core_signal_handler(2), 0);
    EXPECT_EQ(sigint_detected, 1);
}

TEST(CoreSignalHandler, LeavesTheFlagAtOneOnASecondSigint)
{
    core_signal_handler(SIGINT);
    core_signal_handler(SIGINT);
    EXPECT_EQ(sigint_detected, 1);
}

TEST(CoreSignalHandler, IgnoresAnyOtherSignal)
{
    EXPECT_EQ(core_signal_handler(15), 2);
    EXPECT_EQ(sigint_detected, 0);
}

TEST(CoreSignalHandler, NeverClearsTheFlag)
{
    core_signal_handler(SIGINT);
    EXPECT_EQ(core_signal_handler(SIGTERM), 2);
    EXPECT_EQ(sigint_detected, 1);
}

TEST(CoreLogSetNative, InstallsTheSystemLog)
{
    EXPECT_EQ(core_log_set_native(true), 0);
    EXPECT_TRUE(is_log_native_enabled);
    EXPECT_EQ(print_function, syslog_print);
}

TEST(CoreLogSetNative, GoesBackToStandardOutput)
{
    core_log_set_native(true);
    EXPECT_EQ(core_log_set_native(false), 0);
    EXPECT_FALSE(is_log_native_enabled);
    EXPECT_EQ(print_function, stdout_print);
}

// What the call asks the C library to sleep, in microseconds.
static std::vector<useconds_t> sleeps(const std::function<void()> &call)
{
    std::vector<useconds_t> slept;
    libc::usleep = [&slept](useconds_t time) {
        slept.push_back(time);
        return 0;
    };
    call();
    return slept;
}

TEST(CoreSleep, SleepsAThousandMicrosecondsAMillisecond)
{
    const std::vector<useconds_t> slept = sleeps([] { EXPECT_EQ(core_sleep(1500), 0); });
    EXPECT_EQ(slept, std::vector<useconds_t>{1500000});
}

TEST(CoreSleep, TakesTheProductIn32Bits)
{
    // 4294968000 is 704 more than 2^32
    const std::vector<useconds_t> slept = sleeps([] { core_sleep(4294968); });
    EXPECT_EQ(slept, std::vector<useconds_t>{704});
}

TEST(CoreSleep, ReturnsWhatTheSystemReturned)
{
    libc::usleep = libc::fails(EINTR);
    EXPECT_EQ(core_sleep(1), -1);
}

TEST(CoreSleep, SleepsAtLeastTheTime)
{
    const real_time here; // the one sleep that is none of virtual time
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(core_sleep(20), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(CoreSleep, ReturnsAtOnceForZero)
{
    const real_time here;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(core_sleep(0), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

static int64_t nanoseconds(const timespec &time)
{
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

TEST(CoreGetTime, ReadsTheMonotonicClock)
{
    const real_time here;
    timespec before{};
    timespec now{};
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    clockid_t asked_clock = -1;
    libc::clock_gettime = [&asked_clock](clockid_t clock, timespec *time) {
        asked_clock = clock;
        return clock_gettime(clock, time);
    };
    EXPECT_EQ(core_get_time(&now), 0);
    EXPECT_EQ(asked_clock, CLOCK_MONOTONIC);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(nanoseconds(now), nanoseconds(before));
    EXPECT_LE(nanoseconds(now), nanoseconds(after));
}

TEST(CoreGetTime, FailsSilentlyWithMinusOne)
{
    log_capture log;
    timespec now{};
    libc::clock_gettime = libc::fails(EINVAL);
    EXPECT_EQ(core_get_time(&now), -1);
    EXPECT_TRUE(log.messages().empty());
}

TEST(CoreGetTimeOfDay, ReadsTheWallClock)
{
    const time_t before = time(nullptr);
    core_time_of_day now{};
    EXPECT_EQ(core_get_time_of_day(&now), 0);
    const time_t after = time(nullptr);
    EXPECT_GE(now.seconds, before - 1); // time(2) may read a coarser clock
    EXPECT_LE(now.seconds, after + 1);
    EXPECT_LT(now.microseconds, 1000000U);
}

TEST(CoreGetTimeOfDay, KeepsTheLow32BitsOfTheSeconds)
{
    libc::gettimeofday = [](timeval *time) {
        *time = {0x1FFFFFFFE, 999999};
        return 0;
    };
    core_time_of_day now{1, 1};
    EXPECT_EQ(core_get_time_of_day(&now), 0);
    EXPECT_EQ(now.seconds, 0xFFFFFFFEU);
    EXPECT_EQ(now.microseconds, 999999U);
}

// It leaves something behind although it fails.
static void fail_time_of_day(int number)
{
    libc::gettimeofday = [number](timeval *time) {
        time->tv_sec = 1234;
        errno = number;
        return -1;
    };
}

TEST(CoreGetTimeOfDay, LogsAndMapsAFailure)
{
    log_capture log;
    core_time_of_day now{1, 1};
    fail_time_of_day(EPERM);
    EXPECT_EQ(core_get_time_of_day(&now), -1);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "error in get time of day 1, Operation not permitted\n");
    EXPECT_EQ(log.messages()[0].file, "core.c");
    EXPECT_EQ(log.messages()[0].function, "core_get_time_of_day");
}

TEST(CoreGetTimeOfDay, LeavesZeroesAfterAFailure)
{
    core_time_of_day now{1, 1};
    fail_time_of_day(EINVAL);
    EXPECT_EQ(core_get_time_of_day(&now), -22);
    EXPECT_EQ(now.seconds, 0U);
    EXPECT_EQ(now.microseconds, 0U);
}

// Wire bytes and their value, for each size; the top bit is set so that no sign creeps in.
static constexpr unsigned char wire[8] = {0x81, 0x92, 0xA3, 0xB4, 0xC5, 0xD6, 0xE7, 0xF8};

TEST(LittleEndianToHost, ReadsOneByte)
{
    uint8_t value = 0;
    core_letoh(&value, sizeof value, wire, 1);
    EXPECT_EQ(value, 0x81);
}

TEST(LittleEndianToHost, ReadsTwoBytes)
{
    uint16_t value = 0;
    core_letoh(&value, sizeof value, wire, 2);
    EXPECT_EQ(value, 0x9281);
}

TEST(LittleEndianToHost, ReadsFourBytes)
{
    uint32_t value = 0;
    core_letoh(&value, sizeof value, wire, 4);
    EXPECT_EQ(value, 0xB4A39281U);
}

TEST(LittleEndianToHost, ReadsEightBytes)
{
    uint64_t value = 0;
    core_letoh(&value, sizeof value, wire, 8);
    EXPECT_EQ(value, 0xF8E7D6C5B4A39281U);
}

TEST(LittleEndianToHost, ReadsWhereNothingIsAligned)
{
    unsigned char packet[5] = {0, 0x78, 0x56, 0x34, 0x12};
    uint32_t value = 0;
    core_letoh(&value, sizeof value, packet + 1, 4);
    EXPECT_EQ(value, 0x12345678U);
}

TEST(LittleEndianToHost, ConvertsInPlace)
{
    unsigned char field[4] = {0x78, 0x56, 0x34, 0x12};
    core_letoh(field, 4, field, 4);
    uint32_t value = 0;
    memcpy(&value, field, 4);
    EXPECT_EQ(value, 0x12345678U);
}

static std::string bytes_of(const unsigned char *data, size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

// What is stored of a value, and that nothing around it is touched.
static std::string stored(uint64_t value, size_t size)
{
    unsigned char field[10];
    memset(field, 0xEE, sizeof field);
    const auto v8 = static_cast<uint8_t>(value);
    const auto v16 = static_cast<uint16_t>(value);
    const auto v32 = static_cast<uint32_t>(value);
    const void *const source = size == 1   ? static_cast<const void *>(&v8)
                               : size == 2 ? static_cast<const void *>(&v16)
                               : size == 4 ? static_cast<const void *>(&v32)
                                           : static_cast<const void *>(&value);
    core_htole(field + 1, size, source, size);
    return bytes_of(field, size + 2);
}

TEST(HostToLittleEndian, StoresOneByte)
{
    EXPECT_EQ(stored(0x81, 1), "\xEE\x81\xEE");
}

TEST(HostToLittleEndian, StoresTwoBytes)
{
    EXPECT_EQ(stored(0x9281, 2), "\xEE\x81\x92\xEE");
}

TEST(HostToLittleEndian, StoresFourBytes)
{
    EXPECT_EQ(stored(0xB4A39281, 4), "\xEE\x81\x92\xA3\xB4\xEE");
}

TEST(HostToLittleEndian, StoresEightBytes)
{
    EXPECT_EQ(stored(0xF8E7D6C5B4A39281, 8), "\xEE\x81\x92\xA3\xB4\xC5\xD6\xE7\xF8\xEE");
}

// The prefix of the debug threshold shows that file and function are named.
TEST(LittleEndianToHostDeathTest, EndsTheProcessWhenTheSizesDiffer)
{
    char from[4] = {};
    char to[4] = {};
    core_log_set_level(CORE_LOG_DBG);
    EXPECT_EXIT(core_letoh(to, 2, from, 4), testing::ExitedWithCode(1),
                "ERR core\\.c:[0-9]+:core_letoh\\(\\) dest_size 2 != src_size 4$");
}

TEST(LittleEndianToHostDeathTest, EndsTheProcessOnAnOddSize)
{
    char from[4] = {};
    char to[4] = {};
    core_log_set_level(CORE_LOG_DBG);
    EXPECT_EXIT(core_letoh(to, 3, from, 3), testing::ExitedWithCode(1),
                "ERR core\\.c:[0-9]+:core_letoh\\(\\) core_letoh: source size 3 not supported$");
}

TEST(LittleEndianToHostDeathTest, EndsTheProcessOnASizeOfZero)
{
    char byte = 0;
    EXPECT_EXIT(core_letoh(&byte, 0, &byte, 0), testing::ExitedWithCode(1),
                "^core_letoh: source size 0 not supported$");
}

TEST(HostToLittleEndianDeathTest, EndsTheProcessWhenTheSizesDiffer)
{
    char from[8] = {};
    char to[8] = {};
    core_log_set_level(CORE_LOG_DBG);
    EXPECT_EXIT(core_htole(to, 8, from, 4), testing::ExitedWithCode(1),
                "ERR core\\.c:[0-9]+:core_htole\\(\\) dest_size 8 != src_size 4$");
}

TEST(HostToLittleEndianDeathTest, EndsTheProcessOnAnOddSize)
{
    char from[16] = {};
    char to[16] = {};
    EXPECT_EXIT(core_htole(to, 16, from, 16), testing::ExitedWithCode(1),
                "^core_htole: source size 16 not supported$");
}

TEST(StoreSteps, StoreTheLowBytesOfAValueForTheHost)
{
    uint8_t v8 = 0;
    uint16_t v16 = 0;
    uint32_t v32 = 0;
    uint64_t v64 = 0;
    _ec_mtoh(&v8, 1, 0xF8E7D6C5B4A39281);
    _ec_mtoh(&v16, 2, 0xF8E7D6C5B4A39281);
    _ec_mtoh(&v32, 4, 0xF8E7D6C5B4A39281);
    _ec_mtoh(&v64, 8, 0xF8E7D6C5B4A39281);
    EXPECT_EQ(v8, 0x81);
    EXPECT_EQ(v16, 0x9281);
    EXPECT_EQ(v32, 0xB4A39281U);
    EXPECT_EQ(v64, 0xF8E7D6C5B4A39281U);
}

TEST(StoreSteps, StoreTheLowBytesOfAValueForTheWire)
{
    unsigned char field[8] = {};
    _ec_htom(field, 4, 0xF8E7D6C5B4A39281);
    EXPECT_EQ(bytes_of(field, 8), std::string("\x81\x92\xA3\xB4\0\0\0\0", 8));
}

TEST(StoreSteps, RefuseAnOddSizeForTheHostAndWriteNothing)
{
    log_capture log;
    unsigned char field[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    _ec_mtoh(field, 3, 0x123456);
    EXPECT_EQ(bytes_of(field, 4), "\xEE\xEE\xEE\xEE");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_WRN);
    EXPECT_EQ(log.messages()[0].text, "_ec_mtoh: destination size 3 not supported");
    EXPECT_EQ(log.messages()[0].file, "core.c");
    EXPECT_EQ(log.messages()[0].function, "_ec_mtoh");
}

TEST(StoreSteps, RefuseAnOddSizeForTheWireAndWriteNothing)
{
    log_capture log;
    unsigned char field[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    _ec_htom(field, 0, 0x123456);
    EXPECT_EQ(bytes_of(field, 4), "\xEE\xEE\xEE\xEE");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_WRN);
    EXPECT_EQ(log.messages()[0].text, "_ec_htom: destination size 0 not supported");
    EXPECT_EQ(log.messages()[0].function, "_ec_htom");
}

TEST(Strcasestr, FindsTheFirstMatchInAnyCase)
{
    static constexpr char haystack[] = "abc ErRoR error";
    EXPECT_EQ(core_strcasestr(haystack, "error"), haystack + 4);
}

TEST(Strcasestr, GivesNullWithoutAMatch)
{
    EXPECT_EQ(core_strcasestr("abc", "abcd"), nullptr);
}

TEST(Strcasestr, FindsAnEmptyTextAtTheStart)
{
    static constexpr char haystack[] = "abc";
    EXPECT_EQ(core_strcasestr(haystack, ""), haystack);
}

TEST(Strlcpy, CopiesATextThatFitsExactly)
{
    char buffer[6] = "zzzzz";
    EXPECT_EQ(strlcpy(buffer, "12345", sizeof buffer), 5U);
    EXPECT_STREQ(buffer, "12345");
}

TEST(Strlcpy, CutsALongTextAndReportsItsLength)
{
    char buffer[6] = "zzzzz";
    EXPECT_EQ(strlcpy(buffer, "1234567", sizeof buffer), 7U);
    EXPECT_STREQ(buffer, "12345");
}

TEST(Strlcpy, WritesNothingIntoABufferOfSizeZero)
{
    char buffer[2] = "z";
    EXPECT_EQ(strlcpy(buffer, "123", 0), 3U);
    EXPECT_STREQ(buffer, "z");
}

TEST(Strlcpy, LeavesJustATerminatorInOneByte)
{
    char buffer[2] = {'z', 'y'};
    EXPECT_EQ(strlcpy(buffer, "123", 1), 3U);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'y');
}

TEST(Strlcat, AppendsATextThatFitsExactly)
{
    char buffer[6] = "12";
    EXPECT_EQ(strlcat(buffer, "345", sizeof buffer), 5U);
    EXPECT_STREQ(buffer, "12345");
}

TEST(Strlcat, CutsALongTextAndReportsTheLengthTriedFor)
{
    char buffer[6] = "12";
    EXPECT_EQ(strlcat(buffer, "34567", sizeof buffer), 7U);
    EXPECT_STREQ(buffer, "12345");
}

TEST(Strlcat, AppendsNothingToABufferWithoutATerminator)
{
    char buffer[3] = {'1', '2', '3'};
    EXPECT_EQ(strlcat(buffer, "45", sizeof buffer), 5U);
    EXPECT_EQ(std::string(buffer, 3), "123");
}

TEST(IsZero, AcceptsZeroes)
{
    const char record[16] = {};
    EXPECT_TRUE(core_is_zero(record, sizeof record));
}

TEST(IsZero, SeesTheFirstByte)
{
    const char record[16] = {1};
    EXPECT_FALSE(core_is_zero(record, sizeof record));
}

TEST(IsZero, SeesTheLastByte)
{
    char record[16] = {};
    record[15] = 1;
    EXPECT_FALSE(core_is_zero(record, sizeof record));
}

TEST(IsZero, SeesOnlyTheGivenSize)
{
    char record[16] = {};
    record[15] = 1;
    EXPECT_TRUE(core_is_zero(record, 15));
}

TEST(IsZero, AcceptsNothingAtAll)
{
    const char record = 1;
    EXPECT_TRUE(core_is_zero(&record, 0));
}

TEST(AssertionDeathTest, NamesPlaceAndConditionAndAborts)
{
    EXPECT_EXIT(core_assertion_failed("a < b", "file.c", 12), testing::KilledBySignal(SIGABRT),
                "^file\\.c:12: assertion failed: a < b\n$");
}

TEST(AssertionDeathTest, IsCheckedInEveryBuild)
{
    const int two = 2;
    CORE_ASSERT(two == 2);
    EXPECT_EXIT(CORE_ASSERT(two == 3), testing::KilledBySignal(SIGABRT), "assertion failed: two == 3");
}
