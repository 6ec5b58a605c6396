#include "zepho-json.hpp"

#include "json_check.hpp"
#include "libc-hooks.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#define STAMP "{\"timestamp\": \"1700000000.000012345\", "

static json_entry end_row()
{
    return {nullptr, nullptr, JSON_END};
}

static json_entry text_row(const char *name, const char *text)
{
    return {name, text, JSON_TEXT};
}

// Every line that was printed, checked to be JSON and nothing else.
class JsonLines : public testing::Test {
  protected:
    JsonLines()
    {
        core_log_set_pprint(2);
        libc::clock_gettime = [this](clockid_t clock, timespec *time) {
            asked_clock = clock;
            *time = {1700000000, 12345};
            return 0;
        };
    }
    ~JsonLines() override
    {
        for (const auto &line : lines.lines())
            EXPECT_EQ(json_line_fault(line.text), "") << line.text;
    }

    std::string only_line() const
    {
        EXPECT_EQ(lines.lines().size(), 1U);
        return lines.lines().empty() ? "" : lines.lines()[0].text;
    }

    // The only line, read back.
    json_value only_object() const
    {
        json_value value;
        std::string error;
        EXPECT_TRUE(json_read(only_line(), &value, &error)) << error;
        return value;
    }

    std::string member(const std::string &name) const
    {
        const json_value object = only_object();
        const json_value *const found = object.find(name);
        EXPECT_NE(found, nullptr) << name;
        return found != nullptr ? found->text : "";
    }

    // The messages of all LOG objects so far.
    std::vector<std::string> logged() const
    {
        std::vector<std::string> all;
        for (const auto &line : lines.lines()) {
            json_value value;
            std::string error;
            EXPECT_TRUE(json_read(line.text, &value, &error)) << error;
            if (const json_value *const message = value.find("msg"))
                all.push_back(message->text);
        }
        return all;
    }

    print_capture lines;
    clockid_t asked_clock = -1;
};

using strings = std::vector<std::string>;

class LogObject : public JsonLines {};

TEST_F(LogObject, HasTheFixedShape)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "hello");
    EXPECT_EQ(only_line(), STAMP "\"type\": \"LOG\", \"severity\":\"INF\", \"file\": \"../main.c\", "
                                 "\"function\": \"main\", \"line\": 775, \"msg\": \"hello\"}\n");
}

TEST_F(LogObject, ReadsTheWallClock)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "hello");
    EXPECT_EQ(asked_clock, CLOCK_REALTIME);
}

TEST_F(LogObject, LosesOneTrailingLineFeed)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "hello\n");
    EXPECT_EQ(member("msg"), "hello");
}

TEST_F(LogObject, LosesNoSecondLineFeed)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "hello\n\n");
    EXPECT_EQ(member("msg"), "hello\n");
}

TEST_F(LogObject, EscapesALeadingLineFeed)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "\nFirmware update completed");
    EXPECT_NE(only_line().find("\"msg\": \"\\nFirmware update completed\"}\n"), std::string::npos);
}

TEST_F(LogObject, EscapesQuotesAndBackslashes)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "<a b=\"c\\d\">");
    EXPECT_NE(only_line().find("\"msg\": \"<a b=\\\"c\\\\d\\\">\"}\n"), std::string::npos);
}

TEST_F(LogObject, EscapesFileAndFunctionToo)
{
    core_log(CORE_LOG_INF, "a\"b.c", "f\\g", 1, "text");
    EXPECT_EQ(member("file"), "a\"b.c");
    EXPECT_EQ(member("function"), "f\\g");
}

TEST_F(LogObject, KeepsAnEmptyMessage)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "%s", "");
    EXPECT_EQ(member("msg"), "");
}

TEST_F(LogObject, OfAnAnonymousMessageHasEmptyNames)
{
    core_log(CORE_LOG_INF, nullptr, nullptr, 0, "hello");
    EXPECT_EQ(only_line(),
              STAMP "\"type\": \"LOG\", \"severity\":\"INF\", \"file\": \"\", \"function\": \"\", "
                    "\"line\": 0, \"msg\": \"hello\"}\n");
}

TEST_F(LogObject, SurvivesAMessageCutInsideACharacter)
{
    const std::string text = std::string(1023, 'x') + "\xC3\xA4";
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "%s", text.c_str());
    EXPECT_EQ(member("msg"), std::string(1023, 'x') + "\xEF\xBF\xBD");
}

TEST_F(LogObject, HoldsALongestMessageOfEscapesInFull)
{
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "%s", std::string(1024, '\x01').c_str());
    EXPECT_EQ(member("msg"), std::string(1024, '\x01'));
}

TEST_F(LogObject, SurvivesEveryByte)
{
    std::string text;
    for (int c = 1; c < 256; ++c)
        text.push_back(static_cast<char>(c));
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "%s", text.c_str());
    std::string expected = text.substr(0, 127);
    for (int c = 128; c < 256; ++c)
        expected += "\xEF\xBF\xBD";
    EXPECT_EQ(member("msg"), expected);
}

TEST_F(LogObject, IsDroppedAboveTheThreshold)
{
    core_log(CORE_LOG_DBG, "../main.c", "main", 775, "hello");
    EXPECT_TRUE(lines.lines().empty());
}

