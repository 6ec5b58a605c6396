#include "core-device.hpp"

#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "pty.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

using strings = std::vector<std::string>;

namespace {

// Gives ports modem lines; those that are set are noted.
void give_lines(int lines, std::vector<int> *set = nullptr)
{
    libc::ioctl = [lines, set](int handle, unsigned long request, void *argument) {
        if (request != TIOCMGET && request != TIOCMSET)
            return ioctl(handle, request, argument);
        if (request == TIOCMGET)
            *static_cast<int *>(argument) = lines;
        else
            set->push_back(*static_cast<const int *>(argument));
        return 0;
    };
}

// A descriptor that is open no more.
int closed_handle()
{
    const int handle = open("/dev/null", O_RDONLY);
    close(handle);
    return handle;
}

// Two ends of a pipe that does not block; each end may be closed early.
class pipe_ends {
  public:
    pipe_ends()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        out = ends[0];
        in = ends[1];
    }
    pipe_ends(const pipe_ends &) = delete;
    pipe_ends &operator=(const pipe_ends &) = delete;
    ~pipe_ends()
    {
        close_end(out);
        close_end(in);
    }

    static void close_end(int &end)
    {
        if (end != -1)
            close(end);
        end = -1;
    }

    void fill() const
    {
        const std::string block(4096, 'x');
        while (write(in, block.data(), block.size()) > 0)
            continue;
    }

    int out = -1; // what is read from
    int in = -1;  // what is written to
};

class Device : public testing::Test {
  protected:
    Device()
    {
        EXPECT_EQ(core_device_open(port.path().c_str(), &handle), 0);
        libc::write = [this](int to, const void *buffer, size_t size) -> ssize_t {
            if (write_results.empty())
                return write(to, buffer, size);
            written_blocks.emplace_back(static_cast<const char *>(buffer), size);
            const ssize_t result = write_results.front();
            write_results.pop_front();
            if (result >= 0)
                return result;
            errno = static_cast<int>(-result);
            return -1;
        };
    }
    ~Device() override { close(handle); }

    // Every wait expires, and is noted with its events and its time-out.
    void let_polls_expire()
    {
        libc::poll = [this](const pollfd *watched, nfds_t, int timeout) {
            noted_polls.emplace_back(watched->events, timeout);
            return 0;
        };
    }
    // The sleeps, in milliseconds.
    static const std::vector<unsigned> &slept() { return virtual_time::instance().slept; }

    termios attributes() const
    {
        termios now{};
        EXPECT_EQ(tcgetattr(handle, &now), 0);
        return now;
    }

    // Sends bytes and waits until they have arrived: the terminal hands them on in its own time.
    void bring(const std::string &bytes)
    {
        port.send(bytes);
        pollfd watched{handle, POLLIN, 0};
        EXPECT_EQ(poll(&watched, 1, 5000), 1);
    }

    const logged_message &only_message() const
    {
        EXPECT_EQ(log.messages().size(), 1U);
        static const logged_message none{};
        return log.messages().empty() ? none : log.messages()[0];
    }

    // Results of the coming writes: a count, or a negated errno; nothing is then written. Empty: real writes.
    std::deque<ssize_t> write_results;
    strings written_blocks;
    std::vector<std::pair<short, int>> noted_polls;

    // What this module does to a descriptor is tried on a real terminal, which has times of its own.
    real_time here;
    pty port;
    int handle = -1;
    log_capture log;
};

class DeviceOpen : public Device {};
class DeviceClose : public Device {};
class FlowControl : public Device {};
class SerialState : public Device {};
class ControlSignals : public Device {};
class BaudRate : public Device {};
class DeviceRead : public Device {};
class DevicePoll : public Device {};
class ReadTimeout : public Device {};
class DeviceWrite : public Device {};
class RetryingWrite : public Device {
  protected:
    RetryingWrite() { virtual_time::instance().is_real = false; } // its pauses take no time
};
class BytesAvailable : public Device {};

} // namespace

