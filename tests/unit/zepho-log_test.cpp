#include "zepho-log.hpp"

#include "libc-hooks.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "memory-limit.hpp"
#include "temp_dir.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <regex>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

// The monotonic clock shows 1234.000123456 s.
static void give_time()
{
    libc::clock_gettime = [](clockid_t, timespec *time) {
        *time = {1234, 123456};
        return 0;
    };
}

struct buffering_call {
    FILE *stream;
    bool has_buffer;
    int mode;
    size_t size;
    int errno_before;
};

// Notes the calls of setvbuf(3); the one for `failing_stream` fails.
static void note_buffering(std::vector<buffering_call> *calls, FILE *failing_stream = nullptr)
{
    libc::setvbuf = [calls, failing_stream](FILE *stream, char *buffer, int mode, size_t size) {
        calls->push_back({stream, buffer != nullptr, mode, size, errno});
        const int result = stream == failing_stream ? -1 : setvbuf(stream, buffer, mode, size);
        errno = EBADF; // of this failure, or a leftover that the next call must not see
        return result;
    };
}

// Notes what reaches the system log.
static void note_system_log(std::vector<printed_line> *lines)
{
    libc::vsyslog = [lines](int priority, const char *text) { lines->push_back({priority, text}); };
}

static void log_line(int level, const char *text)
{
    core_log(level, "../main.c", "check_args", 729, "%s", text);
}

static void log_anonymous(int level, const char *text)
{
    core_log(level, nullptr, nullptr, 0, "%s", text);
}

static std::vector<std::string> texts(const print_capture &lines)
{
    std::vector<std::string> all;
    for (const auto &line : lines.lines())
        all.push_back(line.text);
    return all;
}

using strings = std::vector<std::string>;

TEST(InitialState, HasTheThresholdInf)
{
    EXPECT_EQ(core_log_get_level(), 6);
}

TEST(InitialState, LetsCoreMessagesThrough)
{
    EXPECT_TRUE(core_messages_enabled);
}

TEST(InitialState, DoesNotUseTheSystemLog)
{
    EXPECT_FALSE(is_log_native_enabled);
}

TEST(InitialState, PrintsToStandardOutput)
{
    EXPECT_EQ(print_function, stdout_print);
}

TEST(InitialState, PrintsMessagesAsTheyAre)
{
    const print_capture lines;
    log_line(CORE_LOG_INF, "no line end");
    EXPECT_EQ(texts(lines), strings{"no line end"});
}

struct level_row {
    int level;
    const char *name;
    bool to_stderr;
};

static void PrintTo(const level_row &row, std::ostream *out)
{
    *out << row.level;
}

class Levels : public testing::TestWithParam<level_row> {};

TEST_P(Levels, AreNamedInThePrefix)
{
    const print_capture lines;
    give_time();
    core_log_set_level(CORE_LOG_VRB);
    log_line(GetParam().level, "text");
    EXPECT_EQ(texts(lines),
              strings{std::string("1234.000123456 ") + GetParam().name + " ../main.c:729:check_args() text"});
}

TEST_P(Levels, ChooseTheStream)
{
    core_log_set_level(CORE_LOG_VRB);
    CaptureStdout();
    CaptureStderr();
    log_anonymous(GetParam().level, "text\n");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(out, GetParam().to_stderr ? "" : "text\n");
    EXPECT_EQ(err, GetParam().to_stderr ? "text\n" : "");
}

TEST_P(Levels, ReachThePrintFunctionFromTheNewlinePrinter)
{
    const print_capture lines;
    core_log_set_level(CORE_LOG_VRB);
    core_log_set_pprint(0);
    log_anonymous(GetParam().level, "text");
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, GetParam().level);
}

TEST_P(Levels, ReachThePrintFunctionFromThePlainPrinter)
{
    const print_capture lines;
    core_log_set_level(CORE_LOG_VRB);
    core_log_set_pprint(1);
    log_anonymous(GetParam().level, "text");
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, GetParam().level);
}

