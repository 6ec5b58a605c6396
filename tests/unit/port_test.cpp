#include "port.hpp"

#include "core.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "other-process.hpp"
#include "pty.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

using texts = std::vector<std::string>;

namespace {

const std::string content = "what a file held before\n";

bool is_exclusive(int handle)
{
    int exclusive = 0;
    EXPECT_EQ(ioctl(handle, TIOCGEXCL, &exclusive), 0);
    return exclusive != 0;
}

class Port : public ::testing::Test {
  protected:
    int open_it(const std::string &path) { return open_port(path.c_str(), port.receive()); }
    // True for a refusal with one line about the path.
    bool is_refused(const std::string &path)
    {
        log.clear();
        return open_it(path) == -22 && port.get() == -1 &&
               log.texts(CORE_LOG_ERR) == texts{"'" + path + "' is not a character device"};
    }
    std::string link_to(const std::string &path) const
    {
        const std::string link = dir.at("link");
        std::filesystem::remove(link);
        std::filesystem::create_symlink(path, link);
        return link;
    }

    temp_dir dir;
    log_capture log;
    owned_port port;
};

class PortInUse : public Port {
  protected:
    pty terminal;
    // Whoever has the terminal open and locked.
    bool lock_it() const { return flock(open(terminal.path().c_str(), O_RDWR | O_NOCTTY), LOCK_EX) == 0; }
};

// A terminal that is none of the pseudo-terminals, which alone can be had everywhere: as far as stat(2)
// tells.
class PortHolders : public PortInUse {
  protected:
    int ask()
    {
        libc::fstat = [](int handle, struct stat *status) {
            const int result = fstat(handle, status);
            status->st_mode = S_IFREG | 0600;
            return result;
        };
        const int result = refuse_port_holders(port.get(), terminal.path().c_str());
        libc::fstat = nullptr;
        return result;
    }
};

} // namespace

