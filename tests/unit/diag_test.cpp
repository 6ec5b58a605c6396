#include "diag.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "pty.hpp"
#include "scripted-port.hpp"
#include "virtual-time.hpp"

#include <cerrno>
#include <gtest/gtest.h>

static const std::string frame("\x4B\x65\x01\x00\x54\x0F\x7E", 7);

static modem modem_with_port(const std::string &path, uint32_t type)
{
    modem m{};
    m.probing_mode = PROBING_PORT;
    m.modem_port_size = 1;
    strlcpy(m.modem_port[0].port_name, path.c_str(), sizeof m.modem_port[0].port_name);
    m.modem_port[0].port_type = type;
    return m;
}

static void add_port(modem *m, const std::string &path, uint32_t type)
{
    modem_port_record &record = m->modem_port[m->modem_port_size++];
    strlcpy(record.port_name, path.c_str(), sizeof record.port_name);
    record.port_type = type;
}

TEST(SwitchToDownloadMode, WritesTheSevenBytesOfTheFrame)
{
    scripted_port port;
    port.takes(frame);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.written(), frame);
}

// The one case on a real terminal: it is written to as it was found, without any setting of the port.
TEST(SwitchToDownloadMode, ReachesATerminal)
{
    const real_time here;
    pty port;
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.receive(7), frame);
}

TEST(SwitchToDownloadMode, SaysNothingWhenAllIsWell)
{
    log_capture log;
    scripted_port port;
    port.takes(frame);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    static_cast<void>(switch_QDload_mode(&m));
    EXPECT_TRUE(log.messages().empty());
}

TEST(SwitchToDownloadMode, ClosesThePortAgain)
{
    scripted_port port;
    port.takes(frame);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.open_descriptors(), 0U);
}

TEST(SwitchToDownloadMode, FindsTheDiagnosticPortBehindOthers)
{
    scripted_port at;
    scripted_port diagnostic;
    diagnostic.takes(frame);
    modem m = modem_with_port(at.path(), PORT_AT);
    add_port(&m, "/nonexistent/unknown", PORT_UNKNOWN);
    add_port(&m, "/nonexistent/update", PORT_FIRMWARE_UPDATE);
    add_port(&m, diagnostic.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(diagnostic.written(), frame);
    EXPECT_EQ(at.written(), "");
}

TEST(SwitchToDownloadMode, TakesTheFirstOfTwoDiagnosticPorts)
{
    scripted_port first;
    scripted_port second;
    first.takes(frame);
    modem m = modem_with_port(first.path(), PORT_DIAGNOSTIC);
    add_port(&m, second.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(first.written(), frame);
    EXPECT_EQ(second.written(), "");
}

TEST(SwitchToDownloadMode, OpensNothingWithoutADiagnosticPort)
{
    log_capture log;
    scripted_port port;
    const modem m = modem_with_port(port.path(), PORT_AT);
    EXPECT_EQ(switch_QDload_mode(&m), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"no diagnostic port found"});
    EXPECT_EQ(port.written(), "");
}

TEST(SwitchToDownloadMode, RefusesAModemWithoutPorts)
{
    log_capture log;
    const modem m{};
    EXPECT_EQ(switch_QDload_mode(&m), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"no diagnostic port found"});
}

TEST(SwitchToDownloadMode, IgnoresAPortBehindTheCount)
{
    scripted_port port;
    modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    m.modem_port_size = 0;
    EXPECT_EQ(switch_QDload_mode(&m), -19);
    EXPECT_EQ(port.written(), "");
}

TEST(SwitchToDownloadMode, NamesAPortThatCannotBeOpened)
{
    log_capture log;
    const modem m = modem_with_port("/nonexistent/port", PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -102);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "unable to open device path /nonexistent/port"));
    EXPECT_EQ(log.messages().back().file, "../diag.c");
    EXPECT_EQ(log.messages().back().function, "switch_QDload_mode");
}

TEST(SwitchToDownloadMode, ReportsAFullPort)
{
    log_capture log;
    scripted_port port;
    port.refuses_a_write(ENOSPC);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -28);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in writing the switch command");
    EXPECT_EQ(log.messages().back().function, "switch_QDload_mode");
}

TEST(SwitchToDownloadMode, GoesOnAfterAShortWrite)
{
    scripted_port port;
    port.takes_at_most(3).takes_at_most(1).takes_at_most(3).takes(frame);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.writes(), (std::vector<std::string>{frame, frame.substr(3), frame.substr(4)}));
    EXPECT_EQ(port.written(), frame);
}

TEST(SwitchToDownloadMode, WritesByteByByteIntoASlowPort)
{
    scripted_port port;
    port.largest_write = 1;
    port.takes(frame);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.written(), frame);
}

TEST(SwitchToDownloadMode, EndsWithTheErrorOfAnyWrite)
{
    log_capture log;
    scripted_port port;
    port.takes_at_most(3).refuses_a_write(EIO).takes(frame.substr(0, 3));
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in writing the switch command");
    EXPECT_EQ(port.written(), frame.substr(0, 3));
}

TEST(SwitchToDownloadMode, DoesNotRepeatTheFrameOnAPortThatIsFull)
{
    log_capture log;
    scripted_port port;
    port.refuses_a_write(EAGAIN);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -11);
    EXPECT_EQ(port.writes().size(), 1U);
    EXPECT_EQ(port.written(), "");
}

TEST(SwitchToDownloadMode, GivesUpOnAPortThatTakesNothingTenTimes)
{
    log_capture log;
    scripted_port port;
    for (int i = 0; i < 10; ++i)
        port.takes_at_most(0);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"error in writing the switch command"});
    EXPECT_EQ(port.writes().size(), 10U);
}

TEST(SwitchToDownloadMode, ClosesThePortAfterAFailedWrite)
{
    log_capture log;
    scripted_port port;
    port.refuses_a_write(EIO);
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -5);
    EXPECT_EQ(port.open_descriptors(), 0U);
}
