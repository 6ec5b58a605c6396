#include "firehose.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "fake_programmer.hpp"
#include "file-identity.hpp"
#include "firehose-session.hpp"
#include "image-list.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "open-descriptors.hpp"
#include "package-check.hpp"
#include "scripted-port.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

using texts = std::vector<std::string>;
using pauses = std::vector<unsigned>;

// "%u" of CORE_EIO, CORE_EAGAIN, CORE_EGENERIC and CORE_ETIMEDOUT.
static const std::string io_error_unsigned = "4294967291";
static const std::string try_again_unsigned = "4294967285";
static const std::string failure_unsigned = "4294967194";
static const std::string timed_out_unsigned = "4294967186";

static const std::string ack_and_nak_chunk =
    "<data><response value=\"NAK\" /></data><data><response value=\"ACK\" /></data>";
static const std::string target_reset_chunk = "<data><log value=\"bsp_target_reset() 1\" /></data>";

namespace {

class Usb : public testing::Test {
  protected:
    fake_programmer programmer;
    log_capture log;
};

class Serial : public testing::Test {
  protected:
    Serial()
    {
        EXPECT_EQ(core_device_open(port.path().c_str(), &device.serial_handle), 0);
        EXPECT_NE(device.serial_handle, 0);
    }
    ~Serial() override { firehose_close(&device); }

    scripted_port port;
    firehose_device device{};
    log_capture log;
};

class Update : public Usb {
  protected:
    Update()
    {
        m->is_pcie = false;
        package->image_count = MAX_IMAGE_NUMBER;
        package->platform = 0;
    }
    void add_command(const char *line)
    {
        image &img = package->images[next++];
        strlcpy(img.command, line, sizeof img.command);
    }
    int run(bool otp = false) { return firehose_update(m.get(), package.get(), otp); }
    void greets()
    {
        programmer.takes(ping_request);
        programmer.answers(ack_chunk);
        programmer.takes(configure_request);
        programmer.answers(ack_chunk);
    }
    void resets()
    {
        programmer.takes(reset_request);
        programmer.answers(ack_chunk);
    }

    std::unique_ptr<modem> m = std::make_unique<modem>();
    std::unique_ptr<image_list> package = std::make_unique<image_list>();
    uint32_t next = 0;
};

class PcieUpdate : public testing::Test {
  protected:
    PcieUpdate()
    {
        m->is_pcie = true;
        strlcpy(m->modem_port[0].port_name, port.path().c_str(), sizeof m->modem_port[0].port_name);
        m->modem_port[0].port_type = PORT_FIRMWARE_UPDATE;
        m->modem_port_size = 1;
        package->image_count = MAX_IMAGE_NUMBER;
        fake_libusb::instance().reset();
    }
    ~PcieUpdate() override
    {
        fake_libusb::instance().verify();
        EXPECT_TRUE(fake_libusb::instance().calls.empty());
    }

    scripted_port port;
    std::unique_ptr<modem> m = std::make_unique<modem>();
    std::unique_ptr<image_list> package = std::make_unique<image_list>();
    log_capture log;
};

} // namespace

// --- open and close

TEST_F(Usb, OpensTheDownloadDevice)
{
    programmer.open();
    EXPECT_EQ(programmer.usb.calls, (texts{"init", "option 3", "open 05c6:9008"}));
}

TEST_F(Usb, OpenReportsAMissingDevice)
{
    programmer.usb.devices[0].pid = 0x9009;
    const auto m = std::make_unique<modem>();
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not open device 0x05C6:0x9008\n"});
}

TEST_F(Usb, OpenLeavesNothingOpenWhenTheKernelDriverDoesNotLetGo)
{
    programmer.usb.devices[0].interfaces[0].driver_active = true;
    programmer.usb.devices[0].interfaces[0].detach_result = -1;
    programmer.usb.devices[0].interfaces.push_back(programmer.usb.devices[0].interfaces[0]);
    programmer.usb.devices[0].interfaces[1].number = 1;
    programmer.usb.devices[0].interfaces[1].driver_active = false;
    const auto m = std::make_unique<modem>();
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), -1);
    EXPECT_EQ(programmer.usb.open_handles, 0);
}

TEST_F(Usb, CloseReleasesTheDevice)
{
    const auto m = std::make_unique<modem>();
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), 0);
    firehose_close(&device);
    EXPECT_EQ(programmer.usb.open_handles, 0);
    EXPECT_EQ(programmer.usb.open_contexts, 0);
}

TEST_F(PcieUpdate, OpensTheDownloadPort)
{
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), 0);
    EXPECT_GT(device.serial_handle, 0);
    EXPECT_EQ(scripted_port::of(device.serial_handle), &port);
    firehose_close(&device);
}

TEST_F(PcieUpdate, OpenReportsAPortThatIsMissing)
{
    strlcpy(m->modem_port[0].port_name, "/nonexistent/port", sizeof m->modem_port[0].port_name);
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), -2);
}

TEST_F(PcieUpdate, OpenFailsWithoutADownloadPort)
{
    m->modem_port[0].port_type = PORT_DIAGNOSTIC;
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), -2);
}

TEST_F(PcieUpdate, CloseClosesThePort)
{
    const size_t before = open_descriptors();
    firehose_device device{};
    EXPECT_EQ(firehose_open(m.get(), &device), 0);
    firehose_close(&device);
    EXPECT_EQ(open_descriptors(), before);
}

// --- firehose_read

TEST_F(Usb, ReadAsksFor1024BytesWithTheEndpointsOwnTimeOut)
{
    firehose_device *const device = programmer.open();
    programmer.answers("<data/>");
    firehose_chunk chunk;
    EXPECT_EQ(firehose_read(device, 500, &chunk), 0);
    EXPECT_EQ(std::string(chunk.text), "<data/>");
    EXPECT_EQ(chunk.size, 7U);
    EXPECT_EQ(programmer.usb.calls[4], "in 81 1024");
    EXPECT_EQ(programmer.usb.timeouts, std::vector<unsigned>{30000});
}

