#include "options.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace sim {
namespace {

std::string parse(std::vector<std::string> words, program_options &out)
{
    std::vector<char *> argv = {const_cast<char *>("kestrel-sim")};
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parse_options(static_cast<int>(argv.size() - 1), argv.data(), out);
}

TEST(Options, Defaults)
{
    program_options got;
    EXPECT_EQ(parse({}, got), "");
    EXPECT_EQ(got.device.start, stage::normal);
    EXPECT_EQ(got.device.until, stage::firehose);
    EXPECT_EQ(got.device.programmer_size, 4096U);
    EXPECT_EQ(got.device.read_size, 4096U);
    EXPECT_EQ(got.device.request_bits, 32U);
    EXPECT_EQ(got.device.platform, 1U);
    EXPECT_FALSE(got.device.payload);
    EXPECT_FALSE(got.device.plain_answers);
    EXPECT_FALSE(got.device.done_status);
    EXPECT_EQ(got.limits.timeout_ms, 0U);
    EXPECT_FALSE(got.help);
}

TEST(Options, EveryOptionReachesItsSetting)
{
    program_options got;
    EXPECT_EQ(parse({"--start",
                     "sahara",
                     "--until",
                     "sahara",
                     "--stay",
                     "--flash=/x",
                     "--flash-from",
                     "/y",
                     "--discard",
                     "--transcript",
                     "/t",
                     "--link",
                     "/l",
                     "--timeout",
                     "2.5",
                     "--gap",
                     "7",
                     "--drain",
                     "8",
                     "--linger",
                     "9",
                     "--delivery",
                     "glued",
                     "--platform",
                     "2",
                     "--at",
                     "AT=\\r",
                     "--at-delay",
                     "250",
                     "--at-before",
                     "\\r\\nRING",
                     "--at-after",
                     "a",
                     "--at-after",
                     "b",
                     "--no-hello",
                     "--hello-mode",
                     "2",
                     "--hello-version",
                     "3",
                     "--hello-compatible",
                     "4",
                     "--request-bits",
                     "64",
                     "--programmer-size",
                     "5000000000",
                     "--read-size",
                     "65536",
                     "--read-order",
                     "twice",
                     "--image-id",
                     "21",
                     "--end-status",
                     "5",
                     "--done-status",
                     "6",
                     "--plain-answers",
                     "--payload",
                     "16384",
                     "--log-start",
                     "1",
                     "--log-before",
                     "2",
                     "--log-after",
                     "3",
                     "--otp",
                     "a",
                     "--otp",
                     "b",
                     "--fault",
                     "sahara.hello=skip",
                     "--fault",
                     "firehose.data-in=stall@0"},
                    got),
              "");
    EXPECT_EQ(got.device.start, stage::sahara);
    EXPECT_EQ(got.device.until, stage::sahara);
    EXPECT_TRUE(got.device.stay);
    EXPECT_EQ(got.device.flash, "/x");
    EXPECT_EQ(got.device.flash_from, "/y");
    EXPECT_TRUE(got.device.discard);
    EXPECT_EQ(got.transcript, "/t");
    EXPECT_EQ(got.link, "/l");
    EXPECT_EQ(got.limits.timeout_ms, 2500U);
    EXPECT_EQ(got.limits.gap_ms, 7U);
    EXPECT_EQ(got.limits.drain_ms, 8U);
    EXPECT_EQ(got.limits.linger_ms, 9U);
    EXPECT_EQ(got.device.how, delivery::glued);
    EXPECT_EQ(got.device.platform, 2U);
    ASSERT_EQ(got.device.at_answers.size(), 1U);
    EXPECT_EQ(got.device.at_answers[0].second, "\r");
    EXPECT_EQ(got.device.at_delay_ms, 250U);
    EXPECT_EQ(got.device.at_before, std::vector<std::string>{"\r\nRING"});
    EXPECT_EQ(got.device.at_after, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(got.device.plain_answers);
    EXPECT_TRUE(got.device.no_hello);
    EXPECT_EQ(got.device.hello_mode, 2U);
    EXPECT_EQ(got.device.hello_version, 3U);
    EXPECT_EQ(got.device.hello_compatible, 4U);
    EXPECT_EQ(got.device.request_bits, 64U);
    EXPECT_EQ(got.device.programmer_size, 5000000000U);
    EXPECT_EQ(got.device.read_size, 65536U);
    EXPECT_EQ(got.device.order, read_order::twice);
    EXPECT_EQ(got.device.image_id, 21U);
    EXPECT_EQ(got.device.end_status, 5U);
    EXPECT_EQ(got.device.done_status, 6U);
    EXPECT_EQ(got.device.payload, 16384U);
    EXPECT_EQ(got.device.log_start, 1U);
    EXPECT_EQ(got.device.log_before, 2U);
    EXPECT_EQ(got.device.log_after, 3U);
    EXPECT_EQ(got.device.otp, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(got.device.faults.size(), 2U);
}

TEST(Options, HelpAndVersionNeedNothingElse)
{
    program_options got;
    EXPECT_EQ(parse({"--help"}, got), "");
    EXPECT_TRUE(got.help);
    EXPECT_EQ(parse({"--version"}, got), "");
    EXPECT_TRUE(got.version);
    EXPECT_EQ(version_text(), "kestrel-sim 1.6.1-0\n");
}

struct bad_row {
    std::vector<std::string> words;
    const char *complaint;
};

// Shown as the test's name.
void PrintTo(const bad_row &row, std::ostream *out)
{
    *out << row.complaint;
}

class OptionsBad : public testing::TestWithParam<bad_row> {};

TEST_P(OptionsBad, IsRefusedWithItsComplaint)
{
    program_options got;
    EXPECT_EQ(parse(GetParam().words, got), GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, OptionsBad,
    testing::Values(
        bad_row{{"--nonsense"}, "unknown option --nonsense"}, bad_row{{"-x"}, "unknown option -x"},
        bad_row{{"--stay=1"}, "option --stay=1 takes no value"},
        bad_row{{"--flash"}, "option --flash needs a value"},
        bad_row{{"--flash", ""}, "--flash : a path is needed"}, bad_row{{"word"}, "unexpected argument word"},
        bad_row{{"--platform", "3"}, "--platform 3: bad value"},
        bad_row{{"--start", "edl"}, "--start edl: bad value"},
        bad_row{{"--read-size", "0"}, "--read-size 0: bad value"},
        bad_row{{"--read-size", "-5"}, "--read-size -5: bad value"},
        bad_row{{"--timeout", "0"}, "--timeout 0: bad value"},
        bad_row{{"--timeout", "1."}, "--timeout 1.: bad value"},
        bad_row{{"--timeout", "1.2345"}, "--timeout 1.2345: bad value"},
        bad_row{{"--discard"}, "--discard without --flash"},
        bad_row{{"--flash-from", "/x"}, "--flash-from without --flash"},
        bad_row{{"--at-before", ""}, "--at-before : a text expected, with the escapes \\r \\n \\\\ \\xHH"},
        bad_row{{"--at-after", "\\q"},
                "--at-after \\q: a text expected, with the escapes \\r \\n \\\\ \\xHH"},
        bad_row{{"--fault", "firehose.nop=nul:1"},
                "--fault firehose.nop=nul:1: this fault kind takes no value"},
        bad_row{{"--fault", "sahara.refusal=nak"},
                "--fault sahara.refusal=nak: this fault kind is not possible at this step"},
        bad_row{{"--start", "firehose", "--until", "sahara"}, "--start lies behind --until"},
        bad_row{{"--programmer-size", "5000000000", "--read-size", "65536"},
                "sizes of 4 GiB and more need --request-bits 64"},
        bad_row{{"--programmer-size", "100000000", "--read-size", "1"},
                "--read-size is too small for --programmer-size"},
        bad_row{{"--at", "AT"}, "--at AT: COMMAND=ANSWER expected, with the escapes \\r \\n \\\\ \\xHH"},
        bad_row{{"--fault", "x"}, "--fault x: STEP=KIND expected"},
        bad_row{{"--fault", "x=skip"}, "--fault x=skip: unknown step"},
        bad_row{{"--fault", "at.=skip"}, "--fault at.=skip: unknown step"},
        bad_row{{"--fault", "diag=explode"}, "--fault diag=explode: unknown fault kind"},
        bad_row{{"--fault", "diag=nak"}, "--fault diag=nak: this fault kind is not possible at this step"},
        bad_row{{"--fault", "sahara.hello=nak"},
                "--fault sahara.hello=nak: this fault kind is not possible at this step"},
        bad_row{{"--fault", "firehose.nop=stall"},
                "--fault firehose.nop=stall: this fault kind is not possible at this step"},
        bad_row{{"--fault", "diag=late"}, "--fault diag=late: late needs milliseconds, as in late:400"},
        bad_row{{"--fault", "sahara.read=bytes"}, "--fault sahara.read=bytes: this fault kind needs a value"},
        bad_row{{"--fault", "diag=late:4294967296"}, "--fault diag=late:4294967296: bad value"},
        bad_row{{"--fault", "host.nop=skip"},
                "--fault host.nop=skip: this fault kind is not possible at this step"},
        bad_row{{"--fault", "firehose.nop=length:1"},
                "--fault firehose.nop=length:1: this fault kind is not possible at this step"},
        bad_row{{"--usb", "--bus", "/b"}, "--link and --bus are for a pseudo-terminal, not for --usb"},
        bad_row{{"--fault", "diag=late:x"}, "--fault diag=late:x: bad value"},
        bad_row{{"--fault", "diag=skip:1"}, "--fault diag=skip:1: this fault kind takes no value"},
        bad_row{{"--fault", "diag=skip@0"}, "--fault diag=skip@0: @N counts from 1"},
        bad_row{{"--fault", "diag=skip@x"}, "--fault diag=skip@x: bad number after @"},
        bad_row{{"--fault", "sahara.data-in=stall"},
                "--fault sahara.data-in=stall: a data-in fault needs @BYTES"}));

} // namespace
} // namespace sim
