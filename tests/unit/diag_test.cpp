#include "diag.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "pty.hpp"

#include <gtest/gtest.h>

static modem modem_with_port(const std::string &path, uint32_t type)
{
    modem m{};
    m.probing_mode = PROBING_PORT;
    m.modem_port_size = 1;
    strlcpy(m.modem_port[0].port_name, path.c_str(), sizeof m.modem_port[0].port_name);
    m.modem_port[0].port_type = type;
    return m;
}

TEST(SwitchToDownloadMode, WritesTheSevenBytesOfTheFrame)
{
    pty port;
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(port.receive_until_quiet(), std::string("\x4B\x65\x01\x00\x54\x0F\x7E", 7));
}

TEST(SwitchToDownloadMode, OpensNothingWithoutADiagnosticPort)
{
    log_capture log;
    pty port;
    const modem m = modem_with_port(port.path(), PORT_AT);
    EXPECT_EQ(switch_QDload_mode(&m), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"no diagnostic port found"});
    EXPECT_EQ(port.receive_until_quiet(), "");
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

TEST(SwitchToDownloadMode, ReportsAPortThatTakesNothing)
{
    log_capture log;
    pty port;
    const modem m = modem_with_port("/dev/full", PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -28);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in writing the switch command");
}
