#include "sahara.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "file-identity.hpp"
#include "image-list.hpp"
#include "libc-hooks.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "memory-limit.hpp"
#include "open-descriptors.hpp"
#include "scripted-port.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using texts = std::vector<std::string>;

// The bytes of a text of two-digit hexadecimal numbers.
static std::string bytes(const std::string &hex)
{
    std::string result;
    for (size_t i = 0; i + 1 < hex.size(); i += 3)
        result += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return result;
}

static std::string zeros(size_t count)
{
    return std::string(count, '\0');
}

// What the modem sends.
static const std::string hello_header = bytes("01 00 00 00 30 00 00 00");
static const std::string hello =
    bytes("01 00 00 00 30 00 00 00 04 03 02 01 08 07 06 05 00 04 00 00 00 00 00 00") + zeros(24);
static const std::string hello_mode_2 =
    bytes("01 00 00 00 30 00 00 00 02 00 00 00 01 00 00 00 00 04 00 00 02 00 00 00") + zeros(24);
static const std::string acknowledged = bytes("F1 00 00 00 08 00 00 00");
static const std::string read_0_4 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 00 00 00 00 04 00 00 00");
static const std::string read_4_4 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 04 00 00 00 04 00 00 00");
static const std::string read_8_2 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 08 00 00 00 02 00 00 00");
static const std::string read_0_0 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00");
static const std::string read_8_4 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 08 00 00 00 04 00 00 00");
static const std::string read_20_4 = bytes("03 00 00 00 14 00 00 00 0D 00 00 00 14 00 00 00 04 00 00 00");
static const std::string read64_2_3 =
    bytes("12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00");
static const std::string end_image = bytes("04 00 00 00 10 00 00 00 0D 00 00 00 00 00 00 00");
static const std::string end_image_status_7 = bytes("04 00 00 00 10 00 00 00 0D 00 00 00 07 00 00 00");
static const std::string done_response_0 = bytes("06 00 00 00 0C 00 00 00 00 00 00 00");
static const std::string done_response_1 = bytes("06 00 00 00 0C 00 00 00 01 00 00 00");
static const std::string done_response_2 = bytes("06 00 00 00 0C 00 00 00 02 00 00 00");
static const std::string done_response_minus_1 = bytes("06 00 00 00 0C 00 00 00 FF FF FF FF");

// What the tool sends.
static const std::string hello_response =
    bytes("02 00 00 00 30 00 00 00 04 03 02 01 08 07 06 05") + zeros(32);
static const std::string default_hello_response =
    bytes("02 00 00 00 30 00 00 00 02 00 00 00 01 00 00 00") + zeros(32);
static const std::string done = bytes("05 00 00 00 08 00 00 00");
static const std::string reset = bytes("07 00 00 00 08 00 00 00");
static const std::string state_reset = bytes("13 00 00 00 08 00 00 00");
static const std::string enter_download_mode = bytes("F0 00 00 00 08 00 00 00");

// 4294967296 + CORE_ETIMEDOUT, CORE_EIO and CORE_ECANCELED, as "%u" shows them.
static const std::string timed_out_unsigned = "4294967186";
static const std::string io_error_unsigned = "4294967291";
static const std::string hung_up_unsigned = "4294967171";

using modem_script = std::function<void(scripted_port &)>;

// Runs `call`, which has to wait exactly so many milliseconds.
static int timed(int64_t ms, const std::function<int()> &call)
{
    int result = 0;
    EXPECT_EQ(duration_of([&] { result = call(); }), ms);
    return result;
}

namespace {

// A boot loader behind a scripted port, and the code's end of it.
class Sahara : public testing::Test {
  protected:
    void open_port(int flags = O_RDWR | O_NONBLOCK | O_NOCTTY)
    {
        handle = port.open(flags);
        ASSERT_GE(handle, 0);
    }

    // A descriptor that nothing can be written to.
    void open_deaf_port() { open_port(O_RDONLY | O_NONBLOCK | O_NOCTTY); }

    // Runs `call` against a modem that plays the script.
    int run(const modem_script &modem, const std::function<int()> &call)
    {
        modem(port);
        return call();
    }

    scripted_port port;
    int handle = -1;
    log_capture log;
};

class SaharaHandshake : public Sahara {
  protected:
    SaharaHandshake() { open_port(); }
    int run(uint32_t platform, const modem_script &modem)
    {
        return Sahara::run(modem, [&] { return sahara::hello_handshake(handle, platform); });
    }
};

class Package : public Sahara {
  protected:
    Package() { use_programmer("ABCDEFGHIJ"); }
    void use_programmer(const std::string &content) { use_path(dir.write("prog.mbn", content)); }
    void use_path(const std::string &path)
    {
        strlcpy(package->programmer_path, path.c_str(), sizeof package->programmer_path);
    }
    // The modem's part from END_IMAGE_TX on, on platform 0.
    static void finish(scripted_port &p)
    {
        p.sends(end_image);
        p.takes(done);
        p.sends(done_response_0);
    }

    temp_dir dir;
    std::unique_ptr<image_list> package = std::make_unique<image_list>();
};

class Upload : public Package {
  protected:
    Upload() { open_port(); }
    int run(uint32_t platform, const modem_script &modem)
    {
        package->platform = platform;
        return Sahara::run(modem, [&] { return sahara::send_programmer(handle, package.get()); });
    }
};

class Stage : public Package {
  protected:
    Stage()
    {
        strlcpy(m->modem_port[0].port_name, "/nonexistent/at", sizeof m->modem_port[0].port_name);
        m->modem_port[0].port_type = PORT_AT;
        strlcpy(m->modem_port[1].port_name, port.path().c_str(), sizeof m->modem_port[1].port_name);
        m->modem_port[1].port_type = PORT_FIRMWARE_UPDATE;
        m->modem_port_size = 2;
    }
    int run(uint32_t platform, const modem_script &script)
    {
        package->platform = platform;
        return Sahara::run(script, [&] { return sahara_send_programmer(m.get(), package.get()); });
    }

