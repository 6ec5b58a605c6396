#include "at-answers.hpp"
#include "talk.hpp"

#include <gtest/gtest.h>

namespace sim {
namespace {

const octets diag_frame = {0x4B, 0x65, 0x01, 0x00, 0x54, 0x0F, 0x7E};
const octets hello = {1, 0, 0, 0, 48, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0,
                      0, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

TEST(At, EchoesUntilEchoIsOff)
{
    talk it({});
    EXPECT_EQ(it.say("AT\r"), (texts{"AT\r\r\nOK\r\n"}));
    EXPECT_EQ(it.say("ATE0\r"), (texts{"ATE0\r\r\nOK\r\n"}));
    EXPECT_EQ(it.say("AT\r"), (texts{"\r\nOK\r\n"}));
    EXPECT_EQ(it.say("ATE1\r"), (texts{"\r\nOK\r\n"}));
    EXPECT_EQ(it.say("AT\r"), (texts{"AT\r\r\nOK\r\n"}));
}

struct built_in_row {
    const char *command;
    const char *answer;
};

// Shown as the test's name.
void PrintTo(const built_in_row &row, std::ostream *out)
{
    *out << std::string_view(row.command).substr(0, strlen(row.command) - 1);
}

class AtBuiltIn : public testing::TestWithParam<built_in_row> {};

TEST_P(AtBuiltIn, Answer)
{
    talk it({});
    it.say("ATE0\r");
    EXPECT_EQ(it.say(GetParam().command), (texts{GetParam().answer}));
}

INSTANTIATE_TEST_SUITE_P(
    Table, AtBuiltIn,
    testing::Values(built_in_row{"AT#CGMM\r", "\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n"},
                    built_in_row{"AT+GMM\r", "\r\nKX910C1-WW\r\n\r\nOK\r\n"},
                    built_in_row{"AT#CGSN\r", "\r\n#CGSN: 004999010640000\r\n\r\nOK\r\n"},
                    built_in_row{"AT#SWPKGV\r", "\r\n49.01.102-B002-P0A.000200\r\n49.01.102\r\nP0A.000200\r\n"
                                                "A.00.02\r\n\r\nOK\r\n"},
                    built_in_row{"at#cgsn\r", "\r\n#CGSN: 004999010640000\r\n\r\nOK\r\n"},
                    built_in_row{"AT+CFUN=1\r", "\r\nERROR\r\n"}));

TEST(At, OwnAnswersComeFirstAndTheLastOneCounts)
{
    settings wanted;
    wanted.at_answers = {{"AT#CGMM", "a"}, {"at#cgmm", "\r\n+CME ERROR: 10\r\n"}, {"AT+NEW", "new"}};
    talk it(wanted);
    it.say("ATE0\r");
    EXPECT_EQ(it.say("AT#CGMM\r"), (texts{"\r\n+CME ERROR: 10\r\n"}));
    EXPECT_EQ(it.say("AT+NEW\r"), (texts{"new"}));
}

TEST(At, AnEmptyAnswerIsSilence)
{
    settings wanted;
    wanted.at_answers = {{"ATE0", ""}};
    talk it(wanted);
    EXPECT_EQ(it.say("ATE0\r"), texts{});
}

TEST(At, CommandsMayArriveCutAnywhereOrGlued)
{
    const std::string command = "ATE0\r";
    for (size_t cut = 1; cut < command.size(); cut++) {
        talk it({});
        EXPECT_EQ(it.say(command.substr(0, cut)), texts{});
        EXPECT_EQ(it.say(command.substr(cut)), (texts{"ATE0\r\r\nOK\r\n"}));
    }
    talk it({});
    EXPECT_EQ(it.say("ATE0\rAT\r"), (texts{"ATE0\r\r\nOK\r\n", "\r\nOK\r\n"}));
}

TEST(At, NakFaultIsAnErrorAnswer)
{
    settings wanted;
    wanted.faults = {planned("at.AT#CGMM=nak@2")};
    talk it(wanted);
    it.say("ATE0\r");
    EXPECT_EQ(it.say("AT#CGMM\r"), (texts{"\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n"}));
    EXPECT_EQ(it.say("AT#CGMM\r"), (texts{"\r\nERROR\r\n"}));
}

TEST(At, LostCommandIsNotAnswered)
{
    settings wanted;
    wanted.faults = {planned("host.at=lost@2")};
    talk it(wanted);
    EXPECT_EQ(it.say("ATE0\r"), texts{"ATE0\r\r\nOK\r\n"});
    EXPECT_EQ(it.say("AT\r"), texts{});
    EXPECT_EQ(it.say("AT\r"), texts{"\r\nOK\r\n"});
}

TEST(At, GarbledCommandIsAnError)
{
    settings wanted;
    wanted.faults = {planned("host.at=garbled")};
    talk it(wanted);
    EXPECT_EQ(it.say("AT\r"), texts{"AT\r\r\nERROR\r\n"});
}

TEST(At, WrongAnswerHasNoFinalResponse)
{
    settings wanted;
    wanted.faults = {planned("at.AT=wrong")};
    talk it(wanted);
    EXPECT_EQ(it.say("AT\r"), texts{"\r\nNO CARRIER\r\n"});
}

TEST(At, PortsHaveALineBufferEach)
{
    talk it({});
    EXPECT_EQ(it.say("AT#CG", 1), texts{});
    EXPECT_EQ(it.say("AT\r", 2), texts{"AT\r\r\nOK\r\n"});
    EXPECT_EQ(it.say("MM\r", 1), texts{"AT#CGMM\r\r\n#CGMM: KX910C1-WW\r\n\r\nOK\r\n"});
    EXPECT_EQ(it.heard_text(2), texts{});
}

TEST(At, PortsHaveAnEchoEach)
{
    talk it({});
    it.say("ATE0\r", 1);
    EXPECT_EQ(it.say("AT\r", 1), texts{"\r\nOK\r\n"});
    EXPECT_EQ(it.say("AT\r", 2), texts{"AT\r\r\nOK\r\n"});
}

TEST(At, AnswerThatNobodyFetchesHoldsUpNoOtherPort)
{
    talk it({});
    it.modem.receive(to_octets("AT\r"), 1);
    EXPECT_EQ(it.say("ATE0\r", 2), texts{"ATE0\r\r\nOK\r\n"});
    EXPECT_EQ(it.heard_text(1), texts{"AT\r\r\nOK\r\n"});
}

TEST(At, HelloAfterTheSwitchGoesToTheOnePortThatThereIs)
{
    talk it({});
    it.modem.receive(diag_frame, 0);
    EXPECT_EQ(it.heard(0), (units{hello}));
}

TEST(At, DelayedAnswerIsEchoedAtOnce)
{
    settings wanted;
    wanted.at_delay_ms = 300;
    talk it(wanted);
    it.modem.receive(to_octets("AT\r"));
    EXPECT_EQ(it.modem.delay_ms(), 0U);
    EXPECT_EQ(as_text(it.modem.take().bytes), "AT\r");
    EXPECT_EQ(it.modem.delay_ms(), 300U);
    EXPECT_EQ(as_text(it.modem.take().bytes), "\r\nOK\r\n");
    it.say("ATE0\r");
    EXPECT_EQ(it.say("AT\r"), texts{"\r\nOK\r\n"}) << "nothing to echo";
    EXPECT_EQ(it.last_delay_ms, 300U);
}

TEST(At, UnsolicitedResultCodesAroundTheAnswer)
{
    settings wanted;
    wanted.at_before = {"\r\n+CREG: 1\r\n", "\r\nRING\r\n"};
    wanted.at_after = {"\r\n+CIEV: 2\r\n"};
    talk it(wanted);
    EXPECT_EQ(it.say("AT\r", 2),
              (texts{"\r\n+CREG: 1\r\n", "\r\nRING\r\n", "AT\r\r\nOK\r\n", "\r\n+CIEV: 2\r\n"}));
}

TEST(At, UnsolicitedResultCodeInOneReadWithTheAnswer)
{
    settings wanted;
    wanted.at_before = {"\r\nRING\r\n"};
    wanted.faults = {planned("at.CODE=glue")};
    talk it(wanted);
    EXPECT_EQ(it.say("AT\r"), texts{"\r\nRING\r\nAT\r\r\nOK\r\n"});
}

struct noise_row {
    const char *what;
    std::string sent;
    const char *noted;
};

// Shown as the test's name.
void PrintTo(const noise_row &row, std::ostream *out)
{
    *out << row.what;
}

class AtNoise : public testing::TestWithParam<noise_row> {};

TEST_P(AtNoise, IsNotHeard)
{
    talk it({});
    EXPECT_EQ(it.say(GetParam().sent), texts{});
    EXPECT_TRUE(it.logged(GetParam().noted));
    EXPECT_EQ(it.say("AT\r"), texts{"AT\r\r\nOK\r\n"});
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AtNoise,
    testing::Values(
        noise_row{"letters", "xyz\r", "\"kind\":\"noise\",\"length\":3}"},
        noise_row{"a line that begins like a command", "ABC\r", "\"kind\":\"noise\",\"length\":3}"},
        noise_row{"a frame of another kind", {"\x7E\0\x78\xF0\x7E", 5}, "\"kind\":\"noise\",\"length\":5}"},
        noise_row{"the beginning of another frame", "K\r", "\"kind\":\"noise\",\"length\":1}"},
        noise_row{"a command without an end", "AT" + std::string(511, ' '),
                  "\"kind\":\"noise\",\"length\":513}"},
        noise_row{"a frame without an end", "Ke" + std::string(63, '.'), "\"kind\":\"noise\",\"length\":65}"},
        noise_row{"a frame with a wrong check sequence",
                  {"\x4B\x65\x01\0\x55\x0F\x7E", 7},
                  "\"kind\":\"diag\",\"length\":7}"}));

TEST(At, CommandBehindNoiseIsHeard)
{
    talk it({});
    EXPECT_EQ(it.say("\x7EKAT\r"), texts{"AT\r\r\nOK\r\n"});
}

TEST(AtAnswerOption, Escapes)
{
    const auto parsed = parse_at_answer(R"(AT+X=\r\nA=\x41\\\r\n)");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->first, "AT+X");
    EXPECT_EQ(parsed->second, "\r\nA=A\\\r\n");
}

TEST(AtAnswerOption, Malformed)
{
    for (const char *bad : {"AT", "=x", "AT=\\", "AT=\\q", "AT=\\x4", "AT=\\xg0"})
        EXPECT_FALSE(parse_at_answer(bad)) << bad;
}

TEST(Diag, SwitchEntersDownloadModeWithOneHello)
{
    talk it({});
    EXPECT_EQ(it.say(diag_frame), (units{hello}));
    EXPECT_STREQ(it.modem.stage_name(), "sahara");
}

TEST(Diag, SwitchMayArriveByteByByte)
{
    talk it({});
    for (size_t i = 0; i + 1 < diag_frame.size(); i++)
        EXPECT_EQ(it.say(octets{diag_frame[i]}), units{});
    EXPECT_EQ(it.say(octets{0x7E}), (units{hello}));
}

TEST(Diag, SwitchMayFollowACommandInOnePiece)
{
    talk it({});
    octets both = {'A', 'T', '\r'};
    both.insert(both.end(), diag_frame.begin(), diag_frame.end());
    EXPECT_EQ(it.say(both).size(), 2U);
    EXPECT_STREQ(it.modem.stage_name(), "sahara");
}

TEST(Diag, UntilDiagEndsWithoutHello)
{
    settings wanted;
    wanted.until = stage::normal;
    talk it(wanted);
    EXPECT_EQ(it.say(diag_frame), units{});
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
}

TEST(Diag, LateSwitchDelaysTheHello)
{
    settings wanted;
    wanted.faults = {planned("diag=late:700")};
    talk it(wanted);
    EXPECT_EQ(it.say(diag_frame), (units{hello}));
    EXPECT_EQ(it.last_delay_ms, 700U);
}

TEST(Diag, SkippedSwitchStaysInNormalMode)
{
    settings wanted;
    wanted.faults = {planned("diag=skip")};
    talk it(wanted);
    EXPECT_EQ(it.say(diag_frame), units{});
    EXPECT_STREQ(it.modem.stage_name(), "normal");
    EXPECT_EQ(it.say(diag_frame), (units{hello}));
}

} // namespace
} // namespace sim
