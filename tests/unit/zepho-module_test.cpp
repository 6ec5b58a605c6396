#include "zepho-module.hpp"

#include "log_capture.hpp"

#include <cstdint>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

struct platform_row {
    const char *name;
    const char *version;
    uint32_t platform;
};

static void PrintTo(const platform_row &row, std::ostream *out)
{
    *out << row.version;
}

class Platform : public testing::TestWithParam<platform_row> {};

TEST_P(Platform, IsTakenFromTheVersion)
{
    const log_capture log;
    uint32_t platform = 77;
    EXPECT_EQ(get_platform(GetParam().version, &platform), 0);
    EXPECT_EQ(platform, GetParam().platform);
    EXPECT_TRUE(log.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Table, Platform,
                         testing::Values(platform_row{"platform_0", "25.30.123", 0},
                                         platform_row{"platform_1", "49.01.102", 1},
                                         platform_row{"platform_2", "50.01.102", 2},
                                         platform_row{"build_of_0", "25.30.123-B001", 0},
                                         platform_row{"build_of_1", "49.01.102-B001", 1},
                                         platform_row{"build_of_2", "50.01.102-B999", 2},
                                         platform_row{"suffix_of_0", "25.30.123-B001xyz", 0},
                                         platform_row{"shortest_suffix_of_0", "25.30.123-B001x", 0},
                                         // A long version is not checked behind its ninth character.
                                         platform_row{"odd_suffix_of_0", "25.30.123 anything", 0},
                                         platform_row{"class_of_letters", "49.01.AB2", 1},
                                         platform_row{"major_letter", "49.x1.102", 1},
                                         // The platform code is arithmetic: 3 and 19 ("C") make 49 as well.
                                         platform_row{"code_by_arithmetic", "3C.01.102", 1}),
                         [](const auto &row) { return std::string(row.param.name); });

struct refusal_row {
    const char *name;
    const char *version;
    int result;
    const char *message;
};

static void PrintTo(const refusal_row &row, std::ostream *out)
{
    *out << row.name;
}

class RefusedVersion : public testing::TestWithParam<refusal_row> {};

TEST_P(RefusedVersion, HasItsResult)
{
    uint32_t platform = 77;
    EXPECT_EQ(get_platform(GetParam().version, &platform), GetParam().result);
    EXPECT_EQ(platform, 77U);
}

TEST_P(RefusedVersion, HasItsMessage)
{
    const log_capture log;
    uint32_t platform = 0;
    static_cast<void>(get_platform(GetParam().version, &platform));
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, GetParam().message);
    EXPECT_EQ(log.messages()[0].function, "get_platform");
}

TEST_P(RefusedVersion, IsRefusedAsOldVersionToo)
{
    EXPECT_EQ(fw_version_compare(GetParam().version, "49.01.102"), GetParam().result);
}