TEST_F(LogObject, IsDroppedForDisabledCoreMessages)
{
    core_log_enable_core_messages(false);
    char text[] = "hello";
    EXPECT_EQ(core_log_json(CORE_LOG_ERR, "core-file.c", "core_file_open", 1, text), 0);
    EXPECT_TRUE(lines.lines().empty());
}

TEST_F(LogObject, IsPrintedForOtherFilesWhileCoreMessagesAreDisabled)
{
    core_log_enable_core_messages(false);
    core_log(CORE_LOG_ERR, "../main.c", "main", 1, "hello");
    EXPECT_EQ(member("msg"), "hello");
}

TEST_F(LogObject, ReturnsTheResultOfThePrintFunction)
{
    const int result = core_log(CORE_LOG_INF, "f", "g", 1, "h");
    EXPECT_EQ(result, static_cast<int>(only_line().size()));
}

TEST_F(LogObject, HasAZeroTimeAfterAnObjectOfItsOwnWhenTheClockFails)
{
    libc::clock_gettime = libc::fails(EINVAL);
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "hello");
    ASSERT_EQ(lines.lines().size(), 2U);
    EXPECT_EQ(logged(), (strings{"could not get time for logs", "hello"}));
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(lines.lines()[1].text.substr(0, 28), "{\"timestamp\": \"0.000000000\",");
}

TEST_F(LogObject, ReportsTheFailingClockEachTime)
{
    libc::clock_gettime = libc::fails(EINVAL);
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "one");
    core_log(CORE_LOG_INF, "../main.c", "main", 775, "two");
    EXPECT_EQ(logged(),
              (strings{"could not get time for logs", "one", "could not get time for logs", "two"}));
}

struct severity_row {
    int level;
    const char *name;
};

static void PrintTo(const severity_row &row, std::ostream *out)
{
    *out << row.level;
}

class Severity : public JsonLines, public testing::WithParamInterface<severity_row> {};

TEST_P(Severity, IsNamedInALogObject)
{
    core_log_set_level(CORE_LOG_VRB);
    core_log(GetParam().level, "f", "g", 1, "text");
    EXPECT_EQ(member("severity"), GetParam().name);
}

TEST_P(Severity, ReachesThePrintFunction)
{
    core_log_set_level(CORE_LOG_VRB);
    core_log(GetParam().level, "f", "g", 1, "text");
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(Table, Severity,
                         testing::Values(severity_row{0, "EMR"}, severity_row{1, "ALR"},
                                         severity_row{2, "CRT"}, severity_row{3, "ERR"},
                                         severity_row{4, "WRN"}, severity_row{5, "NOT"},
                                         severity_row{6, "INF"}, severity_row{7, "DBG"},
                                         severity_row{8, "VRB"}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(JsonStreams, AreStandardErrorForErrorsAndStandardOutputForTheRest)
{
    core_log_set_pprint(2);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    core_log(CORE_LOG_ERR, "f", "g", 1, "error");
    core_log(CORE_LOG_WRN, "f", "g", 1, "warning");
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(json_line_fault(out), "");
    EXPECT_EQ(json_line_fault(err), "");
    EXPECT_NE(out.find("\"msg\": \"warning\""), std::string::npos);
    EXPECT_NE(err.find("\"msg\": \"error\""), std::string::npos);
}

class ProgressObject : public JsonLines {
  protected:
    static int report(int64_t current, int64_t max, const char *description = "boot.img",
                      int level = CORE_LOG_INF)
    {
        json_progress progress{current, max, description};
        return core_log_json(level, "firehose", "JSON_TYPE_PROGRESS", 1, reinterpret_cast<char *>(&progress));
    }
};

TEST_F(ProgressObject, HasTheFixedShape)
{
    report(3, 4);
    EXPECT_EQ(only_line(), STAMP "\"type\": \"PROGRESS\", \"current\": 3, \"max\": 4, \"percent\": 75, "
                                 "\"description\": \"boot.img\"}\n");
}

TEST_F(ProgressObject, HasPercentMinusOneWithoutAMaximum)
{
    report(3, 0);
    EXPECT_EQ(member("percent"), "-1");
}

TEST_F(ProgressObject, HasPercentMinusOneForANegativeMaximum)
{
    report(3, -4);
    EXPECT_EQ(member("percent"), "-1");
}

TEST_F(ProgressObject, RoundsThePercentDown)
{
    report(2, 3);
    EXPECT_EQ(member("percent"), "66");
}

TEST_F(ProgressObject, Reaches100)
{
    report(4, 4);
    EXPECT_EQ(member("percent"), "100");
}

TEST_F(ProgressObject, TakesThePercentAsASigned8BitNumber)
{
    report(200, 100);
    EXPECT_EQ(member("percent"), "-56");
}

TEST_F(ProgressObject, CountsFilesOfMoreThan4GiB)
{
    report(5368709120, 10737418240);
    EXPECT_EQ(member("current"), "5368709120");
    EXPECT_EQ(member("max"), "10737418240");
    EXPECT_EQ(member("percent"), "50");
}

TEST_F(ProgressObject, SurvivesTheLargestNumbers)
{
    report(INT64_MAX, INT64_MAX);
    EXPECT_EQ(member("current"), "9223372036854775807");
}

TEST_F(ProgressObject, EscapesTheDescription)
{
    report(1, 2, "a\"b\\c\n\xFF");
    EXPECT_EQ(member("description"), "a\"b\\c\n\xEF\xBF\xBD");
}

TEST_F(ProgressObject, HasAnEmptyDescriptionForNone)
{
    report(1, 2, nullptr);
    EXPECT_EQ(member("description"), "");
}

TEST_F(ProgressObject, IsNotFilteredByLevel)
{
    core_log_set_level(CORE_LOG_ERR);
    report(1, 2);
    EXPECT_EQ(member("percent"), "50");
}

TEST_F(ProgressObject, IsPrintedWithItsLevel)
{
    report(1, 2, "x", CORE_LOG_NOT);
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_NOT);
}

class CustomObject : public JsonLines {
  protected:
    static int print(std::initializer_list<json_entry> rows, int level = CORE_LOG_INF)
    {
        std::vector<json_entry> table(rows);
        table.push_back(end_row());
        return core_log_json(level, "json", "JSON_TYPE_CUSTOM", 1, reinterpret_cast<char *>(table.data()));
    }
};

TEST_F(CustomObject, TakesItsTypeFromTheFirstEntry)
{
    print({text_row("type", "ADD"), text_row("imei", "123")});
    EXPECT_EQ(only_line(), STAMP "\"type\": \"ADD\", \"imei\": \"123\"}\n");
}

TEST_F(CustomObject, EscapesItsType)
{
    print({text_row("type", "A\"D"), text_row("imei", "123")});
    EXPECT_EQ(member("type"), "A\"D");
}

TEST_F(CustomObject, HasAnEmptyTypeWhenItIsUnset)
{
    print({text_row("type", nullptr), text_row("imei", "123")});
    EXPECT_EQ(member("type"), "");
}

TEST_F(CustomObject, IsNotPrintedWithoutEntries)
{
    EXPECT_EQ(print({}), 0);
    EXPECT_EQ(logged(), strings{"could not find any JSON data"});
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_ERR);
}

TEST_F(CustomObject, IsNotPrintedWithItsTypeOnly)
{
    EXPECT_EQ(print({text_row("type", "ADD")}), 0);
    EXPECT_EQ(logged(), strings{"custom JSON data only has the type 'ADD'"});
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_ERR);
}

