#include "core-sysfs.hpp"

#include "core-file.hpp"
#include "core.hpp"

#include <cctype>
#include <climits>
#include <fcntl.h>
#include <optional>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t text_size = 1024; // of a path or text in the records
constexpr size_t number_size = 16; // of a number's text
constexpr uint32_t max_id = 0xFFFF;
constexpr uint32_t max_interface = 99; // two decimal digits
constexpr uint32_t max_count = 0xFF;
constexpr uint32_t max_number = 0xFFFFF;

using path_text = char[text_size];

// The entries of a folder that `select` takes, numbers in their names by value; none when there is no such
// folder.
class listing {
  public:
    using selector = int (*)(const dirent *);
    listing(const char *folder, selector select)
    {
        const int count = scandir(folder, &entries_, select, versionsort);
        count_ = count > 0 ? static_cast<size_t>(count) : 0;
    }
    listing(const listing &) = delete;
    listing &operator=(const listing &) = delete;
    ~listing()
    {
        for (dirent *const entry : *this)
            free(entry);
        free(entries_);
    }
    size_t size() const { return count_; }
    dirent **begin() const { return entries_; }
    dirent **end() const { return entries_ + count_; }

  private:
    dirent **entries_ = nullptr;
    size_t count_ = 0;
};

bool resolve(const char *path, path_text &out)
{
    char resolved[PATH_MAX];
    return realpath(path, resolved) != nullptr && strlcpy(out, resolved, sizeof out) < sizeof out;
}

// Reads an attribute without its line end.
bool read_text(const char *folder, const char *attribute, std::span<char> out)
{
    path_text path;
    if (!core_compose(path, "%s/%s", folder, attribute))
        return false;
    const owned_file file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0)
        return false;
    const ssize_t length = read(file.get(), out.data(), out.size());
    if (length < 0 || static_cast<size_t>(length) == out.size())
        return false;
    out[static_cast<size_t>(length)] = '\0';
    out[strcspn(out.data(), "\n")] = '\0';
    return true;
}

// A number may have blanks before it and "0x" where it is hexadecimal, and nothing behind it.
std::optional<uint32_t> parse_number(const char *text, int base, uint32_t max)
{
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, base);
    if (end == text || *end != '\0' || value > max || strchr(text, '-') != nullptr)
        return {};
    return static_cast<uint32_t>(value);
}

std::optional<uint32_t> read_number(const char *folder, const char *attribute, int base, uint32_t max)
{
    char text[number_size];
    return read_text(folder, attribute, text) ? parse_number(text, base, max) : std::nullopt;
}

// An identifier with a part that is missing is an empty one.
bool read_id(const char *folder, const char *vendor, const char *product, core_usb_id *id)
{
    id->vid = read_number(folder, vendor, 16, max_id).value_or(0);
    id->pid = read_number(folder, product, 16, max_id).value_or(0);
    return !core_usb_id_is_empty(id);
}

bool fits_record(std::string_view name)
{
    return name.size() < CORE_SYSFS_NAME_SIZE;
}

// True for `prefix` and digits, and nothing else.
bool is_numbered(std::string_view name, std::string_view prefix)
{
    return fits_record(name) && name.size() > prefix.size() && name.starts_with(prefix) &&
           name.find_first_not_of("0123456789", prefix.size()) == name.npos;
}

bool begins_with_digit(std::string_view name)
{
    return isdigit(static_cast<unsigned char>(name.front())) != 0;
}

// Names such as 1-2.3; an interface's is 1-2.3:1.0, a root hub's usb1.
int is_usb_device(const dirent *entry)
{
    const std::string_view name = entry->d_name;
    return begins_with_digit(name) && name.find(':') == name.npos && fits_record(name);
}

// A device's folder may also hold links to what it depends on, such as supplier:pci:0000:00:0d.2.
int is_usb_interface(const dirent *entry)
{
    const std::string_view name = entry->d_name;
    return begins_with_digit(name) && name.find(':') != name.npos;
}

// A controller; its channels are mhi0_IPCR and the like.
int is_mhi_controller(const dirent *entry)
{
    return is_numbered(entry->d_name, "mhi");
}