TEST_F(Usb, ReadTerminatesAChunkOfExactly1024Bytes)
{
    firehose_device *const device = programmer.open();
    programmer.answers(std::string(1024, 'x'));
    firehose_chunk chunk;
    memset(&chunk, 'y', sizeof chunk);
    EXPECT_EQ(firehose_read(device, 500, &chunk), 0);
    EXPECT_EQ(chunk.size, 1024U);
    EXPECT_EQ(std::string(chunk.text), std::string(1024, 'x'));
}

TEST_F(Usb, ReadReportsATimeOut)
{
    firehose_device *const device = programmer.open();
    programmer.answers_nothing(fake_programmer::timed_out);
    firehose_chunk chunk;
    EXPECT_EQ(firehose_read(device, 500, &chunk), -110);
    EXPECT_EQ(chunk.size, 0U);
}

TEST_F(Serial, ReadTakesAtMost1024Bytes)
{
    port.sends(std::string(1024, 'x') + "rest");
    firehose_chunk chunk;
    EXPECT_EQ(firehose_read(&device, 500, &chunk), 0);
    EXPECT_EQ(std::string(chunk.text), std::string(1024, 'x'));
    EXPECT_EQ(firehose_read(&device, 500, &chunk), 0);
    EXPECT_EQ(std::string(chunk.text), "rest");
}

TEST_F(Serial, ReadReportsSilence)
{
    firehose_chunk chunk;
    EXPECT_EQ(firehose_read(&device, 20, &chunk), -110);
    EXPECT_EQ(chunk.size, 0U);
}

// --- firehose_write

TEST_F(Usb, WriteGoesOnWhereTheDeviceStopped)
{
    firehose_device *const device = programmer.open();
    programmer.takes_with("abcdefgh", 0, 3);
    programmer.takes_with("defgh", 0, 4);
    programmer.takes("h");
    EXPECT_EQ(firehose_write(device, "abcdefgh", 8), 0);
}

TEST_F(Usb, WriteEndsWithATimeOut)
{
    firehose_device *const device = programmer.open();
    programmer.takes_with("abcdefgh", fake_programmer::timed_out, 3);
    EXPECT_EQ(firehose_write(device, "abcdefgh", 8), -110);
    EXPECT_EQ(virtual_time::instance().slept, pauses{});
}

TEST_F(Usb, WriteEndsWithTheErrorOfAClaim)
{
    firehose_device *const device = programmer.open();
    programmer.usb.claim_result = -6;
    EXPECT_EQ(firehose_write(device, "abcdefgh", 8), -6);
}

TEST_F(Usb, WriteGivesUpOnADeviceThatTakesNothingTenTimes)
{
    firehose_device *const device = programmer.open();
    for (int i = 0; i < 10; ++i)
        programmer.takes_with("abc", fake_programmer::gone, 0);
    EXPECT_EQ(firehose_write(device, "abc", 3), -71);
}

TEST_F(Serial, WriteGivesUpAfterFiveBackPressuresOneSecondApart)
{
    for (int i = 0; i < 5; ++i)
        port.refuses_a_write(EAGAIN);
    EXPECT_EQ(firehose_write(&device, "abc", 3), -11);
    EXPECT_EQ(virtual_time::instance().slept, (pauses{1000, 1000, 1000, 1000, 1000}));
}

TEST_F(Serial, WriteSucceedsAfterFourBackPressures)
{
    for (int i = 0; i < 4; ++i)
        port.refuses_a_write(EAGAIN);
    port.takes("abc");
    EXPECT_EQ(firehose_write(&device, "abc", 3), 0);
    EXPECT_EQ(virtual_time::instance().slept, (pauses{1000, 1000, 1000, 1000}));
}

TEST_F(Serial, WriteCountsBackPressuresAcrossProgress)
{
    const std::string data(200000, 'd');
    for (int i = 0; i < 2; ++i)
        port.refuses_a_write(EAGAIN);
    port.takes_at_most(4096);
    for (int i = 0; i < 3; ++i)
        port.refuses_a_write(EAGAIN);
    port.takes(std::string(4096, 'd'));
    EXPECT_EQ(firehose_write(&device, data.data(), data.size()), -11);
}

TEST_F(Serial, WriteEndsAtOnceWithAnotherError)
{
    port.refuses_a_write(EIO);
    EXPECT_EQ(firehose_write(&device, "abc", 3), -5);
}

// --- read_ack_nack

TEST_F(Usb, AckEndsTheWait)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_chunk);
    log.clear();
    EXPECT_EQ(read_ack_nack(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{ack_chunk});
    EXPECT_EQ(log.messages().back().file, "../firehose.c");
    EXPECT_EQ(log.messages().back().function, "read_ack_nack");
}

