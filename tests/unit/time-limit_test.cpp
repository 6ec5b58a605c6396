#include "time-limit.hpp"

#include "fake_clock.hpp"

#include <gtest/gtest.h>

TEST(TimeLimit, IsNotPassedBeforeItsTime)
{
    const restored_clock restored;
    const time_limit limit(60000);
    EXPECT_FALSE(limit.passed());
    fake_clock::instance().ahead_ms = 59000;
    EXPECT_FALSE(limit.passed());
}

TEST(TimeLimit, IsPassedFromItsTimeOn)
{
    const restored_clock restored;
    const time_limit limit(60000);
    fake_clock::instance().ahead_ms = 60000;
    EXPECT_TRUE(limit.passed());
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, OfNoTimeIsPassedAtOnce)
{
    EXPECT_TRUE(time_limit(0).passed());
}

TEST(TimeLimit, HoldsTheLongestTimeOf32Bits)
{
    const restored_clock restored;
    const time_limit limit(4294967295U);
    fake_clock::instance().ahead_ms = 4294960000;
    EXPECT_FALSE(limit.passed());
    fake_clock::instance().ahead_ms = 4294967295;
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, IsPassedWhenTheClockCannotBeRead)
{
    const restored_clock restored;
    const time_limit limit(60000);
    fake_clock::instance().broken = true;
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, IsPassedWhenTheClockCouldNotBeReadAtItsStart)
{
    const restored_clock restored;
    fake_clock::instance().broken = true;
    const time_limit limit(60000);
    fake_clock::instance().broken = false;
    EXPECT_TRUE(limit.passed());
}