TEST_F(DeviceOpen, OpensForReadingAndWritingWithoutBlocking)
{
    const int flags = fcntl(handle, F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(flags & O_NONBLOCK, 0);
}

TEST_F(DeviceOpen, TouchesNoTerminalSettings)
{
    termios before = attributes();
    before.c_lflag |= ECHO | ICANON;
    before.c_oflag |= OPOST;
    tcsetattr(handle, TCSANOW, &before);
    int second = -1;
    EXPECT_EQ(core_device_open(port.path().c_str(), &second), 0);
    close(second);
    EXPECT_EQ(attributes().c_lflag, before.c_lflag);
    EXPECT_EQ(attributes().c_oflag, before.c_oflag);
}

TEST_F(DeviceOpen, ReportsAMissingDevice)
{
    int missing = 77;
    EXPECT_EQ(core_device_open("/nonexistent/tty", &missing), -2);
    EXPECT_EQ(missing, -1);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text,
              "could not open device /nonexistent/tty: error 2 No such file or directory\n");
    EXPECT_EQ(only_message().file, "core-device.c");
    EXPECT_EQ(only_message().function, "core_device_open");
}

TEST_F(DeviceOpen, ReportsADirectoryAsGenericFailure)
{
    const temp_dir dir;
    int missing = 77;
    EXPECT_EQ(core_device_open(dir.path().c_str(), &missing), -102);
    EXPECT_EQ(missing, -1);
    EXPECT_EQ(only_message().text, "could not open device " + dir.path() + ": error 21 Is a directory\n");
}

TEST_F(DeviceOpen, CreatesNothing)
{
    const temp_dir dir;
    int missing = 77;
    EXPECT_EQ(core_device_open(dir.at("new").c_str(), &missing), -2);
    EXPECT_NE(access(dir.at("new").c_str(), F_OK), 0);
}

// A session leader without a terminal, as a daemon is, would get the port as its controlling terminal.
TEST(DeviceOpenDeathTest, MakesNoControllingTerminalOfThePort)
{
    const pty port;
    const auto open_as_session_leader = [&port] {
        setsid();
        int handle = -1;
        if (core_device_open(port.path().c_str(), &handle) != 0)
            _exit(2);
        _exit(open("/dev/tty", O_RDWR) == -1 && errno == ENXIO ? 0 : 1);
    };
    EXPECT_EXIT(open_as_session_leader(), testing::ExitedWithCode(0), "");
}

