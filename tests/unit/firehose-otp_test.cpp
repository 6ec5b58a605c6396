#include "firehose.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "fake_programmer.hpp"
#include "firehose-otp.hpp"
#include "log_capture.hpp"
#include "scripted-port.hpp"
#include "virtual-time.hpp"

#include <gtest/gtest.h>

using texts = std::vector<std::string>;

static const std::string otp_request = "<?xml version=\"1.0\"?>\n<data>\n"
                                       "<getstorageinfo  physical_partition_number=\"0\"/>\n</data>\n";

// "%u" of CORE_ETIMEDOUT, CORE_EPROTO and CORE_ECANCELED.
static const std::string timed_out_unsigned = "4294967186";
static const std::string protocol_error_unsigned = "4294967225";
static const std::string hung_up_unsigned = "4294967171";

namespace {

class Otp : public testing::Test {
  protected:
    Otp()
    {
        device = programmer.open();
        log.clear();
    }
    fake_programmer programmer;
    log_capture log;
    firehose_device *device;
};

class SerialOtp : public testing::Test {
  protected:
    SerialOtp() { EXPECT_EQ(core_device_open(port.path().c_str(), &device.serial_handle), 0); }
    ~SerialOtp() override { firehose_close(&device); }

    scripted_port port;
    firehose_device device{};
    log_capture log;
};

} // namespace

TEST_F(Otp, RequestIs86Bytes)
{
    programmer.takes(otp_request);
    programmer.answers(ack_chunk);
    EXPECT_EQ(get_otp(device), 0);
    EXPECT_EQ(programmer.usb.calls[4], "out 01 86");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{ack_chunk});
    EXPECT_EQ(log.messages().back().file, "../firehose.c");
    EXPECT_EQ(log.messages().back().function, "print_otp_response");
}

TEST_F(Otp, ThreeValuesInThreeChunksAreThreeLines)
{
    programmer.takes(otp_request);
    programmer.answers("<data><log value=\"first\"/></data>");
    programmer.answers("<data><log value=\"second value\"/></data>");
    programmer.answers("<data><log value=\"third\"/></data>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(get_otp(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), (texts{"first", "second value", "third"}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Otp, ChunksAreLoggedBeforeTheirValueIsCut)
{
    programmer.answers("<data><log value=\"first\"/></data>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).front(), "<data><log value=\"first\"/></data>");
}

TEST_F(Otp, OnlyTheFirstValueOfAChunkIsPrinted)
{
    programmer.answers("<log value=\"first\"/><log value=\"second\"/>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"first"});
}

TEST_F(Otp, ChunkWithAckPrintsNoValue)
{
    programmer.answers("<log value=\"first\"/><response value=\"ACK\"/>");
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
}

TEST_F(Otp, EmptyValueIsAnEmptyLine)
{
    programmer.answers("<log value=\"\"/>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{""});
}

TEST_F(Otp, ValueNeedsABlankInFrontOfItsName)
{
    programmer.answers("<log othervalue=\"x\"/>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unexpected response"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
}

TEST_F(Otp, ChunkWithoutAValueIsReportedAndReadingGoesOn)
{
    programmer.answers("<data></data>");
    programmer.answers("<log value=\"after\"/>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unexpected response"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"after"});
}

TEST_F(Otp, ValueWithoutAClosingQuoteEndsTheReadWell)
{
    programmer.answers("<log value=\"cut off");
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"xml value attribute not ended: <log value=\"cut off"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
}

TEST_F(Otp, ValueThatFillsTheChunkEndsTheReadWell)
{
    const std::string chunk = " value=\"" + std::string(1016, 'v');
    programmer.answers(chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{chunk});
    // The message is cut at 1024 characters.
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"xml value attribute not ended:  value=\"" + std::string(985, 'v')});
}

TEST_F(Otp, NakIsPrintedAsAValue)
{
    programmer.answers(nak_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"NAK"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Otp, NakAloneEndsWithTheReadFailure)
{
    programmer.answers(nak_chunk);
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(print_otp_response(device), -110);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"NAK"});
}

TEST_F(Otp, EmptyChunksAreReadAgain)
{
    for (int i = 0; i < 9; ++i)
        programmer.answers_nothing();
    programmer.answers(ack_chunk);
    EXPECT_EQ(print_otp_response(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Otp, TenEmptyChunksInARowEndTheRead)
{
    for (int i = 0; i < 10; ++i)
        programmer.answers_nothing();
    EXPECT_EQ(print_otp_response(device), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"the programmer sends empty answers only",
                                              "error reading otp values " + protocol_error_unsigned}));
}

TEST_F(Otp, AProgrammerThatTalksForFiveMinutesEndsTheRead)
{
    virtual_time::instance().per_read_ms = 300000;
    programmer.answers(log_chunk);
    EXPECT_EQ(print_otp_response(device), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"the programmer sends everything but an answer",
                                              "error reading otp values " + protocol_error_unsigned}));
}

TEST_F(Otp, TimeOutEndsTheRead)
{
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(print_otp_response(device), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error reading otp values " + timed_out_unsigned);
}

TEST_F(Otp, FailedWriteEndsIt)
{
    programmer.takes_with(otp_request, fake_programmer::timed_out, 0);
    EXPECT_EQ(get_otp(device), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending otp request " + timed_out_unsigned);
    EXPECT_EQ(log.messages().back().function, "get_otp");
}

TEST_F(Otp, LooksOnceForWhatStillWaits)
{
    programmer.takes(otp_request);
    programmer.answers(ack_chunk);
    EXPECT_EQ(get_otp(device), 0);
    EXPECT_EQ(programmer.usb.looks, 1);
}

TEST_F(Otp, RefusalThatWaitsEndsItUnasked)
{
    programmer.left_over(nak_chunk);
    EXPECT_EQ(get_otp(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Otp, AnswerTooManyIsNotTheEndOfTheValues)
{
    programmer.left_over(ack_chunk);
    programmer.takes(otp_request);
    programmer.answers("<log value=\"first\"/>");
    programmer.answers(ack_chunk);
    EXPECT_EQ(get_otp(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"first"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

// Behind 10 ms in which nothing waits for the program.
TEST_F(SerialOtp, HalfASecondOfSilenceEndsTheRead)
{
    port.takes(otp_request);
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(get_otp(&device), -110); }), 510);
    EXPECT_EQ(port.waits(), (std::vector<int>{10, 500}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error reading otp values " + timed_out_unsigned});
}

TEST_F(SerialOtp, HangUpEndsTheRead)
{
    port.hangs_up();
    EXPECT_EQ(print_otp_response(&device), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error reading otp values " + hung_up_unsigned});
}

TEST_F(SerialOtp, ValuesOverThePortArePrinted)
{
    port.takes(otp_request);
    port.sends("<log value=\"first\"/>");
    port.sends("<log value=\"second\"/>");
    port.sends(ack_chunk);
    EXPECT_EQ(get_otp(&device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), (texts{"first", "second"}));
}

TEST_F(SerialOtp, ValuesThatArriveTogetherWithTheAckAreNotPrinted)
{
    port.sends("<log value=\"first\"/><log value=\"second\"/>" + ack_chunk);
    EXPECT_EQ(print_otp_response(&device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{});
}
