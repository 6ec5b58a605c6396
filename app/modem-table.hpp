// The supported products: the maker's rows (a table of the build, see modem-table.def) and the chip vendor's.
// Everything that depends on identities is derived from the rows here. Constant data; nothing is owned.
#pragma once

#include "core-usb-id.hpp"

#include <cstdint>

// The chip vendor's download-mode device, as identifier and as the texts that sysfs shows.
constexpr core_usb_id QDL_DEVICE{0x05C6, 0x9008};
constexpr char QDL_VENDOR_TEXT[] = "5c6";
constexpr char QDL_PRODUCT_TEXT[] = "9008";

// Which interfaces of a product carry which ports.
struct port_map {
    const char *diagnostic; // comma-separated interface numbers, "" or "-1" for none
    const char *at;
    const char *firmware_update;
    uint8_t minimum_ports; // what a complete enumeration shows
};

// The identifiers that the program looks for, in that order.
extern const core_usb_id_list modem_list;
// Those of modems in download mode, the chip vendor's device first.
extern const core_usb_id_list download_mode_list;
// Names of the supported module families, comma-separated.
extern const char *const modem_families;

// The map of the identifier's product id; an empty one for an unknown product.
[[nodiscard]] port_map get_port_map(const core_usb_id *id);
// One of the chip vendor's PCIe modems.
[[nodiscard]] bool is_pcie_modem(const core_usb_id *id);
// The chip vendor's download device or one of the maker's.
[[nodiscard]] bool is_download_mode_modem(const core_usb_id *id);