TEST_F(Port, IsATerminal)
{
    const real_time here;
    pty terminal;
    EXPECT_EQ(open_it(terminal.path()), 0);
    ASSERT_EQ(write(port.get(), "to", 2), 2);
    EXPECT_EQ(terminal.receive(2), "to");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Port, IsOpenedWithoutWaiting)
{
    pty terminal;
    ASSERT_EQ(open_it(terminal.path()), 0);
    EXPECT_EQ(fcntl(port.get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
}

TEST_F(Port, BecomesNobodysControllingTerminal)
{
    // A leader of a session without a terminal takes the first one that it opens.
    pty terminal;
    const other_process other([&] {
        owned_port own;
        return setsid() > 0 && open_port(terminal.path().c_str(), own.receive()) == 0 &&
               open("/dev/tty", O_RDWR) < 0;
    });
    EXPECT_GT(other.id(), 0);
}

TEST_F(Port, IsAnotherCharacterDevice)
{
    EXPECT_EQ(open_it("/dev/zero"), 0);
}

TEST_F(Port, IsAFifo)
{
    const std::string path = dir.at("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(open_it(path), 0);
    EXPECT_EQ(open_it(link_to(path)), 0);
}

TEST_F(Port, IsNoRegularFile)
{
    const std::string path = dir.write("file", content);
    EXPECT_TRUE(is_refused(path));
    EXPECT_TRUE(is_refused(link_to(path)));
    EXPECT_EQ(read_file(path), content);
}

TEST_F(Port, IsNoBlockDevice)
{
    // One cannot be had everywhere.
    libc::fstat = [](int handle, struct stat *status) {
        const int result = fstat(handle, status);
        status->st_mode = S_IFBLK | 0600;
        return result;
    };
    const std::string path = dir.write("file", content);
    EXPECT_TRUE(is_refused(path));
    EXPECT_TRUE(is_refused(link_to(path)));
    EXPECT_EQ(read_file(path), content);
}

TEST_F(Port, IsNotWhatCannotBeLookedAt)
{
    libc::fstat = libc::fails(EIO);
    pty terminal;
    EXPECT_TRUE(is_refused(terminal.path()));
}

TEST_F(Port, IsJudgedByWhatWasOpenedWhateverTheNameLeadsToBefore)
{
    // The name leads to a terminal when it is looked at and to a file when it is opened.
    pty terminal;
    const std::string path = dir.write("file", content);
    const std::string link = link_to(terminal.path());
    libc::fstat = [&](int handle, struct stat *status) {
        const owned_port file(open(path.c_str(), O_RDWR));
        return fstat(file.get() >= 0 ? file.get() : handle, status);
    };
    EXPECT_TRUE(is_refused(link));
}

TEST_F(Port, ThatCannotBeOpenedEndsWithTheErrorOfTheOpening)
{
    EXPECT_EQ(open_it(dir.path()), -102); // EISDIR
    EXPECT_EQ(open_it(dir.at("nothing")), -2);
    EXPECT_EQ(open_it(""), -2);
    EXPECT_EQ(port.get(), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"could not open device " + dir.path() + ": error 21 Is a directory\n",
                     "could not open device " + dir.at("nothing") + ": error 2 No such file or directory\n",
                     "could not open device : error 2 No such file or directory\n"}));
}

TEST_F(Port, IsNoSocket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strlcpy(address.sun_path, dir.at("socket").c_str(), sizeof address.sun_path);
    const owned_port listening(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(listening.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(open_it(dir.at("socket")), -102); // ENXIO
}

TEST_F(PortInUse, ByTheRunItselfIsExclusive)
{
    ASSERT_EQ(open_it(terminal.path()), 0);
    EXPECT_TRUE(is_exclusive(port.get()));
}

TEST_F(PortInUse, IsGivenUpWithTheTerminalThatOthersKeepOpen)
{
    ASSERT_EQ(open_it(terminal.path()), 0);
    EXPECT_EQ(port.close(), 0);
    const owned_port again(open(terminal.path().c_str(), O_RDWR | O_NOCTTY));
    ASSERT_GE(again.get(), 0);
    EXPECT_FALSE(is_exclusive(again.get()));
    EXPECT_EQ(flock(again.get(), LOCK_EX | LOCK_NB), 0);
}

TEST_F(PortInUse, ByTheRunItselfIsLocked)
{
    const owned_port other(open(terminal.path().c_str(), O_RDWR | O_NOCTTY));
    ASSERT_EQ(open_it(terminal.path()), 0);
    EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

TEST_F(PortInUse, ByAnotherIsRefusedWithItsName)
{
    const other_process other([this] { return lock_it(); });
    EXPECT_EQ(open_it(terminal.path()), -16);
    EXPECT_EQ(port.get(), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"port " + terminal.path() + " is in use by unit-app (process " +
                                             std::to_string(other.id()) + ")"});
    EXPECT_EQ(log.messages().back().file, "../port.c");
    EXPECT_EQ(log.messages().back().function, "open_port");
}

TEST_F(PortInUse, ByAnotherKeepsWhatThatOneHas)
{
    const other_process other([this] {
        return ioctl(open(terminal.path().c_str(), O_RDWR | O_NOCTTY), TIOCEXCL) == 0 && lock_it();
    });
    const owned_port look(open(terminal.path().c_str(), O_RDWR | O_NOCTTY));
    if (look.get() < 0)
        GTEST_SKIP() << "only a privileged process opens an exclusive terminal";
    EXPECT_EQ(open_it(terminal.path()), -16);
    EXPECT_TRUE(is_exclusive(look.get()));
}

TEST_F(PortInUse, ByOneThatWasKilledIsFree)
{
    other_process other([this] { return lock_it(); });
    ASSERT_EQ(open_it(terminal.path()), -16);
    other.kill();
    EXPECT_EQ(open_it(terminal.path()), 0);
}

TEST_F(PortInUse, ByAnotherRunIsRefusedBeforeItIsOpened)
{
    const other_process other([this] {
        owned_port own;
        const bool done = open_port(terminal.path().c_str(), own.receive()) == 0;
        return done && own.close() == 0; // as between the switch and the upload
    });
    int looks = 0;
    libc::fstat = [&looks](int handle, struct stat *status) {
        ++looks;
        return fstat(handle, status);
    };
    EXPECT_EQ(open_it(link_to(terminal.path())), -16);
    EXPECT_EQ(looks, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"port " + dir.at("link") + " is in use by unit-app (process " +
                                             std::to_string(other.id()) + "): wait until it has ended"});
}

TEST_F(PortInUse, ByTheRunItselfMayBeOpenedAnew)
{
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(open_it(terminal.path()), 0) << "at the " << i << "th time";
}

TEST(PortError, LeavesRefusalsAsTheyAre)
{
    EXPECT_EQ(port_error(-22), -22);
    EXPECT_EQ(port_error(-16), -16);
    for (const int other : {-1, -2, -13, -19, -102})
        EXPECT_EQ(port_error(other), -102);
}

TEST_F(PortHolders, AreNoneWhereTheRunAloneHasThePort)
{
    ASSERT_EQ(open_it(terminal.path()), 0);
    EXPECT_EQ(ask(), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolders, AreRefusedWithTheirNames)
{
    ASSERT_EQ(open_it(terminal.path()), 0);
    const other_process other([] { return true; }); // which has inherited the descriptor
    EXPECT_EQ(ask(), -16);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"port " + terminal.path() + " is in use by unit-app (process " +
                                             std::to_string(other.id()) + "): stop it first"});
    EXPECT_EQ(log.messages().back().function, "refuse_port_holders");
}

TEST_F(PortHolders, AreLeftAloneOnAPseudoTerminal)
{
    ASSERT_EQ(open_it(terminal.path()), 0);
    const other_process other([] { return true; });
    EXPECT_EQ(refuse_port_holders(port.get(), terminal.path().c_str()), 0);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(PortHolders, AreLeftAloneOnWhatIsNoTerminal)
{
    ASSERT_EQ(open_it("/dev/zero"), 0);
    const other_process other([] { return true; });
    EXPECT_EQ(refuse_port_holders(port.get(), "/dev/zero"), 0);
}