    std::unique_ptr<modem> m = std::make_unique<modem>();
};

} // namespace

// --- flush_port

TEST_F(Sahara, FlushReadsUntilThePortIsSilent)
{
    open_port();
    port.sends("late bytes");
    EXPECT_EQ(timed(2000, [&] { return sahara::flush_port(handle); }), -110);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"late bytes"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(log.messages().front().file, "../sahara.c");
    EXPECT_EQ(log.messages().front().function, "flush_port");
}

TEST_F(Sahara, FlushLogsAChunkOfExactly1024BytesWhole)
{
    open_port();
    port.sends(std::string(1024, 'x') + "tail");
    EXPECT_EQ(sahara::flush_port(handle), -110);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{std::string(1024, 'x'), "tail"}));
}

TEST_F(Sahara, FlushReportsAHangUp)
{
    open_port();
    port.hangs_up();
    EXPECT_EQ(sahara::flush_port(handle), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error -125"});
}

TEST_F(Sahara, FlushEndsWellAtTheEndOfTheInput)
{
    const temp_dir dir;
    handle = open(dir.write("empty", "").c_str(), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(sahara::flush_port(handle), 0);
    EXPECT_TRUE(log.messages().empty());
    core_device_close(handle);
}

TEST_F(Sahara, FlushGivesUpAPortThatDoesNotFallSilentInHalfAMinute)
{
    open_port();
    port.sends(std::string(1024, 'x') + std::string(1024, 'y') + "never read");
    virtual_time::instance().per_read_ms = 15000;
    EXPECT_EQ(sahara::flush_port(handle), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{std::string(1024, 'x'), std::string(1024, 'y')}));
    EXPECT_EQ(port.unread(), "never read");
}

// --- state_reset, reset_modem

TEST_F(Sahara, StateResetFlushesAndThenSendsEightBytes)
{
    open_port();
    port.sends("garbage");
    port.takes(state_reset);
    EXPECT_EQ(sahara::state_reset(handle), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Flush port", "garbage"}));
    EXPECT_EQ(log.messages().front().function, "state_reset");
}

TEST_F(Sahara, StateResetReportsAFailedWrite)
{
    open_port();
    port.refuses_a_write(EIO);
    EXPECT_EQ(sahara::state_reset(handle), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending state reset command " + io_error_unsigned);
    EXPECT_EQ(log.messages().back().function, "state_reset");
}

TEST_F(Sahara, ResetSendsEightBytesAndThenFlushes)
{
    open_port();
    port.sends("garbage");
    port.takes(reset);
    EXPECT_EQ(sahara::reset_modem(handle), -110);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Flush port", "garbage"}));
    EXPECT_EQ(log.messages().front().function, "reset_modem");
}

TEST_F(Sahara, ResetFlushesAfterAFailedWriteToo)
{
    open_deaf_port();
    port.sends("garbage");
    EXPECT_EQ(sahara::reset_modem(handle), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error writing command");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Flush port", "garbage"}));
}

// --- write-all

TEST_F(Sahara, WriteGivesUpAfterFiveBackPressuresOneSecondApart)
{
    open_port();
    for (int i = 0; i < 5; ++i)
        port.refuses_a_write(EAGAIN);
    EXPECT_EQ(sahara::send_hello_response(handle, 2, 1), -11);
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000, 1000, 1000, 1000}));
}

TEST_F(Sahara, WriteSucceedsAfterFourBackPressures)
{
    open_port();
    for (int i = 0; i < 4; ++i)
        port.refuses_a_write(EAGAIN);
    port.takes(default_hello_response);
    EXPECT_EQ(sahara::send_hello_response(handle, 2, 1), 0);
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000, 1000, 1000}));
}

// --- send_hello_response

TEST_F(Sahara, HelloResponseHasStatusAndModeZero)
{
    open_port();
    port.takes(hello_response);
    EXPECT_EQ(sahara::send_hello_response(handle, 0x01020304, 0x05060708), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"hello response command sent"});
    EXPECT_EQ(log.messages().front().function, "send_hello_response");
}

TEST_F(Sahara, HelloResponseReportsAFailedWrite)
{
    open_deaf_port();
    EXPECT_EQ(sahara::send_hello_response(handle, 2, 1), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending hello_rsp -102");
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{});
}

// --- send_zepho_qdl_cmd

TEST_F(Sahara, DownloadModeCommandEndsWithTryAgainOnceAcknowledged)
{
    open_port();
    port.sends(acknowledged);
    port.takes(enter_download_mode);
    EXPECT_EQ(sahara::send_zepho_qdl_cmd(handle), -11);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Sahara, DownloadModeCommandSkipsNineOtherPackets)
{
    open_port();
    const int result = run(
        [](scripted_port &p) {
            p.takes(enter_download_mode);
            for (int i = 0; i < 9; ++i)
                p.sends(hello);
            p.sends(acknowledged);
        },
        [&] { return sahara::send_zepho_qdl_cmd(handle); });
    EXPECT_EQ(result, -11);
}

