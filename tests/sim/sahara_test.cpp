#include "talk.hpp"

#include <gtest/gtest.h>

namespace sim {
namespace {

const octets hello = {1, 0, 0, 0, 48, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0,
                      0, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const octets hello_response = {2, 0, 0, 0, 48, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                               0, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const octets done = {5, 0, 0, 0, 8, 0, 0, 0};
const octets reset = {7, 0, 0, 0, 8, 0, 0, 0};
const octets state_reset = {19, 0, 0, 0, 8, 0, 0, 0};
const octets enter_download = {240, 0, 0, 0, 8, 0, 0, 0};
const octets end_image = {4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0};
const octets done_response_1 = {6, 0, 0, 0, 12, 0, 0, 0, 1, 0, 0, 0};
const octets done_response_0 = {6, 0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0};

octets read_32(uint8_t offset, uint8_t length)
{
    return {3, 0, 0, 0, 20, 0, 0, 0, 13, 0, 0, 0, offset, 0, 0, 0, length, 0, 0, 0};
}

// Ten bytes of programmer in blocks of four.
settings small()
{
    settings wanted;
    wanted.start = stage::sahara;
    wanted.until = stage::sahara;
    wanted.programmer_size = 10;
    wanted.read_size = 4;
    return wanted;
}

settings with_fault(const char *text)
{
    settings wanted = small();
    wanted.faults = {planned(text)};
    return wanted;
}

// Up to the END_IMAGE_TX.
void upload(talk &it)
{
    it.heard();
    it.say(hello_response);
    it.say(to_octets("abcd"));
    it.say(to_octets("efgh"));
    EXPECT_EQ(it.say(to_octets("ij")), (units{end_image}));
}

TEST(Sahara, HelloAtStart)
{
    talk it(small());
    EXPECT_EQ(it.heard(), (units{hello}));
}

TEST(Sahara, HelloCarriesTheChosenFields)
{
    settings wanted = small();
    wanted.hello_version = 3;
    wanted.hello_compatible = 2;
    wanted.hello_mode = 1;
    talk it(wanted);
    EXPECT_EQ(it.heard(), (units{{1, 0, 0, 0, 48, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 0, 4, 0, 0, 1, 0, 0, 0,
                                  0, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}));
}

TEST(Sahara, WholeUpload)
{
    scratch_folder flash;
    settings wanted = small();
    wanted.flash = flash.path;
    talk it(wanted);
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
    EXPECT_EQ(it.say(to_octets("abcd")), (units{read_32(4, 4)}));
    EXPECT_EQ(it.say(to_octets("efgh")), (units{read_32(8, 2)}));
    EXPECT_EQ(it.say(to_octets("ij")), (units{end_image}));
    EXPECT_EQ(flash.content("programmer.bin"), "abcdefghij");
    EXPECT_EQ(it.say(done), (units{done_response_1}));
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
}

TEST(Sahara, RequestsOf64Bits)
{
    settings wanted = small();
    wanted.request_bits = 64;
    wanted.image_id = 0x15;
    talk it(wanted);
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcd")), (units{{18, 0, 0, 0, 32, 0, 0, 0, 0x15, 0, 0, 0, 0, 0, 0, 0,
                                                 4,  0, 0, 0, 0,  0, 0, 0, 4,    0, 0, 0, 0, 0, 0, 0}}));
}

TEST(Sahara, BackwardBlocksLandAtTheirOffsets)
{
    scratch_folder flash;
    settings wanted = small();
    wanted.order = read_order::backward;
    wanted.flash = flash.path;
    talk it(wanted);
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{read_32(8, 2)}));
    EXPECT_EQ(it.say(to_octets("ij")), (units{read_32(4, 4)}));
    EXPECT_EQ(it.say(to_octets("efgh")), (units{read_32(0, 4)}));
    EXPECT_EQ(it.say(to_octets("abcd")), (units{end_image}));
    EXPECT_EQ(flash.content("programmer.bin"), "abcdefghij");
}

