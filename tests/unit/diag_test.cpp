#include "diag.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "pty.hpp"

#include <cerrno>
#include <deque>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// How many bytes the next writes take; the real write where nothing is scripted.
struct write_step {
    ssize_t taken; // -1 for an error
    int error;
};
std::deque<write_step> write_script;
std::vector<std::string> offered; // what the code under test wanted to write, write by write

void script_writes(std::deque<write_step> script)
{
    write_script = std::move(script);
    offered.clear();
}

} // namespace

// Takes the place of the C library's, to take only a part or to fail.
extern "C" ssize_t write(int handle, const void *data, size_t size)
{
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, const void *, size_t)>(dlsym(RTLD_NEXT, "write"));
    if (write_script.empty())
        return real(handle, data, size);
    const write_step step = write_script.front();
    write_script.pop_front();
    offered.emplace_back(static_cast<const char *>(data), size);
    if (step.taken < 0) {
        errno = step.error;
        return -1;
    }
    return real(handle, data, static_cast<size_t>(step.taken));
}

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

// What came on the port: the bytes that are due, and whatever is too much.
static std::string received(pty *port, size_t due = 7)
{
    const std::string bytes = port->receive(due);
    return bytes + port->receive_until_quiet();
}

// How many descriptors of this process are open on `path`.
static int open_descriptors(const std::string &path)
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry.path(), gone) == path ? 1 : 0;
    }
    return count;
}

TEST(SwitchToDownloadMode, WritesTheSevenBytesOfTheFrame)
{
    pty port;
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(received(&port), frame);
}

TEST(SwitchToDownloadMode, SaysNothingWhenAllIsWell)
{
    log_capture log;
    pty port;
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    static_cast<void>(switch_QDload_mode(&m));
    EXPECT_TRUE(log.messages().empty());
}

TEST(SwitchToDownloadMode, ClosesThePortAgain)
{
    pty port;
    const int before = open_descriptors(port.path());
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(open_descriptors(port.path()), before);
}

TEST(SwitchToDownloadMode, FindsTheDiagnosticPortBehindOthers)
{
    pty at;
    pty diagnostic;
    modem m = modem_with_port(at.path(), PORT_AT);
    add_port(&m, "/nonexistent/unknown", PORT_UNKNOWN);
    add_port(&m, "/nonexistent/update", PORT_FIRMWARE_UPDATE);
    add_port(&m, diagnostic.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(received(&diagnostic), frame);
    EXPECT_EQ(at.receive_until_quiet(), "");
}

TEST(SwitchToDownloadMode, TakesTheFirstOfTwoDiagnosticPorts)
{
    pty first;
    pty second;
    modem m = modem_with_port(first.path(), PORT_DIAGNOSTIC);
    add_port(&m, second.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(received(&first), frame);
    EXPECT_EQ(second.receive_until_quiet(), "");
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

TEST(SwitchToDownloadMode, RefusesAModemWithoutPorts)
{
    log_capture log;
    const modem m{};
    EXPECT_EQ(switch_QDload_mode(&m), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"no diagnostic port found"});
}

TEST(SwitchToDownloadMode, IgnoresAPortBehindTheCount)
{
    pty port;
    modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    m.modem_port_size = 0;
    EXPECT_EQ(switch_QDload_mode(&m), -19);
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

TEST(SwitchToDownloadMode, ReportsAFullPort)
{
    log_capture log;
    const modem m = modem_with_port("/dev/full", PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -28);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in writing the switch command");
    EXPECT_EQ(log.messages().back().function, "switch_QDload_mode");
}

TEST(SwitchToDownloadMode, GoesOnAfterAShortWrite)
{
    pty port;
    script_writes({{3, 0}, {1, 0}, {3, 0}});
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(offered, (std::vector<std::string>{frame, frame.substr(3), frame.substr(4)}));
    EXPECT_EQ(received(&port), frame);
}

TEST(SwitchToDownloadMode, WritesByteByByteIntoASlowPort)
{
    pty port;
    script_writes(std::deque<write_step>(7, write_step{1, 0}));
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), 0);
    EXPECT_EQ(received(&port), frame);
}

TEST(SwitchToDownloadMode, EndsWithTheErrorOfAnyWrite)
{
    log_capture log;
    pty port;
    script_writes({{3, 0}, {-1, EIO}});
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "error in writing the switch command");
    EXPECT_EQ(received(&port, 3), frame.substr(0, 3));
}

TEST(SwitchToDownloadMode, DoesNotRepeatTheFrameOnAPortThatIsFull)
{
    log_capture log;
    pty port;
    script_writes({{-1, EAGAIN}});
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -11);
    EXPECT_EQ(offered.size(), 1U);
    EXPECT_EQ(port.receive_until_quiet(), "");
}

TEST(SwitchToDownloadMode, GivesUpOnAPortThatTakesNothingTenTimes)
{
    log_capture log;
    pty port;
    script_writes(std::deque<write_step>(10, write_step{0, 0}));
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"error in writing the switch command"});
    EXPECT_EQ(offered.size(), 10U);
}

TEST(SwitchToDownloadMode, ClosesThePortAfterAFailedWrite)
{
    log_capture log;
    pty port;
    const int before = open_descriptors(port.path());
    script_writes({{-1, EIO}});
    const modem m = modem_with_port(port.path(), PORT_DIAGNOSTIC);
    EXPECT_EQ(switch_QDload_mode(&m), -5);
    EXPECT_EQ(open_descriptors(port.path()), before);
}
