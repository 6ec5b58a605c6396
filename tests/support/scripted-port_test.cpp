#include "scripted-port.hpp"

#include "virtual-time.hpp"

#include <cerrno>
#include <chrono>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

class ScriptedPort : public testing::Test {
  protected:
    // What poll(2) sees within the time; 0 for nothing.
    short wait(short events, int timeout_ms) const
    {
        pollfd watched{handle, events, 0};
        return poll(&watched, 1, timeout_ms) > 0 ? watched.revents : static_cast<short>(0);
    }
    // One read(2) of at most so many bytes; "<errno>" where it fails.
    std::string read_some(size_t size = 100) const
    {
        std::string bytes(size, '\0');
        const ssize_t count = read(handle, bytes.data(), size);
        return count < 0 ? "<" + std::to_string(errno) + ">" : bytes.substr(0, static_cast<size_t>(count));
    }
    ssize_t write_all(const std::string &bytes) const { return write(handle, bytes.data(), bytes.size()); }
    int waiting() const
    {
        int count = -1;
        EXPECT_EQ(ioctl(handle, FIONREAD, &count), 0);
        return count;
    }

    scripted_port port;
    const int handle = port.open();
};

} // namespace

// ---- what it is strict about

TEST_F(ScriptedPort, TakesWhatItAwaitsInPieces)
{
    port.takes("hello").takes("you");
    EXPECT_EQ(write_all("he"), 2);
    EXPECT_EQ(write_all("lloy"), 4);
    EXPECT_EQ(write_all("ou"), 2);
    EXPECT_EQ(port.written(), "helloyou");
    EXPECT_EQ(port.writes(), (std::vector<std::string>{"he", "lloy", "ou"}));
}

TEST_F(ScriptedPort, FailsWhenOtherBytesAreWritten)
{
    port.takes("hello");
    EXPECT_NONFATAL_FAILURE(write_all("help!"), "awaited: \"hello\"");
}

TEST_F(ScriptedPort, FailsWhenNobodyAwaitsWhatIsWritten)
{
    port.takes("hello");
    EXPECT_NONFATAL_FAILURE(write_all("hello!"), "nobody awaits \"!\"");
}

TEST_F(ScriptedPort, FailsWhenSomethingIsWrittenInAPause)
{
    port.pauses(10).takes("x");
    EXPECT_NONFATAL_FAILURE(write_all("x"), "nobody awaits \"x\"");
    EXPECT_EQ(wait(POLLIN, 10), 0);
    write_all("x");
}

TEST(ScriptedPortLeft, FailsForBytesThatWereNeverWritten)
{
    EXPECT_NONFATAL_FAILURE(scripted_port().takes("x"), "never written: \"x\"");
    EXPECT_NONFATAL_FAILURE(scripted_port().takes_up_to('\r'), "never written: \"\\r\"");
}

TEST(ScriptedPortLeft, FailsForBytesThatWereNeverRead)
{
    EXPECT_NONFATAL_FAILURE(scripted_port().sends("x"), "never read: \"x\"");
}

TEST(ScriptedPortLeft, FailsForASilenceThatNobodyWaitedThrough)
{
    EXPECT_NONFATAL_FAILURE(scripted_port().lets_a_wait_pass(), "never waited for");
}

TEST(ScriptedPortLeft, FailsForWritesThatNeverCame)
{
    EXPECT_NONFATAL_FAILURE(scripted_port().refuses_a_write(EIO).takes_at_most(1), "2 writes never came");
}

TEST(ScriptedPortLeft, FailsForADescriptorThatIsStillOpen)
{
    int left = -1;
    const auto leave_open = [&left] {
        const scripted_port port;
        left = open(port.path().c_str(), O_RDWR);
    };
    EXPECT_NONFATAL_FAILURE(leave_open(), "left open");
    close(left);
}

TEST_F(ScriptedPort, FailsForAReadThatWouldNeverReturn)
{
    scripted_port other;
    const int blocking = other.open(O_RDWR);
    char byte = 0;
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(read(blocking, &byte, 1), -1), "would not return");
}

