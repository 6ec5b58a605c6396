#include "options.hpp"

#include "core.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "temp_dir.hpp"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

using texts = std::vector<std::string>;

static const texts help_lines = {
    "usage examples:\n"
    "        kestrel --help\n"
    "        kestrel <firmware directory> [--debug]\n"
    "        kestrel --flat <programmer path> [--debug]\n"
    "        kestrel --meta <content xml path> [--debug]\n"
    "        kestrel <firmware directory> --port /dev/ttyUSB0\n"
    "        kestrel <firmware directory> --dry-run\n"
    "        kestrel <firmware directory> --enter-qdl\n"
    "        kestrel <firmware directory> --otp\n\n",
    "options:\n",
    "   --port     <value> : force the tool to use a specific port instead of the automatic detection - optional\n",
    "   --meta     <value> : contents.xml path - optional\n",
    "   --flat     <value> : programmer path - optional\n",
    "   --debug            : enable debug logging - optional\n",
    "   --enter-qdl        : enter QDL mode and stop - optional\n",
    "   --otp              : get OTP values - optional\n",
    "   --skip-enter-qdl   : skip command to enter QDL mode (to be used with --port flag) - optional\n",
    "   --pcie             : firmware upgrade through pcie - optional\n",
    "   --force            : force flashing - optional\n",
    "   --dry-run          : perform modem detection and firmware package validation, then stop - optional\n",
    "   --json             : log in JSON format - optional\n",
    "\rOmbra version 2.0.2-0\n",
    "\nSupported modem families: KA100, KA110, KB200, KB210, KC300",
    "\nSupported compositions:",
    "0xfff0:0x1001,",
    "0xfff0:0x1002,",
    "0xfff0:0x1003,",
    "0xfff0:0x1004,",
    "0xfff0:0x1005,",
    "0xfff0:0x1006,",
    "0xfff0:0x1007,",
    "0xfff0:0x1010,",
    "0xfff0:0x1011,",
    "0xfff0:0x1012,",
    "0xfff0:0x1013,",
    "0xfff0:0x1014,",
    "0xfff0:0x1020,",
    "0xfff0:0x1021,",
    "0xfff0:0x1022,",
    "0xfff1:0x2001,",
    "0xfff1:0x2002,",
    "0xfff1:0x2003,",
    "0xfff1:0x2004,",
    "0xfff1:0x2010,",
    "0xfff1:0x2011,",
    "0xfff1:0x2012,",
    "0xfff1:0x2020,",
    "0xfff1:0x2021,",
    "0xfff1:0x2022,",
    "0x17cb:0x011a,",
    "0x17cb:0x0309,",
    "0xfff0:0x1f01,",
    "0xfff1:0x2f01,",
    "0x05c6:0x9008\n",
};

namespace {

// check_args with the process-wide state as it is at start.
class CheckArgs : public testing::Test {
  protected:
    CheckArgs() { options = {}; }
    ~CheckArgs() override { options = {}; }