TEST(Sahara, PacketsAndBlocksMayArriveByteByByte)
{
    talk it(small());
    it.heard();
    for (size_t i = 0; i + 1 < hello_response.size(); i++)
        EXPECT_EQ(it.say(octets{hello_response[i]}), units{});
    EXPECT_EQ(it.say(octets{0}), (units{read_32(0, 4)}));
    EXPECT_EQ(it.say(to_octets("a")), units{});
    EXPECT_EQ(it.say(to_octets("b")), units{});
    EXPECT_EQ(it.say(to_octets("c")), units{});
    EXPECT_EQ(it.say(to_octets("d")), (units{read_32(4, 4)}));
}

TEST(Sahara, AllBlocksGluedTogether)
{
    talk it(small());
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcdefghij")), (units{read_32(4, 4), read_32(8, 2), end_image}));
}

TEST(Sahara, PlatformZeroReportsDoneWithZero)
{
    settings wanted = small();
    wanted.platform = 0;
    talk it(wanted);
    upload(it);
    EXPECT_EQ(it.say(done), (units{done_response_0}));
    EXPECT_TRUE(it.modem.ended());
}

TEST(Sahara, AnotherDoneStatusKeepsTheBootLoaderRunning)
{
    settings wanted = small();
    wanted.done_status = 0;
    talk it(wanted);
    upload(it);
    EXPECT_EQ(it.say(done), (units{done_response_0}));
    EXPECT_FALSE(it.modem.ended());
    EXPECT_EQ(it.say(reset), units{});
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
    EXPECT_TRUE(it.logged("\"reason\":\"reset by the host\""));
}

TEST(Sahara, EndStatus)
{
    settings wanted = small();
    wanted.end_status = 9;
    wanted.programmer_size = 0;
    talk it(wanted);
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{{4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 9, 0, 0, 0}}));
}

TEST(Sahara, StateResetStartsAnew)
{
    talk it(small());
    upload(it);
    EXPECT_EQ(it.say(state_reset), (units{hello}));
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
}

TEST(Sahara, LoneResetInsteadOfABlockIsObeyed)
{
    settings wanted = small();
    wanted.programmer_size = wanted.read_size = 100;
    talk it(wanted);
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(state_reset), (units{hello}));
    it.say(hello_response);
    EXPECT_EQ(it.say(reset), units{});
    EXPECT_TRUE(it.modem.ended());
}

TEST(Sahara, WithoutHelloItWaitsAndExpectsTheHostsOwnVersion)
{
    settings wanted = small();
    wanted.no_hello = true;
    wanted.hello_version = 7;
    talk it(wanted);
    EXPECT_EQ(it.heard(), units{});
    EXPECT_EQ(it.say(state_reset), units{});
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
}

TEST(Sahara, Mode2IsSentBackToDownloadMode)
{
    settings wanted = small();
    wanted.hello_mode = 2;
    talk it(wanted);
    octets hello_2 = hello;
    hello_2[20] = 2;
    EXPECT_EQ(it.heard(), (units{hello_2}));
    EXPECT_EQ(it.say(enter_download), (units{{241, 0, 0, 0, 8, 0, 0, 0}, hello}));
    EXPECT_EQ(it.last_delay_ms, 200U);
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
}

struct refused_row {
    const char *why;
    octets sent;
    uint8_t status;
};

// Shown as the test's name.
void PrintTo(const refused_row &row, std::ostream *out)
{
    *out << row.why;
}

octets refusal(uint8_t status)
{
    return {4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, status, 0, 0, 0};
}

class SaharaRefused : public testing::TestWithParam<refused_row> {};

TEST_P(SaharaRefused, EndsTheTransferUntilAReset)
{
    talk it(small());
    it.heard();
    EXPECT_EQ(it.say(GetParam().sent), (units{refusal(GetParam().status)}));
    EXPECT_TRUE(it.logged("\"kind\":\"refused\",\"why\":\"" + std::string(GetParam().why) + "\""));
    EXPECT_EQ(it.say(hello_response), (units{refusal(1)})) << "refused until a reset";
    EXPECT_EQ(it.say(state_reset), (units{hello}));
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
}

TEST_P(SaharaRefused, ResetRestartsTheModule)
{
    talk it(small());
    it.heard();
    it.say(GetParam().sent);
    EXPECT_EQ(it.say(reset), units{});
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
}

