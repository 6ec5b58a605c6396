#include "firehose-request.hpp"
#include "talk.hpp"

#include <gtest/gtest.h>

namespace sim {
namespace {

const std::string ack =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" />\n</data>";
const std::string nak =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"NAK\" />\n</data>";
const std::string target_reset =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<log value=\"INFO: bsp_target_reset() 1\"/>\n</data>";
const std::string nop = "<?xml version=\"1.0\"?>\n<data>\n<nop value=\"ping\"/>\n</data>\n";
const std::string reset =
    "<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\" DelayInSeconds=\"3\"/>\n</data>\n";
const std::string configure =
    "<?xml version=\"1.0\"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes=\"1048576\" "
    "MemoryName=\"nand\" />\n</data>\n";
const std::string get_otp =
    "<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n</data>\n";
const std::string program_2x4 =
    "<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"4\" filename=\"a.bin\" label=\"a\" "
    "num_partition_sectors=\"2\" start_sector=\"0\"/>\n</data>\n";
const std::string program_none = "<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"4096\" "
                                 "num_partition_sectors=\"0\"/>\n</data>\n";
const std::string erase = "<?xml version=\"1.0\"?>\n<data>\n<erase num_partition_sectors=\"8\"/>\n</data>\n";

std::string log_chunk(const std::string &value)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<log value=\"" + value + "\"/>\n</data>";
}

settings programmer()
{
    settings wanted;
    wanted.start = stage::firehose;
    wanted.plain_answers = true;
    return wanted;
}

settings with_fault(const char *text)
{
    settings wanted = programmer();
    wanted.faults = {planned(text)};
    return wanted;
}

TEST(Firehose, SaysNothingByItself)
{
    talk it(programmer());
    EXPECT_EQ(it.heard_text(), texts{});
}

TEST(Firehose, PlainRequestsAreAcknowledged)
{
    talk it(programmer());
    EXPECT_EQ(it.say(nop), texts{ack});
    EXPECT_EQ(it.say(configure), texts{ack});
    EXPECT_EQ(it.say(erase), texts{ack});
}

TEST(Firehose, RequestCutAtEveryByte)
{
    for (size_t cut = 1; cut < nop.size(); cut++) {
        talk it(programmer());
        EXPECT_EQ(it.say(nop.substr(0, cut)), texts{}) << cut;
        EXPECT_EQ(it.say(nop.substr(cut)), texts{ack}) << cut;
        EXPECT_TRUE(it.logged("\"kind\":\"nop\",\"length\":57,")) << cut;
    }
}

TEST(Firehose, RequestByteByByte)
{
    talk it(programmer());
    texts answers;
    for (const char c : nop + erase)
        for (const std::string &text : it.say(std::string(1, c)))
            answers.push_back(text);
    EXPECT_EQ(answers, (texts{ack, ack}));
}

TEST(Firehose, GluedRequestsAreAnsweredOneByOne)
{
    talk it(programmer());
    EXPECT_EQ(it.say(nop + configure + erase), (texts{ack, ack, ack}));
}

TEST(Firehose, MissingLineFeedIsWaitedForThenDoneWithout)
{
    talk it(programmer());
    EXPECT_EQ(it.say(nop.substr(0, nop.size() - 1)), texts{});
    ASSERT_TRUE(it.modem.wants_quiet());
    it.modem.settled();
    EXPECT_EQ(it.heard_text(), texts{ack});
    EXPECT_FALSE(it.modem.wants_quiet());
    EXPECT_EQ(it.say("\n" + nop), texts{ack});
}

TEST(Firehose, ProgramTakesTheAnnouncedBytes)
{
    scratch_folder flash;
    settings wanted = programmer();
    wanted.flash = flash.path;
    talk it(wanted);
    EXPECT_EQ(it.say(program_2x4), texts{ack});
    EXPECT_EQ(it.say(std::string("\n12")), texts{});
    EXPECT_EQ(it.say(std::string("34</d")), texts{ack});
    EXPECT_EQ(flash.content("000-program.xml"), program_2x4);
    EXPECT_EQ(flash.content("000-program.bin"), "\n1234</d");
    EXPECT_TRUE(it.logged(
        "\"kind\":\"program\",\"length\":143,\"element\":\"program\",\"SECTOR_SIZE_IN_BYTES\":\"4\","
        "\"num_partition_sectors\":\"2\",\"label\":\"a\""));
}

TEST(Firehose, DataAndNextRequestGluedToTheProgramRequest)
{
    scratch_folder flash;
    settings wanted = programmer();
    wanted.flash = flash.path;
    talk it(wanted);
    EXPECT_EQ(it.say(program_2x4 + "12345678" + erase), (texts{ack, ack, ack}));
    EXPECT_EQ(flash.content("000-program.bin"), "12345678");
    EXPECT_EQ(flash.content("001-erase.xml"), erase);
}

TEST(Firehose, DataChecksumInTheTranscript)
{
    talk it(programmer());
    std::string request = program_2x4;
    request.replace(request.find("BYTES=\"4\""), 9, "BYTES=\"9\"");
    request.replace(request.find("sectors=\"2\""), 11, "sectors=\"1\"");
    it.say(request + "123456789");
    EXPECT_TRUE(it.logged("\"kind\":\"data\",\"length\":9,\"crc32\":\"cbf43926\"}"));
}

TEST(Firehose, ProgramOfNoSectorsIsAcknowledgedTwice)
{
    talk it(programmer());
    EXPECT_EQ(it.say(program_none), (texts{ack, ack}));
}

TEST(Firehose, ProgramWithoutReadableSizesIsRefused)
{
    for (const char *line :
         {"<program num_partition_sectors=\"2\"/>", "<program SECTOR_SIZE_IN_BYTES=\"512\"/>",
          "<program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"-1\"/>",
          "<program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"\"/>",
          "<program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"2147483648\"/>"}) {
        talk it(programmer());
        EXPECT_EQ(it.say("<?xml version=\"1.0\"?>\n<data>\n" + std::string(line) + "\n</data>\n"), texts{nak})
            << line;
    }
}

TEST(Firehose, SizesBeyond32BitsAreCounted)
{
    talk it(programmer());
    it.say(std::string("<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"4294967295\" "
                       "num_partition_sectors=\"2147483647\"/>\n</data>\n"));
    EXPECT_EQ(it.say(std::string(100000, 'x')), texts{});
    EXPECT_FALSE(it.modem.ended());
}

TEST(Firehose, CounterOffer)
{
    settings wanted = programmer();
    wanted.payload = 16384;
    talk it(wanted);
    EXPECT_EQ(it.say(configure),
              (texts{"<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"NAK\" "
                     "MaxPayloadSizeToTargetInBytesSupported=\"16384\" />\n</data>"}));
}

TEST(Firehose, CounterOfferThatTheHostMeetsIsAnAck)
{
    settings wanted = programmer();
    wanted.payload = 1048576;
    talk it(wanted);
    EXPECT_EQ(it.say(configure), texts{ack});
}

TEST(Firehose, OtpValuesComeOneByOneBeforeTheAck)
{
    settings wanted = programmer();
    wanted.otp = {"one", "two"};
    talk it(wanted);
    EXPECT_EQ(it.say(get_otp), (texts{log_chunk("one"), log_chunk("two"), ack}));
}

TEST(Firehose, UnknownElementsAreAcknowledgedAndRecorded)
{
    scratch_folder flash;
    settings wanted = programmer();
    wanted.flash = flash.path;
    talk it(wanted);
    const std::string request = "<?xml version=\"1.0\"?>\n<data>\n<../fancy x=\"1\"/>\n</data>\n";
    EXPECT_EQ(it.say(request), texts{ack});
    EXPECT_EQ(flash.content("000-___fancy.xml"), "(no file)");
    EXPECT_EQ(flash.content("000-__.xml"), request);
    EXPECT_TRUE(it.logged("\"kind\":\"unknown\""));
}

TEST(Firehose, EmptyFrameIsRefused)
{
    talk it(programmer());
    EXPECT_EQ(it.say(std::string("<?xml version=\"1.0\"?>\n<data>\n\n</data>\n")), texts{nak});
}

TEST(Firehose, ResetOfPlatformZero)
{
    settings wanted = programmer();
    wanted.platform = 0;
    talk it(wanted);
    EXPECT_EQ(it.say(reset), texts{ack});
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
}

TEST(Firehose, ResetOfTheOtherPlatformsNamesTheTargetReset)
{
    for (const uint32_t platform : {1U, 2U}) {
        settings wanted = programmer();
        wanted.platform = platform;
        talk it(wanted);
        EXPECT_EQ(it.say(reset), (texts{ack, target_reset}));
        EXPECT_TRUE(it.modem.ended());
    }
}

TEST(Firehose, AnotherPowerValueDoesNotReset)
{
    talk it(programmer());
    EXPECT_EQ(it.say(std::string("<?xml version=\"1.0\"?>\n<data>\n<power value=\"off\"/>\n</data>\n")),
              texts{ack});
    EXPECT_FALSE(it.modem.ended());
}

TEST(Firehose, StayingReturnsToNormalMode)
{
    settings wanted = programmer();
    wanted.stay = true;
    wanted.platform = 0;
    talk it(wanted);
    it.say(reset);
    EXPECT_STREQ(it.modem.stage_name(), "normal");
    EXPECT_EQ(it.say(std::string("AT\r")), (texts{"AT\r\r\nOK\r\n"}));
}

TEST(Firehose, LogMessagesAroundAnswers)
{
    settings wanted = programmer();
    wanted.log_start = 1;
    wanted.log_before = 2;
    wanted.log_after = 1;
    talk it(wanted);
    const std::string one = log_chunk("INFO: programmer line 1");
    const std::string two = log_chunk("INFO: programmer line 2");
    EXPECT_EQ(it.heard_text(), texts{one});
    EXPECT_EQ(it.say(nop), (texts{one, two, ack, one}));
}

TEST(Firehose, GluedDeliveryIsOneWrite)
{
    settings wanted = programmer();
    wanted.how = delivery::glued;
    talk it(wanted);
    EXPECT_EQ(it.say(program_none), texts{ack + ack});
}

TEST(Firehose, DeliveryInBytesIsOneWriteEach)
{
    settings wanted = programmer();
    wanted.how = delivery::bytes;
    talk it(wanted);
    const texts answer = it.say(nop);
    ASSERT_EQ(answer.size(), 79U);
    EXPECT_EQ(answer[0], "<");
    EXPECT_EQ(answer[1], "?");
    EXPECT_EQ(answer[78], ">");
}

TEST(Firehose, BytesThatAreNoRequestAreRefusedWithAllThatCameWithThem)
{
    for (const char *bad : {"x", "\n<?xml", "<?xl", "<data>"}) {
        talk it(programmer());
        EXPECT_EQ(it.say(bad + nop), texts{nak}) << bad;
        EXPECT_TRUE(it.logged("\"kind\":\"bad_request\"")) << bad;
        EXPECT_EQ(it.say(nop), texts{ack}) << bad;
    }
}

TEST(Firehose, PacketsOfTheBootLoaderAreRefused)
{
    talk it(programmer());
    EXPECT_EQ(it.say(octets{19, 0, 0, 0, 8, 0, 0, 0}), units{to_octets(nak)});
    EXPECT_EQ(it.say(octets{7, 0, 0, 0, 8, 0, 0, 0}), units{to_octets(nak)}) << "not the first it hears";
    EXPECT_EQ(it.say(nop), texts{ack});
}

TEST(Firehose, TooManyDataBytesAreRefused)
{
    talk it(programmer());
    EXPECT_EQ(it.say(program_2x4 + "123456789"), (texts{ack, ack, nak}));
}

TEST(Firehose, RequestWithoutEndIsRefused)
{
    talk it(programmer());
    EXPECT_EQ(it.say("<?xml" + std::string(70000, ' ')), texts{nak});
    EXPECT_EQ(it.say(nop), texts{ack});
}

TEST(Firehose, RequestThatWasCutOffDoesNotSpoilTheNextOne)
{
    talk it(programmer());
    EXPECT_EQ(it.say(nop.substr(0, 20)), texts{});
    EXPECT_EQ(it.say(nop), texts{ack});
}

TEST(Firehose, ConfigureMayLeaveThePayloadToTheProgrammer)
{
    talk it(programmer());
    EXPECT_EQ(it.say("<?xml version=\"1.0\"?>\n<data>\n<configure MemoryName=\"nand\"/>\n</data>\n"),
              texts{ack});
    EXPECT_EQ(
        it.say(
            "<?xml version=\"1.0\"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes=\"x\"/>\n</data>\n"),
        texts{nak});
}

TEST(Firehose, ResetOfTheBootLoaderThatComesLateEndsTheRun)
{
    talk it(programmer());
    EXPECT_EQ(it.say(octets{7, 0, 0, 0, 8, 0, 0, 0}), units{});
    ASSERT_TRUE(it.modem.ended());
    EXPECT_EQ(it.modem.how(), ending::complete);
}

TEST(Firehose, FolderThatCannotBeMadeIsASystemError)
{
    settings wanted = programmer();
    wanted.flash = "/proc/no-such-place/x";
    talk it(wanted);
    EXPECT_FALSE(it.started);
    EXPECT_EQ(it.modem.how(), ending::system_error);
    EXPECT_EQ(it.modem.trouble(), "/proc/no-such-place/x: No such file or directory");
}

TEST(Firehose, DiscardKeepsRequestsButNoData)
{
    scratch_folder flash;
    settings wanted = programmer();
    wanted.flash = flash.path;
    wanted.discard = true;
    talk it(wanted);
    EXPECT_EQ(it.say(program_2x4 + "12345678"), (texts{ack, ack}));
    EXPECT_EQ(flash.content("000-program.xml"), program_2x4);
    EXPECT_EQ(flash.content("000-program.bin"), "(no file)");
    EXPECT_TRUE(it.logged("\"kind\":\"data\",\"length\":8}"));
}

TEST(FirehoseFault, NakAtEveryAnswer)
{
    struct {
        const char *step;
        std::string request;
        texts answer;
    } const rows[] = {
        {"firehose.nop=nak", nop, {nak}},
        {"firehose.configure=nak", configure, {nak}},
        {"firehose.program=nak", program_none, {nak}},
        {"firehose.data=nak", program_none, {ack, nak}},
        {"firehose.erase=nak", erase, {nak}},
        {"firehose.otp=nak", get_otp, {nak}},
        {"firehose.reset=nak", reset, {nak}},
        {"firehose.target-reset=skip", reset, {ack}},
    };
    for (const auto &row : rows) {
        talk it(with_fault(row.step));
        EXPECT_EQ(it.say(row.request), row.answer) << row.step;
    }
}

TEST(FirehoseFault, RefusedProgramRequestTakesNoData)
{
    talk it(with_fault("firehose.program=nak"));
    it.say(program_2x4);
    EXPECT_EQ(it.say(reset), (texts{ack, target_reset}));
}

TEST(FirehoseFault, RefusedResetDoesNotEndTheRun)
{
    talk it(with_fault("firehose.reset=nak"));
    it.say(reset);
    EXPECT_FALSE(it.modem.ended());
}

TEST(FirehoseFault, EveryTime)
{
    talk it(with_fault("firehose.nop=late:250@all"));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(it.say(nop), texts{ack});
        EXPECT_EQ(it.last_delay_ms, 250U);
    }
}