TEST_F(DeviceClose, ClosesTheHandle)
{
    int second = -1;
    static_cast<void>(core_device_open(port.path().c_str(), &second));
    EXPECT_EQ(core_device_close(second), 0);
    EXPECT_EQ(fcntl(second, F_GETFL), -1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeviceClose, ReportsAHandleThatIsNotOpen)
{
    EXPECT_EQ(core_device_close(closed_handle()), -102);
    EXPECT_EQ(only_message().level, CORE_LOG_DBG);
    EXPECT_EQ(only_message().text, "could not close handle: error 9 Bad file descriptor\n");
    EXPECT_EQ(only_message().function, "core_device_close");
}

TEST_F(FlowControl, MakesTheTerminalRaw)
{
    termios cooked = attributes();
    cooked.c_iflag |= ICRNL | IXON | ISTRIP;
    cooked.c_oflag |= OPOST;
    cooked.c_lflag |= ECHO | ICANON | ISIG | IEXTEN;
    tcsetattr(handle, TCSANOW, &cooked);
    EXPECT_EQ(core_device_set_raw_mode(handle), 0);
    const termios now = attributes();
    EXPECT_EQ(now.c_iflag & (IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON), 0U);
    EXPECT_EQ(now.c_oflag & OPOST, 0U);
    EXPECT_EQ(now.c_lflag & (ECHO | ECHONL | ICANON | ISIG | IEXTEN), 0U);
    EXPECT_EQ(now.c_cflag & (CSIZE | PARENB), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(now.c_cc[VMIN], 1);
    EXPECT_EQ(now.c_cc[VTIME], 0);
}

TEST_F(FlowControl, IsSet)
{
    EXPECT_EQ(core_set_hw_flow_control(handle, true), 0);
    EXPECT_NE(attributes().c_cflag & CRTSCTS, 0U);
}

TEST_F(FlowControl, IsCleared)
{
    static_cast<void>(core_set_hw_flow_control(handle, true));
    EXPECT_EQ(core_set_hw_flow_control(handle, false), 0);
    EXPECT_EQ(attributes().c_cflag & CRTSCTS, 0U);
}

TEST_F(FlowControl, IsClearedByRawMode)
{
    static_cast<void>(core_set_hw_flow_control(handle, true));
    EXPECT_EQ(core_device_set_raw_mode(handle), 0);
    EXPECT_EQ(attributes().c_cflag & CRTSCTS, 0U);
}

TEST_F(FlowControl, KeepsTheSpeed)
{
    static_cast<void>(core_device_set_baud_rate(handle, 460800));
    EXPECT_EQ(core_set_hw_flow_control(handle, true), 0);
    const termios now = attributes();
    EXPECT_EQ(cfgetospeed(&now), static_cast<speed_t>(B460800));
}

TEST_F(FlowControl, IgnoresARegularFile)
{
    const temp_dir dir;
    const int file = open(dir.write("f", "").c_str(), O_RDWR);
    EXPECT_EQ(core_set_hw_flow_control(file, true), 0);
    close(file);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(FlowControl, ReportsAHandleThatIsNotOpen)
{
    EXPECT_EQ(core_set_hw_flow_control(closed_handle(), false), -102);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "could not get device configuration: error 9 Bad file descriptor\n");
    EXPECT_EQ(only_message().function, "core_set_hw_flow_control");
}

TEST_F(FlowControl, ReportsATerminalThatHungUp)
{
    port.hang_up();
    EXPECT_EQ(core_device_set_raw_mode(handle), -5);
    EXPECT_EQ(only_message().text, "could not get device configuration: error 5 Input/output error\n");
}

TEST_F(FlowControl, ReportsSettingsThatAreNotTaken)
{
    libc::tcsetattr = libc::fails(EIO);
    EXPECT_EQ(core_set_hw_flow_control(handle, false), -5);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "could not set device config: error 5 Input/output error\n");
}

TEST_F(SerialState, NeedsARecord)
{
    EXPECT_EQ(core_get_serial_state(handle, nullptr), -22);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(SerialState, IsZeroWhereThereAreNoModemLines)
{
    const int file = open("/dev/null", O_RDWR);
    core_serial_state state{1, 1, 1, 1};
    EXPECT_EQ(core_get_serial_state(file, &state), 0);
    close(file);
    EXPECT_EQ(state.dsr, 0);
    EXPECT_EQ(state.cts, 0);
    EXPECT_EQ(state.cd, 0);
    EXPECT_EQ(state.ri, 0);
    EXPECT_EQ(only_message().level, CORE_LOG_DBG);
    EXPECT_EQ(only_message().text, "could not get serial setting: error 25 Inappropriate ioctl for device\n");
    EXPECT_EQ(only_message().function, "core_get_serial_state");
}

TEST(SerialStateRecord, IsFourBytesInTheOrderOfTheLines)
{
    const core_serial_state state{1, 2, 3, 4};
    unsigned char bytes[4];
    static_assert(sizeof state == sizeof bytes);
    memcpy(bytes, &state, sizeof bytes);
    EXPECT_EQ(state.dsr, bytes[0]);
    EXPECT_EQ(state.cts, bytes[1]);
    EXPECT_EQ(state.cd, bytes[2]);
    EXPECT_EQ(state.ri, bytes[3]);
}

struct line_row {
    const char *name;
    int lines;
    core_serial_state state;
};

static void PrintTo(const line_row &row, std::ostream *out)
{
    *out << row.lines;
}

class ModemLines : public testing::TestWithParam<line_row> {};

TEST_P(ModemLines, AreReadIntoTheRecord)
{
    give_lines(GetParam().lines);
    core_serial_state state{7, 7, 7, 7};
    EXPECT_EQ(core_get_serial_state(0, &state), 0);
    EXPECT_EQ(state.dsr, GetParam().state.dsr);
    EXPECT_EQ(state.cts, GetParam().state.cts);
    EXPECT_EQ(state.cd, GetParam().state.cd);
    EXPECT_EQ(state.ri, GetParam().state.ri);
}

INSTANTIATE_TEST_SUITE_P(Table, ModemLines,
                         testing::Values(line_row{"none", 0, {0, 0, 0, 0}},
                                         line_row{"data_set_ready", TIOCM_DSR, {1, 0, 0, 0}},
                                         line_row{"line_enable", TIOCM_LE, {1, 0, 0, 0}},
                                         line_row{"clear_to_send", TIOCM_CTS, {0, 1, 0, 0}},
                                         line_row{"carrier_detect", TIOCM_CD, {0, 0, 1, 0}},
                                         line_row{"ring_indicator", TIOCM_RI, {0, 0, 0, 1}},
                                         line_row{"own_lines", TIOCM_DTR | TIOCM_RTS, {0, 0, 0, 0}},
                                         line_row{"all", 0x1FF, {1, 1, 1, 1}}),
                         [](const auto &row) { return std::string(row.param.name); });

struct signal_row {
    const char *name;
    bool dtr;
    bool rts;
    int before;
    int after;
};

static void PrintTo(const signal_row &row, std::ostream *out)
{
    *out << row.name;
}

class OwnLines : public testing::TestWithParam<signal_row> {};

TEST_P(OwnLines, AreWrittenBack)
{
    std::vector<int> set_lines;
    give_lines(GetParam().before, &set_lines);
    EXPECT_EQ(core_set_control_signals(0, GetParam().dtr, GetParam().rts), 0);
    EXPECT_EQ(set_lines, std::vector<int>{GetParam().after});
}

INSTANTIATE_TEST_SUITE_P(Table, OwnLines,
                         testing::Values(signal_row{"both_on", true, true, 0, TIOCM_DTR | TIOCM_RTS},
                                         signal_row{"dtr_on", true, false, 0, TIOCM_DTR},
                                         signal_row{"rts_on", false, true, 0, TIOCM_RTS},
                                         signal_row{"both_off", false, false, TIOCM_DTR | TIOCM_RTS, 0},
                                         signal_row{"dtr_off", false, true, TIOCM_DTR | TIOCM_RTS, TIOCM_RTS},
                                         signal_row{"rts_off", true, false, TIOCM_DTR | TIOCM_RTS, TIOCM_DTR},
                                         signal_row{"others_stay", false, false, TIOCM_CTS | TIOCM_DTR,
                                                    TIOCM_CTS}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(ControlSignals, SucceedEvenIfTheLinesCannotBeRead)
{
    const int file = open("/dev/null", O_RDWR);
    EXPECT_EQ(core_set_control_signals(file, true, true), 0);
    close(file);
    EXPECT_EQ(only_message().level, CORE_LOG_DBG);
    EXPECT_EQ(only_message().text, "could not get serial setting: error 25 Inappropriate ioctl for device\n");
    EXPECT_EQ(only_message().function, "core_set_control_signals");
}

TEST_F(ControlSignals, SucceedEvenIfTheLinesCannotBeWritten)
{
    libc::ioctl = [](int, unsigned long request, const void *) {
        errno = EIO;
        return request == TIOCMSET ? -1 : 0;
    };
    EXPECT_EQ(core_set_control_signals(handle, true, true), 0);
    EXPECT_EQ(only_message().level, CORE_LOG_DBG);
    EXPECT_EQ(only_message().text, "could not set serial setting: error 5 Input/output error\n");
}

struct rate_row {
    unsigned rate;
    speed_t speed;
};

static void PrintTo(const rate_row &row, std::ostream *out)
{
    *out << row.rate;
}

class SupportedRate : public Device, public testing::WithParamInterface<rate_row> {};

TEST_P(SupportedRate, IsSetBothWays)
{
    EXPECT_EQ(core_device_set_baud_rate(handle, GetParam().rate), 0);
    const termios now = attributes();
    EXPECT_EQ(cfgetispeed(&now), GetParam().speed);
    EXPECT_EQ(cfgetospeed(&now), GetParam().speed);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"setting baudrate " + std::to_string(GetParam().rate) + "\n"});
    EXPECT_EQ(log.messages().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Table, SupportedRate,
                         testing::Values(rate_row{115200, B115200}, rate_row{230400, B230400},
                                         rate_row{460800, B460800}, rate_row{921600, B921600},
                                         rate_row{2000000, B2000000}, rate_row{3000000, B3000000}),
                         [](const auto &row) { return std::to_string(row.param.rate); });

class UnsupportedRate : public Device, public testing::WithParamInterface<unsigned> {};

TEST_P(UnsupportedRate, IsRefusedAndThePortNotTouched)
{
    static_cast<void>(core_device_set_baud_rate(handle, 230400));
    log.clear();
    EXPECT_EQ(core_device_set_baud_rate(handle, GetParam()), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"invalid baud rate " + std::to_string(GetParam()) + "\n"});
    EXPECT_EQ(log.messages().back().function, "core_device_set_baud_rate");
    const termios now = attributes();
    EXPECT_EQ(cfgetospeed(&now), static_cast<speed_t>(B230400));
}

INSTANTIATE_TEST_SUITE_P(Table, UnsupportedRate,
                         testing::Values(0U, 9600U, 57600U, 115199U, 115201U, 500000U, 1000000U, 4000000U,
                                         4294967295U));

TEST_F(BaudRate, ReportsAHandleThatIsNotOpen)
{
    EXPECT_EQ(core_device_set_baud_rate(closed_handle(), 115200), -102);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"setting baudrate 115200\n"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not get device configuration: error 9 Bad file descriptor\n"});
    EXPECT_EQ(log.messages().back().function, "core_device_set_baud_rate");
}

TEST_F(BaudRate, ReportsAHandleThatIsNoTerminal)
{
    const int file = open("/dev/null", O_RDWR);
    EXPECT_EQ(core_device_set_baud_rate(file, 115200), -102);
    close(file);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not get device configuration: error 25 Inappropriate ioctl for device\n"});
}

TEST_F(BaudRate, ReportsAnInputSpeedThatIsRefused)
{
    libc::cfsetispeed = libc::fails(EINVAL);
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"cfsetispeed error 22 Invalid argument\n"});
}