TEST_F(CustomObject, IsMissedUnderTheNameOfThePrinter)
{
    print({text_row("type", "ADD")});
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_NE(lines.lines()[0].text.find("\"file\": \"zepho-log.c\", \"function\": \"core_log_json\", "),
              std::string::npos);
}

TEST_F(CustomObject, IsNotPrintedWithAnUnsetTypeOnly)
{
    EXPECT_EQ(print({text_row("type", nullptr)}), 0);
    EXPECT_EQ(logged(), strings{"custom JSON data only has the type ''"});
}

TEST_F(CustomObject, IsNotFilteredByLevel)
{
    core_log_set_level(CORE_LOG_ERR);
    print({text_row("type", "ADD"), text_row("imei", "123")});
    EXPECT_EQ(member("imei"), "123");
}

TEST_F(CustomObject, IsPrintedWithItsLevel)
{
    print({text_row("type", "ADD"), text_row("imei", "123")}, CORE_LOG_ERR);
    ASSERT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_ERR);
}

TEST_F(CustomObject, IsComposedInTheRegisteredBuffer)
{
    char buffer[64] = {};
    ASSERT_TRUE(core_log_set_json_buffer(buffer, sizeof buffer));
    print({text_row("type", "ADD"), text_row("imei", "123")});
    EXPECT_STREQ(buffer, "\"imei\": \"123\"");
    EXPECT_EQ(member("imei"), "123");
}

TEST_F(CustomObject, ThatFillsTheRegisteredBufferIsPrinted)
{
    char buffer[14]; // 13 bytes of body and the terminator
    static_cast<void>(core_log_set_json_buffer(buffer, sizeof buffer));
    print({text_row("type", "ADD"), text_row("imei", "123")});
    EXPECT_EQ(only_line(), STAMP "\"type\": \"ADD\", \"imei\": \"123\"}\n");
}

TEST_F(CustomObject, ThatNeedsMoreThanTheRegisteredBufferIsNotPrinted)
{
    char buffer[10];
    static_cast<void>(core_log_set_json_buffer(buffer, sizeof buffer));
    EXPECT_EQ(print({text_row("type", "ADD"), text_row("imei", "123")}), 0);
    EXPECT_EQ(logged(), strings{"json string error: not enough space (10 < 13)"});
    EXPECT_EQ(lines.lines()[0].level, CORE_LOG_ERR);
}

TEST_F(CustomObject, ThatLeavesNoRoomForTheTerminatorIsNotPrinted)
{
    char buffer[13];
    static_cast<void>(core_log_set_json_buffer(buffer, sizeof buffer));
    EXPECT_EQ(print({text_row("type", "ADD"), text_row("imei", "123")}), 0);
    EXPECT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(logged().size(), 1U);
}