TEST_F(Usb, LogChunksBeforeTheAckAreSkipped)
{
    firehose_device *const device = programmer.open();
    programmer.answers(log_chunk);
    programmer.answers(log_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(read_ack_nack(device), 0);
    EXPECT_EQ(log.count(CORE_LOG_DBG, log_chunk), 2);
}

TEST_F(Usb, NakIsLoggedWholeAsAnError)
{
    firehose_device *const device = programmer.open();
    programmer.answers(nak_chunk);
    EXPECT_EQ(read_ack_nack(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
    EXPECT_TRUE(log.has(CORE_LOG_DBG, nak_chunk));
}

TEST_F(Usb, AckWinsOverANakInTheSameChunk)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_and_nak_chunk);
    EXPECT_EQ(read_ack_nack(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Usb, EmptyChunkFailsTheWait)
{
    firehose_device *const device = programmer.open();
    programmer.answers_nothing();
    EXPECT_EQ(read_ack_nack(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Usb, ReadErrorFailsTheWait)
{
    firehose_device *const device = programmer.open();
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(read_ack_nack(device), -102);
}

TEST_F(Usb, AckAtTheEndOfAFullChunkIsSeen)
{
    firehose_device *const device = programmer.open();
    programmer.answers(std::string(1013, ' ') + "value=\"ACK\"");
    EXPECT_EQ(read_ack_nack(device), 0);
}

// The clock goes on by 100 s with each reading: the wait begins at one, each chunk is another.
TEST_F(Usb, AckWaitGivesUpAProgrammerThatTalksForFiveMinutes)
{
    firehose_device *const device = programmer.open();
    virtual_time::instance().per_read_ms = 100000;
    programmer.answers(log_chunk);
    programmer.answers(log_chunk);
    programmer.answers(log_chunk);
    EXPECT_EQ(read_ack_nack(device), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"the programmer sends everything but an answer"});
}

TEST_F(Usb, AckAfterAlmostFiveMinutesOfTalkIsTaken)
{
    firehose_device *const device = programmer.open();
    virtual_time::instance().per_read_ms = 100000;
    programmer.answers(log_chunk);
    programmer.answers(log_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(read_ack_nack(device), 0);
}

TEST_F(Usb, ConfigureGivesUpAProgrammerThatTalksForFiveMinutes)
{
    firehose_device *const device = programmer.open();
    virtual_time::instance().per_read_ms = 300000;
    programmer.takes(configure_request);
    programmer.answers(log_chunk);
    uint32_t payload = FIREHOSE_PAYLOAD_SIZE;
    EXPECT_EQ(send_config(device, &payload), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"the programmer sends everything but an answer"});
}

TEST_F(Usb, ResetWaitGivesUpAProgrammerThatTalksForFiveMinutes)
{
    firehose_device *const device = programmer.open();
    virtual_time::instance().per_read_ms = 300000;
    programmer.answers(log_chunk);
    EXPECT_EQ(wait_reset_response(device, false), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"the programmer sends everything but an answer"});
}

TEST_F(Usb, AckAcrossTwoChunksIsNotSeen)
{
    firehose_device *const device = programmer.open();
    programmer.answers("<response value=\"A");
    programmer.answers("CK\" />");
    programmer.answers_nothing();
    EXPECT_EQ(read_ack_nack(device), -102);
}

TEST_F(Usb, AckBehindAZeroByteIsNotSeen)
{
    firehose_device *const device = programmer.open();
    programmer.answers(std::string("log\0value=\"ACK\"", 15));
    programmer.answers_nothing();
    EXPECT_EQ(read_ack_nack(device), -102);
}

TEST_F(Usb, AckIsCaseSensitive)
{
    firehose_device *const device = programmer.open();
    programmer.answers("<response value=\"ack\" />");
    programmer.answers(nak_chunk);
    EXPECT_EQ(read_ack_nack(device), -102);
}

TEST_F(Serial, AckWaitFailsAfterFiveSecondsOfSilence)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(read_ack_nack(&device), -102); }), 5000);
}

TEST_F(Serial, AckWaitFailsAfterAHangUp)
{
    port.hangs_up();
    EXPECT_EQ(read_ack_nack(&device), -102);
}

TEST_F(Serial, AckThatComesByteByByteIsNotSeen)
{
    for (const char c : ack_chunk) {
        port.sends(std::string(1, c));
    }
    port.hangs_up();
    EXPECT_EQ(read_ack_nack(&device), -102);
}

TEST_F(Serial, AckWaitSkipsLogChunks)
{
    port.sends(log_chunk);
    port.sends(ack_chunk);
    EXPECT_EQ(read_ack_nack(&device), 0);
}

// --- what an ACK says of itself

namespace {

struct ack_row {
    const char *name;
    const char *chunk;
    bool ends_a_command; // it may answer a request without data, or the data
    bool begins_data;    // it may answer a request behind which data follow
};

// Shown behind the test's name.
void PrintTo(const ack_row &row, std::ostream *out)
{
    *out << row.chunk;
}

class Ack : public testing::TestWithParam<ack_row> {};

} // namespace

TEST_P(Ack, AnswersWhatItIsMeantFor)
{
    firehose_chunk chunk{};
    strlcpy(chunk.text, GetParam().chunk, sizeof chunk.text);
    chunk.size = strlen(chunk.text);
    EXPECT_EQ(firehose_has_ack_of(&chunk, raw_mode::off), GetParam().ends_a_command);
    EXPECT_EQ(firehose_has_ack_of(&chunk, raw_mode::on), GetParam().begins_data);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Ack,
    testing::Values(
        ack_row{"WithoutAWord", "<response value=\"ACK\" />", true, true},
        ack_row{"RawModeOff", "<response value=\"ACK\" rawmode=\"false\" />", true, false},
        ack_row{"RawModeOn", "<response value=\"ACK\" rawmode=\"true\" />", false, true},
        ack_row{"RawModeOffInFront", "<response rawmode=\"false\" value=\"ACK\"/>", true, false},
        ack_row{"RawModeOnInFront", "<response rawmode=\"true\" value=\"ACK\"/>", false, true},
        ack_row{"RawModeOnInTheNextLine", "<response value=\"ACK\"\n rawmode=\"true\"/>", false, true},
        ack_row{"AnotherWord", "<response value=\"ACK\" rawmode=\"TRUE\"/>", true, true},
        ack_row{"CutShort", "<response value=\"ACK\" rawmode=\"tru", true, true},
        ack_row{"RawModeOfTheNextElement", "<response value=\"ACK\"/><log rawmode=\"true\"/>", true, true},
        ack_row{"RawModeOfTheElementBefore", "<log rawmode=\"true\"/><response value=\"ACK\"/>", true, true},
        ack_row{"OnThenOff",
                "<response value=\"ACK\" rawmode=\"true\"/><response value=\"ACK\" rawmode=\"false\"/>", true,
                true},
        ack_row{"OffThenOn",
                "<response value=\"ACK\" rawmode=\"false\"/><response value=\"ACK\" rawmode=\"true\"/>", true,
                true},
        ack_row{"OffTwice",
                "<response value=\"ACK\" rawmode=\"false\"/><response value=\"ACK\" rawmode=\"false\"/>",
                true, false},
        ack_row{"OnTwice",
                "<response value=\"ACK\" rawmode=\"true\"/><response value=\"ACK\" rawmode=\"true\"/>", false,
                true},
        ack_row{"OutsideOfAnElement", "value=\"ACK\"", true, true},
        ack_row{"OutsideOfAnElementWithRawMode", "value=\"ACK\" rawmode=\"true\"", false, true},
        ack_row{"Nak", "<response value=\"NAK\" rawmode=\"false\"/>", false, false},
        ack_row{"RawModeAlone", "<response rawmode=\"true\"/>", false, false},
        ack_row{"Nothing", "", false, false}),
    [](const testing::TestParamInfo<ack_row> &row) { return std::string(row.param.name); });