TEST_F(BaudRate, ReportsAnOutputSpeedThatIsRefused)
{
    libc::cfsetospeed = libc::fails(EINVAL);
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"cfsetospeed error 22 Invalid argument\n"});
}

TEST_F(BaudRate, ReportsSettingsThatAreNotTaken)
{
    libc::tcsetattr = libc::fails(EIO);
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), -5);
    EXPECT_EQ(
        log.texts(CORE_LOG_DBG),
        (strings{"setting baudrate 115200\n", "could not set device config: error 5 Input/output error\n"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(BaudRate, ReportsSettingsThatCannotBeReadBack)
{
    libc::tcgetattr = libc::fails_in_call(2, EIO, tcgetattr);
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              strings{"could not get device configuration: error 5 Input/output error\n"});
}

TEST_F(BaudRate, AcceptsAPortThatIgnoresTheInputSpeed)
{
    libc::cfgetispeed = [](const termios *) { return B9600; };
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (strings{"setting baudrate 115200\n", "baud rate has not changed\n"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(BaudRate, AcceptsAPortThatIgnoresTheOutputSpeed)
{
    libc::cfgetospeed = [](const termios *) { return B9600; };
    EXPECT_EQ(core_device_set_baud_rate(handle, 115200), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (strings{"setting baudrate 115200\n", "baud rate has not changed\n"}));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(DeviceRead, TakesWhatIsThere)
{
    bring("abc");
    char buffer[16];
    size_t count = 77;
    EXPECT_EQ(core_device_read(handle, buffer, sizeof buffer, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "abc");
}

TEST_F(DeviceRead, TakesNoMoreThanTheBufferHolds)
{
    bring("abcdef");
    char buffer[4] = {'z', 'z', 'z', 'z'};
    size_t count = 77;
    EXPECT_EQ(core_device_read(handle, buffer, 3, &count), 0);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(std::string(buffer, 4), "abcz");
    EXPECT_EQ(core_device_read(handle, buffer, 3, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "def");
}

TEST_F(DeviceRead, HasNothingSilently)
{
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read(handle, &byte, 1, &count), -11);
    EXPECT_EQ(count, 0U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeviceRead, SucceedsWithNoBytesAtAnEnd)
{
    pipe_ends ends;
    pipe_ends::close_end(ends.in);
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read(ends.out, &byte, 1, &count), 0);
    EXPECT_EQ(count, 0U);
}

TEST_F(DeviceRead, ReportsAHandleThatIsNotOpen)
{
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read(closed_handle(), &byte, 1, &count), -102);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "could not read data from handle: error 9 Bad file descriptor\n");
    EXPECT_EQ(only_message().function, "core_device_read");
}

TEST_F(DeviceRead, ReportsADirectory)
{
    const int directory = open("/", O_RDONLY);
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read(directory, &byte, 1, &count), -102);
    close(directory);
    EXPECT_EQ(only_message().text, "could not read data from handle: error 21 Is a directory\n");
}

TEST_F(DevicePoll, SeesInput)
{
    port.send("a");
    EXPECT_EQ(core_device_poll(handle, 5000), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DevicePoll, ExpiresSilently)
{
    EXPECT_EQ(core_device_poll(handle, 1), -110);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DevicePoll, MayLookWithoutWaiting)
{
    EXPECT_EQ(core_device_poll(handle, 0), -110);
    EXPECT_EQ(_core_device_poll(handle, 0, POLLOUT), 0);
}

TEST_F(DevicePoll, WatchesForInputForTheGivenTime)
{
    let_polls_expire();
    EXPECT_EQ(core_device_poll(handle, 1234), -110);
    EXPECT_EQ(noted_polls, (std::vector<std::pair<short, int>>{{POLLIN, 1234}}));
}

TEST_F(DevicePoll, IsNotReadyByAnEventThatWasNotAskedFor)
{
    bring("a");
    const int result = _core_device_poll(handle, 0, POLLPRI);
    EXPECT_EQ(result, -110);
}

TEST_F(DevicePoll, SeesAHangUp)
{
    port.hang_up();
    EXPECT_EQ(core_device_poll(handle, 1000), -125);
    EXPECT_EQ(only_message().level, CORE_LOG_DBG);
    EXPECT_EQ(only_message().text, "poll hang up\n");
    EXPECT_EQ(only_message().function, "_core_device_poll");
}

TEST_F(DevicePoll, PutsAHangUpBeforeInput)
{
    pipe_ends ends;
    ASSERT_EQ(write(ends.in, "a", 1), 1);
    pipe_ends::close_end(ends.in);
    EXPECT_EQ(core_device_poll(ends.out, 1000), -125);
}

TEST_F(DevicePoll, SeesADeviceError)
{
    pipe_ends ends;
    pipe_ends::close_end(ends.out);
    EXPECT_EQ(_core_device_poll(ends.in, 1000, POLLOUT), -102);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "poll device error\n");
}

TEST_F(DevicePoll, TakesAHandleThatIsNotOpenAsATimeOut)
{
    EXPECT_EQ(core_device_poll(closed_handle(), 1000), -110);
}

TEST_F(DevicePoll, ReportsAFailure)
{
    libc::poll = libc::fails(EINVAL);
    EXPECT_EQ(core_device_poll(handle, 1000), -22);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "Poll error 22, Invalid argument");
}

TEST_F(DevicePoll, MapsAFailureWithoutARow)
{
    libc::poll = libc::fails(ENOMEM);
    EXPECT_EQ(core_device_poll(handle, 1000), -102);
    EXPECT_EQ(only_message().text, "Poll error 12, Cannot allocate memory");
}

static void ignore_signal(int) {}

TEST_F(DevicePoll, IsInterruptedSilently)
{
    struct sigaction action {};
    action.sa_handler = ignore_signal; // without SA_RESTART, so that poll(2) ends
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval timer{{0, 10000}, {0, 10000}}; // and again, should the first come before the wait
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    const int result = core_device_poll(handle, 5000);
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(result, -4);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ReadTimeout, TakesWhatIsThere)
{
    port.send("abc");
    char buffer[16];
    size_t count = 77;
    EXPECT_EQ(core_device_read_timeout(handle, buffer, sizeof buffer, 5000, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "abc");
}

TEST_F(ReadTimeout, TakesEachPieceAsItComes)
{
    std::string received;
    for (const char *const piece : {"A", "T\r", "\n", "OK"}) {
        port.send(piece);
        char buffer[16];
        size_t count = 77;
        EXPECT_EQ(core_device_read_timeout(handle, buffer, sizeof buffer, 5000, &count), 0);
        received += std::string(buffer, count) + "|";
    }
    EXPECT_EQ(received, "A|T\r|\n|OK|");
}

TEST_F(ReadTimeout, ExpiresWithNoBytes)
{
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read_timeout(handle, &byte, 1, 1, &count), -110);
    EXPECT_EQ(count, 0U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ReadTimeout, WaitsForInputForTheGivenTime)
{
    let_polls_expire();
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read_timeout(handle, &byte, 1, 5000, &count), -110);
    EXPECT_EQ(noted_polls, (std::vector<std::pair<short, int>>{{POLLIN, 5000}}));
}

TEST_F(ReadTimeout, ReportsAHangUp)
{
    port.hang_up();
    char byte = 'z';
    size_t count = 77;
    EXPECT_EQ(core_device_read_timeout(handle, &byte, 1, 1000, &count), -125);
    EXPECT_EQ(count, 0U);
}

TEST_F(DeviceWrite, WritesTheBytes)
{
    size_t count = 77;
    EXPECT_EQ(core_device_write(handle, "AT\r\0\xFF", 5, &count), 0);
    EXPECT_EQ(count, 5U);
    EXPECT_EQ(port.receive(5), std::string("AT\r\0\xFF", 5));
}

TEST_F(DeviceWrite, WaitsFiveSecondsForRoom)
{
    let_polls_expire();
    size_t count = 77;
    EXPECT_EQ(core_device_write(handle, "AT", 2, &count), -110);
    EXPECT_EQ(noted_polls, (std::vector<std::pair<short, int>>{{POLLOUT, 5000}}));
    EXPECT_EQ(count, 0U);
}

TEST_F(DeviceWrite, WritesNothingWithoutRoom)
{
    let_polls_expire();
    write_results = {2};
    size_t count = 77;
    static_cast<void>(core_device_write(handle, "AT", 2, &count));
    EXPECT_TRUE(written_blocks.empty());
}

TEST_F(DeviceWrite, ReportsAHangUp)
{
    port.hang_up();
    size_t count = 77;
    EXPECT_EQ(core_device_write(handle, "AT", 2, &count), -125);
    EXPECT_EQ(count, 0U);
}

TEST_F(DeviceWrite, MayBeShort)
{
    write_results = {2};
    size_t count = 77;
    EXPECT_EQ(core_device_write(handle, "ATE0", 4, &count), 0);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(written_blocks, strings{"ATE0"});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(DeviceWrite, MayTakeNothing)
{
    write_results = {0};
    size_t count = 77;
    EXPECT_EQ(core_device_write(handle, "ATE0", 4, &count), 0);
    EXPECT_EQ(count, 0U);
}

TEST_F(DeviceWrite, ReportsAFailure)
{
    const int full = open("/dev/full", O_RDWR | O_NONBLOCK);
    size_t count = 77;
    EXPECT_EQ(core_device_write(full, "AT", 2, &count), -28);
    close(full);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "could not write data to handle: error 28 No space left on device\n");
    EXPECT_EQ(only_message().function, "core_device_write");
}

TEST_F(RetryingWrite, WritesAllAtOnce)
{
    EXPECT_EQ(core_device_recoursive_write(handle, "abc\0d", 5), 0);
    EXPECT_EQ(port.receive_until_quiet(), std::string("abc\0d", 5));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RetryingWrite, WritesNothingOfNoBytes)
{
    write_results = {77};
    EXPECT_EQ(core_device_recoursive_write(handle, "", 0), 0);
    EXPECT_TRUE(written_blocks.empty());
}

TEST_F(RetryingWrite, WaitsFiveSecondsForRoomOnce)
{
    libc::poll = [this](pollfd *watched, nfds_t count, int timeout) {
        noted_polls.emplace_back(watched->events, timeout);
        return poll(watched, count, timeout);
    };
    write_results = {3, 0, 5};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), 0);
    EXPECT_EQ(noted_polls, (std::vector<std::pair<short, int>>{{POLLOUT, 5000}}));
}

TEST_F(RetryingWrite, WritesNothingWithoutRoom)
{
    let_polls_expire();
    write_results = {8};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -110);
    EXPECT_TRUE(written_blocks.empty());
}