// A registered buffer stays for the life of a process. In one of its own, in which nothing else ran, there is
// none.
class UnregisteredBufferDeathTest : public testing::Test {
  protected:
    UnregisteredBufferDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    [[noreturn]] static void print_and_exit(const std::string &text)
    {
        core_log_set_pprint(2);
        json_entry table[] = {text_row("type", "ADD"), text_row("ab", text.c_str()), end_row()};
        core_log_json(CORE_LOG_ERR, "json", "JSON_TYPE_CUSTOM", 1, reinterpret_cast<char *>(table));
        exit(0);
    }
};

TEST_F(UnregisteredBufferDeathTest, HasRoomFor512BytesAnEntry)
{
    const std::string text(503, 'x'); // with the name, quotes and separators 511 bytes
    EXPECT_EXIT(print_and_exit(text), testing::ExitedWithCode(0),
                "\", \"type\": \"ADD\", \"ab\": \"" + text + "\"}\n$");
}

TEST_F(UnregisteredBufferDeathTest, HasNoMoreRoom)
{
    EXPECT_EXIT(print_and_exit(std::string(505, 'x')), testing::ExitedWithCode(0),
                "\"msg\": \"json string error: not enough space \\(512 < 513\\)\"}\n$");
}

TEST_F(CustomObject, IsCutBeforeAnEntryThatIsTooLong)
{
    const std::string text(1000, 'x');
    print({text_row("type", "ADD"), text_row("imei", "1"), text_row("path", text.c_str()),
           text_row("cfun", "2")});
    ASSERT_EQ(lines.lines().size(), 2U);
    EXPECT_EQ(logged(), strings{"truncated message"});
    EXPECT_EQ(lines.lines()[1].text, STAMP "\"type\": \"ADD\", \"imei\": \"1\"}\n");
}

TEST_F(CustomObject, IsNotPrintedWhenItsOnlyEntryIsTooLong)
{
    char buffer[2048];
    static_cast<void>(core_log_set_json_buffer(buffer, sizeof buffer));
    const std::string text(1000, 'x');
    EXPECT_EQ(print({text_row("type", "ADD"), text_row("path", text.c_str())}), 0);
    EXPECT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(logged(), strings{"truncated message"});
}

TEST_F(CustomObject, IsNotPrintedWithAnEntryOfUnknownType)
{
    EXPECT_EQ(print({text_row("type", "ADD"), text_row("imei", "1"), {"odd", "x", 8}}), 0);
    EXPECT_EQ(logged(), strings{"unknown type value 8 for entry 1"});
}

TEST_F(CustomObject, IsDroppedForDisabledCoreMessages)
{
    core_log_enable_core_messages(false);
    const json_entry table[] = {text_row("type", "ADD"), text_row("imei", "1"), end_row()};
    core_log_json(CORE_LOG_INF, "core-x.c", "JSON_TYPE_CUSTOM", 1,
                  const_cast<char *>(reinterpret_cast<const char *>(table)));
    EXPECT_TRUE(lines.lines().empty());
}

TEST(SetJsonBuffer, NeedsABuffer)
{
    EXPECT_FALSE(core_log_set_json_buffer(nullptr, 10));
}

TEST(SetJsonBuffer, NeedsASize)
{
    char buffer[1];
    EXPECT_FALSE(core_log_set_json_buffer(buffer, 0));
}

TEST(SetJsonBuffer, TakesBoth)
{
    char buffer[1];
    EXPECT_TRUE(core_log_set_json_buffer(buffer, 1));
}

class Compose : public testing::Test {
  protected:
    // The body of a table, checked to be the inside of an object.
    std::string compose(std::initializer_list<json_entry> rows, size_t size = 10240)
    {
        std::vector<json_entry> table(rows);
        table.push_back(end_row());
        std::vector<char> buffer(size, 'z');
        needed = json_compose(table.data(), buffer.data(), size);
        const std::string body(buffer.data(), strnlen(buffer.data(), size));
        EXPECT_LT(body.size(), size);
        EXPECT_EQ(json_line_fault("{" + body + "}\n"), "") << body;
        return body;
    }

    static constexpr bool yes = true;
    static constexpr bool no = false;
    size_t needed = 0;
    log_capture log;
};

TEST_F(Compose, WritesNothingForNoEntries)
{
    EXPECT_EQ(compose({}), "");
    EXPECT_EQ(needed, 0U);
}

TEST_F(Compose, WritesBooleans)
{
    EXPECT_EQ(compose({{"a", &yes, 0}, {"b", &no, 0}}), "\"a\": true, \"b\": false");
}

TEST_F(Compose, WritesSigned32BitNumbers)
{
    static constexpr int32_t low = INT32_MIN;
    static constexpr int32_t high = INT32_MAX;
    EXPECT_EQ(compose({{"a", &low, 1}, {"b", &high, 1}}), "\"a\": -2147483648, \"b\": 2147483647");
}

TEST_F(Compose, WritesSigned64BitNumbers)
{
    static constexpr int64_t low = INT64_MIN;
    EXPECT_EQ(compose({{"a", &low, 2}}), "\"a\": -9223372036854775808");
}

TEST_F(Compose, WritesUnsigned64BitNumbers)
{
    static constexpr uint64_t high = UINT64_MAX;
    EXPECT_EQ(compose({{"a", &high, 3}}), "\"a\": 18446744073709551615");
}

