#include "zepho-getopts.hpp"

#include "log_capture.hpp"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

namespace {

struct parsed {
    char port[OPTION_TEXT_SIZE] = "unset";
    bool has_port = false;
    uint32_t count = 99;
    bool has_count = false;
    bool json = false;
    bool has_json = false;
    char path[OPTION_TEXT_SIZE] = "unset";
};

class GetOpts : public testing::Test {
  protected:
    // Parses with the table of the tests: a text, a number and a boolean with short names, and a text
    // without.
    int parse(const strings &arguments)
    {
        strings all = {"kestrel"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &argument : all)
            argv.push_back(argument.data());
        const int argc = static_cast<int>(argv.size());
        argv.push_back(nullptr);
        return get_opts(argc, argv.data(), table.data());
    }

    strings errors() const { return log.texts(CORE_LOG_ERR); }

    parsed values;
    std::vector<option_descriptor> table = {
        {"--port", "-p", OPTION_TEXT, values.port, false, "the port", &values.has_port},
        {"--count", "-n", OPTION_UNSIGNED, &values.count, false, "how many", &values.has_count},
        {"--json", "-j", OPTION_BOOLEAN, &values.json, false, "JSON output", &values.has_json},
        {"--path", "", OPTION_TEXT, values.path, false, "the path", nullptr},
        {nullptr, nullptr, OPTION_END, nullptr, false, nullptr, nullptr},
    };
    log_capture log;
};

} // namespace