TEST_F(ScriptedPort, FailsForAWaitWithoutEnd)
{
    EXPECT_NONFATAL_FAILURE(wait(POLLIN, -1), "without end");
    port.sends("x");
    EXPECT_EQ(wait(POLLIN, -1), POLLIN);
    EXPECT_EQ(read_some(), "x");
}

// ---- what arrives

TEST_F(ScriptedPort, HasNothingToReadAtFirst)
{
    EXPECT_EQ(read_some(), "<" + std::to_string(EAGAIN) + ">");
    EXPECT_EQ(waiting(), 0);
    EXPECT_EQ(wait(POLLOUT, 1000), POLLOUT);
}

TEST_F(ScriptedPort, HandsArrivalsOverOneByOne)
{
    port.sends("one").sends("three");
    EXPECT_EQ(wait(POLLIN, 0), POLLIN);
    EXPECT_EQ(waiting(), 3);
    EXPECT_EQ(read_some(2), "on");
    EXPECT_EQ(read_some(), "e");
    EXPECT_EQ(waiting(), 5);
    EXPECT_EQ(read_some(), "three");
}

TEST_F(ScriptedPort, TricklesByteByByte)
{
    port.trickles("ab");
    EXPECT_EQ(read_some(), "a");
    EXPECT_EQ(read_some(), "b");
}

TEST_F(ScriptedPort, HasAnEmptyRead)
{
    port.sends("").sends("x");
    EXPECT_EQ(wait(POLLIN, 0), POLLIN);
    EXPECT_EQ(read_some(), "");
    EXPECT_EQ(read_some(), "x");
}

TEST_F(ScriptedPort, AnswersWhenItHasTakenWhatItAwaited)
{
    port.takes("AT\r").sends("OK");
    EXPECT_EQ(wait(POLLIN, 100), 0);
    write_all("AT");
    EXPECT_EQ(wait(POLLIN, 100), 0);
    write_all("\r");
    EXPECT_EQ(wait(POLLIN, 100), POLLIN);
    EXPECT_EQ(read_some(), "OK");
}

TEST_F(ScriptedPort, TakesAnythingUpToACharacter)
{
    port.takes_up_to('\r').sends("OK").takes("x");
    write_all("AT+ANY");
    EXPECT_EQ(wait(POLLIN, 0), 0);
    write_all("THING\rx");
    EXPECT_EQ(read_some(), "OK");
}

TEST_F(ScriptedPort, ShowsWhatNobodyHasRead)
{
    port.sends("one").sends("two");
    read_some(1);
    EXPECT_EQ(port.unread(), "netwo");
    EXPECT_EQ(waiting(), 0);
}

TEST_F(ScriptedPort, HangsUpBehindItsBytes)
{
    port.sends("x").hangs_up();
    EXPECT_EQ(wait(POLLIN, 0), POLLIN);
    EXPECT_EQ(read_some(), "x");
    EXPECT_EQ(wait(POLLIN, 0), POLLIN | POLLHUP);
    EXPECT_EQ(wait(POLLOUT, 0), POLLOUT | POLLHUP);
    EXPECT_EQ(read_some(), "<" + std::to_string(EIO) + ">");
    EXPECT_EQ(write_all("x"), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(ScriptedPort, Breaks)
{
    port.breaks();
    EXPECT_EQ(wait(POLLIN, 0), POLLERR);
}

TEST_F(ScriptedPort, FailsARead)
{
    port.fails_a_read(EIO).sends("x");
    EXPECT_EQ(wait(POLLIN, 0), POLLIN);
    EXPECT_EQ(read_some(), "<" + std::to_string(EIO) + ">");
    EXPECT_EQ(read_some(), "x");
}

TEST_F(ScriptedPort, DoesWhatItIsToldInItsTurn)
{
    bool is_done = false;
    port.takes("x").does([&is_done] { is_done = true; });
    EXPECT_FALSE(is_done);
    write_all("x");
    EXPECT_TRUE(is_done);
}

// ---- time

TEST_F(ScriptedPort, IsSilentWithoutRealTime)
{
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(POLLIN, 3600000), 0); }), 3600000);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::minutes(1));
    EXPECT_EQ(port.waits(), std::vector<int>{3600000});
    EXPECT_EQ(port.waits_in_vain(), 1U);
}