TEST_P(Levels, AreThePrioritiesOfTheSystemLog)
{
    static constexpr int priorities[] = {LOG_EMERG,   LOG_ALERT,  LOG_CRIT, LOG_ERR,
                                         LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
    if (GetParam().level < 8) {
        EXPECT_EQ(GetParam().level, priorities[GetParam().level]);
    } else {
        EXPECT_EQ(GetParam().level, LOG_DEBUG + 1); // the only one the system log does not know
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Levels,
                         testing::Values(level_row{0, "EMR", true}, level_row{1, "ALR", true},
                                         level_row{2, "CRT", true}, level_row{3, "ERR", true},
                                         level_row{4, "WRN", false}, level_row{5, "NOT", false},
                                         level_row{6, "INF", false}, level_row{7, "DBG", false},
                                         level_row{8, "VRB", false}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(LevelName, MarksANumberThatIsNoLevel)
{
    EXPECT_STREQ(core_log_level_name(-1), "???");
    EXPECT_STREQ(core_log_level_name(9), "???");
}

TEST(Threshold, DropsDebugMessagesAtFirst)
{
    const print_capture lines;
    log_line(CORE_LOG_DBG, "text");
    EXPECT_TRUE(lines.lines().empty());
}

TEST(Threshold, LetsDebugMessagesThroughAtDebug)
{
    const print_capture lines;
    core_log_set_level(7);
    log_anonymous(CORE_LOG_DBG, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST(Threshold, DropsVerboseMessagesAtDebug)
{
    const print_capture lines;
    core_log_set_level(7);
    log_anonymous(CORE_LOG_VRB, "text");
    EXPECT_TRUE(lines.lines().empty());
}

TEST(Threshold, LetsVerboseMessagesThroughAtVerbose)
{
    const print_capture lines;
    core_log_set_level(8);
    log_anonymous(CORE_LOG_VRB, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST(Threshold, DropsWhatIsJustAboveIt)
{
    const print_capture lines;
    core_log_set_level(CORE_LOG_ERR);
    log_anonymous(CORE_LOG_WRN, "warning");
    log_anonymous(CORE_LOG_ERR, "error");
    EXPECT_EQ(texts(lines), strings{"error"});
}

TEST(Threshold, IsReadBackAsSet)
{
    core_log_set_level(7);
    EXPECT_EQ(core_log_get_level(), 7);
    EXPECT_EQ(log_level, 7);
}

TEST(CoreMessages, AreDroppedWhenDisabled)
{
    const print_capture lines;
    core_log_enable_core_messages(false);
    core_log(CORE_LOG_ERR, "core-device.c", "core_device_open", 1, "text");
    EXPECT_TRUE(lines.lines().empty());
}

TEST(CoreMessages, AreKnownByTheirSourceFileAnywhereInThePath)
{
    const print_capture lines;
    core_log_enable_core_messages(false);
    core_log(CORE_LOG_ERR, "../src/core-file.c", "core_file_open", 1, "text");
    EXPECT_TRUE(lines.lines().empty());
}

TEST(CoreMessages, ArePrintedAgainWhenEnabledAgain)
{
    const print_capture lines;
    core_log_enable_core_messages(false);
    core_log_enable_core_messages(true);
    core_log(CORE_LOG_ERR, "core-device.c", "core_device_open", 1, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST(CoreMessages, DoNotIncludeOtherSourceFiles)
{
    const print_capture lines;
    core_log_enable_core_messages(false);
    core_log(CORE_LOG_ERR, "core.c", "core_letoh", 1, "core");
    core_log(CORE_LOG_ERR, "../main.c", "main", 1, "main");
    EXPECT_EQ(texts(lines), (strings{"core", "main"}));
}

TEST(CoreMessages, DoNotIncludeAnonymousMessages)
{
    const print_capture lines;
    core_log_enable_core_messages(false);
    log_anonymous(CORE_LOG_ERR, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

static int answer_42(int, const char *, const char *, int, char *)
{
    return 42;
}

TEST(CoreLog, ReturnsTheResultOfThePrettyPrinter)
{
    pretty_print_function = answer_42;
    EXPECT_EQ(core_log(CORE_LOG_INF, nullptr, nullptr, 0, "text"), 42);
}

TEST(CoreLog, ReturnsZeroForADroppedMessage)
{
    pretty_print_function = answer_42;
    EXPECT_EQ(core_log(CORE_LOG_DBG, nullptr, nullptr, 0, "text"), 0);
}

TEST(CoreLog, PassesEverythingToThePrettyPrinter)
{
    const log_capture log;
    core_log(CORE_LOG_WRN, "../main.c", "main", 17, "%s %d", "number", 5);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_WRN);
    EXPECT_EQ(log.messages()[0].file, "../main.c");
    EXPECT_EQ(log.messages()[0].function, "main");
    EXPECT_EQ(log.messages()[0].line, 17);
    EXPECT_EQ(log.messages()[0].text, "number 5");
}

TEST(CoreLog, KeepsAMessageOf1024Bytes)
{
    const log_capture log;
    log_line(CORE_LOG_INF, std::string(1024, 'x').c_str());
    EXPECT_EQ(log.messages().at(0).text, std::string(1024, 'x'));
}

TEST(CoreLog, CutsALongerMessageAt1024Bytes)
{
    const log_capture log;
    log_line(CORE_LOG_INF, (std::string(1024, 'x') + "yyy").c_str());
    EXPECT_EQ(log.messages().at(0).text, std::string(1024, 'x'));
}

class Prefix : public testing::Test {
  protected:
    Prefix() { give_time(); }

    print_capture lines;
};

TEST_F(Prefix, IsLeftOutAtTheThresholdInf)
{
    log_line(CORE_LOG_INF, "text");
    log_line(CORE_LOG_ERR, "error");
    EXPECT_EQ(texts(lines), (strings{"text", "error"}));
}

TEST_F(Prefix, IsWrittenAtTheThresholdDebug)
{
    core_log_set_level(7);
    log_line(CORE_LOG_DBG, "text");
    EXPECT_EQ(texts(lines), strings{"1234.000123456 DBG ../main.c:729:check_args() text"});
}

TEST_F(Prefix, IsWrittenForLowerLevelsTooAtTheThresholdDebug)
{
    core_log_set_level(7);
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "text");
    EXPECT_EQ(texts(lines), strings{"1234.000123456 INF ../main.c:775:main() text"});
}

TEST_F(Prefix, IsWrittenAtAThresholdBelowInf)
{
    core_log_set_level(5);
    log_line(CORE_LOG_ERR, "text");
    EXPECT_EQ(texts(lines), strings{"1234.000123456 ERR ../main.c:729:check_args() text"});
}

TEST_F(Prefix, WritesTheLineNumberWithThreeDigits)
{
    core_log_set_level(7);
    core_log(CORE_LOG_DBG, "a.c", "f", 7, "text");
    core_log(CORE_LOG_DBG, "a.c", "f", 12345, "text");
    EXPECT_EQ(texts(lines),
              (strings{"1234.000123456 DBG a.c:007:f() text", "1234.000123456 DBG a.c:12345:f() text"}));
}

TEST_F(Prefix, IsLeftOutWithoutAFile)
{
    core_log_set_level(7);
    core_log(CORE_LOG_DBG, nullptr, "f", 7, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST_F(Prefix, IsLeftOutWithoutAFunction)
{
    core_log_set_level(7);
    core_log(CORE_LOG_DBG, "a.c", nullptr, 7, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST_F(Prefix, IsLeftOutWithoutALine)
{
    core_log_set_level(7);
    core_log(CORE_LOG_DBG, "a.c", "f", 0, "text");
    EXPECT_EQ(texts(lines), strings{"text"});
}

TEST_F(Prefix, IsWrittenByTheNewlinePrinterToo)
{
    core_log_set_level(7);
    core_log_set_pprint(0);
    log_line(CORE_LOG_DBG, "text");
    EXPECT_EQ(texts(lines), strings{"1234.000123456 DBG ../main.c:729:check_args() text\n"});
}

TEST_F(Prefix, HasAZeroTimeAndALineBeforeItWhenTheClockFails)
{
    core_log_set_level(7);
    core_log_set_pprint(0);
    libc::clock_gettime = libc::fails(EINVAL);
    log_line(CORE_LOG_DBG, "text");
    ASSERT_EQ(lines.lines().size(), 2U);
    EXPECT_EQ(lines.lines()[0].level, 3);
    EXPECT_EQ(lines.lines()[0].text, "could not get time for logs\n");
    EXPECT_EQ(lines.lines()[1].level, 7);
    EXPECT_EQ(lines.lines()[1].text, "0.000000000 DBG ../main.c:729:check_args() text\n");
}

TEST_F(Prefix, IsCutAt256Bytes)
{
    core_log_set_level(7);
    const std::string file(300, 'f');
    core_log(CORE_LOG_DBG, file.c_str(), "f", 1, "text");
    // 19 bytes of time and level, then as much of the file's name as there is room for.
    EXPECT_EQ(texts(lines), strings{"1234.000123456 DBG " + std::string(237, 'f') + "text"});
}

TEST_F(Prefix, ReadsTheMonotonicClock)
{
    libc::clock_gettime.reset();
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    core_log_set_level(7);
    log_line(CORE_LOG_DBG, "text");
    clock_gettime(CLOCK_MONOTONIC, &after);
    long long seconds = 0;
    long nanoseconds = 0;
    ASSERT_EQ(sscanf(lines.lines().at(0).text.c_str(), "%lld.%9ld DBG ", &seconds, &nanoseconds), 2);
    EXPECT_GE(seconds, before.tv_sec);
    EXPECT_LE(seconds, after.tv_sec);
    EXPECT_EQ(lines.lines()[0].text.find(" DBG"), std::to_string(seconds).size() + 10);
}

class NewlinePrinter : public testing::Test {
  protected:
    NewlinePrinter() { core_log_set_pprint(0); }

    print_capture lines;
};

TEST_F(NewlinePrinter, EndsAMessageWithALineFeed)
{
    log_line(CORE_LOG_INF, "text");
    EXPECT_EQ(texts(lines), strings{"text\n"});
}

TEST_F(NewlinePrinter, AddsNothingAfterALineFeed)
{
    log_line(CORE_LOG_INF, "text\n");
    EXPECT_EQ(texts(lines), strings{"text\n"});
}

TEST_F(NewlinePrinter, AddsNothingAfterACarriageReturnOfTheFormat)
{
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "%d%%\r", 50);
    EXPECT_EQ(texts(lines), strings{"50%\r"});
}

TEST_F(NewlinePrinter, LooksAtTheLastCharacterOnly)
{
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "\rfirst\nsecond");
    EXPECT_EQ(texts(lines), strings{"\rfirst\nsecond\n"});
}

TEST_F(NewlinePrinter, KeepsTwoLineFeedsOfTheCaller)
{
    log_line(CORE_LOG_INF, "text\n\n");
    EXPECT_EQ(texts(lines), strings{"text\n\n"});
}

TEST_F(NewlinePrinter, MakesALineFeedOfAnEmptyMessage)
{
    log_line(CORE_LOG_INF, "");
    EXPECT_EQ(texts(lines), strings{"\n"});
}

TEST_F(NewlinePrinter, MakesPrefixAndLineFeedOfAnEmptyMessage)
{
    give_time();
    core_log_set_level(7);
    log_line(CORE_LOG_INF, "");
    EXPECT_EQ(texts(lines), strings{"1234.000123456 INF ../main.c:729:check_args() \n"});
}

TEST_F(NewlinePrinter, EndsAMessageThatWasCutWithALineFeed)
{
    log_line(CORE_LOG_INF, (std::string(1024, 'x') + "\n").c_str());
    EXPECT_EQ(texts(lines), strings{std::string(1024, 'x') + "\n"});
}

TEST_F(NewlinePrinter, TakesNoFormatFromTheMessage)
{
    log_line(CORE_LOG_INF, "100%s %n");
    EXPECT_EQ(texts(lines), strings{"100%s %n\n"});
}

TEST_F(NewlinePrinter, ReturnsTheResultOfThePrintFunction)
{
    EXPECT_EQ(core_log(CORE_LOG_INF, nullptr, nullptr, 0, "text"), 5);
}

TEST(PlainPrinter, AddsNothing)
{
    const print_capture lines;
    core_log_set_pprint(0);
    core_log_set_pprint(1);
    log_line(CORE_LOG_INF, "text");
    log_line(CORE_LOG_INF, "");
    EXPECT_EQ(texts(lines), (strings{"text", ""}));
}

TEST(PlainPrinter, IsChosenByAnyOtherMode)
{
    const print_capture lines;
    for (const int mode : {-1, 3, 100}) {
        core_log_set_pprint(0);
        core_log_set_pprint(mode);
        log_line(CORE_LOG_INF, "text");
    }
    EXPECT_EQ(texts(lines), (strings{"text", "text", "text"}));
}

// What others choose reaches no terminal raw, through whichever text printer.
class TextPrinters : public testing::TestWithParam<int> {
  protected:
    TextPrinters() { core_log_set_pprint(GetParam()); }

    // The text of a message, without the line feed that the newline printer adds.
    std::string printed() const
    {
        std::string text = lines_.lines().empty() ? "" : lines_.lines().back().text;
        if (GetParam() == 0 && text.ends_with('\n'))
            text.pop_back();
        return text;
    }

  private:
    print_capture lines_;
};

TEST_P(TextPrinters, ShowEachByteAsItIsOrAsItsNumber)
{
    for (int byte = 1; byte < 256; ++byte) {
        const std::string raw(1, static_cast<char>(byte));
        char number[8];
        snprintf(number, sizeof number, "\\x%02X", static_cast<unsigned>(byte));
        const bool is_shown = byte == 9 || byte == 10 || (byte >= 32 && byte <= 126);
        log_line(CORE_LOG_INF, ("a" + raw + "z").c_str());
        EXPECT_EQ(printed(), "a" + (is_shown ? raw : number) + "z");
    }
}

TEST_P(TextPrinters, ShowAMessageOfControlCharactersInFull)
{
    log_line(CORE_LOG_INF, std::string(1024, '\x1B').c_str());
    std::string all;
    for (int i = 0; i < 1024; ++i)
        all += "\\x1B";
    EXPECT_EQ(printed(), all);
}

TEST_P(TextPrinters, ShowTheBytesOfACharacterThatWasCut)
{
    log_line(CORE_LOG_INF, (std::string(1022, 'x') + "\xE2\x82\xAC").c_str());
    EXPECT_EQ(printed(), std::string(1022, 'x') + "\\xE2\\x82");
}

TEST_P(TextPrinters, TellTheReturnsOfTheFormatFromOthers)
{
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "\r%s", "\rbanner\r");
    EXPECT_EQ(printed(), "\r\\x0Dbanner\\x0D");
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "%s\r", "\rpercent\r");
    EXPECT_EQ(printed(), "\\x0Dpercent\\x0D\r");
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "\r%s\r", "");
    EXPECT_EQ(printed(), "\r\r");
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "%s", "\r");
    EXPECT_EQ(printed(), "\\x0D");
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "\r");
    EXPECT_EQ(printed(), "\r");
}

TEST_P(TextPrinters, TakeNoReturnForTheFormatsThatWasCutOff)
{
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "%s\r", (std::string(1023, 'x') + "\r").c_str());
    EXPECT_EQ(printed(), std::string(1023, 'x') + "\\x0D");
}

TEST_P(TextPrinters, ShowTheReturnInFrontOfTheVersionBanner)
{
    core_print_ombra_version();
    EXPECT_TRUE(printed().starts_with("\rOmbra version"));
}

TEST_P(TextPrinters, ShowNothingRawWhenTheyAreCalledDirectly)
{
    char message[] = "\rtext\x1B";
    pretty_print_function(CORE_LOG_INF, nullptr, nullptr, 0, message);
    EXPECT_EQ(printed(), "\\x0Dtext\\x1B");
}

INSTANTIATE_TEST_SUITE_P(Table, TextPrinters, testing::Values(0, 1),
                         [](const auto &mode) { return std::string(mode.param == 0 ? "newline" : "plain"); });

TEST_F(NewlinePrinter, EndsALineBehindAReturnOfOthers)
{
    log_line(CORE_LOG_INF, "text\r");
    EXPECT_EQ(texts(lines), strings{"text\\x0D\n"});
}

TEST(JsonMode, IsReported)
{
    EXPECT_FALSE(core_log_is_json());
    core_log_set_pprint(2);
    EXPECT_TRUE(core_log_is_json());
    core_log_set_pprint(0);
    EXPECT_FALSE(core_log_is_json());
}

TEST(JsonMode, MakesObjectsOfMessages)
{
    const print_capture lines;
    core_log_set_pprint(2);
    log_line(CORE_LOG_INF, "text");
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_NE(lines.lines()[0].text.find("\"msg\": \"text\"}\n"), std::string::npos);
}

TEST(JsonMode, SetsStandardOutputThenStandardErrorUnbuffered)
{
    std::vector<buffering_call> buffering_calls;
    note_buffering(&buffering_calls);
    core_log_set_pprint(2);
    ASSERT_EQ(buffering_calls.size(), 2U);
    EXPECT_EQ(buffering_calls[0].stream, stdout);
    EXPECT_EQ(buffering_calls[1].stream, stderr);
    for (const auto &call : buffering_calls) {
        EXPECT_FALSE(call.has_buffer);
        EXPECT_EQ(call.mode, _IONBF);
        EXPECT_EQ(call.size, 0U);
    }
}

TEST(JsonMode, ClearsErrnoBeforeEachBufferingChange)
{
    std::vector<buffering_call> buffering_calls;
    note_buffering(&buffering_calls);
    errno = EBADF;
    core_log_set_pprint(2);
    ASSERT_EQ(buffering_calls.size(), 2U);
    EXPECT_EQ(buffering_calls[0].errno_before, 0);
    EXPECT_EQ(buffering_calls[1].errno_before, 0);
}

TEST(JsonMode, LeavesBufferingAloneForTheTextPrinters)
{
    std::vector<buffering_call> buffering_calls;
    note_buffering(&buffering_calls);
    core_log_set_pprint(0);
    core_log_set_pprint(1);
    EXPECT_TRUE(buffering_calls.empty());
}

TEST(JsonMode, WarnsOfAStandardOutputThatStaysBuffered)
{
    const log_capture log;
    std::vector<buffering_call> calls;
    note_buffering(&calls, stdout);
    core_log_set_pprint(2);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_WRN);
    EXPECT_EQ(log.messages()[0].text, "could not disable buffering on stdout: error 9\n");
    EXPECT_EQ(log.messages()[0].function, "core_log_set_pprint");
}

TEST(JsonMode, WarnsOfAStandardErrorThatStaysBuffered)
{
    const log_capture log;
    std::vector<buffering_call> calls;
    note_buffering(&calls, stderr);
    core_log_set_pprint(2);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), strings{"could not disable buffering on stderr: error 9\n"});
}

TEST(JsonMode, IsEnteredEvenIfAStreamStaysBuffered)
{
    const print_capture lines;
    std::vector<buffering_call> calls;
    note_buffering(&calls, stdout);
    core_log_set_pprint(2);
    EXPECT_TRUE(core_log_is_json());
}

static int other_print(int, const char *, ...)
{
    return 0;
}

TEST(SetPrint, InstallsAFunction)
{
    EXPECT_EQ(core_log_set_print(other_print), 0);
    EXPECT_EQ(print_function, other_print);
}

TEST(SetPrint, RefusesTheLogFileWhileNoneIsOpen)
{
    const log_capture log;
    EXPECT_EQ(core_log_set_print(file_print), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"No output file path set"});
    EXPECT_EQ(print_function, stdout_print);
}

TEST(SetPrint, GoesBackToAnOpenLogFile)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    core_log_set_print(other_print);
    EXPECT_EQ(core_log_set_print(file_print), 0);
    EXPECT_EQ(print_function, file_print);
}

TEST(SetPrint, RefusesALogFileThatWasClosed)
{
    const log_capture log;
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    core_log_close_output();
    EXPECT_EQ(core_log_set_print(file_print), -1);
    EXPECT_EQ(print_function, stdout_print);
}

TEST(LogFile, TakesEveryLevel)
{
    const temp_dir dir;
    EXPECT_EQ(core_log_set_output(dir.at("log").c_str(), false), 0);
    EXPECT_EQ(print_function, file_print);
    log_line(CORE_LOG_ERR, "error\n");
    log_line(CORE_LOG_INF, "information\n");
    core_log_close_output();
    EXPECT_EQ(read_file(dir.at("log")), "error\ninformation\n");
}

TEST(LogFile, TakesTheLinesFromTheTerminal)
{
    const temp_dir dir;
    CaptureStdout();
    CaptureStderr();
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    log_line(CORE_LOG_ERR, "error\n");
    log_line(CORE_LOG_INF, "information\n");
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(LogFile, IsTruncatedWithoutAppend)
{
    const temp_dir dir;
    const std::string path = dir.write("log", "old\n");
    static_cast<void>(core_log_set_output(path.c_str(), false));
    log_line(CORE_LOG_INF, "new\n");
    core_log_close_output();
    EXPECT_EQ(read_file(path), "new\n");
}

TEST(LogFile, IsKeptWithAppend)
{
    const temp_dir dir;
    const std::string path = dir.write("log", "old\n");
    static_cast<void>(core_log_set_output(path.c_str(), true));
    log_line(CORE_LOG_INF, "new\n");
    core_log_close_output();
    EXPECT_EQ(read_file(path), "old\nnew\n");
}

TEST(LogFile, IsCreatedWithAppend)
{
    const temp_dir dir;
    EXPECT_EQ(core_log_set_output(dir.at("log").c_str(), true), 0);
    log_line(CORE_LOG_INF, "new\n");
    core_log_close_output();
    EXPECT_EQ(read_file(dir.at("log")), "new\n");
}

TEST(LogFile, ReportsAMissingDirectory)
{
    const log_capture log;
    EXPECT_EQ(core_log_set_output("/nonexistent/log", false), -2);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text,
              "could not open file /nonexistent/log for logging: error 2, No such file or directory\n");
    EXPECT_EQ(log.messages()[0].function, "core_log_set_output");
}

TEST(LogFile, ReportsADirectoryAsGenericFailure)
{
    const log_capture log;
    const temp_dir dir;
    EXPECT_EQ(core_log_set_output(dir.path().c_str(), true), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not open file " + dir.path() + " for logging: error 21, Is a directory\n"});
}

TEST(LogFile, ThatCannotBeOpenedLeavesThePrintFunction)
{
    const log_capture log;
    core_log_set_print(other_print);
    static_cast<void>(core_log_set_output("/nonexistent/log", false));
    EXPECT_EQ(print_function, other_print);
}

TEST(LogFile, ThatCannotBeOpenedLeavesTheOneBeforeInUse)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    static_cast<void>(core_log_set_output("/nonexistent/log", false));
    log_line(CORE_LOG_INF, "text\n");
    core_log_close_output();
    EXPECT_EQ(read_file(dir.at("log")),
              "could not open file /nonexistent/log for logging: error 2, No such file or directory\ntext\n");
}

TEST(LogFile, TakesThePlaceOfTheOneBefore)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("first").c_str(), false));
    log_line(CORE_LOG_INF, "one\n");
    static_cast<void>(core_log_set_output(dir.at("second").c_str(), false));
    log_line(CORE_LOG_INF, "two\n");
    core_log_close_output();
    EXPECT_EQ(read_file(dir.at("first")), "one\n");
    EXPECT_EQ(read_file(dir.at("second")), "two\n");
}