TEST_F(GetOpts, AcceptsNoArguments)
{
    EXPECT_EQ(parse({}), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetOpts, StoresATextByItsLongName)
{
    EXPECT_EQ(parse({"--port", "/dev/ttyUSB0"}), 0);
    EXPECT_STREQ(values.port, "/dev/ttyUSB0");
}

TEST_F(GetOpts, StoresATextByItsShortName)
{
    EXPECT_EQ(parse({"-p", "/dev/ttyUSB0"}), 0);
    EXPECT_STREQ(values.port, "/dev/ttyUSB0");
}

TEST_F(GetOpts, StoresANumber)
{
    EXPECT_EQ(parse({"--count", "12"}), 0);
    EXPECT_EQ(values.count, 12U);
}

TEST_F(GetOpts, StoresABooleanWithoutAValue)
{
    EXPECT_EQ(parse({"--json"}), 0);
    EXPECT_TRUE(values.json);
}

TEST_F(GetOpts, MarksWhatIsPresent)
{
    EXPECT_EQ(parse({"-j", "-p", "x"}), 0);
    EXPECT_TRUE(values.has_json);
    EXPECT_TRUE(values.has_port);
    EXPECT_FALSE(values.has_count);
}

TEST_F(GetOpts, LeavesTheDestinationOfAFlagThatIsNotGiven)
{
    EXPECT_EQ(parse({"-j"}), 0);
    EXPECT_STREQ(values.port, "unset");
    EXPECT_EQ(values.count, 99U);
}

TEST_F(GetOpts, TakesFlagsInAnyOrder)
{
    EXPECT_EQ(parse({"--path", "a", "-j", "-n", "3", "-p", "b"}), 0);
    EXPECT_STREQ(values.path, "a");
    EXPECT_STREQ(values.port, "b");
    EXPECT_EQ(values.count, 3U);
    EXPECT_TRUE(values.json);
}

TEST_F(GetOpts, LetsTheLastOfTwoValuesWin)
{
    EXPECT_EQ(parse({"-p", "a", "--port", "b"}), 0);
    EXPECT_STREQ(values.port, "b");
}

TEST_F(GetOpts, TakesTheValueOfTheOnlyRowAsKnown)
{
    table.erase(table.begin() + 1, table.end() - 1);
    EXPECT_EQ(parse({"-p", "x"}), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetOpts, CutsATextAt255Characters)
{
    EXPECT_EQ(parse({"-p", std::string(300, 'x')}), 0);
    EXPECT_EQ(values.port, std::string(255, 'x'));
}

TEST_F(GetOpts, AcceptsAPositionalArgumentAnywhere)
{
    EXPECT_EQ(parse({"first", "-j", "middle", "-p", "value", "last"}), 0);
    EXPECT_STREQ(values.port, "value");
}

TEST_F(GetOpts, AcceptsANullArgument)
{
    char name[] = "kestrel";
    char json[] = "-j";
    char *argv[] = {name, nullptr, json, nullptr};
    EXPECT_EQ(get_opts(3, argv, table.data()), 0);
    EXPECT_TRUE(values.json);
}

TEST_F(GetOpts, DoesNotLookAtTheProgramName)
{
    char name[] = "-x";
    char *argv[] = {name, nullptr};
    EXPECT_EQ(get_opts(1, argv, table.data()), 0);
}

TEST_F(GetOpts, AcceptsAnEmptyArgumentAsPositional)
{
    EXPECT_EQ(parse({"", "-j"}), 0);
    EXPECT_TRUE(values.json);
}

TEST_F(GetOpts, AcceptsAnEmptyValue)
{
    EXPECT_EQ(parse({"-p", ""}), 0);
    EXPECT_STREQ(values.port, "");
    EXPECT_TRUE(values.has_port);
}

TEST_F(GetOpts, RefusesAMissingValueAtTheEnd)
{
    EXPECT_EQ(parse({"-p"}), -22);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "flag --port requires a value\n");
    EXPECT_EQ(log.messages()[0].function, "get_opts");
}

TEST_F(GetOpts, RefusesAFlagInPlaceOfAValue)
{
    EXPECT_EQ(parse({"-p", "--json"}), -22);
    EXPECT_EQ(errors(), strings{"flag --port requires a value\n"});
}

TEST_F(GetOpts, RefusesALoneDashInPlaceOfAValue)
{
    EXPECT_EQ(parse({"-p", "-"}), -22);
    EXPECT_EQ(errors(), strings{"flag --port requires a value\n"});
}

TEST_F(GetOpts, RefusesANullArgumentInPlaceOfAValue)
{
    char name[] = "kestrel";
    char port[] = "-p";
    char *argv[] = {name, port, nullptr, nullptr};
    EXPECT_EQ(get_opts(3, argv, table.data()), -22);
    EXPECT_EQ(errors(), strings{"flag --port requires a value\n"});
}

TEST_F(GetOpts, ReportsAValueThatDoesNotConvert)
{
    EXPECT_EQ(parse({"-n", "12x"}), -22);
    EXPECT_EQ(errors(), (strings{"Invalid string\n", "and error occurred parsing --count\n"}));
}

TEST_F(GetOpts, ReportsARowOfUnknownType)
{
    table[0].type = 5;
    EXPECT_EQ(parse({"-p", "x"}), -22);
    EXPECT_EQ(errors(), (strings{"unknown type value 5\n", "and error occurred parsing --port\n"}));
}

TEST_F(GetOpts, KeepsValuesStoredBeforeAFailure)
{
    EXPECT_EQ(parse({"-p", "x", "--unknown"}), -22);
    EXPECT_STREQ(values.port, "x");
}

TEST_F(GetOpts, RefusesAnUnknownFlag)
{
    EXPECT_EQ(parse({"--unknown"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '--unknown'\n"});
}

TEST_F(GetOpts, NamesTheFirstOfTwoUnknownFlags)
{
    EXPECT_EQ(parse({"-j", "-b", "-a"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '-b'\n"});
}

TEST_F(GetOpts, ComparesLongNamesWithTheirCase)
{
    EXPECT_EQ(parse({"--Port", "x"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '--Port'\n"});
}

TEST_F(GetOpts, ComparesShortNamesWithTheirCase)
{
    EXPECT_EQ(parse({"-P", "x"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '-P'\n"});
}

TEST_F(GetOpts, TakesNoPartOfALongName)
{
    EXPECT_EQ(parse({"--por", "x"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '--por'\n"});
}

TEST_F(GetOpts, TakesNoValueBehindAnEqualsSign)
{
    EXPECT_EQ(parse({"--port=x"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '--port=x'\n"});
}

TEST_F(GetOpts, RefusesALoneDash)
{
    EXPECT_EQ(parse({"-"}), -22);
    EXPECT_EQ(errors(), strings{"flag '-' is invalid\n"});
}

TEST_F(GetOpts, LogsAMalformedFlagUnderItsName)
{
    parse({"-"});
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].file, "zepho-getopts.c");
    EXPECT_EQ(log.messages()[0].function, "get_opts");
}

TEST_F(GetOpts, RefusesTwoDashes)
{
    EXPECT_EQ(parse({"--"}), -22);
    EXPECT_EQ(errors(), strings{"flag '--' is invalid\n"});
}

TEST_F(GetOpts, RefusesADashAndTwoLetters)
{
    EXPECT_EQ(parse({"-jp"}), -22);
    EXPECT_EQ(errors(), strings{"flag '-jp' is invalid\n"});
}

TEST_F(GetOpts, TakesThreeDashesAndALetterAsUnknown)
{
    EXPECT_EQ(parse({"---x"}), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '---x'\n"});
}

TEST_F(GetOpts, StopsForTheShortHelpFlag)
{
    EXPECT_EQ(parse({"-h"}), -11);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetOpts, StopsForTheLongHelpFlag)
{
    EXPECT_EQ(parse({"--help"}), -11);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetOpts, StopsForHelpBehindAnUnknownFlag)
{
    EXPECT_EQ(parse({"--unknown", "-h"}), -11);
}

TEST_F(GetOpts, StopsForHelpBeforeALaterRowIsLookedAt)
{
    EXPECT_EQ(parse({"-n", "none", "-h"}), -11);
    EXPECT_EQ(values.count, 99U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetOpts, StopsForHelpEvenIfARequiredFlagIsMissing)
{
    table[0].required = true;
    EXPECT_EQ(parse({"-h"}), -11);
}

TEST_F(GetOpts, ReportsAMalformedFlagBeforeHelp)
{
    EXPECT_EQ(parse({"-jp", "-h"}), -22);
    EXPECT_EQ(errors(), strings{"flag '-jp' is invalid\n"});
}

TEST_F(GetOpts, ReportsAFailureOfTheFirstRowBeforeHelp)
{
    EXPECT_EQ(parse({"-p", "-h"}), -22);
    EXPECT_EQ(errors(), strings{"flag --port requires a value\n"});
}

TEST_F(GetOpts, RefusesAMissingRequiredFlag)
{
    table[1].required = true;
    EXPECT_EQ(parse({"-p", "x"}), -22);
    EXPECT_EQ(errors(), strings{"flag '--count' is required\n"});
}

TEST_F(GetOpts, AcceptsAGivenRequiredFlag)
{
    table[1].required = true;
    EXPECT_EQ(parse({"-n", "1"}), 0);
}

TEST_F(GetOpts, ReportsAMissingRequiredFlagBeforeAnUnknownOne)
{
    table[0].required = true;
    EXPECT_EQ(parse({"--unknown"}), -22);
    EXPECT_EQ(errors(), strings{"flag '--port' is required\n"});
}

TEST_F(GetOpts, MatchesARowWithoutAShortNameByItsLongName)
{
    table[3].short_name = nullptr;
    EXPECT_EQ(parse({"--path", "x"}), 0);
    EXPECT_STREQ(values.path, "x");
}

TEST_F(GetOpts, AcceptsARowWithoutAPresentMark)
{
    EXPECT_EQ(parse({"--path", "x"}), 0);
    EXPECT_STREQ(values.path, "x");
}

TEST_F(GetOpts, AcceptsThirtyArguments)
{
    EXPECT_EQ(parse(strings(29, "x")), 0);
}

TEST_F(GetOpts, FindsAnUnknownFlagAtTheLastPosition)
{
    strings arguments(28, "x");
    arguments.emplace_back("-q");
    EXPECT_EQ(parse(arguments), -22);
    EXPECT_EQ(errors(), strings{"unknown argument '-q'\n"});
}

using GetOptsDeathTest = GetOpts;

TEST_F(GetOptsDeathTest, RefusesThirtyOneArguments)
{
    EXPECT_EXIT(parse(strings(30, "x")), testing::KilledBySignal(SIGABRT),
                "assertion failed: MAX_CLI_ARGS >= argc");
}

TEST_F(GetOptsDeathTest, NeedsATable)
{
    char name[] = "kestrel";
    char *argv[] = {name, nullptr};
    EXPECT_EXIT(static_cast<void>(get_opts(1, argv, nullptr)), testing::KilledBySignal(SIGABRT), "assertion failed: flags\n");
}

namespace {

// One row of each type with its destination.
class GetValue : public testing::Test {
  protected:
    int get(uint32_t type, void *destination, const char *text)
    {
        const option_descriptor row{"--row", "-r", type, destination, false, "", &present};
        return get_value(&row, text);
    }

    bool present = false;
    uint32_t number = 99;
    bool flag = false;
    log_capture log;
};

} // namespace

TEST_F(GetValue, RefusesANullTextAndStoresNothing)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, nullptr), -22);
    EXPECT_EQ(number, 99U);
    EXPECT_FALSE(present);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(GetValue, ReadsADecimalNumber)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "0123"), 0);
    EXPECT_EQ(number, 123U);
    EXPECT_TRUE(present);
}

TEST_F(GetValue, ReadsTheLargestNumber)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "4294967295"), 0);
    EXPECT_EQ(number, 4294967295U);
}

TEST_F(GetValue, RefusesCharactersLeftOver)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "12 "), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"Invalid string\n"});
    EXPECT_EQ(log.messages()[0].function, "get_value");
    EXPECT_EQ(number, 99U);
    EXPECT_FALSE(present);
}

TEST_F(GetValue, RefusesHexadecimalNumbers)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "0x10"), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"Invalid string\n"});
}

TEST_F(GetValue, RefusesANumberThatNoLongHolds)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "18446744073709551616"), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not convert 18446744073709551616: error 34 Numerical result out of range\n"});
    EXPECT_EQ(log.messages()[0].function, "get_value");
    EXPECT_EQ(number, 99U);
    EXPECT_FALSE(present);
}

TEST_F(GetValue, RefusesANumberThatTheDestinationDoesNotHold)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "4294967296"), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not convert 4294967296: error 34 Numerical result out of range\n"});
    EXPECT_EQ(number, 99U);
}

