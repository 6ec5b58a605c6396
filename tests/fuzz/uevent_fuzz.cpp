// The kernel's description of one device.
#include "android-utils.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"

static void check_text(const char (&field)[33], const std::string &key, const std::string &text)
{
    fuzz_check(is_terminated(field, sizeof field));
    if (field[0] != '\0')
        fuzz_check(contains(text, key + field));
}

static void check_number(int32_t number, const std::string &key, const std::string &text)
{
    fuzz_check(number == 0 || contains(text, key));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static fuzz_file file;
    quiet_log();
    const std::string text(reinterpret_cast<const char *>(data), size);
    file.set(text);
    system_information info;
    fuzz_check(get_sysinfo_by_uevent(file.path(), &info));
    check_text(info.DEVNAME, "DEVNAME=", text);
    check_text(info.DEVTYPE, "DEVTYPE=", text);
    check_text(info.PRODUCT, "PRODUCT=", text);
    check_number(info.MAJOR, "MAJOR=", text);
    check_number(info.MINOR, "MINOR=", text);
    fuzz_check(info.driver[0] == '\0');
    return 0;
}
