#include "modem-table.hpp"

#include <array>
#include <cstddef>

#ifndef KESTREL_MODEM_TABLE
#define KESTREL_MODEM_TABLE "modem-table.def"
#endif

namespace {

struct product {
    core_usb_id id;
    port_map map;
    bool is_download_mode;
};

#define KESTREL_FAMILIES(names)
#define KESTREL_MODEM(vid, pid, diagnostic, at, firmware_update, minimum_ports, is_download_mode)            \
    product{{vid, pid}, {diagnostic, at, firmware_update, minimum_ports}, is_download_mode},
constexpr product maker_products[] = {
#include KESTREL_MODEM_TABLE
};
#undef KESTREL_MODEM
#undef KESTREL_FAMILIES

constexpr product pcie_products[] = {
    {{0x17CB, 0x011A}, {"-1", "-1", "-1", 2}, false},
    {{0x17CB, 0x0309}, {"-1", "-1", "-1", 2}, false},
};
constexpr product qdl_product = {QDL_DEVICE, {"", "", "00", 1}, true};

constexpr size_t count_download_mode()
{
    size_t count = 0;
    for (const product &row : maker_products)
        count += row.is_download_mode ? 1 : 0;
    return count;
}

constexpr size_t modem_count = std::size(maker_products) + std::size(pcie_products) + 1;
constexpr size_t download_mode_count = count_download_mode() + std::size(pcie_products) + 1;
static_assert(modem_count <= UINT8_MAX, "an identifier list holds at most 255 entries");

// Normal operation first, then PCIe, then what is in download mode already, the chip vendor's device last.
constexpr auto modem_ids = [] {
    std::array<core_usb_id, modem_count> ids{};
    size_t used = 0;
    for (const product &row : maker_products) {
        if (!row.is_download_mode)
            ids[used++] = row.id;
    }
    for (const product &row : pcie_products)
        ids[used++] = row.id;
    for (const product &row : maker_products) {
        if (row.is_download_mode)
            ids[used++] = row.id;
    }
    ids[used] = QDL_DEVICE;
    return ids;
}();

constexpr auto download_mode_ids = [] {
    std::array<core_usb_id, download_mode_count> ids{};
    size_t used = 0;
    ids[used++] = QDL_DEVICE;
    for (const product &row : maker_products) {
        if (row.is_download_mode)
            ids[used++] = row.id;
    }
    for (const product &row : pcie_products)
        ids[used++] = row.id;
    return ids;
}();

template <typename Rows> const product *find_product(const Rows &rows, uint32_t pid)
{
    for (const product &row : rows) {
        if (row.id.pid == pid)
            return &row;
    }
    return nullptr;
}

} // namespace

const core_usb_id_list modem_list{modem_count, modem_ids.data()};
const core_usb_id_list download_mode_list{download_mode_count, download_mode_ids.data()};

#define KESTREL_MODEM(vid, pid, diagnostic, at, firmware_update, minimum_ports, is_download_mode)
#define KESTREL_FAMILIES(names) names
const char *const modem_families =
#include KESTREL_MODEM_TABLE
    ;
#undef KESTREL_FAMILIES
#undef KESTREL_MODEM

port_map get_port_map(const core_usb_id *id)
{
    const product *row = find_product(maker_products, id->pid);
    if (row == nullptr)
        row = find_product(pcie_products, id->pid);
    if (row == nullptr && id->pid == qdl_product.id.pid)
        row = &qdl_product;
    return row != nullptr ? row->map : port_map{"", "", "", 0};
}

bool is_pcie_modem(const core_usb_id *id)
{
    for (const product &row : pcie_products) {
        if (core_usb_id_equals(id, &row.id))
            return true;
    }
    return false;
}

bool is_download_mode_modem(const core_usb_id *id)
{
    for (const product &row : maker_products) {
        if (row.is_download_mode && core_usb_id_equals(id, &row.id))
            return true;
    }
    return core_usb_id_equals(id, &QDL_DEVICE);
}