TEST(FirehoseFault, TruncatedOtpValue)
{
    settings wanted = with_fault("firehose.otp=truncate:61");
    wanted.otp = {"abcdef"};
    talk it(wanted);
    EXPECT_EQ(it.say(get_otp),
              (texts{"<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<log value=\"ab", ack}));
}

TEST(FirehoseFault, HangUpWhileDataArrive)
{
    talk it(with_fault("firehose.data-in=hangup@5"));
    it.say(program_2x4);
    EXPECT_EQ(it.modem.input_limit(), 5U);
    EXPECT_EQ(it.say(std::string("12345678")), texts{});
    EXPECT_TRUE(it.hung_up);
}

TEST(FirehoseFault, StallCountsOverAllImages)
{
    talk it(with_fault("firehose.data-in=stall@12"));
    EXPECT_EQ(it.say(program_2x4 + "12345678"), (texts{ack, ack}));
    it.say(program_2x4);
    EXPECT_EQ(it.modem.input_limit(), 4U);
    EXPECT_EQ(it.say(std::string("1234")), texts{});
    EXPECT_EQ(it.modem.input_limit(), 0U);
    EXPECT_FALSE(it.hung_up);
}

TEST(FirehoseFault, AnswerInTwoUnits)
{
    talk it(with_fault("firehose.nop=halves:60"));
    EXPECT_EQ(it.say(nop), (texts{"<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response val",
                                  "ue=\"ACK\" />\n</data>"}));
}

