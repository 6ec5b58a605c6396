#include "zepho-module.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

constexpr char log_source[] = "zepho-module.c";

// What a version looks like; '#' is a digit, '?' any character. Behind a build, only the author's suffix
// follows.
constexpr std::string_view short_form = "??.?#.??#";
constexpr std::string_view build_form = "??.?#.??#-B###";

// Positions in a version text.
enum : size_t {
    platform_tens = 0,
    platform_units = 1,
    major = 3,
    minor_tens = 4,
    class_tens = 6,
    class_units = 7,
    minor_units = 8,
    build_hundreds = 11,
    build_tens = 12,
    build_units = 13,
};

struct platform_row {
    int code;
    uint32_t id;
    int release; // what positions 3 and 4 must read, or any_release
    bool author_suffix;
};

constexpr int any_release = -1;
constexpr platform_row platforms[] = {
    {25, 0, 30, true},
    {49, 1, any_release, false},
    {50, 2, any_release, false},
};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Of a longer version the beginning counts.
bool has_form(std::string_view version, std::string_view form)
{
    return std::ranges::equal(form, std::string_view(version.data(), form.size()), [](char wanted, char c) {
        return wanted == '#' ? is_digit(c) : wanted == '?' || wanted == c;
    });
}

int digit(std::string_view version, size_t position)
{
    return version[position] - '0';
}

int two_digits(std::string_view version, size_t tens, size_t units)
{
    return 10 * digit(version, tens) + digit(version, units);
}

// Null for a platform, or a release of one, that is not supported.
const platform_row *find_platform(std::string_view version)
{
    const int code = two_digits(version, platform_tens, platform_units);
    const auto *const row = std::ranges::find(platforms, code, &platform_row::code);
    if (row == std::end(platforms))
        return nullptr;
    const bool is_supported =
        row->release == any_release || row->release == two_digits(version, major, minor_tens);
    return is_supported ? row : nullptr;
}

int minor_value(std::string_view version)
{
    int value = two_digits(version, minor_tens, minor_units) * 1000;
    if (version.size() == build_form.size())
        value += 100 * digit(version, build_hundreds) + two_digits(version, build_tens, build_units);
    return value;
}

} // namespace

int get_platform(const char *version, uint32_t *platform)
{
    if (version == nullptr) {
        log_err("version string is a null pointer");
        return CORE_EINVAL;
    }
    const std::string_view text = version;
    if (text.size() != short_form.size() && text.size() < build_form.size()) {
        log_err("invalid length of version: %s", version);
        return CORE_EINVAL;
    }
    if (!has_form(text, text.size() == build_form.size() ? build_form : short_form)) {
        log_err("invalid characters in version: %s", version);
        return CORE_EINVAL;
    }
    const platform_row *const row = find_platform(text);
    if (row == nullptr) {
        log_err("unsupported platform: %s", version);
        return CORE_EGENERIC;
    }
    if (!row->author_suffix && text.size() > build_form.size()) {
        log_err("author suffix not supported for this platform: %d", static_cast<int>(row->id));
        return CORE_EINVAL;
    }
    *platform = row->id;
    return CORE_OK;
}

int fw_version_compare(const char *old_version, const char *new_version)
{
    uint32_t old_platform = 0;
    if (const int err = get_platform(old_version, &old_platform); err != CORE_OK)
        return err;
    log_dbg("oldver: %s; oldplat: %d", old_version, static_cast<int>(old_platform));
    uint32_t new_platform = 0;
    if (const int err = get_platform(new_version, &new_platform); err != CORE_OK)
        return err;
    log_dbg("newver: %s; newver: %d", new_version, static_cast<int>(new_platform));
    if (old_platform != new_platform)
        return CORE_EPERM;
    if (new_platform == 0)
        return CORE_OK; // downgrades included
    if (old_version[class_tens] != new_version[class_tens] ||
        old_version[class_units] != new_version[class_units])
        return CORE_EPERM;
    if (new_version[major] != old_version[major])
        return new_version[major] < old_version[major] ? CORE_EVERSION : CORE_OK;
    return minor_value(old_version) <= minor_value(new_version) ? CORE_OK : CORE_EVERSION;
}