TEST_F(Usb, AckThatBeginsDataDoesNotEndTheWait)
{
    firehose_device *const device = programmer.open();
    programmer.answers(raw_ack_chunk);
    programmer.answers(ack_chunk);
    log.clear();
    EXPECT_EQ(read_ack_nack(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{raw_ack_chunk, ack_chunk}));
}

TEST_F(Usb, AckThatBeginsDataHidesNoNak)
{
    firehose_device *const device = programmer.open();
    programmer.answers(raw_ack_chunk);
    programmer.answers(nak_chunk);
    EXPECT_EQ(read_ack_nack(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
}

TEST_F(Usb, AckThatBeginsDataHidesNoNakOfItsOwnChunk)
{
    firehose_device *const device = programmer.open();
    const std::string both = raw_ack_chunk + nak_chunk;
    programmer.answers(both);
    EXPECT_EQ(read_ack_nack(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{both});
}

TEST_F(Usb, AckThatBeginsDataEndsTheWaitForIt)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_chunk);
    programmer.answers(raw_ack_chunk);
    log.clear();
    EXPECT_EQ(read_ack_nack(device, raw_mode::on), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{ack_chunk, raw_ack_chunk}));
}

// --- drain_answers

TEST_F(Usb, DrainLooksOnceWhereNothingWaits)
{
    firehose_device *const device = programmer.open();
    log.clear();
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_EQ(programmer.usb.looks, 1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Usb, DrainTakes1024BytesWithin10Milliseconds)
{
    firehose_device *const device = programmer.open();
    const std::string chunk(1024, 'x');
    programmer.left_over(chunk);
    log.clear();
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{chunk});
    EXPECT_EQ(programmer.usb.calls[4], "in 81 1024");
    EXPECT_EQ(programmer.usb.timeouts, std::vector<unsigned>{10});
}

TEST_F(Usb, DrainReadsAwaySeveralChunks)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(log_chunk);
    programmer.left_over(ack_chunk);
    programmer.left_over(raw_ack_chunk);
    log.clear();
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_EQ(programmer.usb.looks, 4);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{log_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_WRN),
              (texts{"an answer too many: " + ack_chunk, "an answer too many: " + raw_ack_chunk}));
    EXPECT_EQ(log.messages().back().file, "../firehose.c");
    EXPECT_EQ(log.messages().back().function, "drain_answers");
}

TEST_F(Usb, DrainEndsWithARefusalBehindAnAnswerTooMany)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(ack_chunk);
    programmer.left_over(nak_chunk);
    EXPECT_EQ(drain_answers(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
    EXPECT_EQ(log.messages().back().function, "drain_answers");
}

TEST_F(Usb, DrainEndsWithARefusalNextToAnAck)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(ack_and_nak_chunk);
    EXPECT_EQ(drain_answers(device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{ack_and_nak_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{});
}

TEST_F(Usb, DrainLeavesThe65thChunk)
{
    firehose_device *const device = programmer.open();
    for (int i = 0; i < 64; ++i)
        programmer.left_over(log_chunk);
    programmer.left_over("<data>the 65th</data>");
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_EQ(programmer.usb.looks, 64);
    EXPECT_EQ(log.count(CORE_LOG_DBG, log_chunk), 64);
    firehose_chunk chunk;
    EXPECT_EQ(firehose_read(device, 500, &chunk), 0);
    EXPECT_STREQ(chunk.text, "<data>the 65th</data>");
}

TEST_F(Usb, DrainTakesTheRefusalInThe64thChunk)
{
    firehose_device *const device = programmer.open();
    for (int i = 0; i < 63; ++i)
        programmer.left_over(log_chunk);
    programmer.left_over(nak_chunk);
    EXPECT_EQ(drain_answers(device), -102);
}

TEST_F(Usb, DrainLeavesAFailedConnectionToTheRequest)
{
    firehose_device *const device = programmer.open();
    programmer.left_over("", fake_programmer::gone);
    log.clear();
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Usb, DrainLeavesAnInterfaceThatCannotBeClaimedToTheRequest)
{
    firehose_device *const device = programmer.open();
    programmer.usb.claim_result = -6;
    log.clear();
    EXPECT_EQ(drain_answers(device), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Serial, DrainWaitsTenMilliseconds)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(drain_answers(&device), 0); }), 10);
    EXPECT_EQ(port.waits(), std::vector<int>{10});
}

TEST_F(Serial, DrainReadsAwayWhatWaits)
{
    port.sends(log_chunk);
    port.sends(ack_chunk);
    EXPECT_EQ(drain_answers(&device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
    EXPECT_EQ(port.waits(), (std::vector<int>{10, 10, 10}));
}

TEST_F(Serial, DrainEndsWithARefusal)
{
    port.sends(ack_chunk);
    port.sends(nak_chunk);
    EXPECT_EQ(drain_answers(&device), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
}

TEST_F(Serial, DrainTakesWhatComesOnItsHeels)
{
    port.pauses(9).sends(nak_chunk);
    EXPECT_EQ(drain_answers(&device), -102);
}

TEST_F(Serial, DrainDoesNotWaitForWhatComesLater)
{
    port.pauses(11).sends(nak_chunk);
    EXPECT_EQ(drain_answers(&device), 0);
    virtual_time::instance().pass(1000);
    EXPECT_EQ(port.unread(), nak_chunk);
}

TEST_F(Serial, DrainLeavesAHangUpToTheRequest)
{
    port.hangs_up();
    EXPECT_EQ(drain_answers(&device), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Serial, DrainLeavesThe65thChunk)
{
    for (int i = 0; i < 65; ++i)
        port.sends(log_chunk);
    EXPECT_EQ(drain_answers(&device), 0);
    EXPECT_EQ(port.unread(), log_chunk);
}

// --- generic_ack_nack_request, send_nop

TEST_F(Usb, PingIs57BytesWithoutATerminator)
{
    firehose_device *const device = programmer.open();
    programmer.takes(ping_request);
    programmer.answers(ack_chunk);
    log.clear();
    EXPECT_EQ(send_nop(device), 0);
    EXPECT_EQ(programmer.usb.calls[4], "out 01 57");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"sending request: " + ping_request, ack_chunk}));
    EXPECT_EQ(log.messages().front().function, "generic_ack_nack_request");
}

TEST_F(Serial, PingGoesOverTheSerialDevice)
{
    port.takes(ping_request);
    port.sends(ack_chunk);
    EXPECT_EQ(send_nop(&device), 0);
    EXPECT_EQ(port.waits(), (std::vector<int>{10, 5000}));
}

TEST_F(Usb, RequestThatCannotBeSentIsLoggedInTwoLines)
{
    firehose_device *const device = programmer.open();
    programmer.takes_with("<x/>", fake_programmer::timed_out, 0);
    EXPECT_EQ(generic_ack_nack_request(device, "<x/>"), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bulk transfer error -7\n",
                                              "error " + timed_out_unsigned + " sending request:", "<x/>"}));
}

