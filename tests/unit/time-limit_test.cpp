#include "time-limit.hpp"

#include "virtual-time.hpp"

#include <gtest/gtest.h>

namespace {

void pass(int64_t ms)
{
    virtual_time::instance().pass(ms * 1000);
}

} // namespace

TEST(TimeLimit, IsNotPassedBeforeItsTime)
{
    const time_limit limit(60000);
    EXPECT_FALSE(limit.passed());
    pass(59999);
    EXPECT_FALSE(limit.passed());
}

TEST(TimeLimit, IsPassedFromItsTimeOn)
{
    const time_limit limit(60000);
    pass(60000);
    EXPECT_TRUE(limit.passed());
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, OfNoTimeIsPassedAtOnce)
{
    EXPECT_TRUE(time_limit(0).passed());
}

TEST(TimeLimit, HoldsTheLongestTimeOf32Bits)
{
    const time_limit limit(4294967295U);
    pass(4294967294);
    EXPECT_FALSE(limit.passed());
    pass(1);
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, IsPassedWhenTheClockCannotBeRead)
{
    const time_limit limit(60000);
    virtual_time::instance().is_broken = true;
    EXPECT_TRUE(limit.passed());
}

TEST(TimeLimit, IsPassedWhenTheClockCouldNotBeReadAtItsStart)
{
    virtual_time::instance().is_broken = true;
    const time_limit limit(60000);
    virtual_time::instance().is_broken = false;
    EXPECT_TRUE(limit.passed());
}
