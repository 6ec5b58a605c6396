#include "crc32.hpp"
#include "json-line.hpp"
#include "numbers.hpp"
#include "read-plan.hpp"
#include "transcript.hpp"

#include <gtest/gtest.h>

namespace sim {
namespace {

TEST(Bytes, FieldsAreLittleEndian)
{
    octets out;
    append_le32(out, 0x11223344);
    append_le64(out, 0x0102030405060708);
    EXPECT_EQ(out, (octets{0x44, 0x33, 0x22, 0x11, 8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(read_le32(out, 0), 0x11223344U);
}

TEST(Crc32, CheckValueOfTheStandard)
{
    crc32 sum;
    sum.update(to_octets("123456789"));
    EXPECT_EQ(sum.value(), 0xCBF43926U);
}

TEST(Crc32, DoesNotDependOnThePieces)
{
    crc32 sum;
    sum.update(to_octets("The quick brown "));
    sum.update(to_octets("f"));
    sum.update(to_octets("ox jumps over the lazy dog"));
    EXPECT_EQ(sum.value(), 0x414FA339U);
}

TEST(JsonLine, MembersKeepTheirOrder)
{
    json_members line;
    line.fraction("t", 1.5).text("kind", "data").number("length", UINT64_MAX).hex32("crc32", 0xAB);
    EXPECT_EQ(line.object(),
              R"({"t":1.500000,"kind":"data","length":18446744073709551615,"crc32":"000000ab"})");
}

TEST(JsonLine, OtherBytesAreEscaped)
{
    json_members line;
    line.text("a", std::string_view("\"\\\r\n\0\x7f\xff", 7));
    EXPECT_EQ(line.object(), R"({"a":"\"\\\u000d\u000a\u0000\u007f\u00ff"})");
}

TEST(JsonLine, AppendTakesCareOfTheComma)
{
    json_members none;
    json_members one;
    one.number("b", 2);
    EXPECT_EQ(json_members().number("a", 1).append(one).append(none).object(), R"({"a":1,"b":2})");
    EXPECT_EQ(json_members().append(one).object(), R"({"b":2})");
}

TEST(Transcript, LineNamesDirectionStageKindAndLength)
{
    transcript log;
    std::string line;
    log.set_sink([&line](const std::string &it) { line = it; });
    log.set_stage("sahara");
    log.received("done", 8);
    ASSERT_EQ(line.rfind("{\"t\":0.", 0), 0U);
    EXPECT_EQ(line.substr(line.find(',')), R"(,"dir":"rx","stage":"sahara","kind":"done","length":8})");
}

TEST(Numbers, DigitsOnly)
{
    EXPECT_EQ(parse_number("0", 5), 0U);
    EXPECT_EQ(parse_number("5", 5), 5U);
    EXPECT_EQ(parse_number("18446744073709551615", UINT64_MAX), UINT64_MAX);
    for (const char *bad : {"", "6", "-1", "+1", " 1", "1 ", "1x", "18446744073709551616"})
        EXPECT_FALSE(parse_number(bad, 5)) << bad;
}

std::vector<uint64_t> offsets(const std::vector<read_request> &reads)
{
    std::vector<uint64_t> out;
    for (const read_request &it : reads)
        out.push_back(it.offset);
    return out;
}

TEST(ReadPlan, LastBlockIsShorter)
{
    const auto reads = plan_reads(10, 4, read_order::forward);
    EXPECT_EQ(offsets(reads), (std::vector<uint64_t>{0, 4, 8}));
    EXPECT_EQ(reads[2].length, 2U);
}

TEST(ReadPlan, Backward)
{
    const auto reads = plan_reads(10, 4, read_order::backward);
    EXPECT_EQ(offsets(reads), (std::vector<uint64_t>{8, 4, 0}));
    EXPECT_EQ(reads[0].length, 2U);
}

TEST(ReadPlan, TwiceAsksForEveryBlockTwoTimes)
{
    EXPECT_EQ(offsets(plan_reads(8, 4, read_order::twice)), (std::vector<uint64_t>{0, 0, 4, 4}));
}

TEST(ReadPlan, ShuffleHoldsEveryBlockOnceInAFixedOrder)
{
    const auto order = offsets(plan_reads(16, 2, read_order::shuffle));
    auto sorted = order;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<uint64_t>{0, 2, 4, 6, 8, 10, 12, 14}));
    EXPECT_NE(order, sorted);
    EXPECT_EQ(order, offsets(plan_reads(16, 2, read_order::shuffle)));
}

TEST(ReadPlan, NothingToAskFor)
{
    EXPECT_TRUE(plan_reads(0, 4, read_order::twice).empty());
}

} // namespace
} // namespace sim