TEST_F(Usb, RequestThatIsRefusedFails)
{
    firehose_device *const device = programmer.open();
    programmer.takes("<x/>");
    programmer.answers(nak_chunk);
    EXPECT_EQ(generic_ack_nack_request(device, "<x/>"), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{nak_chunk, "error sending reading ack/nack " + failure_unsigned}));
}

TEST_F(Serial, RequestGivesUpOnBackPressure)
{
    for (int i = 0; i < 5; ++i)
        port.refuses_a_write(EAGAIN);
    EXPECT_EQ(send_nop(&device), -11);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "error " + try_again_unsigned + " sending request:"));
}

TEST_F(Usb, RefusalThatWaitsEndsARequestUnsent)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(nak_chunk);
    EXPECT_EQ(generic_ack_nack_request(device, "<x/>"), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Usb, AnswerTooManyIsNotTheAnswerToARequest)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(ack_chunk);
    programmer.takes("<x/>");
    programmer.answers(nak_chunk);
    EXPECT_EQ(generic_ack_nack_request(device, "<x/>"), -102);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{nak_chunk, "error sending reading ack/nack " + failure_unsigned}));
}

// --- get_config_xml, send_config

TEST(ConfigXml, HoldsPayloadAndMemoryName)
{
    owned_text text;
    EXPECT_EQ(get_config_xml(&text, 4294967295U, "eMMC"), 112);
    EXPECT_STREQ(text.get(),
                 "<?xml version=\"1.0\"?>\n<data>\n<configure "
                 "MaxPayloadSizeToTargetInBytes=\"4294967295\" MemoryName=\"eMMC\" />\n</data>\n");
}

TEST_F(Usb, ConfigureIs109Bytes)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers(ack_chunk);
    uint32_t payload = 1048576;
    log.clear();
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(programmer.usb.calls[4], "out 01 109");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{ack_chunk}); // and no "sending request"
    EXPECT_EQ(log.messages().front().function, "send_config");
}

TEST_F(Usb, ConfigureAckKeepsThePayload)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers(log_chunk);
    programmer.answers("<response value=\"ACK\" MaxPayloadSizeToTargetInBytesSupported=\"16384\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(payload, 1048576U);
}

TEST_F(Usb, ConfigureNakWithACounterOfferIsTaken)
{
    const std::string offer = "<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"16384\"/>";
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers(offer);
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(payload, 16384U);
    EXPECT_EQ(log.count(CORE_LOG_DBG, offer), 2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Usb, ConfigureNakWithoutACounterOfferFails)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers(nak_chunk);
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"Failed to retrieve MaxPayloadSizeToTargetInBytesSupported attribute"});
    EXPECT_EQ(log.messages().back().function, "send_config");
}

TEST_F(Usb, ConfigureNakWithAnUnreadableCounterOfferFails)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"16k\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "Failed to retrieve MaxPayloadSizeToTargetInBytesSupported attribute");
}

TEST_F(Usb, ConfigureNakWithACounterOfferOfZeroFails)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"0\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"the programmer supports a payload of 0 bytes, which cannot be used"});
}

TEST_F(Usb, ConfigureNakWithACounterOfferThatNoTransferMovesFails)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"1073741825\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"the programmer supports a payload of 1073741825 bytes, which cannot be used"});
}

TEST_F(Usb, ConfigureNakWithACounterOfferOfAGibibyteIsTaken)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"1073741824\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(payload, 1073741824U);
}

TEST_F(Usb, ConfigureAckWinsOverANakInTheSameChunk)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers(ack_and_nak_chunk);
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(payload, 1048576U);
}

TEST_F(Usb, ConfigureFailsOnAnEmptyChunk)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers_nothing();
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -102);
}

TEST_F(Usb, ConfigureFailsOnAReadError)
{
    firehose_device *const device = programmer.open();
    programmer.takes(configure_request);
    programmer.answers_nothing(fake_programmer::timed_out);
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -102);
}

TEST_F(Usb, ConfigureReportsAFailedWrite)
{
    firehose_device *const device = programmer.open();
    programmer.takes_with(configure_request, fake_programmer::timed_out, 0);
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending config " + timed_out_unsigned);
}

// Behind 10 ms in which nothing waits for the program.
TEST_F(Serial, ConfigureFailsAfterHalfASecondOfSilence)
{
    uint32_t payload = 1048576;
    port.takes(configure_request);
    EXPECT_EQ(duration_of([&] { EXPECT_EQ(send_config(&device, &payload), -102); }), 510);
    EXPECT_EQ(port.waits(), (std::vector<int>{10, 500}));
}

TEST_F(Usb, ConfigureIsNotSentBehindARefusalThatWaits)
{
    firehose_device *const device = programmer.open();
    programmer.left_over("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"16384\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), -102);
    EXPECT_EQ(payload, 1048576U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"16384\"/>"});
    EXPECT_TRUE(programmer.usb.written.empty());
}

TEST_F(Usb, ConfigureTakesNoAnswerTooMany)
{
    firehose_device *const device = programmer.open();
    programmer.left_over(ack_chunk);
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"16384\"/>");
    uint32_t payload = 1048576;
    EXPECT_EQ(send_config(device, &payload), 0);
    EXPECT_EQ(payload, 16384U);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
}

// --- send_reset, wait_reset_response

