#include "sysfs_tree.hpp"

#include <climits>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

const char usb_folder[] = "sys/devices/pci0000:00/0000:00:14.0/usb1/";
const char pci_folder[] = "sys/devices/pci0000:00/0000:00:1c.0/";

} // namespace

sysfs_tree::sysfs_tree()
{
    char real[PATH_MAX];
    const std::string root = realpath(dir.path().c_str(), real) != nullptr ? real : dir.path();
    sys_ = root + "/sys";
    dev_ = root + "/dev";
    proc_ = root + "/proc";
    for (const char *folder :
         {"/sys/bus/usb/devices", "/sys/bus/mhi/devices", "/sys/class/wwan", "/dev", "/proc"})
        fs::create_directories(root + folder);
}

std::string sysfs_tree::write(const std::string &name, const std::string &content) const
{
    return dir.write(name, content);
}

void sysfs_tree::remove(const std::string &name) const
{
    fs::remove_all(dir.at(name));
}

void sysfs_tree::link(const std::string &name, const std::string &target) const
{
    fs::remove(dir.at(name));
    fs::create_directories(fs::path(dir.at(name)).parent_path());
    fs::create_symlink(target, dir.at(name));
}

void sysfs_tree::add_node(const std::string &name) const
{
    dir.write("dev/" + name, "");
}

std::string sysfs_tree::add_usb(const std::string &name, const std::string &vid, const std::string &pid,
                                int number, int interfaces) const
{
    const std::string folder = usb_folder + name;
    write(folder + "/idVendor", vid + "\n");
    write(folder + "/idProduct", pid + "\n");
    write(folder + "/busnum", "1\n");
    write(folder + "/devnum", std::to_string(number) + "\n");
    write(folder + "/bNumInterfaces", " " + std::to_string(interfaces) + "\n");
    link("sys/bus/usb/devices/" + name, dir.at(folder));
    return dir.at(folder);
}

std::string sysfs_tree::add_interface(const std::string &device, int index, const std::string &number) const
{
    const std::string folder =
        device + "/" + fs::path(device).filename().string() + ":1." + std::to_string(index);
    const std::string name = folder.substr(dir.path().size() + 1);
    write(name + "/bInterfaceNumber", number + "\n");
    return folder;
}

void sysfs_tree::add_tty(const std::string &interface_folder, const std::string &name) const
{
    fs::create_directories(interface_folder + "/" + name + "/tty/" + name);
    add_node(name);
}

void sysfs_tree::add_acm(const std::string &interface_folder, const std::string &name) const
{
    fs::create_directories(interface_folder + "/tty/" + name);
    add_node(name);
}

void sysfs_tree::add_wwan(const std::string &folder, const std::string &name) const
{
    const std::string device = name.substr(0, 5); // wwan0 of wwan0at0
    const std::string target = folder + "/wwan/" + device + "/" + name;
    fs::create_directories(target);
    link("sys/class/wwan/" + device, folder + "/wwan/" + device);
    link("sys/class/wwan/" + name, target);
    add_node(name);
}

std::string sysfs_tree::add_mhi(const std::string &name, const std::string &pci, const std::string &vendor,
                                const std::string &device) const
{
    const std::string parent = pci_folder + pci;
    write(parent + "/vendor", vendor + "\n");
    write(parent + "/device", device + "\n");
    fs::create_directories(dir.at(parent + "/" + name));
    link("sys/bus/mhi/devices/" + name, dir.at(parent + "/" + name));
    return dir.at(parent + "/" + name);
}

void sysfs_tree::remove_usb(const std::string &name) const
{
    remove("sys/bus/usb/devices/" + name);
    remove(usb_folder + name);
}

void sysfs_tree::remove_mhi(const std::string &name, const std::string &pci) const
{
    remove("sys/bus/mhi/devices/" + name);
    remove(pci_folder + pci);
}

void sysfs_tree::remove_wwan(const std::string &folder) const
{
    for (const auto &entry : fs::directory_iterator(sys_ + "/class/wwan")) {
        if (fs::read_symlink(entry.path()).string().rfind(folder + "/", 0) == 0)
            fs::remove(entry.path());
    }
    fs::remove_all(folder + "/wwan");
}

void sysfs_tree::add_process(int id, const std::string &comm, const std::string &node) const
{
    const std::string folder = "proc/" + std::to_string(id);
    write(folder + "/comm", comm + "\n");
    link(folder + "/fd/3", "/dev/null");
    link(folder + "/fd/4", node);
}

std::string add_three_port_modem(const sysfs_tree &tree, const std::string &name, int number, int first_port)
{
    const std::string device = tree.add_usb(name, "fff0", "1001", number, 3);
    for (int i = 0; i < 3; ++i)
        tree.add_tty(tree.add_interface(device, i, "0" + std::to_string(i)),
                     "ttyUSB" + std::to_string(first_port + i));
    return device;
}