TEST_F(Compose, WritesTextsInQuotes)
{
    EXPECT_EQ(compose({text_row("a", "one"), text_row("b", "0x1BC7")}), "\"a\": \"one\", \"b\": \"0x1BC7\"");
}

TEST_F(Compose, WritesAnEmptyTextAsNull)
{
    EXPECT_EQ(compose({text_row("imei", ""), text_row("cfun", "")}), "\"imei\": null, \"cfun\": null");
}

TEST_F(Compose, WritesAMissingTextAsNull)
{
    EXPECT_EQ(compose({text_row("imei", nullptr)}), "\"imei\": null");
}

TEST_F(Compose, EscapesTexts)
{
    EXPECT_EQ(compose({text_row("a", "x\"y\\z\r\n")}), "\"a\": \"x\\\"y\\\\z\\r\\n\"");
}

TEST_F(Compose, ReturnsTheLength)
{
    compose({text_row("a", "one"), text_row("b", "two")});
    EXPECT_EQ(needed, 22U);
}

TEST_F(Compose, RefusesAnUnknownType)
{
    compose({text_row("a", "one"), {"b", "x", 9}});
    EXPECT_EQ(needed, 0U);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "unknown type value 9 for entry 1\n");
    EXPECT_EQ(log.messages()[0].function, "json_compose");
}

TEST_F(Compose, ClearsTheBufferFirst)
{
    char buffer[8] = {'z', 'z', 'z', 'z', 'z', 'z', 'z', 'z'};
    const json_entry table[] = {end_row()};
    static_cast<void>(json_compose(table, buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer, 8), std::string(8, '\0'));
}

TEST_F(Compose, FillsABufferToItsLastByte)
{
    EXPECT_EQ(compose({text_row("a", "one"), text_row("b", "two")}, 23), "\"a\": \"one\", \"b\": \"two\"");
}

TEST_F(Compose, CutsAfterTheLastEntryThatFits)
{
    EXPECT_EQ(compose({text_row("a", "one"), text_row("b", "two")}, 22), "\"a\": \"one\"");
    EXPECT_EQ(needed, 22U);
}

TEST_F(Compose, CountsOnPastTheCut)
{
    EXPECT_EQ(compose({text_row("a", "one"), text_row("b", "two"), text_row("c", "three")}, 4), "");
    EXPECT_EQ(needed, 36U);
}

TEST_F(Compose, AppendsNothingAfterTheFirstEntryThatDoesNotFit)
{
    EXPECT_EQ(compose({text_row("a", "a long text"), text_row("b", "2")}, 15), "");
}

TEST_F(Compose, TouchesNothingBehindTheBuffer)
{
    char buffer[24];
    memset(buffer, 'z', sizeof buffer);
    const json_entry table[] = {text_row("a", "one"), text_row("b", "two"), end_row()};
    static_cast<void>(json_compose(table, buffer, 12));
    EXPECT_EQ(std::string(buffer + 12, 12), std::string(12, 'z'));
}

TEST_F(Compose, KeepsAPieceOf547Bytes)
{
    const std::string text(540, 'x'); // and 7 bytes of name, quotes and colon
    EXPECT_EQ(compose({text_row("a", text.c_str())}).size(), 547U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Compose, DropsAPieceOf548BytesAndAllBehindIt)
{
    const std::string text(541, 'x');
    EXPECT_EQ(compose({text_row("b", "1"), text_row("a", text.c_str()), text_row("c", "3")}), "\"b\": \"1\"");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"truncated message\n"});
}

TEST_F(Compose, LogsADroppedPieceUnderItsName)
{
    const std::string text(541, 'x');
    compose({text_row("a", text.c_str())});
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].file, "zepho-log.c");
    EXPECT_EQ(log.messages()[0].function, "json_compose");
}

TEST_F(Compose, MeasuresAPieceInItsEscapedForm)
{
    const std::string text(271, '"');
    EXPECT_EQ(compose({text_row("a", text.c_str())}), "");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"truncated message\n"});
}

TEST_F(Compose, DropsAPieceLongerThanAnyBuffer)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(compose({text_row("a", text.c_str())}), "");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"truncated message\n"});
}

TEST_F(Compose, DoesNotCountADroppedPiece)
{
    const std::string text(1000, 'x');
    compose({text_row("b", "1"), text_row("a", text.c_str()), text_row("c", "3")});
    EXPECT_EQ(needed, 18U); // "b" with its separator, and "c"
}

// Arrays of tables: each table of an array ends with its own end row.
static constexpr uint8_t none = 0;
static constexpr uint8_t one = 1;
static constexpr uint8_t two = 2;

TEST_F(Compose, WritesAnArrayAndItsCount)
{
    const json_entry ports[] = {text_row("name", "p"), text_row("type", "AT"), end_row(),
                                text_row("name", "q"), text_row("type", ""),   end_row()};
    EXPECT_EQ(
        compose({{"port", ports, 5}, {"port_size", &two, 6}}),
        "\"port\": [{\"name\": \"p\", \"type\": \"AT\"},{\"name\": \"q\", \"type\": null}], \"port_size\": 2");
}

TEST_F(Compose, WritesNoMoreElementsThanCounted)
{
    const json_entry ports[] = {text_row("name", "p"), end_row(), text_row("name", "q"), end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &one, 6}}),
              "\"port\": [{\"name\": \"p\"}], \"port_size\": 1");
}

