#include "android-utils.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <cerrno>

using namespace std::string_view_literals;

namespace {

constexpr char log_source[] = "../android-utils.c";
constexpr char usb_devices[] = "/sys/bus/usb/devices";
constexpr size_t value_size = 32; // characters kept of a value; the fields hold one more

void parse_line(std::string_view line, system_information *out)
{
    const struct {
        std::string_view key;
        int32_t *number;
        char *text;
    } keys[] = {
        {"MAJOR=", &out->MAJOR, nullptr},    {"MINOR=", &out->MINOR, nullptr},
        {"DEVNAME=", nullptr, out->DEVNAME}, {"DEVTYPE=", nullptr, out->DEVTYPE},
        {"PRODUCT=", nullptr, out->PRODUCT},
    };
    for (const auto &key : keys) {
        if (!line.starts_with(key.key))
            continue;
        const char *const value = line.data() + key.key.size();
        if (key.number != nullptr)
            *key.number = atoi(value); // NOLINT(cert-err34-c): what is no number counts as 0
        else
            strlcpy(key.text, value, value_size + 1);
    }
}

void strip_line_end(char *line)
{
    const std::string_view text = line;
    if (text.ends_with('\n') || text.ends_with('\r'))
        line[text.size() - 1] = '\0';
}

// Entries of interfaces begin with a digit as well; their type tells them apart.
bool is_wanted_device(const char *entry, const char *vid_text, const char *pid_text)
{
    char path[256];
    snprintf(path, sizeof path, "%s/%.16s/uevent", usb_devices, entry);
    system_information info;
    if (!get_sysinfo_by_uevent(path, &info))
        return false;
    const std::string_view product = info.PRODUCT;
    return info.DEVTYPE == "usb_device"sv && !product.empty() && text_contains(product, vid_text) &&
           text_contains(product, pid_text);
}

} // namespace

bool get_sysinfo_by_uevent(const char *path, system_information *out)
{
    *out = {};
    const owned_stream file(fopen(path, "r"));
    if (file == nullptr) {
        const int err = errno;
        log_err("fail to fopen %s, errno: %d (%s)\n", path, err, strerror(err));
        return false;
    }
    char line[256];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        strip_line_end(line);
        parse_line(line, out);
    }
    return true;
}

bool find_usb_device_by_product(const char *vid_text, const char *pid_text)
{
    const owned_directory directory(opendir(usb_devices));
    if (directory == nullptr)
        return false;
    while (const dirent *const entry = readdir(directory.get())) {
        const char first = entry->d_name[0];
        if (first >= '0' && first <= '9' && is_wanted_device(entry->d_name, vid_text, pid_text))
            return true;
    }
    return false;
}

bool wait_for_usb_device(const char *vid_text, const char *pid_text, int tries)
{
    for (int i = 0; i < tries && sigint_detected == 0; ++i) {
        if (find_usb_device_by_product(vid_text, pid_text))
            return true;
        core_sleep(timeouts::download_device_pause);
    }
    return false;
}