TEST_F(Sahara, DownloadModeCommandGivesUpAfterTenOtherPackets)
{
    open_port();
    const int result = run(
        [](scripted_port &p) {
            p.takes(enter_download_mode);
            for (int i = 0; i < 10; ++i)
                p.sends(hello);
        },
        [&] { return sahara::send_zepho_qdl_cmd(handle); });
    EXPECT_EQ(result, -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Sahara, DownloadModeCommandTakesAShortPacketForAnotherOne)
{
    open_port();
    const int result = run(
        [](scripted_port &p) {
            p.takes(enter_download_mode);
            p.sends(bytes("01 00"));
            p.sends(acknowledged);
        },
        [&] { return sahara::send_zepho_qdl_cmd(handle); });
    EXPECT_EQ(result, -11);
}

// Its number is all that is looked at.
TEST_F(Sahara, DownloadModeCommandTakesTheBeginningOfAnAcknowledgementForTheWhole)
{
    open_port();
    port.takes(enter_download_mode).sends(acknowledged.substr(0, 2));
    EXPECT_EQ(sahara::send_zepho_qdl_cmd(handle), -11);
}

TEST_F(Sahara, DownloadModeCommandReportsASecondOfSilence)
{
    open_port();
    port.takes(enter_download_mode);
    EXPECT_EQ(timed(1000, [&] { return sahara::send_zepho_qdl_cmd(handle); }), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error -110"});
    EXPECT_EQ(log.messages().back().function, "send_zepho_qdl_cmd");
}

TEST_F(Sahara, DownloadModeCommandReportsAFailedWrite)
{
    open_deaf_port();
    EXPECT_EQ(sahara::send_zepho_qdl_cmd(handle), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending hdr -102");
}

// --- hello_handshake

TEST_F(SaharaHandshake, EchoesTheVersionsOfTheHello)
{
    EXPECT_EQ(run(1, [](scripted_port &p) { p.sends(hello).takes(hello_response); }), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"hello response command sent"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(SaharaHandshake, AnswersAHelloOfAnotherModeThan2)
{
    const std::string hello_mode_3 =
        bytes("01 00 00 00 30 00 00 00 04 03 02 01 08 07 06 05 00 04 00 00 03 00 00 00") + zeros(24);
    EXPECT_EQ(run(0, [&](scripted_port &p) { p.sends(hello_mode_3).takes(hello_response); }), 0);
}

TEST_F(SaharaHandshake, TakesAHelloWhoseRemainderComesLater)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello_header);
        p.sends(hello.substr(8));
        p.takes(hello_response);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(SaharaHandshake, LeavesWhatFollowsTheHello)
{
    port.sends(hello + read_0_4).takes(hello_response);
    EXPECT_EQ(sahara::hello_handshake(handle, 0), 0);
    int waiting = 0;
    EXPECT_EQ(core_device_get_bytes_available(handle, &waiting), 0);
    EXPECT_EQ(waiting, 20);
    EXPECT_EQ(port.unread(), read_0_4);
}

TEST_F(SaharaHandshake, AsksAModemOfMode2ToRestart)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello_mode_2);
        p.takes(enter_download_mode);
        p.sends(acknowledged);
    });
    EXPECT_EQ(result, -11);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(SaharaHandshake, Platform0AnswersAMissingHelloWithDefaultVersionsAfterThreeSeconds)
{
    port.takes(default_hello_response);
    EXPECT_EQ(timed(3000, [&] { return sahara::hello_handshake(handle, 0); }), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"hello response command sent"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(SaharaHandshake, Platform0EndsWithAReadError)
{
    port.hangs_up();
    EXPECT_EQ(sahara::hello_handshake(handle, 0), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error -125"});
    EXPECT_EQ(log.messages().back().function, "hello_handshake");
}

TEST_F(SaharaHandshake, Platform1AsksTwiceForAMissingHello)
{
    // Twice the wait for a HELLO, and the flush of the state reset.
    port.takes(state_reset);
    EXPECT_EQ(timed(8000, [&] { return sahara::hello_handshake(handle, 1); }), -71);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"Send state reset command", "Flush port"}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(SaharaHandshake, Platform2TakesAHelloAfterTheStateReset)
{
    const int result = run(2, [](scripted_port &p) {
        p.takes(state_reset);
        p.sends(hello);
        p.takes(hello_response);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(SaharaHandshake, Platform1RetriesOnceAfterAHangUp)
{
    port.hangs_up();
    EXPECT_EQ(sahara::hello_handshake(handle, 1), -71);
    EXPECT_EQ(log.count(CORE_LOG_ERR, "error sending state reset command " + hung_up_unsigned), 1);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "Send state reset command"), 1);
}

TEST_F(SaharaHandshake, ShortHeaderLeadsToAStateResetOnPlatform0Too)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello.substr(0, 5));
        p.takes(state_reset);
        p.sends(hello);
        p.takes(hello_response);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 5"});
}

TEST_F(SaharaHandshake, HelloThatComesByteByByteIsAskedForAgain)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello.substr(0, 1));
        for (size_t i = 1; i < hello.size(); ++i)
            p.sends(hello.substr(i, 1));
        p.takes(state_reset);
        p.sends(hello);
        p.takes(hello_response);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 1"});
}

TEST_F(SaharaHandshake, DumpsAPacketThatIsNoHello)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(bytes("03 00 00 00 14 00 00 00"));
        p.takes(state_reset);
        p.sends(hello);
        p.takes(hello_response);
    });
    EXPECT_EQ(result, 0);
    const texts errors = log.texts(CORE_LOG_ERR);
    ASSERT_EQ(errors.size(), 5U);
    EXPECT_EQ(errors[0], "hello from modem expected instead of cmd 3");
    EXPECT_EQ(errors[1].substr(0, 16), "Printing buffer ");
    EXPECT_EQ(errors[1].substr(errors[1].find(" of ")), " of 48 bytes\n");
    EXPECT_EQ(errors[2], "[0000] 03 00 00 00 14 00 00 00 00 00 00 00 00 00 00 00 \n");
    EXPECT_EQ(errors[3], "[0016] 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 \n");
    EXPECT_EQ(errors[4], "[0032] 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 \n");
}

