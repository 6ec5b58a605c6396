#include "core-place.hpp"

#include "core-owners.hpp"
#include "core.hpp"

#include <climits>
#include <sys/sysmacros.h>

namespace {

constexpr std::string_view digits = "0123456789";
constexpr std::string_view mhi = "mhi";
constexpr std::string_view wwan = "wwan";

using place_text = std::span<char, CORE_PLACE_SIZE>;
using path_text = char[PATH_MAX];

bool consists_of(std::string_view text, std::string_view characters)
{
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

// Names such as 1-2.3; an interface's is 1-2.3:1.0, a root hub's usb1.
bool is_usb_device(std::string_view name)
{
    const std::string_view bus = text_before(name, "-");
    name.remove_prefix(bus.size() + (bus.size() < name.size() ? 1 : 0));
    return consists_of(bus, digits) && consists_of(name, "0123456789.");
}

// A controller; its channels are mhi0_IPCR and the like.
bool is_mhi_controller(std::string_view name)
{
    if (!name.starts_with(mhi))
        return false;
    name.remove_prefix(mhi.size());
    return consists_of(name, digits);
}

bool tell(place_text place, const char *kind, std::string_view name)
{
    return core_compose(place, "%s/%.*s", kind, static_cast<int>(name.size()), name.data());
}

// Takes the last component off a path.
std::string_view take_last(std::string_view *path)
{
    const std::string_view last = core_last_component(*path);
    path->remove_suffix(std::min(last.size() + 1, path->size()));
    return last;
}

// The innermost device with a place on a bus, of those that the real path of whatever belongs to it goes
// through. A controller is named after the order in which the drivers came; its PCI device lies above it.
bool find_place_in(std::string_view path, place_text place)
{
    while (!path.empty()) {
        const std::string_view name = take_last(&path);
        if (is_usb_device(name))
            return tell(place, "usb", name);
        if (!is_mhi_controller(name))
            continue;
        const std::string_view above = core_last_component(path);
        return text_contains(above, ":") ? tell(place, "pci", above) : tell(place, "mhi", name);
    }
    return false;
}

bool find_place_behind(const path_text &link, place_text place)
{
    path_text real;
    return realpath(link, real) != nullptr && find_place_in(real, place);
}

// The kernel's number of a node leads to its device by itself.
bool find_place_by_number(const char *sys, const struct stat &node, place_text place)
{
    path_text link;
    return S_ISCHR(node.st_mode) &&
           core_compose(link, "%s/dev/char/%u:%u", sys, major(node.st_rdev), minor(node.st_rdev)) &&
           find_place_behind(link, place);
}

// As long as the port is there, its name does, too.
bool find_place_by_name(const char *sys, std::string_view name, place_text place)
{
    path_text link;
    const int length = static_cast<int>(name.size());
    return (core_compose(link, "%s/class/tty/%.*s/device", sys, length, name.data()) &&
            find_place_behind(link, place)) ||
           (core_compose(link, "%s/class/wwan/%.*s", sys, length, name.data()) &&
            find_place_behind(link, place));
}

// The number in the name of a wwan port is that of its controller, which stays while the port is gone.
bool find_place_of_controller(const char *sys, std::string_view name, place_text place)
{
    const std::optional<std::string_view> number = text_behind(name, wwan);
    path_text link;
    return number && !number->empty() &&
           core_compose(link, "%s/bus/mhi/devices/mhi%c", sys, number->front()) &&
           find_place_behind(link, place);
}

bool tell_own_place(const struct stat &node, place_text place)
{
    if (S_ISCHR(node.st_mode) && !core_is_pseudo_terminal(node))
        return core_compose(place, "device/%u:%u", major(node.st_rdev), minor(node.st_rdev));
    const auto device = static_cast<unsigned long long>(node.st_dev);
    const auto inode = static_cast<unsigned long long>(node.st_ino);
    if (!core_is_pseudo_terminal(node))
        return core_compose(place, "file/%llu:%llu", device, inode);
    // One is given the number, and with it the inode, of another that has just gone: when it was made tells
    // them apart.
    return core_compose(place, "file/%llu:%llu:%lld.%09ld", device, inode,
                        static_cast<long long>(node.st_ctim.tv_sec), static_cast<long>(node.st_ctim.tv_nsec));
}

bool read_number(const char *folder, const char *attribute, int base, unsigned *number)
{
    path_text path;
    const owned_stream file(core_compose(path, "%s/%s", folder, attribute) ? fopen(path, "re") : nullptr);
    char text[16];
    if (file == nullptr || fgets(text, sizeof text, file.get()) == nullptr)
        return false;
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, base);
    *number = static_cast<unsigned>(value);
    return end != text && value <= UINT_MAX;
}

bool describe_usb_device(const char *folder, const core_usb_id &id, core_usb_place *found)
{
    core_usb_id own{};
    unsigned bus = 0;
    unsigned number = 0;
    return read_number(folder, "idVendor", 16, &own.vid) && read_number(folder, "idProduct", 16, &own.pid) &&
           core_usb_id_equals(&own, &id) && read_number(folder, "busnum", 10, &bus) &&
           read_number(folder, "devnum", 10, &number) &&
           core_compose(found->node, "bus/usb/%03u/%03u", bus, number) &&
           tell(found->place, "usb", core_last_component(folder));
}

} // namespace

bool core_is_pseudo_terminal(const struct stat &node)
{
    constexpr unsigned first = 136; // of the majors of /dev/pts
    constexpr unsigned last = 143;
    return S_ISCHR(node.st_mode) && major(node.st_rdev) >= first && major(node.st_rdev) <= last;
}

bool core_find_place(const char *sys, const char *port, const struct stat *node, place_text place)
{
    path_text real;
    const std::string_view name = core_last_component(realpath(port, real) != nullptr ? real : port);
    return (node != nullptr && find_place_by_number(sys, *node, place)) ||
           find_place_by_name(sys, name, place) || find_place_of_controller(sys, name, place) ||
           (node != nullptr && tell_own_place(*node, place));
}

size_t core_find_usb_places(const char *sys, const core_usb_id &id, std::span<core_usb_place> found)
{
    path_text folder;
    const owned_directory devices(core_compose(folder, "%s/bus/usb/devices", sys) ? opendir(folder)
                                                                                  : nullptr);
    size_t count = 0;
    while (devices != nullptr && count < found.size()) {
        const dirent *const entry = readdir(devices.get());
        if (entry == nullptr)
            break;
        if (is_usb_device(entry->d_name) &&
            core_compose(folder, "%s/bus/usb/devices/%s", sys, entry->d_name) &&
            describe_usb_device(folder, id, &found[count]))
            ++count;
    }
    return count;
}