TEST(CloseOutput, FlushesAndGoesBackToStandardOutput)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    log_line(CORE_LOG_INF, "text\n");
    core_log_close_output();
    EXPECT_EQ(print_function, stdout_print);
    EXPECT_EQ(read_file(dir.at("log")), "text\n");
}

TEST(CloseOutput, ChangesNothingWhileNoLogFileIsOpen)
{
    core_log_set_print(other_print);
    core_log_close_output();
    EXPECT_EQ(print_function, other_print);
}

TEST(Deinit, WritesOutTheLogFile)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    log_line(CORE_LOG_INF, "text\n");
    core_log_deinit();
    EXPECT_EQ(read_file(dir.at("log")), "text\n");
}

TEST(Deinit, ChangesNothingWhileNoLogFileIsOpen)
{
    core_log_set_print(other_print);
    core_log_deinit();
    EXPECT_EQ(print_function, other_print);
}

TEST(StdoutPrint, ReturnsTheNumberOfBytes)
{
    CaptureStdout();
    EXPECT_EQ(stdout_print(CORE_LOG_INF, "%s %d", "abc", 12), 6);
    EXPECT_EQ(GetCapturedStdout(), "abc 12");
}

// Standard output or standard error as a pipe that nobody reads.
class unread_stream {
  public:
    explicit unread_stream(int descriptor) : descriptor_(descriptor), saved_(dup(descriptor))
    {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
        EXPECT_EQ(fcntl(ends_[1], F_SETPIPE_SZ, 4096), 4096);
        EXPECT_EQ(write(ends_[1], "#", 1), 1); // one page, which is taken
        dup2(ends_[1], descriptor_);
    }
    unread_stream(const unread_stream &) = delete;
    unread_stream &operator=(const unread_stream &) = delete;
    ~unread_stream()
    {
        read_all();
        // Tells what is left to be told, so that the next test begins anew.
        stdout_print(descriptor_ == STDERR_FILENO ? CORE_LOG_ERR : CORE_LOG_INF, "%s", "");
        dup2(saved_, descriptor_);
        for (const int handle : {saved_, ends_[0], ends_[1]})
            close(handle);
    }
    std::string read_all() const
    {
        char text[4096];
        const ssize_t length = read(ends_[0], text, sizeof text);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }

  private:
    int descriptor_;
    int saved_;
    int ends_[2] = {-1, -1};
};

TEST(StdoutPrint, ReturnsAnErrorForALineThatNobodyReads)
{
    const unread_stream out(STDOUT_FILENO);
    EXPECT_EQ(stdout_print(CORE_LOG_INF, "text\n"), -1);
    EXPECT_EQ(out.read_all(), "#");
}

static void check_match(const std::string &text, const char *pattern)
{
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
}

TEST(DroppedLines, AreToldInFrontOfTheNextOne)
{
    core_log_set_pprint(0);
    const unread_stream out(STDOUT_FILENO);
    for (int i = 0; i < 3; ++i)
        log_line(CORE_LOG_INF, "lost");
    EXPECT_EQ(out.read_all(), "#");
    log_line(CORE_LOG_INF, "text");
    EXPECT_EQ(out.read_all(), "lines dropped here, as the output took none: 3\ntext\n");
    log_line(CORE_LOG_INF, "next");
    EXPECT_EQ(out.read_all(), "next\n");
}

TEST(DroppedLines, AreToldOnTheirStream)
{
    core_log_set_pprint(0);
    const unread_stream err(STDERR_FILENO);
    log_line(CORE_LOG_ERR, "lost");
    CaptureStdout();
    log_line(CORE_LOG_INF, "text");
    EXPECT_EQ(GetCapturedStdout(), "text\n");
    EXPECT_EQ(err.read_all(), "#");
    log_line(CORE_LOG_ERR, "error");
    EXPECT_EQ(err.read_all(), "lines dropped here, as the output took none: 1\nerror\n");
}