TEST_F(GetValue, RefusesANegativeNumberThatWrapsAround)
{
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, " -18446744073709551615"), -22); // 1 - 2^64
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not convert  -18446744073709551615: error 34 Numerical result out of range\n"});
    EXPECT_EQ(number, 99U);
}

TEST_F(GetValue, IsNotConfusedByAnEarlierError)
{
    errno = ERANGE;
    EXPECT_EQ(get(OPTION_UNSIGNED, &number, "5"), 0);
    EXPECT_EQ(number, 5U);
}

TEST_F(GetValue, CopiesAText)
{
    char text[OPTION_TEXT_SIZE] = "unset";
    EXPECT_EQ(get(OPTION_TEXT, text, "a text"), 0);
    EXPECT_STREQ(text, "a text");
    EXPECT_TRUE(present);
}

TEST_F(GetValue, CopiesAtMost255Characters)
{
    char text[OPTION_TEXT_SIZE + 1];
    memset(text, 'z', sizeof text);
    EXPECT_EQ(get(OPTION_TEXT, text, std::string(256, 'x').c_str()), 0);
    EXPECT_EQ(std::string(text, sizeof text), std::string(255, 'x') + '\0' + 'z');
}

TEST_F(GetValue, TakesTheWordTrueAsTrue)
{
    EXPECT_EQ(get(OPTION_BOOLEAN, &flag, "true"), 0);
    EXPECT_TRUE(flag);
    EXPECT_TRUE(present);
}