    // Runs with these arguments behind the program's name.
    int check(const texts &given)
    {
        arguments = given;
        arguments.insert(arguments.begin(), "kestrel");
        pointers.clear();
        for (std::string &argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        return check_args(static_cast<int>(arguments.size()), pointers.data());
    }
    bool printed_help() const { return log.texts(CORE_LOG_INF) == help_lines; }
    bool printed_anything_but_errors() const { return !log.texts(CORE_LOG_INF).empty(); }

    temp_dir dir;
    log_capture log{CORE_LOG_INF};
    texts arguments;
    std::vector<char *> pointers;
};

constexpr char no_source[] = "choose at least one between <firmware directory>, --meta and --flat";
constexpr char two_sources[] = "<firmware directory>, --meta and --flat can't be used at the same time";

} // namespace

// ---- the table

namespace {

struct table_row {
    const char *name;
    size_t index;
    const char *long_name;
    const char *short_name;
    uint32_t type;
    void *destination;
    const char *help;
};

void PrintTo(const table_row &row, std::ostream *stream)
{
    *stream << row.name;
}

class OptionTable : public testing::TestWithParam<table_row> {};

const table_row table_rows[] = {
    {"Port", 0, "--port", "-p", 4, options.port,
     "force the tool to use a specific port instead of the automatic detection"},
    {"Meta", 1, "--meta", "-m", 4, options.meta, "contents.xml path"},
    {"Flat", 2, "--flat", "-f", 4, options.flat, "programmer path"},
    {"Debug", 3, "--debug", "-d", 0, &options.debug, "enable debug logging"},
    {"EnterQdl", 4, "--enter-qdl", "-q", 0, &options.enter_qdl, "enter QDL mode and stop"},
    {"Otp", 5, "--otp", "", 0, &options.otp, "get OTP values"},
    {"SkipEnterQdl", 6, "--skip-enter-qdl", "-s", 0, &options.skip_enter_qdl,
     "skip command to enter QDL mode (to be used with --port flag)"},
    {"Pcie", 7, "--pcie", "-e", 0, &options.pcie, "firmware upgrade through pcie"},
    {"Force", 8, "--force", "", 0, &options.force, "force flashing"},
    {"DryRun", 9, "--dry-run", "-r", 0, &options.dry_run,
     "perform modem detection and firmware package validation, then stop"},
    {"Json", 10, "--json", "-j", 0, &options.json, "log in JSON format"},
};

} // namespace

TEST_P(OptionTable, HasItsNames)
{
    EXPECT_STREQ(option_table[GetParam().index].long_name, GetParam().long_name);
    EXPECT_STREQ(option_table[GetParam().index].short_name, GetParam().short_name);
}

TEST_P(OptionTable, HasItsTypeAndDestination)
{
    EXPECT_EQ(option_table[GetParam().index].type, GetParam().type);
    EXPECT_EQ(option_table[GetParam().index].destination, GetParam().destination);
}

TEST_P(OptionTable, HasItsHelpText)
{
    EXPECT_STREQ(option_table[GetParam().index].help, GetParam().help);
}

TEST_P(OptionTable, IsOptionalAndKeepsNoMark)
{
    EXPECT_FALSE(option_table[GetParam().index].required);
    EXPECT_EQ(option_table[GetParam().index].present, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Row, OptionTable, testing::ValuesIn(table_rows),
                         [](const auto &row) { return row.param.name; });

TEST(OptionTableEnd, IsARowWithoutNameOfType7)
{
    EXPECT_EQ(option_table[11].long_name, nullptr);
    EXPECT_EQ(option_table[11].type, 7U);
}

// ---- what the options fill

TEST_F(CheckArgs, FillsPortFromTheLongName)
{
    EXPECT_EQ(check({dir.path(), "--port", "/dev/ttyUSB3", "--force"}), 0);
    EXPECT_STREQ(options.port, "/dev/ttyUSB3");
}

TEST_F(CheckArgs, FillsPortFromTheShortName)
{
    EXPECT_EQ(check({dir.path(), "-p", "/dev/ttyUSB3", "--force"}), 0);
    EXPECT_STREQ(options.port, "/dev/ttyUSB3");
}

TEST_F(CheckArgs, FillsMetaFromTheLongName)
{
    EXPECT_EQ(check({"--meta", "fw/contents.xml"}), 0);
    EXPECT_STREQ(options.meta, "fw/contents.xml");
}

TEST_F(CheckArgs, FillsMetaFromTheShortName)
{
    EXPECT_EQ(check({"-m", "fw/contents.xml"}), 0);
    EXPECT_STREQ(options.meta, "fw/contents.xml");
}

TEST_F(CheckArgs, FillsFlatFromTheLongName)
{
    EXPECT_EQ(check({"--flat", "fw/prog.mbn"}), 0);
    EXPECT_STREQ(options.flat, "fw/prog.mbn");
}

TEST_F(CheckArgs, FillsFlatFromTheShortName)
{
    EXPECT_EQ(check({"-f", "fw/prog.mbn"}), 0);
    EXPECT_STREQ(options.flat, "fw/prog.mbn");
}

TEST_F(CheckArgs, CutsATextTo255Characters)
{
    EXPECT_EQ(check({"--meta", std::string(300, 'm')}), 0);
    EXPECT_EQ(options.meta, std::string(255, 'm'));
}

TEST_F(CheckArgs, SetsDebugFromEitherName)
{
    EXPECT_EQ(check({dir.path(), "--debug"}), 0);
    EXPECT_TRUE(options.debug);
    options = {};
    EXPECT_EQ(check({dir.path(), "-d"}), 0);
    EXPECT_TRUE(options.debug);
}

TEST_F(CheckArgs, SetsEnterQdlFromEitherName)
{
    EXPECT_EQ(check({dir.path(), "--enter-qdl"}), 0);
    EXPECT_TRUE(options.enter_qdl);
    options = {};
    EXPECT_EQ(check({dir.path(), "-q"}), 0);
    EXPECT_TRUE(options.enter_qdl);
}

TEST_F(CheckArgs, SetsOtp)
{
    EXPECT_EQ(check({dir.path(), "--otp"}), 0);
    EXPECT_TRUE(options.otp);
}

TEST_F(CheckArgs, SetsSkipEnterQdlFromEitherName)
{
    EXPECT_EQ(check({dir.path(), "-p", "/dev/x", "--force", "--skip-enter-qdl"}), 0);
    EXPECT_TRUE(options.skip_enter_qdl);
    options = {};
    EXPECT_EQ(check({dir.path(), "-p", "/dev/x", "--force", "-s"}), 0);
    EXPECT_TRUE(options.skip_enter_qdl);
}

TEST_F(CheckArgs, SetsPcieFromEitherName)
{
    EXPECT_EQ(check({dir.path(), "--pcie"}), 0);
    EXPECT_TRUE(options.pcie);
    options = {};
    EXPECT_EQ(check({dir.path(), "-e"}), 0);
    EXPECT_TRUE(options.pcie);
}

TEST_F(CheckArgs, SetsForce)
{
    EXPECT_EQ(check({dir.path(), "--force"}), 0);
    EXPECT_TRUE(options.force);
}

TEST_F(CheckArgs, SetsDryRunFromEitherName)
{
    EXPECT_EQ(check({dir.path(), "--dry-run"}), 0);
    EXPECT_TRUE(options.dry_run);
    options = {};
    EXPECT_EQ(check({dir.path(), "-r"}), 0);
    EXPECT_TRUE(options.dry_run);
}

TEST_F(CheckArgs, LeavesEverythingElseZero)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_STREQ(options.port, "");
    EXPECT_STREQ(options.meta, "");
    EXPECT_STREQ(options.flat, "");
    EXPECT_FALSE(options.debug || options.enter_qdl || options.otp || options.skip_enter_qdl ||
                 options.force || options.dry_run || options.json || options.pcie);
}

TEST_F(CheckArgs, RefersToTheArgumentForTheDirectory)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_EQ(options.firmware_directory, pointers[1]);
}

