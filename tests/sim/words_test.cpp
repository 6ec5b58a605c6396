// What the programmer says unless it is asked to be plain, message by message.
#include "firehose-words.hpp"
#include "talk.hpp"

#include <gtest/gtest.h>

namespace sim {
namespace {

const std::string begin = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>";
const std::string ack = begin + "<response value=\"ACK\" /></data>";
const std::string nak = begin + "<response value=\"NAK\" /></data>";
const std::string ack_raw = begin + "<response value=\"ACK\" rawmode=\"true\" /></data>";
const std::string ack_end = begin + "<response value=\"ACK\" rawmode=\"false\" /></data>";
const std::string nak_end = begin + "<response value=\"NAK\" rawmode=\"false\" /></data>";

std::string log(const std::string &value)
{
    return begin + "<log value=\"" + value + "\" /></data>";
}

std::string calling(const std::string &element)
{
    return log("INFO: Calling handler for " + element);
}

std::string request(const std::string &element)
{
    return "<?xml version=\"1.0\"?>\n<data>\n" + element + "\n</data>\n";
}

const std::string nop = request("<nop value=\"ping\"/>");
const std::string configure =
    request("<configure MaxPayloadSizeToTargetInBytes=\"1048576\" MemoryName=\"nand\" />");
const std::string program = request("<program SECTOR_SIZE_IN_BYTES=\"4\" num_partition_sectors=\"2\"/>");

settings programmer()
{
    settings wanted;
    wanted.start = stage::firehose;
    return wanted;
}

// The programmer after its start-up lines.
class started : public talk {
  public:
    explicit started(const settings &wanted) : talk(wanted) { heard(); }
};

started with_fault(const char *text)
{
    settings wanted = programmer();
    wanted.faults = {planned(text)};
    return started(wanted);
}

TEST(Words, StartUpLinesAreMessagesOfTheirOwn)
{
    talk it(programmer());
    EXPECT_EQ(it.heard_text(),
              (texts{log("INFO: Programmer &quot;KX910&quot; 4.2 (NAND &amp; nothing else)"),
                     log("INFO: Binary build date: Jun 12 2023 @ 10:11:12"),
                     log("INFO: Supported functions: program erase nop patch configure power getstorageinfo"),
                     log("INFO: End of supported functions")}));
}

TEST(Words, PingAndErase)
{
    started it(programmer());
    EXPECT_EQ(it.say(nop), (texts{calling("nop"), ack}));
    EXPECT_EQ(it.say(request("<erase num_partition_sectors=\"8\"/>")), (texts{calling("erase"), ack}));
}

TEST(Words, ConfigureIsAnsweredWithTheFullList)
{
    started it(programmer());
    EXPECT_EQ(it.say(configure),
              (texts{calling("configure"),
                     begin + "<response value=\"ACK\" MinVersionSupported=\"1\" MemoryName=\"NAND\" "
                             "MaxPayloadSizeFromTargetInBytes=\"4096\" "
                             "MaxPayloadSizeToTargetInBytes=\"1048576\" "
                             "MaxPayloadSizeToTargetInBytesSupported=\"1048576\" MaxXMLSizeInBytes=\"4096\" "
                             "Version=\"1\" TargetName=\"KX910\" /></data>"}));
}

TEST(Words, CounterOfferHasTheSameListBehindItsReason)
{
    settings wanted = programmer();
    wanted.payload = 8192;
    started it(wanted);
    EXPECT_EQ(
        it.say(configure),
        (texts{calling("configure"), log("ERROR: MaxPayloadSizeToTargetInBytes 1048576 is not supported"),
               begin + "<response value=\"NAK\" MinVersionSupported=\"1\" MemoryName=\"NAND\" "
                       "MaxPayloadSizeFromTargetInBytes=\"4096\" MaxPayloadSizeToTargetInBytes=\"8192\" "
                       "MaxPayloadSizeToTargetInBytesSupported=\"8192\" MaxXMLSizeInBytes=\"4096\" "
                       "Version=\"1\" TargetName=\"KX910\" /></data>"}));
}

TEST(Words, RawModeBeginsAndEnds)
{
    started it(programmer());
    EXPECT_EQ(it.say(program), (texts{calling("program"), ack_raw}));
    EXPECT_EQ(it.say(std::string("12345678")), (texts{log("INFO: Programmed 8 bytes"), ack_end}));
}

TEST(Words, RefusalHasItsReasonBefore)
{
    started it(programmer());
    EXPECT_EQ(it.say(request("<program num_partition_sectors=\"2\"/>")),
              (texts{calling("program"), log("ERROR: a program request without sizes"), nak_end}));
    EXPECT_EQ(it.say(request("")), (texts{log("ERROR: a request without an element"), nak}));
    EXPECT_EQ(it.say(std::string("rubbish")), (texts{log("ERROR: bytes that are no request"), nak}));
}

TEST(Words, PlannedRefusalHasAReasonBeforeToo)
{
    const std::string reason = log("ERROR: not carried out");
    started erase = with_fault("firehose.erase=nak");
    EXPECT_EQ(erase.say(request("<erase num_partition_sectors=\"8\"/>")),
              (texts{calling("erase"), reason, nak}));
    started programming = with_fault("firehose.program=nak");
    EXPECT_EQ(programming.say(program), (texts{calling("program"), reason, nak_end}));
    started data = with_fault("firehose.data=nak");
    data.say(program);
    EXPECT_EQ(data.say(std::string("12345678")), (texts{log("INFO: Programmed 8 bytes"), reason, nak_end}));
}

TEST(Words, OnlyValuesAreReportedForTheStorageInformation)
{
    settings wanted = programmer();
    wanted.otp = {"one"};
    started it(wanted);
    EXPECT_EQ(it.say(request("<getstorageinfo  physical_partition_number=\"0\"/>")),
              (texts{log("one"), ack}));
}

TEST(Words, ResetTellsOfTheTargetReset)
{
    started it(programmer());
    EXPECT_EQ(it.say(request("<power value=\"reset\" DelayInSeconds=\"3\"/>")),
              (texts{calling("power"), ack, log("INFO: bsp_target_reset() 1")}));
}

TEST(Words, AskedForLogLinesComeOnTop)
{
    settings wanted = programmer();
    wanted.log_before = 1;
    started it(wanted);
    EXPECT_EQ(it.say(nop), (texts{calling("nop"), log("INFO: programmer line 1"), ack}));
}

TEST(Words, NoLogLineLooksLikeAnAnswer)
{
    started it(programmer());
    for (const std::string &text : it.say(nop + configure + program + "12345678" + nop))
        EXPECT_EQ(text.find("<log") == std::string::npos, text.find("value=\"ACK\"") != std::string::npos)
            << text;
}

TEST(Words, EscapedTextHoldsNothingThatEndsAValue)
{
    EXPECT_EQ(firehose_words::escaped("a<b> \"c\" & d"), "a&lt;b> &quot;c&quot; &amp; d");
}

} // namespace
} // namespace sim