TEST_F(GetValue, TakesAnyOtherWordAsFalse)
{
    for (const char *const word : {"false", "TRUE", "1", "truely", ""}) {
        flag = true;
        EXPECT_EQ(get(OPTION_BOOLEAN, &flag, word), 0);
        EXPECT_FALSE(flag) << word;
    }
}

TEST_F(GetValue, RefusesAnUnknownType)
{
    for (const uint32_t type : {1U, 2U, 5U, 6U, 7U, 8U}) {
        log.clear();
        EXPECT_EQ(get(type, &number, "1"), -22);
        EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"unknown type value " + std::to_string(type) + "\n"});
        EXPECT_EQ(log.messages()[0].function, "get_value");
    }
    EXPECT_EQ(number, 99U);
    EXPECT_FALSE(present);
}

TEST(GetValueOfARowWithoutPresentMark, Stores)
{
    uint32_t number = 0;
    const option_descriptor row{"--row", "-r", OPTION_UNSIGNED, &number, false, "", nullptr};
    EXPECT_EQ(get_value(&row, "7"), 0);
    EXPECT_EQ(number, 7U);
}

TEST(IsFlag, LooksAtTheFirstCharacter)
{
    EXPECT_TRUE(is_flag("-"));
    EXPECT_TRUE(is_flag("-p"));
    EXPECT_TRUE(is_flag("--port"));
    EXPECT_FALSE(is_flag(""));
    EXPECT_FALSE(is_flag("port"));
    EXPECT_FALSE(is_flag("a-b"));
}