TEST_F(CheckArgs, LogsNothingForGoodArguments)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CheckArgs, LeavesTheThresholdAlone)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_EQ(core_log_get_level(), CORE_LOG_INF);
}

// ---- the parser's failures

TEST_F(CheckArgs, EndsWithTheHelpForHelp)
{
    EXPECT_EQ(check({"--help"}), -11);
    EXPECT_EQ(log.texts(CORE_LOG_INF), help_lines);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(CheckArgs, EndsWithTheHelpForTheShortHelp)
{
    EXPECT_EQ(check({dir.path(), "-h"}), -11);
    EXPECT_EQ(log.texts(CORE_LOG_INF), help_lines);
}

TEST_F(CheckArgs, EndsWithTheHelpForAnUnknownFlag)
{
    EXPECT_EQ(check({dir.path(), "--fast"}), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unknown argument '--fast'\n"});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, EndsWithTheHelpForAMissingValue)
{
    EXPECT_EQ(check({dir.path(), "-p"}), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"flag --port requires a value\n"});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, EndsWithTheHelpForAMalformedFlag)
{
    EXPECT_EQ(check({dir.path(), "-dr"}), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"flag '-dr' is invalid\n"});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, KnowsNoShortNameOfOtp)
{
    EXPECT_EQ(check({dir.path(), "-o"}), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unknown argument '-o'\n"});
}

TEST_F(CheckArgs, ClosesALogFileAfterAParseError)
{
    const std::string path = dir.at("log");
    ASSERT_EQ(core_log_set_output(path.c_str(), false), 0);
    ASSERT_GT(file_print(CORE_LOG_INF, "%s", "held back"), 0);
    ASSERT_EQ(read_file(path), "");
    check({"--fast"});
    EXPECT_EQ(read_file(path), "held back");
    core_log_set_print(stdout_print);
}

TEST_F(CheckArgs, SetsUpNoJsonOutputAfterAParseError)
{
    EXPECT_EQ(check({dir.path(), "--json", "--fast"}), -22);
    EXPECT_FALSE(core_log_is_json());
}

// ---- the rules, in their order

TEST_F(CheckArgs, RefusesNoArguments)
{
    EXPECT_EQ(check({}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, LogsARefusalUnderItsNameBeforeTheHelp)
{
    check({});
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(log.messages()[0].text, no_source);
    EXPECT_EQ(log.messages()[0].file, "../main.c");
    EXPECT_EQ(log.messages()[0].function, "check_args");
}

TEST_F(CheckArgs, RefusesFlagsWithoutASource)
{
    EXPECT_EQ(check({"--dry-run"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
}

TEST_F(CheckArgs, RefusesADirectoryThatDoesNotExist)
{
    EXPECT_EQ(check({"/nonexistent/fw"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"first argument must be a directory or a flag: /nonexistent/fw"});
    EXPECT_EQ(log.messages().back().function, "check_args");
}

TEST_F(CheckArgs, PrintsNoHelpForADirectoryThatDoesNotExist)
{
    check({"/nonexistent/fw"});
    EXPECT_FALSE(printed_anything_but_errors());
}

TEST_F(CheckArgs, RefusesAFileInPlaceOfTheDirectory)
{
    const std::string file = dir.write("contents.xml", "");
    EXPECT_EQ(check({file}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"opendir() failed: 20\n", "first argument must be a directory or a flag: " + file}));
}

TEST_F(CheckArgs, RefusesAnEmptyDirectoryName)
{
    EXPECT_EQ(check({""}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"first argument must be a directory or a flag: "});
}

TEST_F(CheckArgs, RefusesABadDirectoryEvenBesideMeta)
{
    EXPECT_EQ(check({"/nonexistent/fw", "--meta", "contents.xml"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"first argument must be a directory or a flag: /nonexistent/fw"});
}

TEST_F(CheckArgs, IgnoresADirectoryBehindAFlag)
{
    EXPECT_EQ(check({"--dry-run", dir.path()}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
    EXPECT_EQ(options.firmware_directory, nullptr);
}

TEST_F(CheckArgs, IgnoresADirectoryBehindDebug)
{
    EXPECT_EQ(check({"--debug", dir.path()}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, IgnoresAFurtherPositionalArgument)
{
    EXPECT_EQ(check({dir.path(), "/nonexistent/fw", "--dry-run"}), 0);
    EXPECT_EQ(options.firmware_directory, pointers[1]);
}

TEST_F(CheckArgs, TakesMetaAlone)
{
    EXPECT_EQ(check({"--meta", "contents.xml"}), 0);
    EXPECT_EQ(options.firmware_directory, nullptr);
}

TEST_F(CheckArgs, TakesFlatAlone)
{
    EXPECT_EQ(check({"--flat", "prog.mbn"}), 0);
    EXPECT_EQ(options.firmware_directory, nullptr);
}

TEST_F(CheckArgs, TakesAnEmptyMetaForNone)
{
    EXPECT_EQ(check({"--meta", ""}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
}

TEST_F(CheckArgs, RefusesADirectoryWithMeta)
{
    EXPECT_EQ(check({dir.path(), "--meta", "contents.xml"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{two_sources});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, RefusesADirectoryWithFlat)
{
    EXPECT_EQ(check({dir.path(), "--flat", "prog.mbn"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{two_sources});
}

TEST_F(CheckArgs, RefusesMetaWithFlat)
{
    EXPECT_EQ(check({"--meta", "contents.xml", "--flat", "prog.mbn"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{two_sources});
}

TEST_F(CheckArgs, RefusesAllThreeSources)
{
    EXPECT_EQ(check({dir.path(), "--meta", "contents.xml", "--flat", "prog.mbn"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{two_sources});
}

TEST_F(CheckArgs, RefusesSkipEnterQdlWithoutPort)
{
    EXPECT_EQ(check({dir.path(), "--skip-enter-qdl"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"--skip-enter-qdl requires --port"});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, RefusesSkipEnterQdlWithoutPortEvenForced)
{
    EXPECT_EQ(check({dir.path(), "--skip-enter-qdl", "--force"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"--skip-enter-qdl requires --port"});
}

TEST_F(CheckArgs, RefusesPortWithoutForce)
{
    EXPECT_EQ(check({dir.path(), "--port", "/dev/ttyUSB0"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"--port requires --force because the firmware compatibility cannot be checked"});
    EXPECT_TRUE(printed_help());
}

TEST_F(CheckArgs, RefusesPortAndSkipEnterQdlWithoutForce)
{
    EXPECT_EQ(check({dir.path(), "--port", "/dev/ttyUSB0", "-s"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"--port requires --force because the firmware compatibility cannot be checked"});
}

TEST_F(CheckArgs, TakesPortWithForce)
{
    EXPECT_EQ(check({dir.path(), "--port", "/dev/ttyUSB0", "--force"}), 0);
}

TEST_F(CheckArgs, ReportsTheSourceBeforeThePort)
{
    EXPECT_EQ(check({"--port", "/dev/ttyUSB0"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{no_source});
}

TEST_F(CheckArgs, ReportsTwoSourcesBeforeThePort)
{
    EXPECT_EQ(check({dir.path(), "--meta", "contents.xml", "--skip-enter-qdl"}), 1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{two_sources});
}

TEST_F(CheckArgs, TakesEnterQdlWithDryRun)
{
    EXPECT_EQ(check({dir.path(), "--enter-qdl", "--dry-run"}), 0);
}

TEST_F(CheckArgs, TakesOtpWithFlat)
{
    EXPECT_EQ(check({"--otp", "--flat", "prog.mbn"}), 0);
}

// ---- debug

TEST_F(CheckArgs, RaisesTheThresholdForDebug)
{
    EXPECT_EQ(check({dir.path(), "--debug"}), 0);
    EXPECT_EQ(core_log_get_level(), CORE_LOG_DBG);
}

TEST_F(CheckArgs, EchoesEveryArgumentForDebug)
{
    EXPECT_EQ(check({dir.path(), "--debug", "--dry-run"}), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{"arg[0]: kestrel", "arg[1]: " + dir.path(), "arg[2]: --debug", "arg[3]: --dry-run"}));
    EXPECT_EQ(log.messages()[0].file, "../main.c");
    EXPECT_EQ(log.messages()[0].function, "check_args");
}

TEST_F(CheckArgs, EchoesTheArgumentsBeforeARefusal)
{
    EXPECT_EQ(check({"--debug"}), 1);
    ASSERT_GE(log.messages().size(), 3U);
    EXPECT_EQ(log.messages()[0].text, "arg[0]: kestrel");
    EXPECT_EQ(log.messages()[1].text, "arg[1]: --debug");
    EXPECT_EQ(log.messages()[2].text, no_source);
}

TEST_F(CheckArgs, EchoesNothingWithoutDebug)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_TRUE(log.texts(CORE_LOG_DBG).empty());
}

// ---- JSON

TEST_F(CheckArgs, SwitchesJsonOutputOn)
{
    EXPECT_EQ(check({dir.path(), "--json"}), 0);
    EXPECT_TRUE(core_log_is_json());
}

TEST_F(CheckArgs, SwitchesJsonOutputOnForTheShortName)
{
    EXPECT_EQ(check({dir.path(), "-j"}), 0);
    EXPECT_TRUE(core_log_is_json());
}

TEST_F(CheckArgs, KeepsTextOutputWithoutJson)
{
    EXPECT_EQ(check({dir.path()}), 0);
    EXPECT_FALSE(core_log_is_json());
}

TEST_F(CheckArgs, EchoesTheArgumentsInJson)
{
    const print_capture printed;
    EXPECT_EQ(check({dir.path(), "--debug", "--json"}), 0);
    ASSERT_EQ(printed.lines().size(), 4U);
    for (const printed_line &line : printed.lines()) {
        EXPECT_EQ(line.text.substr(0, 14), "{\"timestamp\": ");
        EXPECT_NE(line.text.find("\"severity\":\"DBG\""), std::string::npos);
    }
    EXPECT_NE(printed.lines()[2].text.find("\"msg\": \"arg[2]: --debug\"}\n"), std::string::npos);
}

TEST_F(CheckArgs, RefusesInJsonToo)
{
    const print_capture printed;
    EXPECT_EQ(check({"--json"}), 1);
    ASSERT_FALSE(printed.lines().empty());
    EXPECT_EQ(printed.lines()[0].level, CORE_LOG_ERR);
    EXPECT_NE(printed.lines()[0].text.find(
                  "\"msg\": \"choose at least one between <firmware directory>, --meta and --flat\"}\n"),
              std::string::npos);
}

// ---- the help text

TEST(PrintHelp, ShowsEveryLine)
{
    const log_capture log;
    print_help(option_table);
    EXPECT_EQ(log.texts(CORE_LOG_INF), help_lines);
}

TEST(PrintHelp, LogsUnderItsName)
{
    const log_capture log;
    print_help(option_table);
    for (const logged_message &message : log.messages()) {
        if (message.text.substr(0, 6) != "\rOmbra") {
            EXPECT_EQ(message.file + " " + message.function, "../main.c print_help");
        }
    }
    EXPECT_EQ(log.messages().size(), 46U);
}

TEST(PrintHelp, ShowsThirtyCompositions)
{
    const log_capture log;
    print_help(option_table);
    int compositions = 0;
    for (const std::string &text : log.texts(CORE_LOG_INF))
        compositions += text.size() >= 13 && text.substr(0, 2) == "0x" ? 1 : 0;
    EXPECT_EQ(compositions, 30);
}

TEST(PrintHelp, MarksARequiredOption)
{
    const log_capture log;
    char text[OPTION_TEXT_SIZE] = {};
    bool flag = false;
    const option_descriptor table[] = {
        {"--speed", "-v", OPTION_TEXT, text, true, "how fast", nullptr},
        {"--quiet", nullptr, OPTION_BOOLEAN, &flag, true, "say less", nullptr},
        {nullptr, nullptr, OPTION_END, nullptr, false, nullptr, nullptr},
    };
    print_help(table);
    EXPECT_TRUE(log.has(CORE_LOG_INF, "   --speed    <value> : how fast - required\n"));
    EXPECT_TRUE(log.has(CORE_LOG_INF, "   --quiet            : say less - required\n"));
}

TEST(PrintHelp, EndsEveryPrintedLineWithOneLineFeed)
{
    const int saved_level = core_log_get_level();
    core_log_set_level(CORE_LOG_INF);
    core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
    const print_capture printed;
    print_help(option_table);
    ASSERT_EQ(printed.lines().size(), 46U);
    EXPECT_EQ(printed.lines()[16].text, "0xfff0:0x1001,\n");
    EXPECT_EQ(printed.lines()[45].text, "0x05c6:0x9008\n");
    core_log_set_level(saved_level);
}