TEST_F(Compose, WritesAnArrayOfNothing)
{
    const json_entry ports[] = {text_row("name", "p"), end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &none, 6}}), "\"port\": [], \"port_size\": 0");
}

TEST_F(Compose, WritesAnArrayOfOneEmptyElementAsNull)
{
    const json_entry ports[] = {end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &one, 6}}), "\"port\": null, \"port_size\": 1");
}

TEST_F(Compose, WritesAnArrayOfTwoEmptyElements)
{
    const json_entry ports[] = {end_row(), end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &two, 6}}), "\"port\": [{},{}], \"port_size\": 2");
}

TEST_F(Compose, WritesEntriesAfterAnArray)
{
    const json_entry ports[] = {text_row("name", "p"), end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &one, 6}, text_row("x", "y")}),
              "\"port\": [{\"name\": \"p\"}], \"port_size\": 1, \"x\": \"y\"");
}

TEST_F(Compose, WritesArraysInsideArrays)
{
    const json_entry ports[] = {text_row("name", "p"), end_row()};
    const json_entry modems[] = {
        text_row("imei", "1"), {"port", ports, 5}, {"port_size", &one, 6}, end_row()};
    EXPECT_EQ(
        compose({{"modem", modems, 5}, {"modem_size", &one, 6}}),
        "\"modem\": [{\"imei\": \"1\", \"port\": [{\"name\": \"p\"}], \"port_size\": 1}], \"modem_size\": 1");
}

TEST_F(Compose, SkipsAnArrayWithoutACount)
{
    const json_entry ports[] = {text_row("name", "p"), end_row()};
    EXPECT_EQ(compose({text_row("a", "1"), {"port", ports, 5}, text_row("b", "2")}),
              "\"a\": \"1\", \"b\": \"2\"");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"malformed array entry"});
}

TEST_F(Compose, LeavesNoSeparatorBehindWhenTheLastArrayIsSkipped)
{
    const json_entry ports[] = {text_row("name", "p"), end_row()};
    EXPECT_EQ(compose({text_row("a", "1"), {"port", ports, 5}}), "\"a\": \"1\"");
}

TEST_F(Compose, SkipsACountWithoutAnArray)
{
    EXPECT_EQ(compose({text_row("a", "1"), {"port_size", &one, 6}}), "\"a\": \"1\"");
}

TEST_F(Compose, CutsAnElementWithAnEntryThatIsTooLong)
{
    const std::string text(1000, 'x');
    const json_entry ports[] = {text_row("type", "AT"), text_row("name", text.c_str()), end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &one, 6}}),
              "\"port\": [{\"type\": \"AT\"}], \"port_size\": 1");
}

TEST_F(Compose, CutsAnElementBeforeAnEntryOfUnknownType)
{
    const json_entry ports[] = {text_row("type", "AT"), {"odd", "x", 8}, end_row()};
    EXPECT_EQ(compose({{"port", ports, 5}, {"port_size", &one, 6}}),
              "\"port\": [{\"type\": \"AT\"}], \"port_size\": 1");
}

// An element of 10 entries: each 508 bytes with its separator, 5078 in all, of which an array holds one.
static std::vector<json_entry> large_element(const char *text)
{
    std::vector<json_entry> rows(10, text_row("ab", text));
    rows.push_back(end_row());
    return rows;
}

TEST(ComposeLargeArrays, KeepAnElementThatFits)
{
    const std::string text(498, 'x');
    const std::vector<json_entry> element = large_element(text.c_str());
    const json_entry table[] = {{"port", element.data(), 5}, {"port_size", &one, 6}, end_row()};
    char buffer[10240];
    const log_capture log;
    // 10 pieces of 506 bytes and 9 separators; the array's brackets, braces and name; the count.
    EXPECT_EQ(json_compose(table, buffer, sizeof buffer), 10 * 506 + 9 * 2 + 4 + 10 + 14U);
    EXPECT_TRUE(log.messages().empty());
}

TEST(ComposeLargeArrays, EndTheBodyBeforeAnArrayWithAnElementThatDoesNotFit)
{
    const std::string text(498, 'x');
    std::vector<json_entry> elements = large_element(text.c_str());
    const std::vector<json_entry> second = elements;
    elements.insert(elements.end(), second.begin(), second.end());
    const json_entry table[] = {text_row("a", "1"),
                                {"port", elements.data(), 5},
                                {"port_size", &two, 6},
                                text_row("b", "2"),
                                end_row()};
    char buffer[10240];
    const log_capture log;
    EXPECT_EQ(json_compose(table, buffer, sizeof buffer), 10U);
    EXPECT_STREQ(buffer, "\"a\": \"1\"");
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "unable to compose array entry 1");
}

TEST(ComposeLargeArrays, SurviveTheLargestCount)
{
    static constexpr uint8_t most = 255;
    const std::vector<json_entry> elements(255, end_row());
    const json_entry table[] = {{"port", elements.data(), 5}, {"port_size", &most, 6}, end_row()};
    char buffer[10240];
    static_cast<void>(json_compose(table, buffer, sizeof buffer));
    std::string expected = "\"port\": [";
    for (int i = 0; i < 254; ++i)
        expected += "{},";
    EXPECT_EQ(buffer, expected + "{}], \"port_size\": 255");
}