TEST_F(SaharaHandshake, GivesUpAfterTheSecondPacketThatIsNoHello)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(bytes("05 00 00 00 08 00 00 00"));
        p.takes(state_reset);
        p.sends(bytes("06 00 00 00 08 00 00 00"));
    });
    EXPECT_EQ(result, -71);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "hello from modem expected instead of cmd 5"));
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "hello from modem expected instead of cmd 6"));
}

TEST_F(SaharaHandshake, WaitsFiveSecondsForTheRemainder)
{
    port.sends(hello_header);
    EXPECT_EQ(timed(5000, [&] { return sahara::hello_handshake(handle, 1); }), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error reading the HELLO packet remainder -110"});
}

TEST_F(SaharaHandshake, HangUpInsideAHelloEndsIt)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello_header);
        p.hangs_up();
    });
    EXPECT_EQ(result, -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error reading the HELLO packet remainder -125"});
}

TEST_F(SaharaHandshake, RefusesARemainderOf39Bytes)
{
    port.sends(hello.substr(0, 47));
    EXPECT_EQ(sahara::hello_handshake(handle, 0), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus HELLO packet size 39"});
}

TEST_F(SaharaHandshake, ReturnsTheFailureOfTheResponse)
{
    port.sends(hello);
    port.refuses_a_write(EIO);
    EXPECT_EQ(sahara::hello_handshake(handle, 1), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error sending hello_rsp -5");
}

// --- send_programmer: requests

TEST_F(Upload, ServesRegionsInOrder)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(read_4_4);
        p.takes("EFGH");
        p.sends(read_8_2);
        p.takes("IJ");
        finish(p);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), (texts{"Sending programmer", "Sent 10 bytes"}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(log.messages().back().function, "send_programmer");
}

// The clock goes on by 200 s with each reading: at the start, at each request and at each block.
TEST_F(Upload, GivesUpABootLoaderThatAsksForTenMinutes)
{
    virtual_time::instance().per_read_ms = 200000;
    EXPECT_EQ(run(0,
                  [](scripted_port &p) {
                      p.sends(read_0_4);
                      p.takes("ABCD");
                      p.sends(read_0_4);
                  }),
              -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"the boot loader asks for more and more"});
}

TEST_F(Upload, ServesRegionsOutOfOrderAndTheSameOneTwice)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_8_2);
        p.takes("IJ");
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(read_8_2);
        p.takes("IJ");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, Serves64BitRequests)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read64_2_3);
        p.takes("CDE");
        p.sends(read64_2_3);
        p.takes("CDE");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

// It has an id, and no offset or length of its own.
TEST_F(Upload, A64BitRequestCutShortIsNotServedWithTheFieldsOfTheLastOne)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read64_2_3);
        p.takes("CDE");
        p.sends(read64_2_3.substr(0, 16));
    });
    EXPECT_EQ(result, -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + timed_out_unsigned});
}

TEST_F(Upload, AFirstRequestCutShortIsNotServedWithTheFieldsOfAnotherPacket)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(bytes("63 00 00 00 14 00 00 00 00 00 00 00 04 00 00 00 04 00 00 00"));
        p.sends(read_0_4.substr(0, 8));
    });
    EXPECT_EQ(result, -110);
}

TEST_F(Upload, RequestSizeStays32BytesAfterA64BitRequest)
{
    const std::string id_3_fields_of_64_bits = bytes(
        "03 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 05 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00");
    const int result = run(0, [&](scripted_port &p) {
        p.sends(read64_2_3);
        p.takes("CDE");
        p.sends(id_3_fields_of_64_bits);
        p.takes("FG");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, RequestSizeStays20BytesAfterA32BitRequest)
{
    const std::string id_18_fields_of_32_bits =
        bytes("12 00 00 00 14 00 00 00 0D 00 00 00 05 00 00 00 02 00 00 00");
    const int result = run(0, [&](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(id_18_fields_of_32_bits);
        p.takes("FG");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, ServesABlockThatThePortTakesInPieces)
{
    std::string content;
    for (int i = 0; i < 100000; ++i)
        content += static_cast<char>(i * 7 + i / 256);
    use_programmer(content);
    const int result = run(0, [&](scripted_port &p) {
        p.sends(bytes("03 00 00 00 14 00 00 00 0D 00 00 00 00 00 00 00 A0 86 01 00"));
        p.takes(content);
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, LengthZeroSendsNothingAndGoesOn)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_0);
        p.sends(read_4_4);
        p.takes("EFGH");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, RequestsThatArriveTogetherAreServedOneByOne)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(read_4_4 + read_8_2 + end_image);
        p.takes("EFGHIJ" + done);
        p.sends(done_response_0);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, SecondRequestGluedToTheFirstIsCut)
{
    // The first read takes 32 bytes, whatever they hold: 12 of them belong to the second request.
    const int result = run(0, [](scripted_port &p) { p.sends(read_0_4 + read_4_4).takes("ABCD"); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 8"});
}

TEST_F(Upload, RequestThatComesByteByByteEndsWell)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4.substr(0, 1));
        for (size_t i = 1; i < read_0_4.size(); ++i)
            p.sends(read_0_4.substr(i, 1));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 1"});
    EXPECT_EQ(port.unread(), read_0_4.substr(1));
}

TEST_F(Upload, FirstRequestCutAfterItsHeaderAsksForNothing)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_4_4.substr(0, 8));
        p.sends(read_4_4.substr(8));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 12"});
}

// --- send_programmer: the first request

TEST_F(Upload, ReportsAMissingFirstRequest)
{
    EXPECT_EQ(timed(500, [&] { return sahara::send_programmer(handle, package.get()); }), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + timed_out_unsigned});
    EXPECT_EQ(log.messages().back().function, "send_programmer");
}