octets changed(octets packet, size_t at, uint8_t value)
{
    packet[at] = value;
    return packet;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SaharaRefused,
    testing::Values(refused_row{"unknown packet 9", {9, 0, 0, 0, 8, 0, 0, 0}, 1},
                    refused_row{"unknown packet 1836597052", to_octets("<?xml version=\"1.0\"?>"), 1},
                    refused_row{"unknown packet 9", {9, 0, 0, 0, 12, 0, 0, 0, 5, 0, 0, 0}, 1},
                    refused_row{"done packet with length 12", {5, 0, 0, 0, 12, 0, 0, 0}, 5},
                    refused_row{"hello_response packet with length 20",
                                {2, 0, 0, 0, 20, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0},
                                5},
                    refused_row{"DONE at the wrong time", done, 1},
                    refused_row{"HELLO response with a version that is not spoken here",
                                changed(hello_response, 8, 0), 2},
                    refused_row{"HELLO response with a version that is not spoken here",
                                changed(hello_response, 12, 3), 2},
                    refused_row{"HELLO response with status 1", changed(hello_response, 16, 1), 1},
                    refused_row{"HELLO response with mode 3", changed(hello_response, 20, 3), 1},
                    refused_row{"enter download mode although the HELLO mode is not 2", enter_download, 1}));

TEST(Sahara, ReservedWordsOfTheResponseAreNotJudged)
{
    for (size_t at = 24; at < 48; at++) {
        talk it(small());
        it.heard();
        EXPECT_EQ(it.say(changed(hello_response, at, 0xFF)), (units{read_32(0, 4)})) << at;
    }
}

TEST(Sahara, HostOfALaterVersionThatStillSpeaksThisOneIsTaken)
{
    talk it(small());
    it.heard();
    EXPECT_EQ(it.say(changed(hello_response, 8, 3)), (units{read_32(0, 4)}));
}

TEST(Sahara, ModeOfTheHelloMayBeEchoed)
{
    settings wanted = small();
    wanted.hello_mode = 1;
    talk it(wanted);
    it.heard();
    EXPECT_EQ(it.say(changed(hello_response, 20, 1)), (units{read_32(0, 4)}));
}

TEST(Sahara, WhatFollowsAPacketOfTheWrongStateIsHeard)
{
    talk it(small());
    it.heard();
    octets both = done;
    both.insert(both.end(), state_reset.begin(), state_reset.end());
    EXPECT_EQ(it.say(both), (units{refusal(1), hello}));
}

TEST(Sahara, ResetInTheMiddleOfAPacketIsObeyed)
{
    talk it(small());
    it.heard();
    it.say(octets(hello_response.begin(), hello_response.begin() + 20));
    EXPECT_EQ(it.say(state_reset), (units{hello}));
}

TEST(Sahara, TransferThatIsNoWholePacketIsRefused)
{
    talk it(small());
    it.heard();
    it.say(octets{'^'});
    it.modem.end_transfer();
    EXPECT_EQ(it.heard(), (units{refusal(5)}));
    it.say(octets(hello_response.begin(), hello_response.begin() + 20));
    it.modem.end_transfer();
    EXPECT_EQ(it.heard(), (units{refusal(5)}));
    it.say(state_reset);
    it.modem.end_transfer();
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
}

TEST(Sahara, BlockMayComeInManyTransfers)
{
    talk it(small());
    it.heard();
    it.say(hello_response);
    for (const char c : {'a', 'b', 'c'}) {
        EXPECT_EQ(it.say(octets{static_cast<uint8_t>(c)}), units{});
        it.modem.end_transfer();
    }
    EXPECT_EQ(it.say(to_octets("d")), (units{read_32(4, 4)}));
}

TEST(Sahara, AfterAFailedImageOnlyAResetHelps)
{
    settings wanted = small();
    wanted.end_status = 9;
    wanted.programmer_size = 0;
    talk it(wanted);
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(done), (units{refusal(1)}));
    EXPECT_EQ(it.say(state_reset), (units{hello}));
}

