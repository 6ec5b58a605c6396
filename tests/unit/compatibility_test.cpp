#include "compatibility.hpp"

#include "core.hpp"
#include "image-list.hpp"
#include "log_capture.hpp"

#include <gtest/gtest.h>

namespace {

using texts = std::vector<std::string>;

// The text before the separator; "(null)" for none.
std::string before(const char *text, const char *separator)
{
    const owned_text found = substring_before_sep(text, separator);
    return found != nullptr ? found.get() : "(null)";
}

// A package of this version; the record holds 600 KiB, so it is static.
const image_list *package_of(char *version)
{
    static image_list list;
    list.new_pkgver = version;
    return &list;
}

int check(const char *modem_versions, std::string package_version, bool force)
{
    return check_fw_compatibility(modem_versions, package_of(package_version.data()), force);
}

} // namespace

// ---- the text before a separator

TEST(SubstringBeforeSeparator, EndsAtTheFirstOccurrence)
{
    EXPECT_EQ(before("49.01.102-P0F.1-P2", "-P"), "49.01.102");
}

TEST(SubstringBeforeSeparator, MayBeOneCharacter)
{
    EXPECT_EQ(before("4-P", "-P"), "4");
}

TEST(SubstringBeforeSeparator, PassesAPartOfTheSeparator)
{
    EXPECT_EQ(before("49.01.102-B001-P0F", "-P"), "49.01.102-B001");
}

TEST(SubstringBeforeSeparator, IsNullForANullText)
{
    EXPECT_EQ(before(nullptr, "-P"), "(null)");
}

TEST(SubstringBeforeSeparator, IsNullForANullSeparator)
{
    EXPECT_EQ(before("49.01.102-P0F", nullptr), "(null)");
}

TEST(SubstringBeforeSeparator, IsNullForAnAbsentSeparator)
{
    EXPECT_EQ(before("49.01.102", "-P"), "(null)");
}

TEST(SubstringBeforeSeparator, IsNullForASeparatorInAnotherCase)
{
    EXPECT_EQ(before("49.01.102-p0f", "-P"), "(null)");
}

TEST(SubstringBeforeSeparator, IsNullForASeparatorAtTheStart)
{
    EXPECT_EQ(before("-P0F-P1", "-P"), "(null)");
}

TEST(SubstringBeforeSeparator, IsNullForAnEmptyText)
{
    EXPECT_EQ(before("", "-P"), "(null)");
}

TEST(SubstringBeforeSeparator, SaysNothing)
{
    log_capture log;
    before("49.01.102-P0F", "-P");
    before(nullptr, "-P");
    before("", "-P");
    EXPECT_TRUE(log.messages().empty());
}

// ---- the message of every result

namespace {

struct message_row {
    const char *name;
    int result;
    bool force;
    int level;
    const char *text;
    int returned;
};

void PrintTo(const message_row &row, std::ostream *stream)
{
    *stream << row.name;
}

class CompatibilityMessage : public testing::TestWithParam<message_row> {};

constexpr message_row message_rows[] = {
    {"Upgrade", 0, false, CORE_LOG_DBG, "performing an upgrade", 0},
    {"UpgradeForced", 0, true, CORE_LOG_DBG, "performing an upgrade", 0},
    {"Downgrade", -126, false, CORE_LOG_ERR, "downgrade may not be safe, --force option is mandatory", -1},
    {"DowngradeForced", -126, true, CORE_LOG_INF, "performing a downgrade", 0},
    {"Malformed", -22, false, CORE_LOG_ERR, "wrong package version", -22},
    {"MalformedForced", -22, true, CORE_LOG_ERR, "wrong package version", -22},
    {"Unsupported", -102, false, CORE_LOG_ERR, "the platform is not supported", -1},
    {"UnsupportedForced", -102, true, CORE_LOG_ERR, "the platform is not supported", -1},
    {"Incompatible", -1, false, CORE_LOG_ERR, "not compatible", -1},
    {"IncompatibleForced", -1, true, CORE_LOG_ERR, "not compatible", -1},
    {"AnyOther", -5, false, CORE_LOG_ERR, "unexpected error", -102},
    {"AnyOtherForced", -5, true, CORE_LOG_ERR, "unexpected error", -102},
    {"APositiveOne", 1, true, CORE_LOG_ERR, "unexpected error", -102},
};

} // namespace

TEST_P(CompatibilityMessage, IsTheOnlyOne)
{
    log_capture log;
    static_cast<void>(print_fw_compatibility_msgs(GetParam().result, GetParam().force));
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, GetParam().level);
    EXPECT_EQ(log.messages()[0].text, GetParam().text);
    EXPECT_EQ(log.messages()[0].file, "../compatibility.c");
    EXPECT_EQ(log.messages()[0].function, "print_fw_compatibility_msgs");
}