TEST(DroppedLines, AreCountedOnUntilTheyAreTold)
{
    core_log_set_pprint(0);
    const unread_stream out(STDOUT_FILENO);
    log_line(CORE_LOG_INF, "lost");
    EXPECT_EQ(out.read_all(), "#");
    log_line(CORE_LOG_INF, "one");
    log_line(CORE_LOG_INF, "lost"); // the page is taken again
    log_line(CORE_LOG_INF, "lost");
    EXPECT_EQ(out.read_all(), "lines dropped here, as the output took none: 1\none\n");
    log_line(CORE_LOG_INF, "two");
    EXPECT_EQ(out.read_all(), "lines dropped here, as the output took none: 2\ntwo\n");
}

TEST(DroppedLines, AreAWarningAtTheThresholdDebug)
{
    core_log_set_pprint(0);
    core_log_set_level(7);
    const unread_stream out(STDOUT_FILENO);
    log_anonymous(CORE_LOG_INF, "lost");
    EXPECT_EQ(out.read_all(), "#");
    log_anonymous(CORE_LOG_INF, "text");
    check_match(out.read_all(), "[0-9]+\\.[0-9]+ WRN zepho-log.c:[0-9]+:stdout_print\\(\\) "
                                "lines dropped here, as the output took none: 1\ntext\n");
}