TEST_F(ScriptedPort, GoesOnInTheMiddleOfAWait)
{
    port.pauses(300).sends("x");
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(POLLIN, 1000), POLLIN); }), 300);
    EXPECT_EQ(read_some(), "x");
    EXPECT_EQ(port.waits_in_vain(), 0U);
}

TEST_F(ScriptedPort, PausesForLongerThanAWait)
{
    port.pauses(1500).sends("x");
    EXPECT_EQ(wait(POLLIN, 1000), 0);
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(POLLIN, 1000), POLLIN); }), 500);
    EXPECT_EQ(read_some(), "x");
}

TEST_F(ScriptedPort, GoesOnWhileTheCodeSleeps)
{
    port.pauses(100).sends("x");
    usleep(99000);
    EXPECT_EQ(waiting(), 0);
    usleep(1000);
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(read_some(), "x");
}

TEST_F(ScriptedPort, LetsOneWaitPassHoweverLongItIs)
{
    port.lets_a_wait_pass().sends("x");
    EXPECT_EQ(read_some(), "<" + std::to_string(EAGAIN) + ">");
    EXPECT_EQ(wait(POLLIN, 60000), 0);
    EXPECT_EQ(wait(POLLIN, 0), POLLIN);
    EXPECT_EQ(read_some(), "x");
}

// ---- writes that go wrong

TEST_F(ScriptedPort, TakesAPartOfAWrite)
{
    port.takes_at_most(2).lets_a_write_pass().takes("hello");
    EXPECT_EQ(write_all("hello"), 2);
    EXPECT_EQ(write_all("llo"), 3);
}

TEST_F(ScriptedPort, TakesEachWriteInSmallPieces)
{
    port.largest_write = 3;
    port.takes("hello");
    EXPECT_EQ(write_all("hello"), 3);
    EXPECT_EQ(write_all("lo"), 2);
}

TEST_F(ScriptedPort, RefusesAWrite)
{
    port.refuses_a_write(ENOSPC).takes("x");
    EXPECT_EQ(write_all("x"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(port.written(), "");
    EXPECT_EQ(write_all("x"), 1);
}

TEST(ScriptedPortOpen, TakesNothingThroughADescriptorForReading)
{
    scripted_port port;
    const int handle = port.open(O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(write(handle, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- the terminal

TEST_F(ScriptedPort, KeepsItsSettings)
{
    termios attributes{};
    ASSERT_EQ(tcgetattr(handle, &attributes), 0);
    EXPECT_EQ(attributes.c_lflag & ICANON, 0U);
    attributes.c_lflag |= ICANON;
    ASSERT_EQ(tcsetattr(handle, TCSANOW, &attributes), 0);
    EXPECT_NE(port.settings.c_lflag & ICANON, 0U);
}

TEST_F(ScriptedPort, HasModemLinesWhereItIsGivenSome)
{
    int lines = TIOCM_DTR;
    EXPECT_EQ(ioctl(handle, TIOCMGET, &lines), -1);
    port.modem_lines = TIOCM_CTS;
    EXPECT_EQ(ioctl(handle, TIOCMGET, &lines), 0);
    EXPECT_EQ(lines, TIOCM_CTS);
    EXPECT_EQ(ioctl(handle, TIOCMSET, &lines), 0);
    EXPECT_EQ(port.modem_lines_set, std::vector<int>{TIOCM_CTS});
}

TEST_F(ScriptedPort, IsAPortOfItsOwn)
{
    scripted_port other;
    other.sends("theirs");
    port.sends("ours");
    EXPECT_NE(other.path(), port.path());
    EXPECT_EQ(read_some(), "ours");
    EXPECT_EQ(other.unread(), "theirs");
}

TEST_F(ScriptedPort, KnowsItsDescriptors)
{
    const int copy = dup(handle);
    EXPECT_EQ(port.open_descriptors(), 2U);
    EXPECT_EQ(scripted_port::of(copy), &port);
    close(copy);
    EXPECT_EQ(port.open_descriptors(), 1U);
    EXPECT_EQ(scripted_port::of(STDOUT_FILENO), nullptr);
}