TEST_F(RetryingWrite, ReportsAHangUp)
{
    port.hang_up();
    write_results = {8};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -125);
    EXPECT_TRUE(written_blocks.empty());
}

TEST_F(RetryingWrite, WritesTheWholeBufferAgainAfterAPart)
{
    write_results = {3, 8};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), 0);
    EXPECT_EQ(written_blocks, (strings{"abcdefgh", "abcdefgh"}));
    EXPECT_TRUE(slept().empty());
}

TEST_F(RetryingWrite, StopsWhenThePartsAddUp)
{
    write_results = {3, 3, 2, 77};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), 0);
    EXPECT_EQ(written_blocks.size(), 3U);
}

TEST_F(RetryingWrite, GivesUpAfterTenWritesThatTookNothing)
{
    write_results.assign(20, 0);
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -5);
    EXPECT_EQ(written_blocks.size(), 10U);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "write returned zero (written 0 bytes out of 8)\n");
    EXPECT_EQ(only_message().function, "core_device_recoursive_write");
}

TEST_F(RetryingWrite, PausesTenMillisecondsAfterEachThatTookNothing)
{
    write_results.assign(20, 0);
    static_cast<void>(core_device_recoursive_write(handle, "abcdefgh", 8));
    EXPECT_EQ(slept(), std::vector<unsigned>(10, 10));
}

