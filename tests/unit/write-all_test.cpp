#include "write-all.hpp"

#include "virtual-time.hpp"

#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

struct step {
    int result;
    size_t taken;
};

// A sink with a script: each write is answered by the next step; a write too many fails the test.
class sink {
  public:
    explicit sink(std::deque<step> script) : steps(std::move(script)) {}

    int write(const std::string &data, back_pressure on_full)
    {
        return write_all(data.data(), data.size(), on_full,
                         [this](const void *bytes, size_t size, size_t *written) {
                             offered.emplace_back(static_cast<const char *>(bytes), size);
                             if (steps.empty()) {
                                 ADD_FAILURE() << "a write that nobody expects";
                                 return -5;
                             }
                             const step next = steps.front();
                             steps.pop_front();
                             *written = next.taken;
                             if (next.result == 0)
                                 taken.append(static_cast<const char *>(bytes), next.taken);
                             return next.result;
                         });
    }

    std::deque<step> steps;
    std::vector<std::string> offered;
    std::string taken;
};

using texts = std::vector<std::string>;

} // namespace

TEST(WriteAll, WritesTheWholeBufferAtOnce)
{
    sink port({{0, 5}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
    EXPECT_EQ(port.offered, texts{"hello"});
}

TEST(WriteAll, GoesOnFromTheFirstUnwrittenByte)
{
    sink port({{0, 2}, {0, 1}, {0, 2}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
    EXPECT_EQ(port.offered, (texts{"hello", "llo", "lo"}));
}

TEST(WriteAll, WritesByteByByteIntoASlowPort)
{
    sink port({{0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 1}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
    EXPECT_EQ(port.taken, "hello");
}

TEST(WriteAll, WritesNothingForAnEmptyBuffer)
{
    sink port({});
    EXPECT_EQ(port.write("", back_pressure::fail), 0);
    EXPECT_TRUE(port.offered.empty());
}

TEST(WriteAll, EndsWithTheFirstError)
{
    sink port({{0, 2}, {-5, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), -5);
    EXPECT_EQ(port.offered, (texts{"hello", "llo"}));
    EXPECT_TRUE(virtual_time::instance().slept.empty());
}

TEST(WriteAll, EndsWithATimeOut)
{
    sink port({{-110, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), -110);
}

TEST(WriteAll, EndsWithAHangUp)
{
    sink port({{0, 4}, {-125, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), -125);
}

TEST(WriteAll, FailsAtOnceOnAFullPortWhereThatIsAsked)
{
    sink port({{-11, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), -11);
    EXPECT_TRUE(virtual_time::instance().slept.empty());
}

TEST(WriteAll, PausesOneSecondAfterEveryTryAgain)
{
    sink port({{-11, 0}, {-11, 0}, {0, 5}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), 0);
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000}));
}

TEST(WriteAll, OffersTheSameBytesAgainAfterATryAgain)
{
    sink port({{0, 3}, {-11, 0}, {0, 2}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), 0);
    EXPECT_EQ(port.offered, (texts{"hello", "lo", "lo"}));
}

TEST(WriteAll, IgnoresACountThatComesWithATryAgain)
{
    sink port({{-11, 4}, {0, 5}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), 0);
    EXPECT_EQ(port.offered, (texts{"hello", "hello"}));
}

TEST(WriteAll, SurvivesFourTryAgains)
{
    sink port({{-11, 0}, {-11, 0}, {-11, 0}, {-11, 0}, {0, 5}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), 0);
    EXPECT_EQ(port.taken, "hello");
}

TEST(WriteAll, GivesUpAfterTheFifthTryAgain)
{
    sink port({{-11, 0}, {-11, 0}, {-11, 0}, {-11, 0}, {-11, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), -11);
    EXPECT_TRUE(port.steps.empty());
}

TEST(WriteAll, CountsTryAgainsAcrossSuccessfulWrites)
{
    sink port({{-11, 0}, {0, 1}, {-11, 0}, {0, 1}, {-11, 0}, {0, 1}, {-11, 0}, {0, 1}, {-11, 0}});
    EXPECT_EQ(port.write("hello", back_pressure::retry), -11);
    EXPECT_EQ(port.taken, "hell");
}

TEST(WriteAll, CountsTryAgainsAnewForEveryBuffer)
{
    sink port({{-11, 0}, {-11, 0}, {-11, 0}, {-11, 0}, {0, 1}, {-11, 0}, {0, 1}});
    EXPECT_EQ(port.write("a", back_pressure::retry), 0);
    EXPECT_EQ(port.write("b", back_pressure::retry), 0);
    EXPECT_EQ(port.taken, "ab");
}

TEST(WriteAll, GivesUpOnAPortThatTakesNothingTenTimesInARow)
{
    sink port(std::deque<step>(10, step{0, 0}));
    EXPECT_EQ(port.write("hello", back_pressure::fail), -71);
    EXPECT_TRUE(port.steps.empty());
}

TEST(WriteAll, GoesOnWhenAPortTakesNothingNineTimes)
{
    std::deque<step> script(9, step{0, 0});
    script.push_back({0, 5});
    sink port(script);
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
    EXPECT_EQ(port.taken, "hello");
}

TEST(WriteAll, CountsEmptyWritesAnewAfterAByte)
{
    std::deque<step> script(9, step{0, 0});
    script.push_back({0, 1});
    script.insert(script.end(), 9, step{0, 0});
    script.push_back({0, 4});
    sink port(script);
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
    EXPECT_EQ(port.taken, "hello");
}

TEST(WriteAll, GivesUpAPortThatCreepsForFiveMinutes)
{
    virtual_time::instance().per_read_ms = 100000;
    sink port({{0, 1}, {0, 1}, {0, 1}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), -71);
    EXPECT_EQ(port.taken, "hel");
}

TEST(WriteAll, IsDoneWithTheLastByteHoweverLongItTook)
{
    virtual_time::instance().per_read_ms = 300000;
    sink port({{0, 5}});
    EXPECT_EQ(port.write("hello", back_pressure::fail), 0);
}
