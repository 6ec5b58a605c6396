// Package versions: three of them, a line each, then what a modem answers when it is asked for its versions.
#include "compatibility.hpp"
#include "core.hpp"
#include "fuzz.hpp"
#include "image-list.hpp"
#include "zepho-module.hpp"

namespace {

constexpr uint32_t no_platform = 77;

int platform_of(const std::string &version, uint32_t *platform)
{
    *platform = no_platform;
    const int result = get_platform(exact_text(version).data(), platform);
    fuzz_check(result == CORE_OK || result == CORE_EINVAL || result == CORE_EGENERIC);
    fuzz_check((result == CORE_OK) == (*platform != no_platform));
    if (result != CORE_OK)
        return result;
    const size_t length = version.size();
    fuzz_check(*platform <= 2);
    fuzz_check(length == 9 || length == 14 || (length > 14 && *platform == 0));
    fuzz_check(version[2] == '.' && version[5] == '.');
    const int code = 10 * (version[0] - '0') + (version[1] - '0');
    static constexpr int codes[] = {25, 49, 50};
    fuzz_check(code == codes[*platform]);
    if (*platform == 0)
        fuzz_check(10 * (version[3] - '0') + (version[4] - '0') == 30);
    return result;
}

int compare(const std::string &old_version, const std::string &new_version)
{
    return fw_version_compare(exact_text(old_version).data(), exact_text(new_version).data());
}

void check_pair(const std::string &a, const std::string &b)
{
    uint32_t platform_a = 0;
    uint32_t platform_b = 0;
    const int valid_a = platform_of(a, &platform_a);
    const int valid_b = platform_of(b, &platform_b);
    const int forth = compare(a, b);
    const int back = compare(b, a);
    fuzz_check(compare(a, a) == valid_a);
    if (valid_a != CORE_OK || valid_b != CORE_OK) {
        fuzz_check(forth == (valid_a != CORE_OK ? valid_a : valid_b));
        fuzz_check(back == (valid_b != CORE_OK ? valid_b : valid_a));
        return;
    }
    fuzz_check((forth == CORE_EPERM) == (back == CORE_EPERM)); // nobody is compatible one way only
    if (platform_a != platform_b) {
        fuzz_check(forth == CORE_EPERM);
        return;
    }
    if (platform_a == 0) {
        fuzz_check(forth == CORE_OK);
        return;
    }
    fuzz_check((a.substr(6, 2) != b.substr(6, 2)) == (forth == CORE_EPERM));
    if (forth == CORE_EPERM)
        return;
    fuzz_check(forth == CORE_OK || forth == CORE_EVERSION);
    fuzz_check(forth == CORE_OK || back == CORE_OK); // never a downgrade both ways
    if (forth == CORE_OK && back == CORE_OK)
        fuzz_check(a[3] == b[3]); // the same version in two ways of writing
}

void check_order(const std::string &a, const std::string &b, const std::string &c)
{
    if (compare(a, b) == CORE_OK && compare(b, c) == CORE_OK)
        fuzz_check(compare(a, c) == CORE_OK);
}

void check_decision(const std::string &modem_versions, const std::string &package_version)
{
    static image_list package;
    std::vector<char> version = exact_text(package_version);
    package.new_pkgver = version.data();
    const std::vector<char> versions = exact_text(modem_versions);
    const int asked = check_fw_compatibility(versions.data(), &package, false);
    const int forced = check_fw_compatibility(versions.data(), &package, true);
    package.new_pkgver = nullptr;
    fuzz_check(asked != CORE_OK || forced == CORE_OK);

    const size_t end = modem_versions.find("-P");
    if (end == std::string::npos || end == 0) {
        fuzz_check(asked == CORE_EINVAL && forced == CORE_OK);
        return;
    }
    const int result = compare(modem_versions.substr(0, end), package_version);
    fuzz_check((asked == CORE_OK) == (result == CORE_OK));
    fuzz_check((forced == CORE_OK) == (result == CORE_OK || result == CORE_EVERSION));
}

void check_substring(const std::string &text, const std::string &separator)
{
    const owned_text head = substring_before_sep(exact_text(text).data(), exact_text(separator).data());
    if (head == nullptr) {
        fuzz_check(!contains(text, separator) || starts_with(text, separator));
        return;
    }
    fuzz_check(head.get()[0] != '\0' && starts_with(text, head.get() + separator));
    fuzz_check(text.find(separator) == strlen(head.get()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const std::string a = exact_text(input.take_until('\n')).data();
    const std::string b = exact_text(input.take_until('\n')).data();
    const std::string c = exact_text(input.take_until('\n')).data();
    const std::string versions = exact_text(input.rest()).data();
    quiet_log();
    check_pair(a, b);
    check_pair(b, c);
    check_order(a, b, c);
    check_decision(versions, b);
    check_substring(versions, a);
    check_substring(versions, "-P");
    return 0;
}