TEST(SaharaFault, RefusalThatIsNeverSent)
{
    talk it(with_fault("sahara.refusal=skip"));
    it.heard();
    EXPECT_EQ(it.say(done), units{});
    EXPECT_EQ(it.say(state_reset), (units{hello}));
}

TEST(SaharaFault, SkippedHelloComesAfterTheStateReset)
{
    talk it(with_fault("sahara.hello=skip"));
    EXPECT_EQ(it.heard(), units{});
    EXPECT_EQ(it.say(state_reset), (units{hello}));
}

TEST(SaharaFault, GarbageInsteadOfHello)
{
    talk it(with_fault("sahara.hello=garbage"));
    EXPECT_EQ(it.heard(), (units{{0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A,
                                  0xA5, 0x5A, 0xA5, 0x5A}}));
}

TEST(SaharaFault, RepeatedHello)
{
    talk it(with_fault("sahara.hello=repeat"));
    EXPECT_EQ(it.heard(), (units{hello, hello}));
}

TEST(SaharaFault, TruncatedRequest)
{
    talk it(with_fault("sahara.read=truncate:12@2"));
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
    EXPECT_EQ(it.say(to_octets("abcd")), (units{{3, 0, 0, 0, 20, 0, 0, 0, 13, 0, 0, 0}}));
}

TEST(SaharaFault, HalfAMessageWithoutAByteCount)
{
    talk it(with_fault("sahara.read=truncate"));
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{{3, 0, 0, 0, 20, 0, 0, 0, 13, 0}}));
}

TEST(SaharaFault, SilenceLastsForEver)
{
    talk it(with_fault("sahara.read=silence@2"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcd")), units{});
    EXPECT_EQ(it.say(state_reset), units{});
    EXPECT_TRUE(it.logged("\"kind\":\"fault\",\"step\":\"sahara.read\",\"fault\":\"silence\""));
}

TEST(SaharaFault, SplitHelloIsOneByteAUnit)
{
    talk it(with_fault("sahara.hello=split"));
    const std::vector<octets> heard = it.heard();
    ASSERT_EQ(heard.size(), 48U);
    EXPECT_EQ(heard[0], octets{1});
    EXPECT_EQ(heard[4], octets{48});
}

TEST(SaharaFault, EndTwiceInOneWrite)
{
    talk it(with_fault("sahara.end=twice"));
    it.heard();
    it.say(hello_response);
    it.say(to_octets("abcd"));
    it.say(to_octets("efgh"));
    EXPECT_EQ(it.say(to_octets("ij")), (units{{4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0,
                                               4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0}}));
}

TEST(SaharaFault, WrongPacketIsAsLongAsTheRightOne)
{
    talk it(with_fault("sahara.read=wrong"));
    it.heard();
    EXPECT_EQ(it.say(hello_response),
              (units{{99, 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}));
}

struct number_row {
    const char *fault;
    octets packet;
};

void PrintTo(const number_row &row, std::ostream *out)
{
    *out << row.fault;
}

class SaharaNumber : public testing::TestWithParam<number_row> {};

TEST_P(SaharaNumber, FieldSaysWhatIsPlanned)
{
    talk it(with_fault(GetParam().fault));
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{GetParam().packet}));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SaharaNumber,
    testing::Values(number_row{"sahara.read=length:4294967295",
                               {3, 0, 0, 0, 255, 255, 255, 255, 13, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0}},
                    number_row{"sahara.read=offset:2147483648",
                               {3, 0, 0, 0, 20, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 128, 4, 0, 0, 0}},
                    number_row{"sahara.read=bytes:1",
                               {3, 0, 0, 0, 20, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}}));

TEST(SaharaFault, FieldOf64Bits)
{
    settings wanted = with_fault("sahara.read=bytes:9223372036854775808");
    wanted.request_bits = 64;
    talk it(wanted);
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{{18, 0, 0, 0, 32, 0, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0,
                                              0,  0, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 128}}));
}

TEST(SaharaFault, LostHelloResponseIsNotAnswered)
{
    talk it(with_fault("host.hello=lost"));
    it.heard();
    EXPECT_EQ(it.say(hello_response), units{});
    EXPECT_TRUE(it.logged("\"kind\":\"fault\",\"step\":\"host.hello\",\"fault\":\"lost\""));
    EXPECT_EQ(it.say(state_reset), (units{hello}));
}

