// Whether the nodes of found ports can be used: they appear, and get their permissions, a moment after the
// kernel shows the port; and another program may hold them.
#pragma once

#include "core-sysfs.hpp"

// The ports whose holder was reported, so that repeated looks report it once. Zeroed before first use.
struct core_reported_ports {
    static constexpr size_t room = 64;
    char names[room][CORE_SYSFS_NAME_SIZE];
    size_t count;
};

// Waits until every port of the devices may be read and written: at most 2 s for all of them, and no longer
// than until SIGINT. Who opens a port that is still not usable then reports it.
void core_await_port_access(const core_roots &roots, const core_device_info *devices, size_t count);
// Logs an error for each port that another process has open: the port, the process and what to do.
void core_report_port_holders(const core_roots &roots, const core_device_info *devices, size_t count,
                              core_reported_ports *reported);
