// The bus of the program for tests: a file, named by KESTREL_BUS, that the simulated modem keeps.
#pragma once

#include "core-usb-id.hpp"

struct bus_device {
    core_usb_id id;
    char port[64];
};

// False while no device is there.
bool read_bus(bus_device *device);