TEST_F(RetryingWrite, SucceedsAtTheTenthTry)
{
    write_results.assign(9, 0);
    write_results.push_back(8);
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RetryingWrite, HasTenNewTriesAfterAPart)
{
    write_results.assign(9, 0);
    write_results.push_back(3);
    write_results.insert(write_results.end(), 9, 0);
    write_results.push_back(5);
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), 0);
    EXPECT_EQ(written_blocks.size(), 20U);
}

TEST_F(RetryingWrite, ReportsWhatWasWrittenWhenItGivesUp)
{
    write_results = {3};
    write_results.insert(write_results.end(), 10, 0);
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -5);
    EXPECT_EQ(only_message().text, "write returned zero (written 3 bytes out of 8)\n");
}

TEST_F(RetryingWrite, ReportsAFailure)
{
    write_results = {3, -EIO};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -5);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "could not write data to handle: error 5 Input/output error\n");
}

TEST_F(RetryingWrite, ReportsAFullDeviceAsAFailure)
{
    write_results = {3, -EAGAIN};
    EXPECT_EQ(core_device_recoursive_write(handle, "abcdefgh", 8), -11);
    EXPECT_EQ(only_message().text,
              "could not write data to handle: error 11 Resource temporarily unavailable\n");
}

TEST_F(RetryingWrite, HasNoRoomInAFullPipe)
{
    const pipe_ends ends;
    ends.fill();
    let_polls_expire();
    EXPECT_EQ(core_device_recoursive_write(ends.in, "a", 1), -110);
    EXPECT_EQ(noted_polls.size(), 1U);
}