TEST(DroppedLines, AreALineOfTheirOwnInFrontOfProgress)
{
    const unread_stream out(STDOUT_FILENO);
    core_log_progress("firehose", "send_binary", 1, 0, 2, "boot.img");
    EXPECT_EQ(out.read_all(), "#");
    core_log_progress("firehose", "send_binary", 1, 1, 2, "boot.img");
    EXPECT_EQ(out.read_all(), "lines dropped here, as the output took none: 1\n50.00% completed\r");
}

TEST(DroppedLines, AreAnObjectInJsonMode)
{
    core_log_set_pprint(2);
    const unread_stream err(STDERR_FILENO);
    log_line(CORE_LOG_ERR, "lost");
    EXPECT_EQ(err.read_all(), "#");
    give_time();
    log_line(CORE_LOG_ERR, "error");
    check_match(err.read_all(),
                "\\{\"timestamp\": \"1234\\.000123456\", \"type\": \"LOG\", \"severity\":\"WRN\", "
                "\"file\": \"zepho-log.c\", \"function\": \"stdout_print\", \"line\": [0-9]+, "
                "\"msg\": \"lines dropped here, as the output took none: 1\"\\}\n"
                "\\{\"timestamp\": \"1234\\.000123456\", \"type\": \"LOG\", \"severity\":\"ERR\", "
                "\"file\": \"../main.c\", \"function\": \"check_args\", \"line\": 729, "
                "\"msg\": \"error\"\\}\n");
}

