#include "log-sink.hpp"

#include "core-base.hpp"
#include "libc-hooks.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int page = 4096;

void fill(int descriptor)
{
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const int writer = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    const std::string block(page, '#');
    while (write(writer, block.data(), block.size()) > 0)
        continue;
    EXPECT_EQ(errno, EAGAIN);
    close(writer);
}

// Another process fills the pipe whenever poll(2) has said that there is room.
void fill_behind_poll(int descriptor)
{
    libc::poll = [descriptor](pollfd *watched, nfds_t count, int timeout) {
        const int result = poll(watched, count, timeout);
        if (result > 0)
            fill(descriptor);
        return result;
    };
}

// There is room, but for less than a line feed takes on a terminal.
void always_call_writable()
{
    libc::poll = [](pollfd *, nfds_t, int) { return 1; };
}

// The ends of a pipe of four pages.
struct small_pipe {
    small_pipe()
    {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        EXPECT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4 * page), 4 * page);
    }
    small_pipe(const small_pipe &) = delete;
    small_pipe &operator=(const small_pipe &) = delete;
    ~small_pipe()
    {
        close(ends[0]);
        close(ends[1]);
    }
    int writer() const { return ends[1]; }
    std::string take(size_t size = 65536) const
    {
        int there = 0;
        if (ioctl(ends[0], FIONREAD, &there) != 0 || there == 0)
            return "";
        std::string data(size, '\0');
        data.resize(static_cast<size_t>(read(ends[0], data.data(), size)));
        return data;
    }

    int ends[2] = {-1, -1};
};

// Two sinks, as the log core has them.
struct two_sinks {
    two_sinks(int out, int err)
        : first(out, lines[0], patience, second), second(err, lines[1], patience, first)
    {
    }

    log_patience patience;
    log_line lines[2];
    log_sink first;
    log_sink second;
};

int add(log_sink *sink, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = sink->add(format, arguments);
    va_end(arguments);
    return result;
}

bool print(log_sink *sink, const std::string &text)
{
    return sink->begin() && add(sink, "%s", text.c_str()) >= 0 && sink->end();
}

// Writes that block do so in real time. The result is in milliseconds.
template <typename Call> int64_t real_duration_of(Call call)
{
    using std::chrono::steady_clock;
    const real_time real;
    const auto begun = steady_clock::now();
    call();
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begun).count();
}

class LogSink : public testing::Test {
  protected:
    LogSink() { signal(SIGPIPE, SIG_IGN); }

    small_pipe out;
    small_pipe err;
    two_sinks sinks{out.writer(), err.writer()};
};

} // namespace

TEST_F(LogSink, WritesALineAtOnce)
{
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    EXPECT_EQ(out.take(), "line\n");
    EXPECT_TRUE(print(&sinks.second, "error\n"));
    EXPECT_EQ(err.take(), "error\n");
}

TEST_F(LogSink, WritesWhatWasAddedAsOne)
{
    ASSERT_TRUE(sinks.first.begin());
    EXPECT_EQ(add(&sinks.first, "%s", "one "), 4);
    EXPECT_EQ(add(&sinks.first, "%d\n", 22), 3);
    EXPECT_EQ(out.take(), "");
    EXPECT_TRUE(sinks.first.end());
    EXPECT_EQ(out.take(), "one 22\n");
}

TEST_F(LogSink, WritesNothingForAnEmptyText)
{
    fill(out.writer());
    EXPECT_EQ(duration_of([&] { EXPECT_TRUE(print(&sinks.first, "")); }), 0);
}

TEST_F(LogSink, DropsALineThatHasNoRoomAfterASecond)
{
    fill(out.writer());
    EXPECT_EQ(duration_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); }), 1000);
    EXPECT_TRUE(sinks.patience.is_over());
    EXPECT_EQ(out.take().find("line"), std::string::npos);
}