TEST_P(CompatibilityMessage, GoesWithItsResult)
{
    EXPECT_EQ(print_fw_compatibility_msgs(GetParam().result, GetParam().force), GetParam().returned);
}

INSTANTIATE_TEST_SUITE_P(Row, CompatibilityMessage, testing::ValuesIn(message_rows),
                         [](const auto &row) { return row.param.name; });

// ---- the decision

TEST(CheckCompatibility, AllowsAnUpgrade)
{
    EXPECT_EQ(check("49.01.102-P0F.000000", "49.01.103", false), 0);
}

TEST(CheckCompatibility, LogsWhatWasCompared)
{
    log_capture log;
    check("49.01.102-P0F.000000;second;third;fourth", "49.01.103", false);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"oldver: 49.01.102; oldplat: 1", "newver: 49.01.103; newver: 1",
                                              "fw_version_compare: 0", "performing an upgrade"}));
}

TEST(CheckCompatibility, LogsTheComparisonUnderItsName)
{
    log_capture log;
    check("49.01.102-P0F", "49.01.101", false);
    ASSERT_EQ(log.messages().size(), 4U);
    EXPECT_EQ(log.messages()[2].text, "fw_version_compare: -126");
    EXPECT_EQ(log.messages()[2].function, "check_fw_compatibility");
    EXPECT_EQ(log.messages()[2].file, "../compatibility.c");
}

TEST(CheckCompatibility, AllowsTheSameVersion)
{
    EXPECT_EQ(check("49.01.102-P0F", "49.01.102", false), 0);
}

TEST(CheckCompatibility, RefusesADowngrade)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.101", false), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"downgrade may not be safe, --force option is mandatory"});
}

TEST(CheckCompatibility, AllowsAForcedDowngrade)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.101", true), 0);
    EXPECT_EQ(log.texts(CORE_LOG_INF), texts{"performing a downgrade"});
}

TEST(CheckCompatibility, AllowsAMajorUpgradeWithASmallerMinor)
{
    EXPECT_EQ(check("49.12.102-P0F", "49.21.101", false), 0);
}

TEST(CheckCompatibility, CountsTheBuildOfTheModem)
{
    EXPECT_EQ(check("49.01.105-B002-P0F", "49.01.105", false), -1);
}

TEST(CheckCompatibility, RefusesAnotherClass)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.202", false), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"not compatible"});
}

TEST(CheckCompatibility, RefusesAnotherClassEvenForced)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.202", true), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"not compatible"});
}

TEST(CheckCompatibility, RefusesAnotherPlatformEvenForced)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "50.01.102", true), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"not compatible"});
}

TEST(CheckCompatibility, AllowsEveryVersionOfPlatformZero)
{
    EXPECT_EQ(check("25.30.123-P0F", "25.30.001", false), 0);
}

TEST(CheckCompatibility, RefusesAMalformedPackageVersionEvenForced)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.102-B0", true), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"invalid length of version: 49.01.102-B0", "wrong package version"}));
}

TEST(CheckCompatibility, RefusesAMalformedModemVersion)
{
    log_capture log;
    EXPECT_EQ(check("49.1-P0F", "49.01.102", false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"invalid length of version: 49.1", "wrong package version"}));
}

TEST(CheckCompatibility, RefusesAnUnsupportedPackagePlatform)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "99.01.102", true), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"unsupported platform: 99.01.102", "the platform is not supported"}));
}

TEST(CheckCompatibility, RefusesAnAuthorSuffixOnPlatformOne)
{
    log_capture log;
    EXPECT_EQ(check("49.01.102-P0F", "49.01.102-B001xyz", false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"author suffix not supported for this platform: 1", "wrong package version"}));
}

TEST(CheckCompatibility, RefusesAModemWithoutVersions)
{
    log_capture log;
    EXPECT_EQ(check("", "49.01.102", false), -22);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "unable to get the package version of the modem");
    EXPECT_EQ(log.messages()[0].function, "check_fw_compatibility");
}

TEST(CheckCompatibility, AllowsAForcedModemWithoutVersions)
{
    log_capture log;
    EXPECT_EQ(check("", "49.01.102", true), 0);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "firmware compatibility cannot be checked");
}

TEST(CheckCompatibility, RefusesVersionsWithoutTheMark)
{
    EXPECT_EQ(check("49.01.102", "49.01.103", false), -22);
}

TEST(CheckCompatibility, AllowsForcedVersionsWithoutTheMark)
{
    EXPECT_EQ(check("49.01.103", "49.01.102", true), 0);
}

TEST(CheckCompatibility, RefusesVersionsThatStartWithTheMark)
{
    EXPECT_EQ(check("-P0F;49.01.102", "49.01.103", false), -22);
}

TEST(CheckCompatibility, TakesNoPackageVersionForAMalformedOne)
{
    log_capture log;
    EXPECT_EQ(check_fw_compatibility("49.01.102-P0F", package_of(nullptr), true), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (texts{"version string is a null pointer", "wrong package version"}));
}