TEST_F(Upload, ReportsAHangUpBeforeTheFirstRequest)
{
    port.hangs_up();
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + hung_up_unsigned});
}

TEST_F(Upload, FirstPacketOfSevenBytesEndsWell)
{
    port.sends(read_0_4.substr(0, 7));
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 7"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sending programmer"});
}

TEST_F(Upload, SkipsNinePacketsBeforeTheFirstRequest)
{
    const int result = run(0, [](scripted_port &p) {
        for (int i = 0; i < 9; ++i)
            p.sends(bytes("01 00 00 00 30 00 00 00"));
        p.sends(read_0_4);
        p.takes("ABCD");
        finish(p);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, GivesUpAfterTenPacketsThatAreNoRequest)
{
    const int result = run(0, [](scripted_port &p) {
        for (int i = 0; i < 10; ++i)
            p.sends(bytes("0E 00 00 00 08 00 00 00"));
    });
    EXPECT_EQ(result, -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"read_data from modem expected instead of cmd 14"});
}

// --- send_programmer: the file that was validated

TEST_F(Upload, ServesTheProgrammerThatWasValidated)
{
    package->programmer = identity_of(dir.at("prog.mbn"));
    uint64_t missing = 4711;
    port.sends(read_0_4);
    port.takes("ABCD");
    finish(port);
    EXPECT_EQ(sahara::send_programmer(handle, package.get(), &missing), 0);
    EXPECT_EQ(missing, 0U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
}

TEST_F(Upload, RefusesAProgrammerThatHasGrown)
{
    package->programmer = identity_of(dir.at("prog.mbn"));
    use_programmer("ABCDEFGHIJK");
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"file of 10 bytes has changed to 11: " + dir.at("prog.mbn"),
                                              "unable to open programmer image 4294967274"}));
}

TEST_F(Upload, RefusesAnotherProgrammerOfTheSameSize)
{
    package->programmer = identity_of(dir.at("prog.mbn"));
    std::filesystem::rename(dir.write("other", "abcdefghij"), dir.at("prog.mbn"));
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"file has changed: " + dir.at("prog.mbn"),
                                              "unable to open programmer image 4294967274"}));
}

TEST_F(Upload, RefusesAProgrammerThatIsGone)
{
    package->programmer = identity_of(dir.at("prog.mbn"));
    std::filesystem::remove(dir.at("prog.mbn"));
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"file is not there: " + dir.at("prog.mbn"),
                                              "unable to open programmer image 4294967294"}));
    EXPECT_FALSE(std::filesystem::exists(dir.at("prog.mbn")));
}

TEST_F(Upload, FailsWhenTheProgrammerChangesWhileItIsServed)
{
    port.sends(read_0_4);
    port.takes("ABCD");
    port.does([this] { std::filesystem::resize_file(dir.at("prog.mbn"), 11); });
    port.sends(end_image);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"file of 10 bytes has changed to 11: " + dir.at("prog.mbn")});
}

// --- send_programmer: the file

TEST_F(Upload, ReportsAProgrammerInAMissingDirectory)
{
    use_path(dir.at("missing/prog.mbn"));
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to open programmer image 4294967294");
}

TEST_F(Upload, ReportsAProgrammerThatCannotBeLookedAt)
{
    libc::fstat = libc::fails(EIO);
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to open programmer image " + io_error_unsigned});
}

TEST_F(Upload, ReportsAProgrammerWhoseSizeIsUnknown)
{
    libc::fstat = libc::fails_in_call(2, EIO, fstat); // the first one asks what it is
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to get bin file size " + io_error_unsigned);
}

TEST_F(Upload, RefusesAnEmptyProgrammer)
{
    use_programmer("");
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"programmer image " + dir.at("prog.mbn") + " is empty"});
}

TEST_F(Upload, RequestAcrossTheEndSendsNothingAndEndsWell)
{
    port.sends(read_8_4);
    uint64_t missing = 0;
    EXPECT_EQ(sahara::send_programmer(handle, package.get(), &missing), 0);
    EXPECT_EQ(missing, 2U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 4 bytes (read 2 bytes)"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sending programmer"});
}