TEST(SaharaFault, GarbledDoneIsReportedAsAFailedImage)
{
    talk it(with_fault("host.done=garbled"));
    upload(it);
    EXPECT_EQ(it.say(done), (units{{4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 1, 0, 0, 0}}));
    it.say(reset);
    EXPECT_TRUE(it.modem.ended());
}

TEST(SaharaFault, LostByteOfABlockIsWaitedFor)
{
    talk it(with_fault("sahara.data-in=lost@2"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("ab")), units{});
    EXPECT_EQ(it.say(to_octets("cd")), units{});
    EXPECT_EQ(it.say(to_octets("d")), (units{read_32(4, 4)}));
}

TEST(SaharaFault, SeveralLostBytes)
{
    talk it(with_fault("sahara.data-in=lost:3@1"));
    it.heard();
    it.say(hello_response);
    it.say(to_octets("a"));
    EXPECT_EQ(it.say(to_octets("xyzbc")), units{});
    EXPECT_EQ(it.say(to_octets("d")), (units{read_32(4, 4)}));
}

TEST(SaharaFault, HangUpInsteadOfALateHelloIsLateToo)
{
    settings wanted;
    wanted.faults = {planned("diag=late:700"), planned("sahara.hello=hangup")};
    talk it(wanted);
    it.say(octets{0x4B, 0x65, 0x01, 0x00, 0x54, 0x0F, 0x7E});
    EXPECT_TRUE(it.hung_up);
    EXPECT_EQ(it.last_delay_ms, 700U);
}

TEST(SaharaFault, OverdueRequestWaitsForTheHost)
{
    talk it(with_fault("sahara.read=overdue"));
    it.heard();
    EXPECT_EQ(it.say(hello_response), units{});
    EXPECT_EQ(it.say(to_octets("a")), (units{read_32(0, 4)}));
}

TEST(SaharaFault, LateRequest)
{
    talk it(with_fault("sahara.read=late:600"));
    it.heard();
    EXPECT_EQ(it.say(hello_response), (units{read_32(0, 4)}));
    EXPECT_EQ(it.last_delay_ms, 600U);
}

TEST(SaharaFault, HangUpInsteadOfEnd)
{
    talk it(with_fault("sahara.end=hangup"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcdefghij")), (units{read_32(4, 4), read_32(8, 2)}));
    EXPECT_TRUE(it.hung_up);
}

TEST(SaharaFault, NakIsAnEndStatusOfOne)
{
    talk it(with_fault("sahara.end=nak"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcdefghij")).back(),
              (octets{4, 0, 0, 0, 16, 0, 0, 0, 13, 0, 0, 0, 1, 0, 0, 0}));
}

TEST(SaharaFault, NakIsTheOtherDoneStatus)
{
    talk it(with_fault("sahara.done=nak"));
    upload(it);
    EXPECT_EQ(it.say(done), (units{done_response_0}));
    EXPECT_FALSE(it.modem.ended());
}

TEST(SaharaFault, HangUpInTheMiddleOfABlock)
{
    talk it(with_fault("sahara.data-in=hangup@6"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.modem.input_limit(), 6U);
    it.say(to_octets("abcd"));
    EXPECT_FALSE(it.hung_up);
    EXPECT_EQ(it.modem.input_limit(), 2U);
    it.say(to_octets("ef"));
    EXPECT_TRUE(it.hung_up);
    EXPECT_EQ(it.modem.input_limit(), 0U);
}

TEST(SaharaFault, StallAfterTheLastByteAsksForNothingMore)
{
    talk it(with_fault("sahara.data-in=stall@10"));
    it.heard();
    it.say(hello_response);
    EXPECT_EQ(it.say(to_octets("abcdefghij")), (units{read_32(4, 4), read_32(8, 2)}));
    EXPECT_EQ(it.modem.input_limit(), 0U);
    EXPECT_FALSE(it.modem.ended());
}

} // namespace
} // namespace sim