TEST_F(Usb, ResetIs79BytesAndEndsWithAPauseOfOneSecond)
{
    firehose_device *const device = programmer.open();
    programmer.takes(reset_request);
    programmer.answers(ack_chunk);
    log.clear();
    EXPECT_EQ(send_reset(device, false), 0);
    EXPECT_EQ(programmer.usb.calls[4], "out 01 79");
    EXPECT_EQ(virtual_time::instance().slept, pauses{1000});
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{ack_chunk, "successfully received ack about the reset command"}));
    EXPECT_EQ(log.messages().back().function, "wait_reset_response");
}

TEST_F(Usb, ResetIgnoresANak)
{
    firehose_device *const device = programmer.open();
    programmer.takes(reset_request);
    programmer.answers(nak_chunk);
    EXPECT_EQ(send_reset(device, false), 0);
    EXPECT_EQ(virtual_time::instance().slept, pauses{1000});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{nak_chunk});
}

TEST_F(Usb, ResetReportsAFailedWriteWithoutAPause)
{
    firehose_device *const device = programmer.open();
    programmer.takes_with(reset_request, fake_programmer::timed_out, 0);
    EXPECT_EQ(send_reset(device, false), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending reset " + timed_out_unsigned);
    EXPECT_EQ(log.messages().back().function, "send_reset");
    EXPECT_EQ(virtual_time::instance().slept, pauses{});
}

TEST_F(Serial, ResetSucceedsAfterSilence)
{
    port.takes(reset_request);
    EXPECT_EQ(send_reset(&device, true), 0);
    EXPECT_EQ(virtual_time::instance().slept, pauses{1000});
}

TEST_F(Serial, ResetWaitEndsAfterHalfASecondOfSilence)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait_reset_response(&device, false), -110); }), 500);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Usb, ResetWaitPausesBetweenChunks)
{
    firehose_device *const device = programmer.open();
    programmer.answers(log_chunk);
    programmer.answers(log_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(wait_reset_response(device, false), 0);
    EXPECT_EQ(virtual_time::instance().slept, (pauses{500, 500}));
}

TEST_F(Usb, ResetWaitForTheTargetGoesOnAfterTheAck)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_chunk);
    programmer.answers(log_chunk);
    programmer.answers(target_reset_chunk);
    log.clear();
    EXPECT_EQ(wait_reset_response(device, true), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(),
              "successfully received ack and bsp_target_reset about the reset command");
    EXPECT_EQ(virtual_time::instance().slept, (pauses{500, 500}));
}

TEST_F(Usb, ResetWaitForTheTargetTakesTheAckAfterwards)
{
    firehose_device *const device = programmer.open();
    programmer.answers(target_reset_chunk);
    programmer.answers(ack_chunk);
    EXPECT_EQ(wait_reset_response(device, true), 0);
}

TEST_F(Usb, ResetWaitForTheTargetTakesBothInOneChunk)
{
    firehose_device *const device = programmer.open();
    programmer.answers(target_reset_chunk + ack_chunk);
    EXPECT_EQ(wait_reset_response(device, true), 0);
    EXPECT_EQ(virtual_time::instance().slept, pauses{});
}

TEST_F(Usb, ResetWaitForTheTargetEndsWithTheReadError)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_chunk);
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(wait_reset_response(device, true), -110);
    EXPECT_FALSE(log.has(CORE_LOG_DBG, "successfully received ack about the reset command"));
}

TEST_F(Usb, ResetWaitWithoutTheTargetIgnoresItsReset)
{
    firehose_device *const device = programmer.open();
    programmer.answers(target_reset_chunk);
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(wait_reset_response(device, false), -110);
}

TEST_F(Usb, ResetWaitEndsWithANakEvenNextToAnAck)
{
    firehose_device *const device = programmer.open();
    programmer.answers(ack_and_nak_chunk);
    EXPECT_EQ(wait_reset_response(device, false), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{ack_and_nak_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), ack_and_nak_chunk); // and no success
}

TEST_F(Usb, ResetWaitReadsAgainAtOnceAfterAnEmptyChunk)
{
    firehose_device *const device = programmer.open();
    for (int i = 0; i < 9; ++i)
        programmer.answers_nothing();
    programmer.answers(ack_chunk);
    EXPECT_EQ(wait_reset_response(device, false), 0);
    EXPECT_EQ(virtual_time::instance().slept, pauses{});
}

TEST_F(Usb, ResetWaitGivesUpAfterTenEmptyChunksInARow)
{
    firehose_device *const device = programmer.open();
    for (int i = 0; i < 10; ++i)
        programmer.answers_nothing(fake_programmer::gone);
    EXPECT_EQ(wait_reset_response(device, false), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "the programmer sends empty answers only");
}

TEST_F(Usb, ResetWaitCountsEmptyChunksInARowOnly)
{
    firehose_device *const device = programmer.open();
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 9; ++i)
            programmer.answers_nothing();
        programmer.answers(log_chunk);
    }
    programmer.answers(ack_chunk);
    EXPECT_EQ(wait_reset_response(device, false), 0);
}

// --- firehose_update

TEST_F(Update, RunsPingConfigureCommandsAndReset)
{
    greets();
    add_command("<erase physical_partition_number=\"0\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<erase physical_partition_number=\"0\"/>\n</data>\n");
    programmer.answers(ack_chunk);
    resets();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(programmer.usb.calls[2], "open 05c6:9008");
    EXPECT_EQ(programmer.usb.calls.back(), "exit");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "successfully received ack about the reset command");
}

TEST_F(Update, OffersOneMegabyte)
{
    EXPECT_EQ(FIREHOSE_PAYLOAD_SIZE, 1048576U);
    greets();
    resets();
    EXPECT_EQ(run(), 0);
}

TEST_F(Update, ReportsADeviceThatCannotBeOpened)
{
    programmer.usb.devices.clear();
    EXPECT_EQ(run(), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in opening the firehose device -19");
    EXPECT_EQ(log.messages().back().function, "firehose_update");
}

TEST_F(Update, ResetsAfterAPingThatIsRefused)
{
    programmer.takes(ping_request);
    programmer.answers(nak_chunk);
    resets();
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{nak_chunk, "error sending reading ack/nack " + failure_unsigned,
                                              "error in nop handshake"}));
}