TEST_F(Upload, RequestBeyondTheEndSendsNothingAndEndsWell)
{
    port.sends(read_20_4);
    uint64_t missing = 0;
    EXPECT_EQ(sahara::send_programmer(handle, package.get(), &missing), 0);
    EXPECT_EQ(missing, 4U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 4 bytes (read 0 bytes)"});
}

TEST_F(Upload, NeedsNobodyWhoAsksWhatIsMissing)
{
    port.sends(read_20_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 4 bytes (read 0 bytes)"});
}

TEST_F(Upload, LengthOf4GigabytesSendsNothing)
{
    port.sends(bytes(
        "12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00"));
    uint64_t missing = 0;
    EXPECT_EQ(sahara::send_programmer(handle, package.get(), &missing), 0);
    EXPECT_EQ(missing, 4294967290U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 4294967296 bytes (read 6 bytes)"});
}

TEST_F(Upload, LongestLengthOf32BitsSendsNothing)
{
    port.sends(bytes("03 00 00 00 14 00 00 00 0D 00 00 00 00 00 00 00 FF FF FF FF"));
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 4294967295 bytes (read 10 bytes)"});
}

TEST_F(Upload, LengthOf2To63SendsNothing)
{
    port.sends(bytes(
        "12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 80"));
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error 0 reading 9223372036854775808 bytes (read 10 bytes)"});
}

TEST_F(Upload, OffsetBeyond2To63CannotBeSought)
{
    port.sends(bytes(
        "12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 01 00 00 00 00 00 00 80 04 00 00 00 00 00 00 00"));
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "lseek error at 9223372036854775809");
}

TEST_F(Upload, ReportsAFileThatCannotBeRead)
{
    libc::fail_file_reads(EIO);
    port.sends(read_0_4);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(),
              "error " + io_error_unsigned + " reading 4 bytes (read 0 bytes)");
}

TEST_F(Upload, ReportsABlockThatDoesNotFitIntoMemory)
{
    std::filesystem::resize_file(dir.at("prog.mbn"), 1U << 30U);
    limit_memory();
    port.sends(bytes("03 00 00 00 14 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 40"));
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"memory failure"});
}

// --- send_programmer: sending and the next packet

TEST_F(Upload, ReportsABlockThatCannotBeSent)
{
    port.sends(read_0_4);
    port.refuses_a_write(EIO);
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error " + io_error_unsigned + " sending buffer");
}

TEST_F(Upload, SendsABlockAfterBackPressure)
{
    port.refuses_a_write(EAGAIN);
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        finish(p);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(virtual_time::instance().slept, std::vector<unsigned>{1000});
}

TEST_F(Upload, ReportsSilenceAfterABlock)
{
    port.sends(read_0_4);
    port.takes("ABCD");
    EXPECT_EQ(timed(500, [&] { return sahara::send_programmer(handle, package.get()); }), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + timed_out_unsigned});
}

TEST_F(Upload, ReportsAHangUpAfterABlock)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.hangs_up();
    });
    EXPECT_EQ(result, -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + hung_up_unsigned});
}

TEST_F(Upload, PacketOf15BytesAfterABlockEndsWell)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image.substr(0, 15));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 15"});
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"Sending programmer"});
}

TEST_F(Upload, RefusesAnotherCommandAfterABlock)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(hello.substr(0, 20));
    });
    EXPECT_EQ(result, -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unexpected command 1"});
}

TEST_F(Upload, FailsWithTheStatusOfTheImageTransfer)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image_status_7);
    });
    EXPECT_EQ(result, -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"image transfer failed 7"});
}

// --- send_programmer: DONE

struct done_case {
    const char *name;
    uint32_t platform;
    const std::string *response;
    int result;
    const char *error; // empty for none
};

static void PrintTo(const done_case &c, std::ostream *out)
{
    *out << "platform " << c.platform << ", result " << c.result;
}

class DoneStatus : public Upload, public testing::WithParamInterface<done_case> {};

TEST_P(DoneStatus, IsJudgedByPlatform)
{
    const done_case &c = GetParam();
    const int result = run(c.platform, [&](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
        p.takes(done);
        p.sends(*c.response);
    });
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), c.error[0] != '\0' ? texts{c.error} : texts{});
    EXPECT_EQ(log.has(CORE_LOG_INF, "Sent 10 bytes"), c.result == 0);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DoneStatus,
    testing::Values(
        done_case{"Platform0Status0", 0, &done_response_0, 0, ""},
        done_case{"Platform0Status1", 0, &done_response_1, -102, "error done response status is 1"},
        done_case{"Platform0StatusMinus1", 0, &done_response_minus_1, -102,
                  "error done response status is -1"},
        done_case{"Platform1Status1", 1, &done_response_1, 0, ""},
        done_case{"Platform1Status0", 1, &done_response_0, -102, "modem expecting another image"},
        done_case{"Platform1Status2", 1, &done_response_2, -102, "modem expecting another image"},
        done_case{"Platform2Status1", 2, &done_response_1, 0, ""},
        done_case{"Platform2Status0", 2, &done_response_0, -102, "modem expecting another image"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(Upload, RefusesAnotherCommandInPlaceOfTheDoneResponse)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
        p.takes(done);
        p.sends(bytes("07 00 00 00 0C 00 00 00 00 00 00 00"));
    });
    EXPECT_EQ(result, -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unexpected command 7"});
}

TEST_F(Upload, WaitsFiveSecondsForTheDoneResponse)
{
    const int result = timed(5000, [&] {
        return run(0, [](scripted_port &p) {
            p.sends(read_0_4);
            p.takes("ABCD");
            p.sends(end_image);
            p.takes(done);
        });
    });
    EXPECT_EQ(result, -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"error " + timed_out_unsigned});
}

TEST_F(Upload, TakesADoneResponseThatIsLate)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
        p.takes(done);
        p.takes(""); // longer than any wait but this one
        p.sends(done_response_0);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Upload, ReportsADoneThatCannotBeSent)
{
    port.lets_a_write_pass();
    port.refuses_a_write(EIO);
    const int result = run(0, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
    });
    EXPECT_EQ(result, -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error " + io_error_unsigned + " sending done");
}

// --- progress

