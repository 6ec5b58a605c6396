// The device on a real pseudo-terminal, served in a thread of this process.

#include "pty-server.hpp"
#include "talk.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <thread>

namespace sim {
namespace {

const std::string ack =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" />\n</data>";
const std::string nop = "<?xml version=\"1.0\"?>\n<data>\n<nop value=\"ping\"/>\n</data>\n";
const std::string program_none =
    "<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"0\"/>\n</data>\n";

// A served device and the host's end of its line.
class line {
  public:
    explicit line(settings wanted, serve_limits limits = {0, 1, 1000, 2000}) : modem_(std::move(wanted), log_)
    {
        EXPECT_TRUE(port_.open()) << port_.error();
        EXPECT_TRUE(modem_.start()) << modem_.trouble();
        EXPECT_EQ(pipe(stop_), 0);
        path = port_.path();
        open_host();
        thread_ = std::thread([this, limits] { result_ = serve(modem_, port_, bus_, limits, stop_[0]); });
    }
    ~line()
    {
        host.reset();
        finish();
        close(stop_[0]);
        close(stop_[1]);
    }
    line(const line &) = delete;
    line &operator=(const line &) = delete;

    void open_host() { host.reset(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)); }

    void say(std::string_view text)
    {
        while (!text.empty()) {
            const ssize_t done = write(host.get(), text.data(), text.size());
            if (done > 0)
                text.remove_prefix(static_cast<size_t>(done));
            struct pollfd room {
                host.get(), POLLOUT, 0
            };
            poll(&room, 1, 1000);
        }
    }

    // One read of at most 1024 bytes, as soon as something came; "(nothing)" after the time, "(closed)" after
    // a hang-up.
    std::string hear(int ms = 3000)
    {
        struct pollfd waiting {
            host.get(), POLLIN, 0
        };
        char room[1024];
        if (poll(&waiting, 1, ms) != 1)
            return "(nothing)";
        const ssize_t got = read(host.get(), room, sizeof room);
        return got > 0 ? std::string(room, static_cast<size_t>(got)) : "(closed)";
    }

    served stop()
    {
        EXPECT_EQ(write(stop_[1], "", 1), 1);
        finish();
        return result_;
    }
    served ended()
    { // by itself
        thread_.join();
        return result_;
    }

    std::string path;
    descriptor host;

  private:
    void finish()
    {
        if (!thread_.joinable())
            return;
        EXPECT_EQ(write(stop_[1], "", 1), 1);
        thread_.join();
    }

