#include "core-port-holder.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "other-process.hpp"
#include "sysfs_tree.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using owned_file_handle = owned_handle<close>;

// The file 4711 of the file system 0:6, as /proc/locks writes it.
struct stat locked_node()
{
    struct stat node {};
    node.st_dev = makedev(0, 6);
    node.st_ino = 4711;
    return node;
}

class Holder : public ::testing::Test {
  protected:
    // The number of the process that has the lock by /proc/locks; 0 for none.
    long locked_by(const std::string &locks)
    {
        tree.write("proc/locks", locks);
        return core_find_lock_holder(tree.roots().proc, locked_node(), &holder) ? holder.id : 0;
    }

    sysfs_tree tree;
    core_process holder{};
};

} // namespace

TEST_F(Holder, OfALockIsReadFromItsLine)
{
    tree.add_process(812, "some-daemon", "/dev/null");
    EXPECT_EQ(locked_by("1: POSIX  ADVISORY  READ 5 08:02:4711 128 128\n"
                        "2: FLOCK  ADVISORY  WRITE 812 00:06:4711 0 EOF\n"
                        "2: -> FLOCK  ADVISORY  WRITE 813 00:06:4711 0 EOF\n"),
              812);
    EXPECT_STREQ(holder.name, "some-daemon");
}

TEST_F(Holder, OfALockIsNoneOfAnotherFileOrKind)
{
    EXPECT_EQ(locked_by("1: FLOCK  ADVISORY  WRITE 812 00:06:4712 0 EOF\n"
                        "2: FLOCK  ADVISORY  WRITE 812 00:07:4711 0 EOF\n"
                        "3: FLOCK  ADVISORY  WRITE 812 01:06:4711 0 EOF\n"
                        "4: POSIX  ADVISORY  WRITE 812 00:06:4711 0 EOF\n"
                        "5: OFDLCK ADVISORY  WRITE -1 00:06:4711 0 EOF\n"
                        "6: -> FLOCK  ADVISORY  WRITE 812 00:06:4711 0 EOF\n"
                        "FLOCK 812 00:06:4711\n\n"),
              0);
}

TEST_F(Holder, OfALockInAnotherContainerHasNoName)
{
    tree.write("proc/locks", "1: FLOCK  ADVISORY  WRITE 0 00:06:4711 0 EOF\n");
    EXPECT_TRUE(core_find_lock_holder(tree.roots().proc, locked_node(), &holder));
    EXPECT_EQ(holder.id, 0);
    EXPECT_STREQ(holder.name, "another program");
}

TEST_F(Holder, OfALockIsNoneWithoutTheList)
{
    EXPECT_FALSE(core_find_lock_holder(tree.roots().proc, locked_node(), &holder));
}

TEST_F(Holder, OfARealLockIsFound)
{
    const std::string path = tree.write("file", "");
    const other_process other([&] { return flock(open(path.c_str(), O_RDWR), LOCK_EX) == 0; });
    struct stat node {};
    ASSERT_EQ(stat(path.c_str(), &node), 0);
    ASSERT_TRUE(core_find_lock_holder("/proc", node, &holder));
    EXPECT_EQ(holder.id, other.id());
}

TEST_F(Holder, OfAnOpenNodeIsFound)
{
    const std::string path = tree.write("file", "");
    struct stat node {};
    ASSERT_EQ(stat(path.c_str(), &node), 0);
    const owned_file_handle own(open(path.c_str(), O_RDWR));
    EXPECT_FALSE(core_find_port_holder("/proc", path.c_str(), node, &holder)) << "found itself";
    const other_process other([&] { return open(path.c_str(), O_RDONLY) >= 0; });
    ASSERT_TRUE(core_find_port_holder("/proc", path.c_str(), node, &holder));
    EXPECT_EQ(holder.id, other.id());
}

TEST_F(Holder, IsNoneWithoutProcesses)
{
    EXPECT_FALSE(core_find_port_holder("/nonexistent", "/dev/null", locked_node(), &holder));
}

TEST_F(Holder, IsToldHowToBeStopped)
{
    EXPECT_STREQ(core_advice_on({1, "some-daemon"}), ": stop it first");
    EXPECT_STREQ(core_advice_on({1, "ModemManager"}),
                 ": stop it first, for example: systemctl stop ModemManager");
}