namespace {

class UploadProgress : public Upload {
  protected:
    UploadProgress()
    {
        log_level = CORE_LOG_INF;
        core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
    }
    int upload()
    {
        return run(0, [](scripted_port &p) {
            p.sends(read_0_4);
            p.takes("ABCD");
            p.sends(read_8_2);
            p.takes("IJ");
            finish(p);
        });
    }
    // The printed lines; JSON lines without their time stamps.
    texts lines() const
    {
        texts found;
        for (const printed_line &line : printed.lines()) {
            const size_t stamp_end = line.text.find("\", ");
            const bool json = line.text.compare(0, 15, "{\"timestamp\": \"") == 0;
            found.push_back(json ? line.text.substr(stamp_end + 3) : line.text);
        }
        return found;
    }
    print_capture printed;
};

} // namespace

TEST_F(UploadProgress, IsAPercentageLineWithoutLineFeedPerBlock)
{
    EXPECT_EQ(upload(), 0);
    EXPECT_EQ(lines(),
              (texts{"Sending programmer\n", "0.00% completed\r", "80.00% completed\r", "Sent 10 bytes\n"}));
}

TEST_F(UploadProgress, ShowsWholePercentsOnly)
{
    use_programmer("ABC");
    port.sends(bytes("03 00 00 00 14 00 00 00 0D 00 00 00 01 00 00 00 01 00 00 00"));
    port.takes("B");
    EXPECT_EQ(sahara::send_programmer(handle, package.get()), -110);
    EXPECT_EQ(lines()[1], "33.00% completed\r");
}

TEST_F(UploadProgress, IsADebugLineAtDebugLevel)
{
    log_level = CORE_LOG_DBG;
    EXPECT_EQ(upload(), 0);
    const texts all = lines();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_NE(all[1].find(" DBG ../sahara.c:"), std::string::npos);
    EXPECT_NE(all[1].find(":send_programmer() Sending 4 bytes at offset 0\n"), std::string::npos);
    EXPECT_NE(all[2].find(":send_programmer() Sending 2 bytes at offset 8\n"), std::string::npos);
}

TEST_F(UploadProgress, IsAnEventPerBlockAndAFinalOneInJson)
{
    use_path("/proc/self/cwd/prog.mbn");
    std::filesystem::current_path(dir.path());
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    EXPECT_EQ(upload(), 0);
    const texts all = lines();
    ASSERT_EQ(all.size(), 5U);
    EXPECT_EQ(all[1], "\"type\": \"PROGRESS\", \"current\": 0, \"max\": 10, \"percent\": 0, "
                      "\"description\": \"/proc/self/cwd/prog.mbn\"}\n");
    EXPECT_EQ(all[2], "\"type\": \"PROGRESS\", \"current\": 8, \"max\": 10, \"percent\": 80, "
                      "\"description\": \"/proc/self/cwd/prog.mbn\"}\n");
    EXPECT_EQ(all[3], "\"type\": \"PROGRESS\", \"current\": 10, \"max\": 10, \"percent\": 100, "
                      "\"description\": \"/proc/self/cwd/prog.mbn\"}\n");
    EXPECT_NE(all[4].find("\"msg\": \"Sent 10 bytes\""), std::string::npos);
}

TEST_F(UploadProgress, StaysJsonAfterAnEvent)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    EXPECT_EQ(upload(), 0);
    EXPECT_TRUE(core_log_is_json());
}

TEST_F(UploadProgress, HasNoFinalEventInJsonWhenTheModemRefuses)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    const int result = run(1, [](scripted_port &p) {
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
        p.takes(done);
        p.sends(done_response_0);
    });
    EXPECT_EQ(result, -102);
    const texts all = lines();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_NE(all[1].find("\"current\": 0,"), std::string::npos);
    EXPECT_NE(all[2].find("\"msg\": \"modem expecting another image\""), std::string::npos);
}

TEST_F(UploadProgress, TakesAHugeOffsetInText)
{
    // 2^62 times 100 wraps around to 0 in 64 bits.
    port.sends(bytes(
        "12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 00 00 00 40 04 00 00 00 00 00 00 00"));
    static_cast<void>(sahara::send_programmer(handle, package.get()));
    EXPECT_EQ(lines()[1], "0.00% completed\r");
}

TEST_F(UploadProgress, TakesAHugeOffsetInJson)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    port.sends(bytes(
        "12 00 00 00 20 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 00 00 00 40 04 00 00 00 00 00 00 00"));
    static_cast<void>(sahara::send_programmer(handle, package.get()));
    EXPECT_NE(lines()[1].find("\"current\": 4611686018427387904, \"max\": 10, \"percent\": 0,"),
              std::string::npos);
}

// --- the stage

