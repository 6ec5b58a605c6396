#include "virtual-time.hpp"

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

virtual_time &now()
{
    return virtual_time::instance();
}

int64_t clock_ms()
{
    timespec time{};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &time), 0);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

// A pipe of which the code under test, here the test itself, waits at the end.
class VirtualTimeOfAPipe : public testing::Test {
  protected:
    VirtualTimeOfAPipe() { EXPECT_EQ(pipe(ends), 0); }
    ~VirtualTimeOfAPipe() override
    {
        close(ends[0]);
        close(ends[1]);
    }
    int wait(int timeout_ms)
    {
        pollfd watched{ends[0], POLLIN, 0};
        return poll(&watched, 1, timeout_ms);
    }
    void fill() { EXPECT_EQ(write(ends[1], "x", 1), 1); }

    int ends[2] = {-1, -1};
};

} // namespace

TEST(VirtualTime, StandsStillByItself)
{
    const int64_t begun = clock_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(clock_ms(), begun);
    EXPECT_EQ(now().now_ms(), 0);
}

TEST(VirtualTime, GoesOnByWhatIsSlept)
{
    const auto begun = std::chrono::steady_clock::now();
    const int64_t clock = clock_ms();
    EXPECT_EQ(duration_of([] {
                  usleep(600000000);
                  usleep(1500);
                  usleep(500);
              }),
              600002);
    EXPECT_EQ(clock_ms(), clock + 600002);
    EXPECT_EQ(now().slept, (std::vector<unsigned>{600000, 1, 0}));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::minutes(1));
}

TEST(VirtualTime, TellsOfEachSleepAtItsEnd)
{
    std::vector<int64_t> ends;
    now().when_slept = [&ends] { ends.push_back(now().now_ms()); };
    usleep(10000);
    usleep(20000);
    EXPECT_EQ(ends, (std::vector<int64_t>{10, 30}));
}

TEST(VirtualTime, LetsThingsHappenInTheirOrder)
{
    std::string happened;
    now().after(30, [&happened] { happened += "c" + std::to_string(now().now_ms()); });
    now().after(10, [&happened] { happened += "a" + std::to_string(now().now_ms()); });
    now().after(20, [&happened] { happened += "b" + std::to_string(now().now_ms()); });
    usleep(20000);
    EXPECT_EQ(happened, "a10b20");
    usleep(20000);
    EXPECT_EQ(happened, "a10b20c30");
}

TEST(VirtualTime, ForgetsThePlansOfAnOwner)
{
    const int owner = 0;
    int happened = 0;
    now().after(
        10, [&happened] { ++happened; }, &owner);
    now().after(10, [&happened] { happened += 10; });
    now().forget(&owner);
    usleep(10000);
    EXPECT_EQ(happened, 10);
}

TEST(VirtualTime, GoesOnWithEachReadingWhereThatIsAsked)
{
    now().per_read_ms = 1000;
    const int64_t first = clock_ms();
    EXPECT_EQ(clock_ms(), first + 1000);
}

TEST(VirtualTime, CannotBeReadWhereThatIsAsked)
{
    now().is_broken = true;
    timespec time{};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &time), -1);
}

TEST(VirtualTime, IsNotTheWallClocks)
{
    const time_t begun = time(nullptr);
    usleep(4000000000U);
    timespec wall{};
    EXPECT_EQ(clock_gettime(CLOCK_REALTIME, &wall), 0);
    EXPECT_LT(wall.tv_sec - begun, 3600);
}

TEST(VirtualTime, IsNotThatOfOtherThreads)
{
    std::thread other([] {
        const int64_t begun = clock_ms();
        usleep(5000);
        EXPECT_GE(clock_ms(), begun + 5);
    });
    other.join();
    EXPECT_EQ(now().now_ms(), 0);
    EXPECT_TRUE(now().slept.empty());
}

TEST(VirtualTime, MayBeReal)
{
    const real_time here;
    const auto begun = std::chrono::steady_clock::now();
    const int64_t clock = clock_ms();
    usleep(5000);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(5));
    EXPECT_GE(clock_ms(), clock + 5);
    EXPECT_TRUE(now().slept.empty());
}

TEST_F(VirtualTimeOfAPipe, PassesInASilence)
{
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(60000), 0); }), 60000);
}

TEST_F(VirtualTimeOfAPipe, DoesNotPassWhereSomethingIsThere)
{
    fill();
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(60000), 1); }), 0);
}

TEST_F(VirtualTimeOfAPipe, PassesUntilSomethingComes)
{
    now().after(100, [] {});
    now().after(700, [this] { fill(); });
    EXPECT_EQ(duration_of([this] { EXPECT_EQ(wait(60000), 1); }), 700);
}

TEST_F(VirtualTimeOfAPipe, EndsWithWhatComesAtTheLastMoment)
{
    now().after(500, [this] { fill(); });
    EXPECT_EQ(wait(499), 0);
    EXPECT_EQ(wait(1), 1);
}