TEST(FilePrintDeathTest, NeedsAnOpenLogFile)
{
    EXPECT_EXIT(file_print(CORE_LOG_INF, "text"), testing::KilledBySignal(SIGABRT),
                "assertion failed: output_stream != NULL");
}

TEST(FilePrint, ReturnsTheNumberOfBytes)
{
    const temp_dir dir;
    static_cast<void>(core_log_set_output(dir.at("log").c_str(), false));
    EXPECT_EQ(file_print(CORE_LOG_ERR, "%s %d", "abc", 12), 6);
}

TEST(SystemLog, TakesLevelAndText)
{
    std::vector<printed_line> system_log;
    note_system_log(&system_log);
    core_log_set_print(syslog_print);
    log_line(CORE_LOG_WRN, "warning");
    ASSERT_EQ(system_log.size(), 1U);
    EXPECT_EQ(system_log[0].level, LOG_WARNING);
    EXPECT_EQ(system_log[0].text, "warning");
}

TEST(SystemLog, TakesTheLinesFromTheTerminal)
{
    std::vector<printed_line> system_log;
    note_system_log(&system_log);
    CaptureStdout();
    CaptureStderr();
    core_log_set_print(syslog_print);
    log_line(CORE_LOG_ERR, "error\n");
    log_line(CORE_LOG_INF, "information\n");
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(SystemLog, TakesPrefixAndLineEndOfThePrettyPrinter)
{
    std::vector<printed_line> system_log;
    note_system_log(&system_log);
    give_time();
    core_log_set_level(7);
    core_log_set_pprint(0);
    core_log_set_print(syslog_print);
    log_line(CORE_LOG_DBG, "text");
    ASSERT_EQ(system_log.size(), 1U);
    EXPECT_EQ(system_log[0].text, "1234.000123456 DBG ../main.c:729:check_args() text\n");
}

// The first line of a dump, with the address as printf(3) writes it.
static std::string dump_header(const void *buffer, unsigned length)
{
    char text[128];
    snprintf(text, sizeof text, "Printing buffer %p of %u bytes\n", buffer, length);
    return text;
}

TEST(BufferDump, PrintsAHeaderAndLinesOfBytes)
{
    const log_capture log;
    unsigned char bytes[20];
    for (unsigned i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<unsigned char>(0xF8 + i);
    core_print_buffer_to_level(bytes, sizeof bytes, 16, CORE_LOG_INF);
    EXPECT_EQ(log.texts(CORE_LOG_INF),
              (strings{dump_header(bytes, 20), "[0000] F8 F9 FA FB FC FD FE FF 00 01 02 03 04 05 06 07 \n",
                       "[0016] 08 09 0A 0B \n"}));
}

TEST(BufferDump, PrintsNoEmptyLineAfterAFullOne)
{
    const log_capture log;
    core_print_buffer_to_level("abcd", 4, 2, CORE_LOG_INF);
    EXPECT_EQ(log.messages().size(), 3U);
    EXPECT_EQ(log.messages().back().text, "[0002] 63 64 \n");
}

TEST(BufferDump, PrintsOnlyTheHeaderOfNoBytes)
{
    const log_capture log;
    static constexpr char bytes[] = "";
    core_print_buffer_to_level(bytes, 0, 16, CORE_LOG_INF);
    EXPECT_EQ(log.texts(CORE_LOG_INF), strings{dump_header(bytes, 0)});
}

TEST(BufferDump, WritesOffsetsAboveFourDigitsInFull)
{
    const log_capture log;
    const std::string bytes(10001, '\x01');
    core_print_buffer_to_level(bytes.data(), 10001, 5000, CORE_LOG_INF);
    EXPECT_EQ(log.messages().back().text, "[10000] 01 \n");
}

TEST(BufferDump, IsDebugUnlessALevelIsGiven)
{
    const log_capture log;
    core_print_buffer("a", 1, 16);
    ASSERT_EQ(log.messages().size(), 2U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[1].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[1].text, "[0000] 61 \n");
}

TEST(BufferDump, IsDroppedAboveTheThreshold)
{
    const log_capture log(CORE_LOG_INF);
    core_print_buffer("a", 1, 16);
    EXPECT_TRUE(log.messages().empty());
}

TEST(BufferDump, SaysNothingOfANullBufferAboveTheThreshold)
{
    const log_capture log(CORE_LOG_INF);
    core_print_buffer(nullptr, 1, 16);
    EXPECT_TRUE(log.messages().empty());
}

TEST(BufferDump, RefusesANullBuffer)
{
    const log_capture log;
    core_print_buffer(nullptr, 1, 16);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "Passed buffer pointer is null\n");
}

TEST(BufferDump, IsAnonymous)
{
    const log_capture log;
    core_print_buffer("a", 1, 16);
    core_print_buffer(nullptr, 1, 16);
    EXPECT_EQ(log.messages().size(), 3U);
    for (const auto &message : log.messages()) {
        EXPECT_EQ(message.file, "");
        EXPECT_EQ(message.function, "");
        EXPECT_EQ(message.line, 0);
    }
}

TEST(BufferDump, HasNoPrefix)
{
    const print_capture lines;
    core_log_set_level(7);
    core_print_buffer("a", 1, 16);
    ASSERT_EQ(lines.lines().size(), 2U);
    EXPECT_EQ(lines.lines()[1].text, "[0000] 61 \n");
}

TEST(BufferDump, IsPrintedWhileCoreMessagesAreDisabled)
{
    const log_capture log;
    core_log_enable_core_messages(false);
    core_print_buffer("a", 1, 16);
    EXPECT_EQ(log.messages().size(), 2U);
}

TEST(BufferDump, PrintsAByteALineForALineLengthOfZero)
{
    const log_capture log;
    core_print_buffer("ab", 2, 0);
    ASSERT_EQ(log.messages().size(), 3U);
    EXPECT_EQ(log.messages()[1].text, "[0000] 61 \n");
    EXPECT_EQ(log.messages()[2].text, "[0001] 62 \n");
}

TEST(BufferDump, ReportsALineThatCannotBeAllocated)
{
    const log_capture log;
    limit_memory();
    core_print_buffer("a", 1, UINT32_MAX); // 12 GiB
    ASSERT_EQ(log.messages().size(), 2U);
    EXPECT_EQ(log.messages()[1].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[1].text, "String allocation error\n");
}

TEST(VersionBanner, IsLedByACarriageReturn)
{
    const log_capture log;
    core_print_ombra_version();
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_INF);
    EXPECT_EQ(log.messages()[0].text, "\rOmbra version 2.0.2-0\n");
}