// A port such as wwan0at0; wwan0 is the device that has the ports.
int is_wwan_port(const dirent *entry)
{
    const std::string_view name = entry->d_name;
    return name.starts_with("wwan") && !is_numbered(name, "wwan") && fits_record(name);
}

int is_usb_serial_port(const dirent *entry)
{
    return is_numbered(entry->d_name, "ttyUSB");
}

int is_acm_port(const dirent *entry)
{
    return is_numbered(entry->d_name, "ttyACM");
}

bool is_below(std::string_view path, std::string_view folder)
{
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

// Calls `take` (a port's name and real path) for each wwan port below a device's or an interface's folder.
template <typename Take> void for_each_wwan_port(const char *sys, const char *folder, Take take)
{
    path_text ports;
    if (!core_compose(ports, "%s/class/wwan", sys))
        return;
    for (const dirent *const port : listing(ports, is_wwan_port)) {
        path_text link;
        path_text path;
        if (core_compose(link, "%s/%s", ports, port->d_name) && resolve(link, path) && is_below(path, folder))
            take(port->d_name, path);
    }
}

bool parent_of(const char *path, path_text &out)
{
    strlcpy(out, path, sizeof out);
    char *const slash = strrchr(out, '/');
    if (slash == nullptr)
        return false;
    *slash = '\0';
    return true;
}

// The number of the folder that holds the port changes whenever the kernel makes the ports anew; the kind of
// the ports tells download mode from normal operation.
void look_at_pcie_ports(const char *sys, const char *pci_folder, core_sysfs_device *device)
{
    for_each_wwan_port(sys, pci_folder, [device](const char *name, const char *path) {
        path_text folder;
        struct stat status {};
        if (!parent_of(path, folder) || stat(folder, &status) != 0)
            return;
        if (std::string_view(name).find("firehose") != std::string_view::npos)
            device->has_firehose_port = true;
        device->incarnation = static_cast<uint64_t>(status.st_ino) << 1;
    });
    device->incarnation |= device->has_firehose_port ? 1 : 0;
}

bool read_usb_device(core_sysfs_device *device)
{
    if (!read_id(device->path, "idVendor", "idProduct", &device->id))
        return false;
    const uint64_t bus = read_number(device->path, "busnum", 10, max_number).value_or(0);
    const uint64_t number = read_number(device->path, "devnum", 10, max_number).value_or(0);
    device->incarnation = bus << 32 | number;
    return true;
}

bool read_pcie_modem(const char *sys, core_sysfs_device *device)
{
    path_text pci_folder;
    if (!parent_of(device->path, pci_folder) || !read_id(pci_folder, "vendor", "device", &device->id))
        return false;
    look_at_pcie_ports(sys, pci_folder, device);
    return true;
}

struct bus_row {
    const char *folder;
    listing::selector select;
    bool is_pcie;
};

constexpr bus_row buses[] = {
    {"bus/usb/devices", is_usb_device, false},
    {"bus/mhi/devices", is_mhi_controller, true},
};

// A link that leads to another name is no device's: the name is what libusb's devices are found by.
bool read_device(const char *sys, const bus_row &bus, const char *name, core_sysfs_device *device)
{
    *device = {};
    device->is_pcie = bus.is_pcie;
    path_text link;
    if (!core_compose(link, "%s/%s/%s", sys, bus.folder, name) || !resolve(link, device->path) ||
        core_last_component(device->path) != name)
        return false;
    return bus.is_pcie ? read_pcie_modem(sys, device) : read_usb_device(device);
}

// Puts a port where it belongs in the order of interface and name; what does not fit falls off the end.
void insert_port(core_device_info *info, const char *interface, const char *name)
{
    path_text node;
    if (!core_compose(node, "/dev/%s", name))
        return;
    uint32_t place = 0;
    while (place < info->port_count) {
        const int order = strcmp(interface, info->interface_numbers[place]);
        if (order < 0 || (order == 0 && strverscmp(node, info->port_names[place]) < 0))
            break;
        ++place;
    }
    if (place == CORE_DEVICE_MAX_PORTS)
        return;
    if (info->port_count < CORE_DEVICE_MAX_PORTS)
        ++info->port_count;
    const uint32_t behind = info->port_count - 1 - place;
    memmove(info->port_names[place + 1], info->port_names[place], behind * sizeof info->port_names[0]);
    memmove(info->interface_numbers[place + 1], info->interface_numbers[place],
            behind * sizeof info->interface_numbers[0]);
    strlcpy(info->port_names[place], node, sizeof info->port_names[place]);
    strlcpy(info->interface_numbers[place], interface, sizeof info->interface_numbers[place]);
}

// A serial converter's port is a device of the interface, and its tty is the port's.
void insert_usb_serial_ports(const char *interface_folder, const char *interface, core_device_info *info)
{
    for (const dirent *const port : listing(interface_folder, is_usb_serial_port)) {
        path_text tty;
        if (core_compose(tty, "%s/%s/tty/%s", interface_folder, port->d_name, port->d_name) &&
            access(tty, F_OK) == 0)
            insert_port(info, interface, port->d_name);
    }
}

void insert_acm_ports(const char *interface_folder, const char *interface, core_device_info *info)
{
    path_text folder;
    if (!core_compose(folder, "%s/tty", interface_folder))
        return;
    for (const dirent *const port : listing(folder, is_acm_port))
        insert_port(info, interface, port->d_name);
}

void insert_wwan_ports(const char *sys, const char *folder, const char *interface, core_device_info *info)
{
    for_each_wwan_port(sys, folder, [interface, info](const char *name, const char *) {
        insert_port(info, interface, name);
    });
}

void insert_usb_ports(const char *sys, const core_sysfs_device *device, core_device_info *info)
{
    for (const dirent *const entry : listing(device->path, is_usb_interface)) {
        path_text folder;
        if (!core_compose(folder, "%s/%s", device->path, entry->d_name))
            continue;
        const auto number = read_number(folder, "bInterfaceNumber", 16, max_interface);
        if (!number.has_value())
            continue;
        char interface[12];
        snprintf(interface, sizeof interface, "%02u", *number);
        insert_usb_serial_ports(folder, interface, info);
        insert_acm_ports(folder, interface, info);
        insert_wwan_ports(sys, folder, interface, info);
    }
}

} // namespace

