#include "modem-search.hpp"

#include "core.hpp"
#include "interrupt.hpp"
#include "json.hpp"
#include "options.hpp"
#include "timeouts.hpp"
#include "usb_probe.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../main.c";

// A scan fills free slots: what the one before it found would count a second time.
void forget_scanned_modems(modem *modems, uint8_t max_modems)
{
    for (uint8_t i = 0; i < max_modems; ++i) {
        if (modems[i].probing_mode == PROBING_USB)
            memset(&modems[i], 0, sizeof modems[i]); // a free slot is zero in every byte
    }
}

} // namespace

uint8_t count_modems(const modem *modems, uint8_t max_modems)
{
    uint8_t count = 0;
    for (uint8_t i = 0; i < max_modems; ++i)
        count = static_cast<uint8_t>(count + (is_modem_present(&modems[i]) ? 1 : 0));
    return count;
}

void print_modem(const modem *m)
{
    log_dbg("Probing mode: %s", probing_mode_name(m->probing_mode));
    log_dbg("VID: 0x%04X", m->usb_id.vid);
    log_dbg("PID: 0x%04X", m->usb_id.pid);
    log_dbg("USB dev path: %s", m->dev_path);
    log_dbg("USB serial: %s", m->usb_serial);
    for (uint8_t i = 0; i < m->modem_port_size && i < MAX_MODEM_PORTS; ++i)
        log_dbg("Port: %s, type: %s", m->modem_port[i].port_name, port_type_name(m->modem_port[i].port_type));
    log_dbg("Model name: %s", m->model_name);
    if (m->imei[0] != '\0')
        log_dbg("IMEI: %s", m->imei);
    if (m->cfun[0] != '\0')
        log_dbg("CFUN: %s", m->cfun);
    if (m->versions[0] != '\0')
        log_dbg("Versions: %s", m->versions);
}

void print_modems(const modem *modems, uint8_t max_modems)
{
    for (uint8_t i = 0; i < max_modems; ++i) {
        if (is_modem_present(&modems[i]))
            print_modem(&modems[i]);
    }
}

void show_modems(const modem *modems, uint8_t max_modems)
{
    if (options.json)
        json_print_modems(modems, max_modems);
    else
        print_modems(modems, max_modems);
}

void prepare_port_modem(modem *m, bool skip_enter_qdl, const char *port)
{
    m->probing_mode = PROBING_PORT;
    m->modem_port_size = 1;
    strlcpy(m->modem_port[0].port_name, port, sizeof m->modem_port[0].port_name);
    m->modem_port[0].port_type = skip_enter_qdl ? PORT_FIRMWARE_UPDATE : PORT_DIAGNOSTIC;
    strlcpy(m->usb_serial, "unknown", sizeof m->usb_serial);
}

int start_usb_bus_scan(const core_usb_id_list *table, modem *modems, uint8_t max_modems)
{
    int result = CORE_EAGAIN;
    for (int i = 0; i < timeouts::scan_calls && result == CORE_EAGAIN; ++i) {
        forget_scanned_modems(modems, max_modems);
        result = scan_usb_bus(table, modems, max_modems, MAX_MODEM_PORTS);
        if (result == CORE_EAGAIN)
            core_sleep(timeouts::scan_retry_pause);
        if (keep_running == 0)
            return CORE_ECANCELED; // a modem that was found would be spoken to next
    }
    if (result == CORE_ENOMEM)
        log_err("too many modems connected, increase MAX_MODEM_NUMBER");
    else if (result == CORE_EAGAIN)
        log_err("failed port enumeration");
    else if (result == CORE_ENODEV)
        log_dbg("no device with compatible VID/PID has been found");
    return result;
}