    transcript log_;
    device modem_;
    pty_port port_;
    bus_file bus_{"", {}, ""};
    int stop_[2] = {-1, -1};
    std::thread thread_;
    served result_;
};

settings programmer()
{
    settings wanted;
    wanted.start = stage::firehose;
    wanted.plain_answers = true;
    wanted.platform = 0;
    return wanted;
}

settings with_fault(const char *text)
{
    settings wanted = programmer();
    wanted.faults = {planned(text)};
    return wanted;
}

TEST(Pty, SlaveIsRaw)
{
    line it(programmer());
    struct termios attributes {};
    ASSERT_EQ(tcgetattr(it.host.get(), &attributes), 0);
    EXPECT_EQ(attributes.c_lflag & static_cast<tcflag_t>(ECHO | ICANON | ISIG), 0U);
    EXPECT_EQ(attributes.c_oflag & static_cast<tcflag_t>(OPOST), 0U);
    EXPECT_EQ(attributes.c_iflag & static_cast<tcflag_t>(ICRNL | IXON), 0U);
}

TEST(Pty, ConversationSurvivesCloseAndOpen)
{
    line it(programmer());
    it.say(nop);
    EXPECT_EQ(it.hear(), ack);
    it.host.reset();
    it.open_host();
    it.say(nop);
    EXPECT_EQ(it.hear(), ack);
}

TEST(Pty, HelloWaitsForAHostThatOpensLater)
{
    settings wanted;
    wanted.start = stage::sahara;
    line it(wanted);
    it.host.reset();
    it.open_host();
    EXPECT_EQ(it.hear(),
              std::string("\1\0\0\0\x30\0\0\0\2\0\0\0\1\0\0\0\0\4\0\0", 20) + std::string(28, '\0'));
}

TEST(Pty, TwoAnswersAreTwoReadsHoweverSlowTheHost)
{
    line it(programmer());
    for (int i = 0; i < 20; i++) {
        it.say(program_none);
        usleep(3000);
        EXPECT_EQ(it.hear(), ack);
        EXPECT_EQ(it.hear(), ack);
    }
}

TEST(Pty, AnswerThatIsNotReadHoldsTheNextOneOnlyForAWhile)
{
    line it(programmer(), {0, 0, 30, 1000});
    it.say(program_none);
    usleep(200000);
    EXPECT_EQ(it.hear(), ack + ack);
}

TEST(Pty, DeliveryInBytes)
{
    settings wanted = programmer();
    wanted.how = delivery::bytes;
    line it(wanted, {0, 0, 1000, 1000});
    it.say(nop);
    for (const char c : ack)
        ASSERT_EQ(it.hear(), std::string(1, c));
}

TEST(Pty, RequestWithoutLineFeedIsAnsweredAfterAMoment)
{
    line it(programmer());
    it.say(nop.substr(0, nop.size() - 1));
    EXPECT_EQ(it.hear(), ack);
}

TEST(Pty, LateAnswer)
{
    line it(with_fault("firehose.nop=late:150"));
    it.say(nop);
    EXPECT_EQ(it.hear(60), "(nothing)");
    EXPECT_EQ(it.hear(), ack);
}

TEST(Pty, PlannedHangUpClosesTheLineAfterWhatWasSaid)
{
    line it(with_fault("firehose.data=hangup"));
    it.say(program_none);
    EXPECT_EQ(it.hear(), ack);
    EXPECT_EQ(it.hear(), "(closed)");
    EXPECT_EQ(it.ended().how, ending::complete);
}

TEST(Pty, StalledDeviceLeavesTheRestUnread)
{
    line it(with_fault("firehose.data-in=stall@5"));
    it.say(
        "<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"16\" num_partition_sectors=\"1\"/>\n</data>\n");
    EXPECT_EQ(it.hear(), ack);
    it.say("0123456789abcdef");
    EXPECT_EQ(it.hear(100), "(nothing)");
}

TEST(Pty, DataOfSeveralMegabytes)
{
    line it(programmer());
    it.say("<?xml version=\"1.0\"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES=\"4096\" "
           "num_partition_sectors=\"1024\"/>\n</data>\n");
    EXPECT_EQ(it.hear(), ack);
    const std::string block(65536, '\n');
    for (int i = 0; i < 64; i++)
        it.say(block);
    EXPECT_EQ(it.hear(), ack);
}

TEST(Pty, EndsWhenTheHostClosesAfterTheReset)
{
    line it(programmer());
    it.say("<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\" DelayInSeconds=\"3\"/>\n</data>\n");
    EXPECT_EQ(it.hear(), ack);
    it.host.reset();
    const served result = it.ended();
    EXPECT_EQ(result.how, ending::complete);
    EXPECT_EQ(result.trouble, "");
}

TEST(Pty, EndsWithoutTheHostAfterLingering)
{
    line it(programmer(), {0, 0, 1000, 50});
    it.say("<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\" DelayInSeconds=\"3\"/>\n</data>\n");
    EXPECT_EQ(it.hear(), ack);
    EXPECT_EQ(it.ended().how, ending::complete);
}

TEST(Pty, TimeOutNamesTheStage)
{
    line it(programmer(), {50, 0, 1000, 1000});
    const served result = it.ended();
    EXPECT_EQ(result.how, ending::timed_out);
    EXPECT_EQ(result.trouble, "time-out in stage firehose");
}

TEST(Pty, StopEndsTheService)
{
    line it(programmer());
    EXPECT_EQ(it.stop().how, ending::complete);
}

} // namespace
} // namespace sim