TEST_P(RefusedVersion, IsRefusedAsNewVersionToo)
{
    EXPECT_EQ(fw_version_compare("49.01.102", GetParam().version), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, RefusedVersion,
    testing::Values(refusal_row{"none", nullptr, -22, "version string is a null pointer"},
                    refusal_row{"of_0", "", -22, "invalid length of version: "},
                    refusal_row{"of_1", "4", -22, "invalid length of version: 4"},
                    refusal_row{"of_8", "49.01.10", -22, "invalid length of version: 49.01.10"},
                    refusal_row{"of_10", "49.01.102-", -22, "invalid length of version: 49.01.102-"},
                    refusal_row{"of_11", "49.01.102-B", -22, "invalid length of version: 49.01.102-B"},
                    refusal_row{"of_12", "49.01.102-B0", -22, "invalid length of version: 49.01.102-B0"},
                    refusal_row{"of_13", "49.01.102-B00", -22, "invalid length of version: 49.01.102-B00"}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Characters, RefusedVersion,
    testing::Values(
        refusal_row{"at_2", "49x01.102", -22, "invalid characters in version: 49x01.102"},
        refusal_row{"at_4", "49.0x.102", -22, "invalid characters in version: 49.0x.102"},
        refusal_row{"at_5", "49.01x102", -22, "invalid characters in version: 49.01x102"},
        refusal_row{"at_8", "49.01.10x", -22, "invalid characters in version: 49.01.10x"},
        refusal_row{"at_9", "49.01.102xB001", -22, "invalid characters in version: 49.01.102xB001"},
        refusal_row{"at_10", "49.01.102-b001", -22, "invalid characters in version: 49.01.102-b001"},
        refusal_row{"at_11", "49.01.102-Bx01", -22, "invalid characters in version: 49.01.102-Bx01"},
        refusal_row{"at_12", "49.01.102-B0x1", -22, "invalid characters in version: 49.01.102-B0x1"},
        refusal_row{"at_13", "49.01.102-B00x", -22, "invalid characters in version: 49.01.102-B00x"},
        refusal_row{"below_the_digits", "49.0/.102", -22, "invalid characters in version: 49.0/.102"},
        refusal_row{"above_the_digits", "49.01.10:", -22, "invalid characters in version: 49.01.10:"},
        refusal_row{"at_8_of_a_long_one", "25.30.12x-B001yz", -22,
                    "invalid characters in version: 25.30.12x-B001yz"}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Platforms, RefusedVersion,
    testing::Values(refusal_row{"suffix_of_1", "49.01.102-B001xyz", -22,
                                "author suffix not supported for this platform: 1"},
                    refusal_row{"shortest_suffix_of_1", "49.01.102-B001x", -22,
                                "author suffix not supported for this platform: 1"},
                    refusal_row{"suffix_of_2", "50.01.102-B001xyz", -22,
                                "author suffix not supported for this platform: 2"},
                    refusal_row{"other_release_of_25", "25.20.123", -102, "unsupported platform: 25.20.123"},
                    refusal_row{"next_release_of_25", "25.31.123", -102, "unsupported platform: 25.31.123"},
                    refusal_row{"code_48", "48.01.102", -102, "unsupported platform: 48.01.102"},
                    refusal_row{"code_51", "51.01.102", -102, "unsupported platform: 51.01.102"},
                    refusal_row{"code_of_letters", "ab.01.102", -102, "unsupported platform: ab.01.102"},
                    refusal_row{"unsupported_with_suffix", "51.01.102-B001xyz", -102,
                                "unsupported platform: 51.01.102-B001xyz"}),
    [](const auto &row) { return std::string(row.param.name); });

struct compare_row {
    const char *name;
    const char *old_version;
    const char *new_version;
    int result;
};

static void PrintTo(const compare_row &row, std::ostream *out)
{
    *out << row.old_version << " to " << row.new_version;
}

class Compare : public testing::TestWithParam<compare_row> {};

TEST_P(Compare, GivesTheResult)
{
    const log_capture log;
    EXPECT_EQ(fw_version_compare(GetParam().old_version, GetParam().new_version), GetParam().result);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Order, Compare,
    testing::Values(compare_row{"same", "49.01.102", "49.01.102", 0},
                    compare_row{"units_up", "49.01.102", "49.01.103", 0},
                    compare_row{"units_down", "49.01.102", "49.01.101", -126},
                    compare_row{"tens_up", "49.01.109", "49.02.100", 0},
                    compare_row{"tens_down", "49.02.100", "49.01.109", -126},
                    compare_row{"major_up_with_lower_minor", "49.12.102", "49.21.101", 0},
                    compare_row{"major_down_with_higher_minor", "49.21.101", "49.12.102", -126},
                    compare_row{"major_up_with_lower_build", "49.11.102-B009", "49.21.102-B001", 0},
                    compare_row{"from_a_build", "49.01.105-B002", "49.01.105", -126},
                    compare_row{"to_a_build", "49.01.105", "49.01.105-B002", 0},
                    compare_row{"from_build_zero", "49.01.105-B000", "49.01.105", 0},
                    compare_row{"same_build", "49.01.105-B002", "49.01.105-B002", 0},
                    compare_row{"build_up", "49.01.105-B009", "49.01.105-B010", 0},
                    compare_row{"build_down", "49.01.105-B100", "49.01.105-B099", -126},
                    compare_row{"units_weigh_more_than_builds", "49.01.105-B999", "49.01.106", 0},
                    compare_row{"tens_weigh_more_than_builds", "49.01.109-B999", "49.02.100-B000", 0},
                    compare_row{"platform_2_up", "50.01.102", "50.01.103", 0},
                    compare_row{"platform_2_down", "50.01.102", "50.01.101", -126}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(Classes, Compare,
                         testing::Values(compare_row{"tens_differ", "49.01.102", "49.01.202", -1},
                                         compare_row{"units_differ", "49.01.102", "49.01.112", -1},
                                         compare_row{"lower_class", "49.01.202", "49.01.102", -1},
                                         compare_row{"other_class_and_major", "49.01.102", "49.11.202", -1},
                                         compare_row{"same_class_of_letters", "49.01.AB1", "49.01.AB2", 0}),
                         [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(Platforms, Compare,
                         testing::Values(compare_row{"from_1_to_2", "49.01.102", "50.01.102", -1},
                                         compare_row{"from_2_to_1", "50.01.102", "49.01.102", -1},
                                         compare_row{"from_0_to_1", "25.30.102", "49.01.102", -1},
                                         compare_row{"from_1_to_0", "49.01.102", "25.30.102", -1},
                                         compare_row{"down_in_0", "25.30.123", "25.30.001", 0},
                                         compare_row{"other_class_in_0", "25.30.123", "25.30.993", 0},
                                         compare_row{"suffix_in_0", "25.30.123-B009", "25.30.123-B001xyz", 0},
                                         // The code is arithmetic, so this is platform 1 on both sides.
                                         compare_row{"code_by_arithmetic", "3C.01.102", "49.01.102", 0}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(CompareMessages, NameBothVersionsAndPlatforms)
{
    const log_capture log;
    static_cast<void>(fw_version_compare("49.01.102", "50.01.103"));
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (strings{"oldver: 49.01.102; oldplat: 1", "newver: 50.01.103; newver: 2"}));
    EXPECT_EQ(log.messages()[0].function, "fw_version_compare");
}

TEST(CompareMessages, StopAtAMalformedOldVersion)
{
    const log_capture log;
    EXPECT_EQ(fw_version_compare("49", "51.01.103"), -22);
    EXPECT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"invalid length of version: 49"});
}

TEST(CompareMessages, NameTheOldVersionBeforeAMalformedNewOne)
{
    const log_capture log;
    EXPECT_EQ(fw_version_compare("25.30.102", "51.01.103"), -102);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"oldver: 25.30.102; oldplat: 0"});
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"unsupported platform: 51.01.103"});
}