TEST_F(BytesAvailable, AreCounted)
{
    bring("abcde");
    int count = 77;
    EXPECT_EQ(core_device_get_bytes_available(handle, &count), 0);
    EXPECT_EQ(count, 5);
}

TEST_F(BytesAvailable, MayBeNone)
{
    int count = 77;
    EXPECT_EQ(core_device_get_bytes_available(handle, &count), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(BytesAvailable, ReportAHandleThatIsNotOpen)
{
    int count = 77;
    EXPECT_EQ(core_device_get_bytes_available(closed_handle(), &count), -102);
    EXPECT_EQ(only_message().level, CORE_LOG_ERR);
    EXPECT_EQ(only_message().text, "ioctl FIONREAD returned error 9 Bad file descriptor\n");
    EXPECT_EQ(only_message().function, "core_device_get_bytes_available");
}

namespace {

class HasVidPid : public testing::Test {
  protected:
    HasVidPid()
    {
        memcpy(info.vid, "05c6", 5);
        memcpy(info.pid, "9008", 5);
    }

    core_device_info info{};
};

} // namespace

TEST_F(HasVidPid, AcceptsEqualTexts)
{
    EXPECT_TRUE(core_device_has_vid_pid(&info, "05c6", "9008"));
}

TEST_F(HasVidPid, RefusesAnotherVendor)
{
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c7", "9008"));
}

TEST_F(HasVidPid, RefusesAnotherProduct)
{
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c6", "900e"));
}

TEST_F(HasVidPid, ComparesWithTheCase)
{
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05C6", "9008"));
}

TEST_F(HasVidPid, RefusesALongerText)
{
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c60", "9008"));
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c6", "90080"));
}

TEST_F(HasVidPid, RefusesAShorterText)
{
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c", "9008"));
    EXPECT_FALSE(core_device_has_vid_pid(&info, "05c6", ""));
}

using HasVidPidDeathTest = HasVidPid;

TEST_F(HasVidPidDeathTest, NeedsARecord)
{
    EXPECT_EXIT(static_cast<void>(core_device_has_vid_pid(nullptr, "05c6", "9008")),
                testing::KilledBySignal(SIGABRT), "assertion failed: info\n");
}

TEST_F(HasVidPidDeathTest, NeedsAVendor)
{
    EXPECT_EXIT(static_cast<void>(core_device_has_vid_pid(&info, nullptr, "9008")),
                testing::KilledBySignal(SIGABRT), "assertion failed: vid\n");
}

TEST_F(HasVidPidDeathTest, NeedsAProduct)
{
    EXPECT_EXIT(static_cast<void>(core_device_has_vid_pid(&info, "05c6", nullptr)),
                testing::KilledBySignal(SIGABRT), "assertion failed: pid\n");
}