class EntryUpdate : public testing::Test {
  protected:
    json_entry entries[3] = {text_row("type", "ADD"), text_row("imei", "1"), end_row()};
    log_capture log;
};

TEST_F(EntryUpdate, ReplacesValueAndType)
{
    static constexpr int32_t number = 7;
    EXPECT_TRUE(json_update(entries, 1, &number, JSON_INT32));
    EXPECT_STREQ(entries[1].name, "imei");
    EXPECT_EQ(entries[1].value, &number);
    EXPECT_EQ(entries[1].type, 1U);
}

TEST_F(EntryUpdate, LeavesOtherEntries)
{
    json_update(entries, 1, "2", JSON_TEXT);
    EXPECT_STREQ(static_cast<const char *>(entries[0].value), "ADD");
    EXPECT_EQ(entries[2].type, 7U);
}

TEST_F(EntryUpdate, RefusesANegativeId)
{
    EXPECT_FALSE(json_update(entries, -1, "2", JSON_TEXT));
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "could not update JSON: ID is negative\n");
    EXPECT_EQ(log.messages()[0].function, "json_update");
}

TEST_F(EntryUpdate, RefusesANullValue)
{
    EXPECT_FALSE(json_update(entries, 1, nullptr, JSON_INT32));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"could not update JSON ID 1 (imei): value address is NULL\n"});
    EXPECT_STREQ(static_cast<const char *>(entries[1].value), "1");
    EXPECT_EQ(entries[1].type, 4U);
}

struct escape_row {
    const char *name;
    std::string text;
    std::string escaped;
};

static void PrintTo(const escape_row &row, std::ostream *out)
{
    *out << row.name;
}

class Escape : public testing::TestWithParam<escape_row> {};

TEST_P(Escape, GivesTheEscapedForm)
{
    char buffer[64];
    EXPECT_EQ(json_escape(GetParam().text.c_str(), buffer, sizeof buffer), GetParam().escaped.size());
    EXPECT_EQ(std::string(buffer), GetParam().escaped);
}

#define REPLACED "\xEF\xBF\xBD"