TEST(FirehoseFault, AnswerInTwoHalves)
{
    talk it(with_fault("firehose.nop=halves"));
    const texts answer = it.say(nop);
    ASSERT_EQ(answer.size(), 2U);
    EXPECT_EQ(answer[0].size(), 39U);
    EXPECT_EQ(answer[0] + answer[1], ack);
}

TEST(FirehoseFault, NulByteBetweenTwoMessagesOfOneUnit)
{
    settings wanted = with_fault("firehose.log=nul");
    wanted.log_before = 1;
    talk it(wanted);
    EXPECT_EQ(it.say(nop), texts{log_chunk("INFO: programmer line 1") + '\0' + ack});
}

TEST(FirehoseRequest, AttributesMatchWholeNamesOnly)
{
    const char *line = "<program xlabel=\"no\" label=\"yes\" empty=\"\" filename=\"a b\"/>";
    EXPECT_EQ(attribute(line, "label"), "yes");
    EXPECT_EQ(attribute(line, "empty"), "");
    EXPECT_EQ(attribute(line, "filename"), "a b");
    EXPECT_FALSE(attribute(line, "name"));
    EXPECT_FALSE(attribute("<program label=\"open>", "label"));
    EXPECT_FALSE(attribute("<program>", "label"));
}

TEST(FirehoseFault, LogIsGluedToTheAnswerBehindIt)
{
    settings wanted = with_fault("firehose.log=glue");
    wanted.log_before = 2;
    talk it(wanted);
    const std::string first = log_chunk("INFO: programmer line 1");
    const std::string second = log_chunk("INFO: programmer line 2");
    EXPECT_EQ(it.say(nop), (texts{first + second, ack}));
}