TEST_F(LogSink, WaitsNoMoreOnceTheSecondIsOver)
{
    fill(out.writer());
    fill(err.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_EQ(duration_of([&] {
                  EXPECT_FALSE(print(&sinks.first, "line\n"));
                  EXPECT_FALSE(print(&sinks.second, "error\n"));
              }),
              0);
}

TEST_F(LogSink, WritesAgainOnceTheReaderIsBack)
{
    fill(out.writer());
    EXPECT_FALSE(print(&sinks.first, "lost\n"));
    out.take();
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    EXPECT_EQ(out.take(), "line\n");
}

TEST_F(LogSink, WaitsForAReaderThatIsLate)
{
    fill(out.writer());
    virtual_time::instance().after(999, [&] { out.take(); });
    EXPECT_EQ(duration_of([&] { EXPECT_TRUE(print(&sinks.first, "line\n")); }), 999);
    EXPECT_EQ(out.take(), "line\n");
    EXPECT_FALSE(sinks.patience.is_over());
}

TEST_F(LogSink, AddsUpTheWaitsOfBothStreams)
{
    fill(out.writer());
    virtual_time::instance().after(600, [&] { out.take(); });
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    fill(err.writer());
    EXPECT_EQ(duration_of([&] { EXPECT_FALSE(print(&sinks.second, "error\n")); }), 400);
}

TEST_F(LogSink, CompletesALineBeforeTheNext)
{
    const std::string line = std::string(3 * page, 'x') + "\n";
    ASSERT_TRUE(print(&sinks.first, std::string(2 * page, '#')));
    EXPECT_TRUE(print(&sinks.first, line)); // two pages of it
    EXPECT_FALSE(print(&sinks.first, "lost\n"));
    EXPECT_EQ(out.take(4 * page), std::string(2 * page, '#') + std::string(2 * page, 'x'));
    EXPECT_TRUE(print(&sinks.first, "next\n"));
    EXPECT_EQ(out.take(), std::string(page, 'x') + "\nnext\n");
}

TEST_F(LogSink, CompletesTheLineOfTheOtherStreamOnTheSamePipe)
{
    two_sinks both(out.writer(), out.writer());
    ASSERT_TRUE(print(&both.first, std::string(2 * page, '#')));
    EXPECT_TRUE(print(&both.first, std::string(3 * page, 'x') + "\n"));
    EXPECT_FALSE(print(&both.second, "lost\n"));
    out.take(4 * page);
    EXPECT_TRUE(print(&both.second, "error\n"));
    EXPECT_EQ(out.take(), std::string(page, 'x') + "\nerror\n");
}

TEST_F(LogSink, IsNotHeldUpByTheOtherStreamElsewhere)
{
    ASSERT_TRUE(print(&sinks.first, std::string(2 * page, '#')));
    EXPECT_TRUE(print(&sinks.first, std::string(3 * page, 'x') + "\n"));
    EXPECT_TRUE(print(&sinks.second, "error\n"));
    EXPECT_EQ(err.take(), "error\n");
}

TEST_F(LogSink, InterruptsAWriteThatBlocksAfterAll)
{
    fill_behind_poll(out.writer());
    const int64_t taken = real_duration_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); });
    EXPECT_GE(taken, 990);
    EXPECT_LT(taken, 1500);
}

TEST_F(LogSink, InterruptsAWriteWhereTheSignalIsBlocked)
{
    sigset_t signals;
    sigset_t before;
    sigset_t behind;
    sigemptyset(&signals);
    sigaddset(&signals, SIGURG);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    fill_behind_poll(out.writer());
    EXPECT_LT(real_duration_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); }), 1500);
    pthread_sigmask(SIG_SETMASK, &before, &behind);
    EXPECT_EQ(sigismember(&behind, SIGURG), 1);
}

TEST_F(LogSink, LeavesTheSignalToTheProcess)
{
    signal(SIGURG, SIG_IGN);
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    EXPECT_EQ(signal(SIGURG, SIG_DFL), SIG_IGN);
}