INSTANTIATE_TEST_SUITE_P(
    Ascii, Escape,
    testing::Values(escape_row{"empty", "", ""}, escape_row{"plain", "abc /~", "abc /~"},
                    escape_row{"quote", "\"", "\\\""}, escape_row{"backslash", "\\", "\\\\"},
                    escape_row{"backspace", "\b", "\\b"}, escape_row{"form_feed", "\f", "\\f"},
                    escape_row{"line_feed", "\n", "\\n"}, escape_row{"carriage_return", "\r", "\\r"},
                    escape_row{"tab", "\t", "\\t"}, escape_row{"first_control", "\x01", "\\u0001"},
                    escape_row{"last_control", "\x1F", "\\u001F"},
                    escape_row{"escape", "\x1B[0m", "\\u001B[0m"}, escape_row{"delete", "\x7F", "\\u007F"}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(Utf8, Escape,
                         testing::Values(escape_row{"two_bytes", "\xC3\xA4", "\xC3\xA4"},
                                         escape_row{"lowest_of_two", "\xC2\x80", "\\u0080"},
                                         escape_row{"last_of_c1", "\xC2\x9F", "\\u009F"},
                                         escape_row{"csi",
                                                    "\xC2\x9B"
                                                    "2J",
                                                    "\\u009B2J"},
                                         escape_row{"first_behind_c1", "\xC2\xA0", "\xC2\xA0"},
                                         escape_row{"lowest_of_three", "\xE0\xA0\x80", "\xE0\xA0\x80"},
                                         escape_row{"last_before_surrogates", "\xED\x9F\xBF", "\xED\x9F\xBF"},
                                         escape_row{"first_after_surrogates", "\xEE\x80\x80", "\xEE\x80\x80"},
                                         escape_row{"highest_of_three", "\xEF\xBF\xBF", "\xEF\xBF\xBF"},
                                         escape_row{"lowest_of_four", "\xF0\x90\x80\x80", "\xF0\x90\x80\x80"},
                                         escape_row{"middle_of_four", "\xF1\x80\x80\x80", "\xF1\x80\x80\x80"},
                                         escape_row{"highest_of_all", "\xF4\x8F\xBF\xBF",
                                                    "\xF4\x8F\xBF\xBF"}),
                         [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    NoUtf8, Escape,
    testing::Values(escape_row{"lone_continuation", "a\x80z", "a" REPLACED "z"},
                    escape_row{"overlong_two", "\xC0\xAF", REPLACED REPLACED},
                    escape_row{"overlong_three", "\xE0\x80\xAF", REPLACED REPLACED REPLACED},
                    escape_row{"overlong_four", "\xF0\x80\x80\xAF", REPLACED REPLACED REPLACED REPLACED},
                    escape_row{"surrogate", "\xED\xA0\x80", REPLACED REPLACED REPLACED},
                    escape_row{"above_the_last", "\xF4\x90\x80\x80", REPLACED REPLACED REPLACED REPLACED},
                    escape_row{"never_used", "\xFE\xFF", REPLACED REPLACED},
                    escape_row{"cut_after_one", "\xE2", REPLACED},
                    escape_row{"cut_after_two", "\xE2\x82", REPLACED REPLACED},
                    escape_row{"cut_by_another", "\xE2\x82z", REPLACED REPLACED "z"},
                    escape_row{"cut_by_a_beginning", "\xE2\x82\xC3\xA4", REPLACED REPLACED "\xC3\xA4"},
                    escape_row{"cut_by_a_quote", "\xC3\"", REPLACED "\\\""}),
    [](const auto &row) { return std::string(row.param.name); });

static std::string escaped_into(const char *text, size_t size)
{
    std::vector<char> buffer(size, 'z');
    const size_t length = json_escape(text, buffer.data(), size);
    EXPECT_LT(length, size);
    EXPECT_EQ(buffer.at(length), '\0');
    return {buffer.data(), length};
}

TEST(EscapeLimits, TakeANullTextAsEmpty)
{
    EXPECT_EQ(escaped_into(nullptr, 4), "");
}

TEST(EscapeLimits, KeepATextThatFits)
{
    EXPECT_EQ(escaped_into("abc", 4), "abc");
}

TEST(EscapeLimits, CutALongText)
{
    EXPECT_EQ(escaped_into("abcd", 4), "abc");
}

TEST(EscapeLimits, NeverCutInsideAnEscape)
{
    EXPECT_EQ(escaped_into("ab\"", 4), "ab");
    EXPECT_EQ(escaped_into("ab\x01", 8), "ab");
    EXPECT_EQ(escaped_into("ab\x01", 9), "ab\\u0001");
}

TEST(EscapeLimits, NeverCutInsideACharacter)
{
    EXPECT_EQ(escaped_into("ab\xE2\x82\xAC", 5), "ab");
    EXPECT_EQ(escaped_into("ab\xE2\x82\xAC", 6), "ab\xE2\x82\xAC");
}

TEST(EscapeLimits, LeaveOutAllBehindTheCut)
{
    EXPECT_EQ(escaped_into("ab\x01z", 5), "ab");
}

TEST(EscapeLimits, WriteNothingIntoNoBytes)
{
    char byte = 'z';
    EXPECT_EQ(json_escape("abc", &byte, 0), 0U);
    EXPECT_EQ(byte, 'z');
}

// The checker itself must refuse what is no JSON, or the tests above would show nothing.
class JsonCheckRefuses : public testing::TestWithParam<escape_row> {};

TEST_P(JsonCheckRefuses, TheText)
{
    json_value value;
    std::string error;
    EXPECT_FALSE(json_read(GetParam().text, &value, &error));
    EXPECT_NE(error, "");
}

INSTANTIATE_TEST_SUITE_P(
    Faults, JsonCheckRefuses,
    testing::Values(escape_row{"nothing", "", ""}, escape_row{"trailing_comma", "{\"a\": 1, }", ""},
                    escape_row{"trailing_comma_in_array", "[1,]", ""}, escape_row{"bytes_behind", "{} x", ""},
                    escape_row{"bare_line_feed", "\"a\nb\"", ""}, escape_row{"bad_escape", "\"\\x41\"", ""},
                    escape_row{"short_hex", "\"\\u12\"", ""}, escape_row{"half_pair", "\"\\uD800\"", ""},
                    escape_row{"second_half", "\"\\uDC00\"", ""}, escape_row{"open_text", "\"abc", ""},
                    escape_row{"open_object", "{\"a\": 1", ""}, escape_row{"no_colon", "{\"a\" 1}", ""},
                    escape_row{"twice", "{\"a\": 1, \"a\": 2}", ""}, escape_row{"leading_zero", "01", ""},
                    escape_row{"no_fraction", "1.", ""}, escape_row{"plus", "+1", ""},
                    escape_row{"capital", "True", ""}, escape_row{"not_utf8", "\"\xFF\"", ""},
                    escape_row{"overlong", "\"\xC0\xAF\"", ""},
                    escape_row{"surrogate", "\"\xED\xA0\x80\"", ""},
                    escape_row{"missing_value", "{\"a\": }", ""},
                    escape_row{"single_quotes", "{'a': 1}", ""}),
    [](const auto &row) { return std::string(row.param.name); });

TEST(JsonCheck, ReadsWhatIsJson)
{
    json_value value;
    std::string error;
    ASSERT_TRUE(json_read(" {\"a\": [1, -2.5e3, true, null], \"b\": \"x\\u00e4\\ud83d\\ude00\\n\"} ", &value,
                          &error));
    EXPECT_EQ(value.names(), (strings{"a", "b"}));
    ASSERT_EQ(value.find("a")->elements.size(), 4U);
    EXPECT_EQ(value.find("a")->elements[1].text, "-2.5e3");
    EXPECT_EQ(value.find("b")->text, "x\xC3\xA4\xF0\x9F\x98\x80\n");
}

TEST(JsonCheck, WantsOneObjectALine)
{
    EXPECT_EQ(json_line_fault("{}\n"), "");
    EXPECT_EQ(json_line_fault("{}"), "not one line");
    EXPECT_EQ(json_line_fault("{\n}\n"), "not one line");
    EXPECT_EQ(json_line_fault("[]\n"), "no object");
}