static std::string stripped(std::string text)
{
    log_strip_newline(text.data());
    return text.c_str();
}

TEST(StripNewline, RemovesOneLineFeed)
{
    EXPECT_EQ(stripped("text\n"), "text");
    EXPECT_EQ(stripped("text\n\n"), "text\n");
    EXPECT_EQ(stripped("\n"), "");
}

TEST(StripNewline, RemovesNothingElse)
{
    EXPECT_EQ(stripped(""), "");
    EXPECT_EQ(stripped("text"), "text");
    EXPECT_EQ(stripped("text\r"), "text\r");
    EXPECT_EQ(stripped("te\nxt"), "te\nxt");
}

static void report(int64_t current, int64_t max)
{
    core_log_progress("firehose", "send_binary", 1, current, max, "boot.img");
}

TEST(Progress, StartsAtZero)
{
    const print_capture lines;
    core_log_set_pprint(0);
    report(0, 3);
    EXPECT_EQ(texts(lines), strings{"0.00% completed\r"});
}

TEST(Progress, ShowsWholePercentsOnly)
{
    const print_capture lines;
    report(2, 3);
    EXPECT_EQ(texts(lines), strings{"66.00% completed\r"});
}

TEST(Progress, IsAnInfMessage)
{
    const print_capture lines;
    report(1, 2);
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_INF);
}

TEST(Progress, CountsFilesOfMoreThan4GiB)
{
    const print_capture lines;
    report(5LL << 30, 10LL << 30);
    EXPECT_EQ(texts(lines), strings{"50.00% completed\r"});
}

TEST(Progress, LeavesTheNewlinePrinterBehind)
{
    const print_capture lines;
    report(1, 2);
    log_line(CORE_LOG_INF, "text");
    EXPECT_EQ(texts(lines), (strings{"50.00% completed\r", "text\n"}));
}

TEST(Progress, IsLeftOutAtTheThresholdDebug)
{
    const print_capture lines;
    core_log_set_level(7);
    report(1, 2);
    EXPECT_TRUE(lines.lines().empty());
}

TEST(Progress, IsLeftOutWithoutASize)
{
    const print_capture lines;
    report(0, 0);
    EXPECT_TRUE(lines.lines().empty());
}

TEST(Progress, HasNoTextLineForItsEnd)
{
    const print_capture lines;
    core_log_progress_complete("firehose", "send_binary", 1, 10, "boot.img");
    EXPECT_TRUE(lines.lines().empty());
}

TEST(Progress, IsAnEventInJsonMode)
{
    const print_capture lines;
    core_log_set_pprint(2);
    give_time();
    report(3, 4);
    EXPECT_EQ(texts(lines),
              strings{"{\"timestamp\": \"1234.000123456\", \"type\": \"PROGRESS\", \"current\": 3, "
                      "\"max\": 4, \"percent\": 75, \"description\": \"boot.img\"}\n"});
}

TEST(Progress, EndsWithAnEventInJsonMode)
{
    const print_capture lines;
    core_log_set_pprint(2);
    give_time();
    core_log_progress_complete("firehose", "send_binary", 1, 10, "boot.img");
    EXPECT_EQ(texts(lines),
              strings{"{\"timestamp\": \"1234.000123456\", \"type\": \"PROGRESS\", \"current\": 10, "
                      "\"max\": 10, \"percent\": 100, \"description\": \"boot.img\"}\n"});
}

TEST(Progress, StaysInJsonMode)
{
    const print_capture lines;
    core_log_set_pprint(2);
    report(3, 4);
    EXPECT_TRUE(core_log_is_json());
}
