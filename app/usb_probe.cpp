#include "usb_probe.hpp"

#include "core-discovery.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <iterator>

namespace {

constexpr char log_source[] = "../usb_probe.c";
constexpr char in_scan_usb_bus[] = "scan_usb_bus";
constexpr size_t max_devices = 10;

// A port's type by the interface that carries it; a PCIe modem's ports have no interface but a telling name.
uint32_t classify_port(const port_map &map, bool is_pcie, const char *interface, const char *name)
{
    const struct {
        const char *haystack;
        const char *needle;
        uint32_t type;
        bool pcie_only;
    } rules[] = {
        {map.diagnostic, interface, PORT_DIAGNOSTIC, false},
        {map.at, interface, PORT_AT, false},
        {map.firmware_update, interface, PORT_FIRMWARE_UPDATE, false},
        {name, "at", PORT_AT, true},
        {name, "firehose", PORT_FIRMWARE_UPDATE, true},
    };
    for (const auto &rule : rules) {
        if ((is_pcie || !rule.pcie_only) && find_substring(rule.haystack, rule.needle) != nullptr)
            return rule.type;
    }
    return PORT_UNKNOWN;
}

int add_modem(modem *slot, const core_device_info &info, uint8_t max_ports)
{
    slot->probing_mode = PROBING_USB;
    static_cast<void>(
        core_usb_id_from_str(&slot->usb_id, info.vid, info.pid)); // which matched the list by it
    slot->is_pcie = is_pcie_modem(&slot->usb_id);
    strlcpy(slot->usb_serial, info.serial[0] != '\0' ? info.serial : "unknown", sizeof slot->usb_serial);
    strlcpy(slot->dev_path, info.path, sizeof slot->dev_path);
    const int err = gather_serial_ports(slot, &info, max_ports);
    if (err != CORE_OK) {
        log_as(in_scan_usb_bus, CORE_LOG_DBG, "Unable to gather serial ports for %04X:%04X", slot->usb_id.vid,
               slot->usb_id.pid);
        memset(slot, 0, sizeof *slot);
    }
    return err;
}

} // namespace

bool is_valid_port_name(const char *name)
{
    for (; *name != '\0'; ++name) {
        const char c = *name;
        const bool valid =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/';
        if (!valid)
            return false;
    }
    return true;
}

const char *find_substring(const char *haystack, const char *needle)
{
    if (haystack == nullptr || needle == nullptr || needle[0] == '\0')
        return nullptr;
    return strstr(haystack, needle);
}

int gather_serial_ports(modem *m, const core_device_info *info, uint8_t max_ports)
{
    const port_map map = get_port_map(&m->usb_id);
    bool has_download_port = false;
    for (uint32_t i = 0; i < info->port_count && i < CORE_DEVICE_MAX_PORTS; ++i) {
        if (m->modem_port_size == max_ports || m->modem_port_size == MAX_MODEM_PORTS)
            return CORE_ENOMEM;
        const char *const name = info->port_names[i];
        if (!is_valid_port_name(name))
            continue;
        modem_port_record &port = m->modem_port[m->modem_port_size];
        strlcpy(port.port_name, name, sizeof port.port_name);
        port.port_type = classify_port(map, m->is_pcie, info->interface_numbers[i], name);
        if (port.port_type == PORT_FIRMWARE_UPDATE) {
            strlcpy(m->model_name, "QDL", sizeof m->model_name);
            has_download_port = true;
        }
        ++m->modem_port_size;
    }
    if (m->modem_port_size < map.minimum_ports && !(m->is_pcie && has_download_port)) {
        log_dbg("No ports found: maybe enumeration did not complete?");
        return CORE_EAGAIN;
    }
    return CORE_OK;
}

int scan_usb_bus(const core_usb_id_list *ids, modem *modems, uint8_t max_modems, uint8_t max_ports)
{
    log_dbg("usb_ids size = %d", ids->count);
    for (unsigned i = 0; i < ids->count; ++i)
        log_dbg(" %04X:%04X, ", ids->ids[i].vid, ids->ids[i].pid);
    static core_device_info devices[max_devices];
    memset(devices, 0, sizeof devices);
    size_t found = max_devices;
    if (const int err = core_device_enumerate(ids->ids, ids->count, devices, &found); err != CORE_OK)
        return err;
    log_dbg("USB bus scan device list size = %d", static_cast<int>(found));
    if (found > max_modems) {
        log_err("Found more than %u modems, please report bug to developers", max_modems);
        return CORE_ENOMEM;
    }
    int result = CORE_OK;
    for (size_t i = 0; i < found && i < max_devices; ++i) {
        modem *const slot = find_free_modem_slot(modems, max_modems);
        if (slot == nullptr) {
            log_err("No more empty slot in modem array");
            return CORE_ENOMEM;
        }
        result = add_modem(slot, devices[i], max_ports);
    }
    return result;
}
