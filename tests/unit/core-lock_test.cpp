#include "core-lock.hpp"

#include "core.hpp"
#include "other-process.hpp"
#include "temp_dir.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>

namespace {

// A name that no other test program has at the same time.
std::string own_name(const std::string &text = "test")
{
    return text + "/" + std::to_string(getpid());
}

// A lock that lives as long as the object.
struct lock {
    explicit lock(const std::string &name) { result = core_lock_name(name.c_str(), owned.receive()); }
    owned_lock owned;
    int result;
};

long holder_of(const std::string &name)
{
    long id = -1;
    return core_find_name_holder(name.c_str(), &id) ? id : -1;
}

owned_lock open_file(const std::string &path, int flags = O_RDWR)
{
    return owned_lock(open(path.c_str(), flags | O_CLOEXEC));
}

} // namespace

TEST(NameLock, IsHadByOneAtATime)
{
    const lock first(own_name());
    const lock second(own_name());
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(second.result, -16);
    EXPECT_LT(second.owned.get(), 0);
}

TEST(NameLock, EndsWhenItIsClosed)
{
    {
        const lock first(own_name());
        ASSERT_EQ(first.result, 0);
    }
    EXPECT_EQ(lock(own_name()).result, 0);
}

TEST(NameLock, OfAnotherNameIsAnother)
{
    const lock first(own_name("1-2"));
    const lock second(own_name("1-2.1"));
    EXPECT_EQ(first.result, 0);
    EXPECT_EQ(second.result, 0);
}

TEST(NameLock, OfAnotherProcessIsRespected)
{
    const std::string name = own_name();
    owned_lock taken;
    const other_process other([&] { return core_lock_name(name.c_str(), taken.receive()) == 0; });
    EXPECT_EQ(lock(name).result, -16);
}

TEST(NameLock, TellsTheProcessThatHasIt)
{
    const std::string name = own_name();
    owned_lock taken;
    const other_process other([&] { return core_lock_name(name.c_str(), taken.receive()) == 0; });
    EXPECT_EQ(holder_of(name), other.id());
}

TEST(NameLock, IsLeftBehindByNobody)
{
    const std::string name = own_name();
    owned_lock taken;
    other_process other([&] { return core_lock_name(name.c_str(), taken.receive()) == 0; });
    ASSERT_EQ(lock(name).result, -16);
    other.kill();
    EXPECT_EQ(holder_of(name), -1);
    EXPECT_EQ(lock(name).result, 0);
}

TEST(NameLock, IsHadByNobodyAtFirst)
{
    EXPECT_EQ(holder_of(own_name()), -1);
}

TEST(NameLock, TellsItsHolderHoweverOftenItIsAsked)
{
    const lock first(own_name());
    for (int i = 0; i < 5000; ++i) // more than wait to be accepted
        ASSERT_NE(holder_of(own_name()), -1) << "at the " << i << "th time";
}

TEST(NameLock, HasNamesOfUpTo107Characters)
{
    const std::string longest = own_name(std::string(80, 'x')) + std::string(107, 'y');
    const lock fits(longest.substr(0, 107));
    const lock other(longest.substr(0, 106));
    const lock does_not(longest.substr(0, 108));
    EXPECT_EQ(fits.result, 0);
    EXPECT_EQ(other.result, 0);
    EXPECT_EQ(does_not.result, -100);
    EXPECT_EQ(holder_of(longest.substr(0, 107)), getpid());
    EXPECT_EQ(holder_of(longest.substr(0, 108)), -1);
}

TEST(NameLock, IsNotToBeHadWithoutDescriptors)
{
    const lock first(own_name());
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = lock(own_name("another")).result;
    const long holder = holder_of(own_name());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, -100);
    EXPECT_EQ(holder, -1);
}

TEST(FileLock, IsHadByOneDescriptorAtATime)
{
    const temp_dir folder;
    const std::string path = folder.write("file", "");
    const owned_lock second = open_file(path);
    {
        const owned_lock first = open_file(path);
        EXPECT_EQ(core_lock_file(first.get()), 0);
        EXPECT_EQ(core_lock_file(second.get()), -16);
    }
    EXPECT_EQ(core_lock_file(second.get()), 0);
}

TEST(FileLock, ThatIsSharedByReadersIsRespected)
{
    const temp_dir folder;
    const std::string path = folder.write("file", "");
    const owned_lock first = open_file(path, O_RDONLY);
    const owned_lock second = open_file(path);
    ASSERT_EQ(flock(first.get(), LOCK_SH), 0);
    EXPECT_EQ(core_lock_file(second.get()), -16);
}

TEST(FileLock, IsLeftBehindByNobody)
{
    const temp_dir folder;
    const std::string path = folder.write("file", "");
    const owned_lock own = open_file(path);
    other_process other([&] { return core_lock_file(open(path.c_str(), O_RDWR)) == 0; });
    EXPECT_EQ(core_lock_file(own.get()), -16);
    other.kill();
    EXPECT_EQ(core_lock_file(own.get()), 0);
}

TEST(FileLock, IsNotToBeHadOnADescriptorThatOnlyNamesTheFile)
{
    const temp_dir folder;
    const owned_lock name = open_file(folder.path(), O_PATH);
    EXPECT_EQ(core_lock_file(name.get()), -100);
}
