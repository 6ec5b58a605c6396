#include "zepho-module.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

static constexpr char log_source[] = "zepho-module.c";

namespace {

constexpr size_t short_length = 9;
constexpr size_t build_length = 14;

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

int digit(const char *version, size_t position)
{
    return version[position] - '0';
}

int two_digits(const char *version, size_t tens, size_t units)
{
    return 10 * digit(version, tens) + digit(version, units);
}

bool has_valid_characters(const char *version, size_t length)
{
    if (version[2] != '.' || version[5] != '.' || !is_digit(version[minor_tens]) ||
        !is_digit(version[minor_units]))
        return false;
    if (length != build_length)
        return true;
    return version[9] == '-' && version[10] == 'B' && is_digit(version[build_hundreds]) &&
           is_digit(version[build_tens]) && is_digit(version[build_units]);
}

int minor_value(const char *version)
{
    int value = two_digits(version, minor_tens, minor_units) * 1000;
    if (strlen(version) == build_length)
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
    const size_t length = strlen(version);
    if (length != short_length && length < build_length) {
        log_err("invalid length of version: %s", version);
        return CORE_EINVAL;
    }
    if (!has_valid_characters(version, length)) {
        log_err("invalid characters in version: %s", version);
        return CORE_EINVAL;
    }
    const int code = two_digits(version, platform_tens, platform_units);
    for (const platform_row &row : platforms) {
        if (row.code != code)
            continue;
        if (row.release != any_release && two_digits(version, major, minor_tens) != row.release)
            break;
        if (!row.author_suffix && length > build_length) {
            log_err("author suffix not supported for this platform: %d", static_cast<int>(row.id));
            return CORE_EINVAL;
        }
        *platform = row.id;
        return CORE_OK;
    }
    log_err("unsupported platform: %s", version);
    return CORE_EGENERIC;
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
