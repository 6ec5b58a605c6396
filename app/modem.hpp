// The modem record: what the program knows of one attached modem. The bus scan creates it, the probing over
// AT fills it, the driver picks its ports, the JSON output describes it. All texts are NUL-terminated and cut
// to their size; a record of zero bytes is a free slot.
#pragma once

#include "core-usb-id.hpp"

#include <cstdint>

// Most modems that one run tells apart, and most ports of one.
constexpr uint8_t MAX_MODEM_NUMBER = 8;
constexpr uint8_t MAX_MODEM_PORTS = 7;

enum port_type : uint32_t {
    PORT_UNKNOWN = 0,
    PORT_DIAGNOSTIC = 1,
    PORT_AT = 2,
    PORT_FIRMWARE_UPDATE = 3,
};

enum probing_mode : uint32_t {
    PROBING_UNKNOWN = 0,
    PROBING_PORT = 1, // named on the command line
    PROBING_USB = 2,  // found by the bus scan
};

struct modem_port_record {
    char port_name[1024]; // device node
    uint32_t port_type;
};

struct modem {
    uint32_t probing_mode;
    core_usb_id usb_id;
    char usb_serial[1024]; // "unknown" when the device has none
    char dev_path[1024];
    modem_port_record modem_port[MAX_MODEM_PORTS]; // in order of discovery
    uint8_t modem_port_size;
    bool is_pcie;
    char model_name[128];
    char cfun[128];
    char imei[128];
    char versions[1024]; // installed package versions, separated by ";"
};

// Names for people and for JSON; "unknown" for a number that is none.
[[nodiscard]] const char *port_type_name(uint32_t type);
[[nodiscard]] const char *probing_mode_name(uint32_t mode);

// The first port of the given type, or null.
[[nodiscard]] const modem_port_record *find_port(const modem *m, uint32_t type);

// The first free slot of the array, or null.
[[nodiscard]] modem *find_free_modem_slot(modem *modems, uint8_t count);
// True when the record is in use.
[[nodiscard]] bool is_modem_present(const modem *m);