size_t core_sysfs_find_devices(const char *sys, core_sysfs_filter wanted, const void *context,
                               core_sysfs_device *devices, size_t room)
{
    size_t count = 0;
    for (const bus_row &bus : buses) {
        path_text folder;
        if (!core_compose(folder, "%s/%s", sys, bus.folder))
            continue;
        for (const dirent *const entry : listing(folder, bus.select)) {
            if (count < room && read_device(sys, bus, entry->d_name, &devices[count]) &&
                wanted(&devices[count].id, context))
                ++count;
        }
    }
    return count;
}

bool core_sysfs_is_attached(const core_sysfs_device *device)
{
    if (device->is_pcie)
        return access(device->path, F_OK) == 0;
    core_sysfs_device now{};
    strlcpy(now.path, device->path, sizeof now.path);
    return read_usb_device(&now) && now.incarnation == device->incarnation &&
           core_usb_id_equals(&now.id, &device->id);
}

bool core_sysfs_is_complete(const core_sysfs_device *device)
{
    char text[number_size];
    if (device->is_pcie || !read_text(device->path, "bNumInterfaces", text))
        return true;
    if (text[0] == '\0')
        return false; // the device is announced before its configuration is chosen
    const auto interfaces = parse_number(text, 10, max_count);
    return !interfaces.has_value() || listing(device->path, is_usb_interface).size() >= *interfaces;
}

bool core_sysfs_describe(const char *sys, const core_sysfs_device *device, core_device_info *info)
{
    *info = {};
    strlcpy(info->name, device->path, sizeof info->name);
    strlcpy(info->path, device->path, sizeof info->path);
    snprintf(info->vid, sizeof info->vid, "%04x", device->id.vid & max_id);
    snprintf(info->pid, sizeof info->pid, "%04x", device->id.pid & max_id);
    if (device->is_pcie) {
        path_text pci_folder;
        // Ports that came after the look at the device would make it one that has not been told of.
        if (device->incarnation != 0 && parent_of(device->path, pci_folder))
            insert_wwan_ports(sys, pci_folder, "", info);
    } else {
        if (!read_text(device->path, "serial", info->serial))
            info->serial[0] = '\0';
        insert_usb_ports(sys, device, info);
    }
    return core_sysfs_is_attached(device);
}
