#include "log-sink.hpp"

#include "core-base.hpp"
#include "fake_clock.hpp"
#include "temp_dir.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds no_wait(400); // less than the second, and more than a busy machine needs
constexpr milliseconds all_patience(1000);
constexpr int page = 4096;

// Where a writer fills what poll(2) has just called writable.
int filled_behind_poll = -1;
// What poll(2) calls writable in any case: a terminal with room for less than a line feed takes.
int always_writable = -1;

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

milliseconds time_of(const std::function<void()> &work)
{
    const auto begun = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begun);
}

class LogSink : public testing::Test {
  protected:
    LogSink() { signal(SIGPIPE, SIG_IGN); }
    ~LogSink() override { filled_behind_poll = always_writable = -1; }

    small_pipe out;
    small_pipe err;
    two_sinks sinks{out.writer(), err.writer()};
    restored_clock clock;
};

} // namespace

extern "C" int poll(pollfd *watched, nfds_t count, int timeout)
{
    const timespec limit{timeout / 1000, long{timeout % 1000} * 1000000};
    if (watched->fd == always_writable)
        return 1;
    const int result = ppoll(watched, count, &limit, nullptr);
    if (result > 0 && watched->fd == filled_behind_poll)
        fill(filled_behind_poll);
    return result;
}

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
    EXPECT_LT(time_of([&] { EXPECT_TRUE(print(&sinks.first, "")); }), no_wait);
}

TEST_F(LogSink, DropsALineThatHasNoRoomAfterASecond)
{
    fill(out.writer());
    const milliseconds taken = time_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); });
    EXPECT_GE(taken, all_patience - milliseconds(10));
    EXPECT_LT(taken, all_patience + no_wait);
    EXPECT_TRUE(sinks.patience.is_over());
    EXPECT_EQ(out.take().find("line"), std::string::npos);
}

TEST_F(LogSink, WaitsNoMoreOnceTheSecondIsOver)
{
    fill(out.writer());
    fill(err.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    const milliseconds taken = time_of([&] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_FALSE(print(&sinks.first, "line\n"));
            EXPECT_FALSE(print(&sinks.second, "error\n"));
        }
    });
    EXPECT_LT(taken, no_wait);
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
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(200));
        out.take();
    });
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    reader.join();
    EXPECT_EQ(out.take(), "line\n");
    EXPECT_FALSE(sinks.patience.is_over());
}

TEST_F(LogSink, AddsUpTheWaitsOfBothStreams)
{
    fill(out.writer());
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(600));
        out.take();
    });
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    reader.join();
    fill(err.writer());
    EXPECT_LT(time_of([&] { EXPECT_FALSE(print(&sinks.second, "error\n")); }), milliseconds(400) + no_wait);
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
    filled_behind_poll = out.writer();
    const milliseconds taken = time_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); });
    EXPECT_GE(taken, all_patience - milliseconds(10));
    EXPECT_LT(taken, all_patience + no_wait);
}

TEST_F(LogSink, DoesNotBlockWhereAnotherProcessIsQuickerAgainAndAgain)
{
    fill(out.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    filled_behind_poll = out.writer();
    const milliseconds taken = time_of([&] {
        for (int i = 0; i < 20; ++i) {
            out.take();
            EXPECT_FALSE(print(&sinks.first, "line\n"));
        }
    });
    EXPECT_LT(taken, no_wait);
}

TEST_F(LogSink, GivesUpWherePollIsAlwaysWrong)
{
    for (const int flags : {0, O_NONBLOCK}) {
        fcntl(out.writer(), F_SETFL, flags);
        two_sinks wrong(out.writer(), out.writer());
        fill(out.writer());
        always_writable = out.writer();
        const milliseconds taken = time_of([&] {
            EXPECT_FALSE(print(&wrong.first, "line\n"));
            EXPECT_FALSE(print(&wrong.first, "line\n"));
        });
        EXPECT_GE(taken, all_patience - milliseconds(10));
        EXPECT_LT(taken, all_patience + no_wait);
    }
}

TEST_F(LogSink, SleepsWhereADescriptorDoesNotWait)
{
    fcntl(out.writer(), F_SETFL, O_NONBLOCK);
    fill(out.writer());
    always_writable = out.writer();
    const clock_t begun = std::clock();
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_LT(std::clock() - begun, CLOCKS_PER_SEC / 2);
}

TEST_F(LogSink, LeavesTheDescriptionBlocking)
{
    fill(out.writer());
    EXPECT_FALSE(print(&sinks.first, "line\n"));
    EXPECT_EQ(fcntl(out.writer(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LogSink, WaitsOnADescriptionThatOthersMadeNonBlocking)
{
    fcntl(out.writer(), F_SETFL, O_NONBLOCK);
    filled_behind_poll = out.writer();
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(200));
        filled_behind_poll = -1;
        out.take();
    });
    EXPECT_TRUE(print(&sinks.first, "line\n"));
    reader.join();
    EXPECT_EQ(out.take(), "line\n");
}

TEST_F(LogSink, DoesNotBlockOnASocketWithRoomForAPart)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    constexpr int smallest = 1;
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    two_sinks socket(ends[1], ends[1]);
    const milliseconds taken = time_of([&] {
        for (int i = 0; i < 20; ++i)
            static_cast<void>(print(&socket.first, std::string(page, 'x')));
    });
    EXPECT_LT(taken, all_patience + no_wait);
    EXPECT_TRUE(socket.patience.is_over());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(LogSink, DropsLinesOfAPipeThatWasClosedAtOnce)
{
    close(std::exchange(out.ends[0], open("/dev/null", O_RDONLY | O_CLOEXEC)));
    EXPECT_LT(time_of([&] { EXPECT_FALSE(print(&sinks.first, "line\n")); }), no_wait);
    EXPECT_FALSE(sinks.patience.is_over());
}

TEST_F(LogSink, DropsLinesOnAFullDiskAtOnce)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    two_sinks disk(full, full);
    EXPECT_LT(time_of([&] { EXPECT_FALSE(print(&disk.first, "line\n")); }), no_wait);
    EXPECT_FALSE(disk.patience.is_over());
    close(full);
}

TEST_F(LogSink, DropsLinesOfAClosedDescriptorAtOnce)
{
    const int closed = dup(out.writer());
    close(closed);
    two_sinks none(closed, closed);
    EXPECT_LT(time_of([&] { EXPECT_FALSE(print(&none.first, "line\n")); }), no_wait);
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
    fake_clock::instance().broken = true;
    const milliseconds taken = time_of([&] {
        EXPECT_FALSE(print(&sinks.first, "line\n"));
        EXPECT_FALSE(print(&sinks.first, "line\n"));
    });
    EXPECT_LT(taken, all_patience + no_wait);
    EXPECT_TRUE(sinks.patience.is_over());
}