TEST_F(LogSink, DoesNotBlockWhereAnotherProcessIsQuickerAgainAndAgain)
{
    fill(out.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    fill_behind_poll(out.writer());
    EXPECT_LT(real_duration_of([&] {
                  for (int i = 0; i < 20; ++i) {
                      out.take();
                      EXPECT_FALSE(print(&sinks.first, "line\n"));
                  }
              }),
              500);
}

TEST_F(LogSink, GivesUpWherePollIsAlwaysWrong)
{
    fill(out.writer());
    always_call_writable();
    const int64_t taken = real_duration_of([&] {
        EXPECT_FALSE(print(&sinks.first, "line\n"));
        EXPECT_FALSE(print(&sinks.first, "line\n"));
    });
    EXPECT_GE(taken, 990);
    EXPECT_LT(taken, 1500);
}

TEST_F(LogSink, SleepsWhereADescriptionThatOthersMadeNonBlockingTakesNothing)
{
    fcntl(out.writer(), F_SETFL, O_NONBLOCK);
    fill(out.writer());
    always_call_writable();
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_EQ(virtual_time::instance().slept, std::vector<unsigned>(1000, 1));
}

TEST_F(LogSink, WaitsForTheReaderOfADescriptionThatOthersMadeNonBlocking)
{
    fcntl(out.writer(), F_SETFL, O_NONBLOCK);
    fill(out.writer());
    always_call_writable();
    virtual_time::instance().after(200, [&] { out.take(); });
    EXPECT_EQ(duration_of([&] { EXPECT_TRUE(print(&sinks.first, "line\n")); }), 200);
    EXPECT_EQ(out.take(), "line\n");
}

TEST_F(LogSink, LeavesTheDescriptionBlocking)
{
    fill(out.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_EQ(fcntl(out.writer(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LogSink, DoesNotBlockOnASocketWithRoomForAPart)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    constexpr int smallest = 1;
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    two_sinks socket(ends[1], ends[1]);
    EXPECT_LT(real_duration_of([&] {
                  for (int i = 0; i < 20; ++i)
                      static_cast<void>(print(&socket.first, std::string(page, 'x')));
              }),
              1500);
    EXPECT_TRUE(socket.patience.is_over());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(LogSink, DropsLinesOfAPipeThatWasClosedAtOnce)
{
    close(std::exchange(out.ends[0], open("/dev/null", O_RDONLY | O_CLOEXEC)));
    EXPECT_EQ(duration_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); }), 0);
    EXPECT_FALSE(sinks.patience.is_over());
}

TEST_F(LogSink, DropsLinesOnAFullDiskAtOnce)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    two_sinks disk(full, full);
    EXPECT_EQ(duration_of([&] { EXPECT_FALSE(print(&disk.first, "line\n")); }), 0);
    EXPECT_FALSE(disk.patience.is_over());
    close(full);
}

TEST_F(LogSink, DropsLinesOfAClosedDescriptorAtOnce)
{
    const int closed = dup(out.writer());
    close(closed);
    two_sinks none(closed, closed);
    EXPECT_EQ(duration_of([&] { EXPECT_FALSE(print(&none.first, "line\n")); }), 0);
}

TEST_F(LogSink, CompletesALineOnceAFileMayGrow)
{
    signal(SIGXFSZ, SIG_IGN);
    const temp_dir dir;
    const int file = open(dir.at("log").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    two_sinks limited(file, file);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit ten{10, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &ten);
    EXPECT_TRUE(print(&limited.first, "eight..\n"));
    EXPECT_TRUE(print(&limited.first, "begun\n"));
    EXPECT_FALSE(print(&limited.first, "lost\n"));
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_TRUE(print(&limited.second, "last\n"));
    EXPECT_EQ(read_file(dir.at("log")), "eight..\nbegun\nlast\n");
    close(file);
}

TEST_F(LogSink, DropsALineThatIsTooLong)
{
    EXPECT_FALSE(print(&sinks.first, std::string(sizeof(log_line), 'x')));
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    EXPECT_EQ(out.take(), "line\n");
}

TEST_F(LogSink, HasNoPatienceWithoutAClock)
{
    fill(out.writer());
    virtual_time::instance().is_broken = true;
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_TRUE(sinks.patience.is_over());
}
