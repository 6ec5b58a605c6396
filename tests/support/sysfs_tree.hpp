// A folder that looks like the machine's /sys, /dev and /proc to code that takes their places as arguments:
// devices are folders below sys/devices, the buses and classes hold links to them, as the kernel arranges it.
#pragma once

#include "core-sysfs.hpp"
#include "temp_dir.hpp"

#include <string>

class sysfs_tree {
  public:
    sysfs_tree();

    core_roots roots() const { return {sys_.c_str(), dev_.c_str(), proc_.c_str()}; }
    const std::string &sys() const { return sys_; }
    std::string dev(const std::string &name) const { return dev_ + "/" + name; }
    // Writes a file below the tree's root, its folders included; returns the path.
    std::string write(const std::string &name, const std::string &content) const;
    // Removes a file or a folder with all it holds.
    void remove(const std::string &name) const;

    // A USB device: its folder with identifiers, bus and device number, and its link. Returns the folder's
    // path.
    std::string add_usb(const std::string &name, const std::string &vid, const std::string &pid,
                        int number = 5, int interfaces = 0) const;
    // An interface ("00", as sysfs writes it) of a USB device; returns the folder's path.
    std::string add_interface(const std::string &device, int index, const std::string &number) const;
    // A port of a serial converter, with its node.
    void add_tty(const std::string &interface_folder, const std::string &name) const;
    // A port of a communication device, with its node.
    void add_acm(const std::string &interface_folder, const std::string &name) const;
    // A wwan port below a device's or an interface's folder, with its node.
    void add_wwan(const std::string &folder, const std::string &name) const;
    // A modem on the MHI bus; returns the controller's folder.
    std::string add_mhi(const std::string &name, const std::string &pci, const std::string &vendor,
                        const std::string &device) const;
    void remove_usb(const std::string &name) const;
    void remove_mhi(const std::string &name, const std::string &pci) const;
    // Takes all ports of a folder's wwan device away.
    void remove_wwan(const std::string &folder) const;
    // A process that has a node open.
    void add_process(int id, const std::string &comm, const std::string &node) const;

  private:
    void link(const std::string &name, const std::string &target) const;
    void add_node(const std::string &name) const;

    temp_dir dir;
    std::string sys_, dev_, proc_;
};

// The folder of a modem with the ports ttyUSB0 to ttyUSB2 on the interfaces 00 to 02.
std::string add_three_port_modem(const sysfs_tree &tree, const std::string &name, int number = 5,
                                 int first_port = 0);