TEST_F(Stage, LoadsTheProgrammerOnPlatform0)
{
    const size_t descriptors = open_descriptors();
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        finish(p);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{"hello response command sent", "Sending 4 bytes at offset 0", "Flush port"}));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{});
    EXPECT_EQ(log.messages().back().function, "sahara_send_programmer");
    EXPECT_EQ(virtual_time::instance().slept, std::vector<unsigned>{500});
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, LoadsTheProgrammerOnPlatform1)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read64_2_3);
        p.takes("CDE");
        p.sends(end_image);
        p.takes(done);
        p.sends(done_response_1);
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Stage, LoadsTheProgrammerWithoutAHelloOnPlatform0)
{
    const int result = run(0, [](scripted_port &p) {
        p.takes(default_hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        finish(p);
        p.hangs_up();
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Stage, NeedsAFirmwareUpdatePort)
{
    m->modem_port_size = 1;
    EXPECT_EQ(sahara_send_programmer(m.get(), package.get()), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"no sahara port found"});
    EXPECT_EQ(log.messages().back().file, "../sahara.c");
    EXPECT_EQ(log.messages().back().function, "sahara_send_programmer");
}

TEST_F(Stage, NamesAPortThatCannotBeOpened)
{
    strlcpy(m->modem_port[1].port_name, "/nonexistent/port", sizeof m->modem_port[1].port_name);
    EXPECT_EQ(sahara_send_programmer(m.get(), package.get()), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to open device path /nonexistent/port");
}

TEST_F(Stage, ReportsAPortThatCannotBeConfigured)
{
    const size_t descriptors = open_descriptors();
    libc::tcgetattr = libc::fails(EIO);
    EXPECT_EQ(sahara_send_programmer(m.get(), package.get()), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "Unable to configure device");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, MakesThePortRawWithoutFlowControl)
{
    open_port();
    termios attributes{};
    ASSERT_EQ(tcgetattr(handle, &attributes), 0);
    attributes.c_lflag |= ICANON;
    attributes.c_oflag |= OPOST;
    attributes.c_cflag |= CRTSCTS;
    ASSERT_EQ(tcsetattr(handle, TCSANOW, &attributes), 0);
    run(1, [](scripted_port &p) {
        p.sends(hello_mode_2);
        p.takes(enter_download_mode);
        p.sends(acknowledged);
    });
    ASSERT_EQ(tcgetattr(handle, &attributes), 0);
    EXPECT_EQ(attributes.c_lflag & ICANON, 0U);
    EXPECT_EQ(attributes.c_oflag & OPOST, 0U);
    EXPECT_EQ(attributes.c_cflag & CRTSCTS, 0U);
}

TEST_F(Stage, KeepsALoneHelloThatWasWaiting)
{
    port.sends(hello);
    const int result = run(0, [](scripted_port &p) {
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        finish(p);
        p.hangs_up();
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Stage, ThrowsAway49BytesThatWereWaiting)
{
    // The HELLO among them is gone: the answer is the one to a HELLO that never came.
    port.sends(hello + "x");
    run(0, [](scripted_port &p) {
        p.takes(default_hello_response);
        p.hangs_up();
    });
    EXPECT_EQ(log.texts(CORE_LOG_DBG).front(), "Flush port");
    EXPECT_EQ(log.messages().front().function, "sahara_send_programmer");
}

TEST_F(Stage, RestartRequestEndsItWithoutAReset)
{
    const size_t descriptors = open_descriptors();
    const int result = run(2, [](scripted_port &p) {
        p.sends(hello_mode_2);
        p.takes(enter_download_mode);
        p.sends(acknowledged);
    });
    EXPECT_EQ(result, -11);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, FailedHandshakeEndsWithAReset)
{
    const size_t descriptors = open_descriptors();
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello.substr(0, 40));
        p.takes(reset);
    });
    EXPECT_EQ(result, -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"bogus HELLO packet size 32", "error in hello handshake"}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, UnacknowledgedRestartRequestEndsWithAReset)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello_mode_2);
        p.takes(enter_download_mode);
        p.takes(reset);
    });
    EXPECT_EQ(result, -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error -110", "error in hello handshake"}));
}

TEST_F(Stage, FailedImageTransferEndsWithAReset)
{
    const size_t descriptors = open_descriptors();
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image_status_7);
        p.takes(reset);
    });
    EXPECT_EQ(result, -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"image transfer failed 7", "error in updating the programmer"}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, WrongDoneStatusEndsWithAReset)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(end_image);
        p.takes(done);
        p.sends(done_response_0);
        p.takes(reset);
    });
    EXPECT_EQ(result, -102);
}

TEST_F(Stage, EmptyProgrammerEndsWithAReset)
{
    use_programmer("");
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes(reset);
    });
    EXPECT_EQ(result, -22);
}

TEST_F(Stage, ProgrammerThatIsTooShortEndsWithAReset)
{
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        p.sends(read_8_4);
        p.takes(reset);
    });
    EXPECT_EQ(result, -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error 0 reading 4 bytes (read 2 bytes)",
                                              "2 bytes that were asked for are not in " + dir.at("prog.mbn"),
                                              "error in updating the programmer"}));
}

TEST_F(Stage, ProgrammerThatHasChangedEndsWithAReset)
{
    package->programmer = identity_of(dir.at("prog.mbn"));
    use_programmer("ABCDEFGHI");
    const size_t descriptors = open_descriptors();
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes(reset);
    });
    EXPECT_EQ(result, -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"file of 10 bytes has changed to 9: " + dir.at("prog.mbn"),
                     "unable to open programmer image 4294967274", "error in updating the programmer"}));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, UploadUnderLastingBackPressureEndsWithoutAReset)
{
    const size_t descriptors = open_descriptors();
    port.lets_a_write_pass(); // the HELLO response
    for (int i = 0; i < 5; ++i)
        port.refuses_a_write(EAGAIN);
    const int result = run(0, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
    });
    EXPECT_EQ(result, -11);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in updating the programmer");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Stage, ShortPacketCountsAsAGoodUpload)
{
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4.substr(0, 7));
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bogus packet size 7"});
    EXPECT_TRUE(log.has(CORE_LOG_DBG, "Flush port"));
}

TEST_F(Stage, SurvivesAHangUpInTheMiddle)
{
    const size_t descriptors = open_descriptors();
    const int result = run(1, [](scripted_port &p) {
        p.sends(hello);
        p.takes(hello_response);
        p.sends(read_0_4);
        p.takes("ABCD");
        p.hangs_up();
    });
    EXPECT_EQ(result, -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"error " + hung_up_unsigned, "error in updating the programmer",
                                              "error writing command", "error -125"}));
    EXPECT_EQ(open_descriptors(), descriptors);
}