TEST_F(Update, ReturnsThePingsFailureWhenTheResetFailsToo)
{
    programmer.takes(ping_request);
    programmer.answers_nothing();
    programmer.takes_with(reset_request, fake_programmer::timed_out, 0);
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in sending reset");
}

TEST_F(Update, ResetsAfterAConfigureThatIsRefused)
{
    programmer.takes(ping_request);
    programmer.answers(ack_chunk);
    programmer.takes(configure_request);
    programmer.answers(nak_chunk);
    resets();
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in config");
}

TEST_F(Update, ResetsAfterACounterOfferOfZero)
{
    programmer.takes(ping_request);
    programmer.answers(ack_chunk);
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"0\"/>");
    resets();
    EXPECT_EQ(run(), -71);
}

TEST_F(Update, ResetsAfterACommandThatIsRefused)
{
    greets();
    add_command("<erase physical_partition_number=\"0\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<erase physical_partition_number=\"0\"/>\n</data>\n");
    programmer.answers(nak_chunk);
    resets();
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending commands -102");
}

TEST_F(Update, SendsNoSecondReset)
{
    greets();
    add_command("<power value=\"reset\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\"/>\n</data>\n");
    programmer.answers(ack_chunk);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "reset command already sent");
    EXPECT_EQ(log.messages().back().function, "firehose_update");
}

TEST_F(Update, SendsNoSecondResetAfterOneThatFailed)
{
    greets();
    add_command("<power value=\"reset\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\"/>\n</data>\n");
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "reset command already sent");
}

TEST_F(Update, ReportsAFailedReset)
{
    greets();
    programmer.takes_with(reset_request, fake_programmer::timed_out, 0);
    EXPECT_EQ(run(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in sending reset");
    EXPECT_EQ(log.messages().back().function, "firehose_update");
}

TEST_F(Update, WaitsForTheTargetOnPlatform1)
{
    package->platform = 1;
    greets();
    resets();
    programmer.answers(target_reset_chunk);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(virtual_time::instance().slept, (pauses{500, 1000}));
}

TEST_F(Update, WaitsForTheTargetOnPlatform2)
{
    package->platform = 2;
    greets();
    resets();
    programmer.answers_nothing(fake_programmer::timed_out);
    EXPECT_EQ(run(), 0);
}

TEST_F(Update, UsesTheNegotiatedPayloadForData)
{
    const temp_dir dir;
    add_command("<program label=\"a\"/>");
    strlcpy(package->images[0].filename, dir.write("a.bin", std::string(1500, 'a')).c_str(), 1024);
    package->images[0].sector_size_in_bytes = 500;
    package->images[0].file_size = 1500;
    package->images[0].identity = identity_of(dir.at("a.bin"));
    programmer.takes(ping_request);
    programmer.answers(ack_chunk);
    programmer.takes(configure_request);
    programmer.answers("<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"1000\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<program label=\"a\"/>\n</data>\n");
    programmer.answers(raw_ack_chunk);
    programmer.takes(std::string(1000, 'a'));
    programmer.takes(std::string(500, 'a'));
    programmer.answers(ack_chunk);
    resets();
    EXPECT_EQ(run(), 0);
}

TEST_F(Update, ReadsOtpValuesInPlaceOfTheCommands)
{
    add_command("<erase physical_partition_number=\"0\"/>");
    greets();
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n"
                     "</data>\n");
    programmer.answers("<log value=\"OTP 1\"/>");
    programmer.answers(ack_chunk);
    resets();
    EXPECT_EQ(run(true), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"OTP 1"});
}

TEST_F(Update, ResetsAfterAnOtpReadThatFailed)
{
    greets();
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n"
                     "</data>\n");
    programmer.answers_nothing(fake_programmer::timed_out);
    resets();
    EXPECT_EQ(run(true), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending commands -110");
}

// --- firehose_update: what still waits

namespace {

const std::string erase_command = "<erase physical_partition_number=\"0\"/>";
const std::string program_command = "<program SECTOR_SIZE_IN_BYTES=\"500\"/>";

std::string framed(const std::string &command)
{
    return "<?xml version=\"1.0\"?>\n<data>\n" + command + "\n</data>\n";
}

// A package of one erase and one image; what is left over, the case puts between the steps.
class LeftOver : public Update {
  protected:
    LeftOver()
    {
        add_command(erase_command.c_str());
        add_command(program_command.c_str());
        image &img = package->images[1];
        strlcpy(img.filename, dir.write("a.bin", std::string(500, 'a')).c_str(), sizeof img.filename);
        img.sector_size_in_bytes = 500;
        img.file_size = 500;
        img.identity = identity_of(dir.at("a.bin"));
    }
    void pings()
    {
        programmer.takes(ping_request);
        programmer.answers(ack_chunk);
    }
    void configures()
    {
        programmer.takes(configure_request);
        programmer.answers(ack_chunk);
    }
    void erases()
    {
        programmer.takes(framed(erase_command));
        programmer.answers(ack_chunk);
    }
    void begins_data()
    {
        programmer.takes(framed(program_command));
        programmer.answers(raw_ack_chunk);
    }
    void takes_data()
    {
        programmer.takes(std::string(500, 'a'));
        programmer.answers(ack_chunk);
    }
    // A refusal waits, and only the reset is sent behind it; `told` is what is logged behind the refusal.
    void expect_failure(const texts &told, bool otp = false)
    {
        programmer.left_over(nak_chunk);
        resets();
        texts errors = {nak_chunk};
        errors.insert(errors.end(), told.begin(), told.end());
        EXPECT_EQ(run(otp), -102);
        EXPECT_EQ(log.texts(CORE_LOG_ERR), errors);
        EXPECT_EQ(programmer.usb.written.back(), reset_request);
    }
    void expect_warning(const std::string &chunk = ack_chunk, bool otp = false)
    {
        EXPECT_EQ(run(otp), 0);
        EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + chunk});
        EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    }

    temp_dir dir;
};

const std::string otp_request =
    "<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n</data>\n";

} // namespace

TEST_F(LeftOver, IsLookedForBeforeEachStep)
{
    pings();
    configures();
    erases();
    begins_data();
    takes_data();
    resets();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(programmer.usb.looks, 6);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{});
}