TEST(FirehoseFault, WrongAnswerIsNeitherAckNorNak)
{
    talk it(with_fault("firehose.nop=wrong"));
    EXPECT_EQ(it.say(nop), texts{"<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response "
                                 "value=\"WAIT\" />\n</data>"});
}

TEST(FirehoseFault, LostRequestIsNotAnswered)
{
    talk it(with_fault("host.nop=lost"));
    EXPECT_EQ(it.say(nop), texts{});
    EXPECT_EQ(it.say(nop), texts{ack});
}

TEST(FirehoseFault, GarbledRequestIsRefused)
{
    talk it(with_fault("host.erase=garbled"));
    EXPECT_EQ(it.say(erase), texts{nak});
}

TEST(FirehoseFault, LostDataAreWaitedFor)
{
    talk it(with_fault("firehose.data-in=lost:2@3"));
    it.say(program_2x4);
    EXPECT_EQ(it.say("abcdefgh"), texts{});
    EXPECT_EQ(it.say("ij"), texts{ack});
}

TEST(FirehoseFault, CounterOfferBeyond32Bits)
{
    settings wanted = programmer();
    wanted.payload = uint64_t{1} << 63;
    talk it(wanted);
    EXPECT_EQ(it.say(configure),
              texts{"<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"NAK\" "
                    "MaxPayloadSizeToTargetInBytesSupported=\"9223372036854775808\" />\n</data>"});
}

} // namespace
} // namespace sim