TEST(IsFlagDeathTest, NeedsAText)
{
    EXPECT_EXIT(static_cast<void>(is_flag(nullptr)), testing::KilledBySignal(SIGABRT), "assertion failed: string != NULL");
}

TEST(IsValidFlagSyntax, AcceptsADashAndOneCharacter)
{
    EXPECT_TRUE(is_valid_flag_syntax("-p"));
    EXPECT_TRUE(is_valid_flag_syntax("-1"));
    EXPECT_TRUE(is_valid_flag_syntax("- "));
}

TEST(IsValidFlagSyntax, AcceptsTwoDashesAndMore)
{
    EXPECT_TRUE(is_valid_flag_syntax("--p"));
    EXPECT_TRUE(is_valid_flag_syntax("--port"));
    EXPECT_TRUE(is_valid_flag_syntax("---"));
    EXPECT_TRUE(is_valid_flag_syntax("---x"));
}

TEST(IsValidFlagSyntax, RefusesEverythingElse)
{
    for (const char *const text : {"", "-", "p", "--", "-ab", "-a-", "ab", "abc", "a--"})
        EXPECT_FALSE(is_valid_flag_syntax(text)) << text;
}

namespace {

class HelpMessage : public testing::Test {
  protected:
    strings compose(const char *header, uint8_t count, uint8_t max_lines)
    {
        const uint8_t written = compose_help_message(header, table, count, lines, max_lines);
        strings all;
        for (uint8_t i = 0; i < written; ++i)
            all.emplace_back(lines[i]);
        return all;
    }

    option_descriptor table[3] = {
        {"--port", "-p", OPTION_TEXT, nullptr, true, "the port", nullptr},
        {"--json", "", OPTION_BOOLEAN, nullptr, false, "JSON output", nullptr},
        {"--count", nullptr, OPTION_UNSIGNED, nullptr, false, "how many", nullptr},
    };
    help_line lines[10] = {};
    log_capture log;
};

} // namespace

TEST_F(HelpMessage, HasALineARow)
{
    EXPECT_EQ(compose("usage", 3, 10),
              (strings{"usage", "options:", " -p or --port     <value> : the port - required",
                       "    or --json             : JSON output - optional",
                       "       --count    <value> : how many - optional"}));
}

TEST_F(HelpMessage, HasNoHeaderWhenNoneIsGiven)
{
    EXPECT_EQ(compose(nullptr, 1, 10),
              (strings{"options:", " -p or --port     <value> : the port - required"}));
}

TEST_F(HelpMessage, ShowsTheFirstRowsOnly)
{
    EXPECT_EQ(compose("usage", 1, 10).size(), 3U);
}

TEST_F(HelpMessage, HasJustTheHeaderWithoutRows)
{
    EXPECT_EQ(compose("usage", 0, 10), strings{"usage"});
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "no flag to show\n");
}

TEST_F(HelpMessage, IsEmptyWithoutRowsAndHeader)
{
    EXPECT_TRUE(compose(nullptr, 0, 10).empty());
}

TEST_F(HelpMessage, StopsAtTheLastLine)
{
    EXPECT_EQ(compose("usage", 3, 4).size(), 4U);
    EXPECT_STREQ(lines[4], "");
}

TEST_F(HelpMessage, WritesNothingWithoutLines)
{
    EXPECT_TRUE(compose("usage", 3, 0).empty());
    EXPECT_STREQ(lines[0], "");
}

TEST_F(HelpMessage, CutsALineAt511Characters)
{
    const std::string help(600, 'x');
    table[0].help = help.c_str();
    EXPECT_EQ(compose(nullptr, 1, 10).at(1), " -p or --port     <value> : " + std::string(483, 'x'));
}

TEST_F(HelpMessage, CutsAHeaderAt511Characters)
{
    const std::string header(600, 'x');
    EXPECT_EQ(compose(header.c_str(), 1, 10).at(0), std::string(511, 'x'));
}

TEST_F(HelpMessage, CutsALongShortNameAtTheWidthOfThePrefix)
{
    table[0].short_name = "-long";
    EXPECT_EQ(compose(nullptr, 1, 10).at(1), " -long --port     <value> : the port - required");
}