TEST_F(LeftOver, RefusalBeforeThePingFailsTheRun)
{
    expect_failure({"error in nop handshake"});
    EXPECT_EQ(programmer.usb.written.size(), 1U);
}

TEST_F(LeftOver, RefusalBeforeTheConfigureFailsTheRun)
{
    pings();
    expect_failure({"error in config"});
    EXPECT_EQ(programmer.usb.written.size(), 2U);
}

TEST_F(LeftOver, RefusalBeforeAnEraseFailsTheRun)
{
    pings();
    configures();
    expect_failure({"error for command", "error sending commands -102"});
    EXPECT_EQ(programmer.usb.written.size(), 3U);
}

TEST_F(LeftOver, RefusalBeforeAProgramRequestFailsTheRun)
{
    pings();
    configures();
    erases();
    expect_failure({"error for command", "error sending commands -102"});
    EXPECT_EQ(programmer.usb.written.size(), 4U);
}

TEST_F(LeftOver, RefusalBeforeTheDataFailsTheRun)
{
    pings();
    configures();
    erases();
    begins_data();
    expect_failure({"error sending commands -102"});
    EXPECT_EQ(programmer.usb.written.size(), 5U);
}

TEST_F(LeftOver, RefusalBeforeTheResetFailsTheRun)
{
    pings();
    configures();
    erases();
    begins_data();
    takes_data();
    expect_failure({"error sending commands -102"});
}

TEST_F(LeftOver, RefusalBeforeTheOtpRequestFailsTheRun)
{
    pings();
    configures();
    expect_failure({"error sending commands -102"}, true);
    EXPECT_EQ(programmer.usb.written.size(), 3U);
}

TEST_F(LeftOver, RefusalBehindADoubledAnswerFailsTheRun)
{
    pings();
    configures();
    erases();
    begins_data();
    takes_data();
    programmer.left_over(ack_chunk);
    expect_failure({"error sending commands -102"});
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
}

TEST_F(LeftOver, AnswerBeforeThePingIsAWarning)
{
    programmer.left_over(ack_chunk);
    pings();
    configures();
    erases();
    begins_data();
    takes_data();
    resets();
    expect_warning();
}

TEST_F(LeftOver, AnswerBeforeTheConfigureIsAWarning)
{
    pings();
    programmer.left_over(ack_chunk);
    configures();
    erases();
    begins_data();
    takes_data();
    resets();
    expect_warning();
}

TEST_F(LeftOver, AnswerBeforeAnEraseIsAWarning)
{
    pings();
    configures();
    programmer.left_over(ack_chunk);
    erases();
    begins_data();
    takes_data();
    resets();
    expect_warning();
}

TEST_F(LeftOver, AnswerBeforeAProgramRequestIsAWarning)
{
    pings();
    configures();
    erases();
    programmer.left_over(ack_chunk);
    begins_data();
    takes_data();
    resets();
    expect_warning();
}

TEST_F(LeftOver, AnswerBeforeTheDataIsAWarning)
{
    pings();
    configures();
    erases();
    begins_data();
    programmer.left_over(raw_ack_chunk);
    takes_data();
    resets();
    expect_warning(raw_ack_chunk);
}

TEST_F(LeftOver, AnswerBeforeTheResetIsAWarning)
{
    pings();
    configures();
    erases();
    begins_data();
    takes_data();
    programmer.left_over(ack_chunk);
    resets();
    expect_warning();
}

TEST_F(LeftOver, AnswerBeforeTheOtpRequestIsAWarning)
{
    pings();
    configures();
    programmer.left_over(ack_chunk);
    programmer.takes(otp_request);
    programmer.answers("<log value=\"OTP 1\"/>");
    programmer.answers(ack_chunk);
    resets();
    expect_warning(ack_chunk, true);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"OTP 1"});
}

TEST_F(LeftOver, IsNotLookedForBehindAFailure)
{
    programmer.takes(ping_request);
    programmer.answers(nak_chunk);
    resets();
    EXPECT_EQ(run(), -102);
    EXPECT_EQ(programmer.usb.looks, 1);
}

TEST_F(LeftOver, IsNotLookedForBehindTheOtpValues)
{
    pings();
    configures();
    programmer.takes(otp_request);
    programmer.answers(ack_chunk);
    resets();
    EXPECT_EQ(run(true), 0);
    EXPECT_EQ(programmer.usb.looks, 3);
}

TEST_F(Update, LooksForNothingBehindTheResetOfThePackage)
{
    greets();
    add_command("<power value=\"reset\"/>");
    programmer.takes("<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\"/>\n</data>\n");
    programmer.answers(ack_chunk);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(programmer.usb.looks, 3);
}

TEST_F(PcieUpdate, FailsWithARefusalBehindADoubledAnswer)
{
    port.takes(ping_request);
    port.sends(ack_chunk);
    port.takes(configure_request);
    port.sends(ack_chunk);
    port.sends(ack_chunk);
    port.sends(nak_chunk);
    port.takes(reset_request);
    port.sends(ack_chunk);
    EXPECT_EQ(firehose_update(m.get(), package.get(), false), -102);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"an answer too many: " + ack_chunk});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{nak_chunk, "error sending commands -102"}));
}

TEST_F(PcieUpdate, RunsOverThePort)
{
    const size_t before = open_descriptors();
    port.takes(ping_request);
    port.sends(ack_chunk);
    port.takes(configure_request);
    port.sends(ack_chunk);
    port.takes(reset_request);
    port.sends(ack_chunk);
    EXPECT_EQ(firehose_update(m.get(), package.get(), false), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(PcieUpdate, ReportsAPortThatCannotBeOpened)
{
    strlcpy(m->modem_port[0].port_name, "/nonexistent/port", sizeof m->modem_port[0].port_name);
    EXPECT_EQ(firehose_update(m.get(), package.get(), false), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in opening the firehose device -2");
}

TEST_F(PcieUpdate, SurvivesAHangUp)
{
    const size_t before = open_descriptors();
    port.takes(ping_request);
    port.hangs_up();
    EXPECT_EQ(firehose_update(m.get(), package.get(), false), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in sending reset");
    EXPECT_EQ(open_descriptors(), before);
}
