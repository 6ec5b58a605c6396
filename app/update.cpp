#include "update.hpp"

#include "compatibility.hpp"
#include "core-discovery.hpp"
#include "core.hpp"
#include "handoff.hpp"
#include "json.hpp"
#include "modem-probing.hpp"
#include "options.hpp"
#include "package.hpp"
#include "package-check.hpp"
#include "timeouts.hpp"
#include "usb_probe.hpp"
#include "zepho-log.hpp"

static constexpr char log_source[] = "../main.c";

static constexpr char firehose_port_mark[] = "firehose";

volatile std::sig_atomic_t keep_running = 1;

void interrupt_handler(int signo)
{
    core_signal_handler(signo);
    keep_running = 0;
}

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

// A scan fills free slots: what the one before it found would count a second time.
static void forget_scanned_modems(modem *modems, uint8_t max_modems)
{
    for (uint8_t i = 0; i < max_modems; ++i) {
        if (modems[i].probing_mode == PROBING_USB)
            memset(&modems[i], 0, sizeof modems[i]); // a free slot is zero in every byte
    }
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

static int refuse_several_modems(const modem *modems, uint8_t max_modems, const char *function)
{
    log_as(function, CORE_LOG_ERR, "multiple modems not supported, please keep a single modem attached:");
    show_modems(modems, max_modems);
    return CORE_EINVAL;
}

int update_with_port(modem *modems, uint8_t max_modems, bool skip_enter_qdl, const char *port)
{
    prepare_port_modem(&modems[0], skip_enter_qdl, port);
    if (!skip_enter_qdl) {
        if (const int err = refuse_download_devices(); err != CORE_OK)
            return err;
    }
    return start_update_procedure(modems, max_modems, skip_enter_qdl);
}

// True for a modem that takes the programmer or the images as it is. One whose first port is the programmer's
// is spoken to over that port, as if --pcie had been given.
static bool is_in_download_mode(const modem *m)
{
    const bool has_firehose_port = strstr(m->modem_port[0].port_name, firehose_port_mark) != nullptr;
    if (has_firehose_port)
        options.pcie = true;
    return has_firehose_port || is_download_mode_modem(&m->usb_id);
}

int update_with_scan(modem *modems, uint8_t max_modems, bool json)
{
    const int err = start_usb_bus_scan(&modem_list, modems, max_modems);
    if (err == CORE_ENODEV)
        return update_after_listening(modems, max_modems, json);
    if (err == CORE_ECANCELED)
        return err;
    if (err != CORE_OK) {
        log_err("error scanning the bus");
        return err;
    }
    if (count_modems(modems, max_modems) != 1)
        return refuse_several_modems(modems, max_modems, __func__);
    log_dbg("found supported modem");
    if (is_in_download_mode(&modems[0]))
        return start_update_procedure(modems, max_modems, true);
    const int probe_err = collect_modem_array_basic_information(modems, max_modems, false);
    if (probe_err != CORE_OK && probe_err != CORE_ENODEV)
        log_dbg("failure in modem probing, trying fw update anyway");
    if (json)
        json_set_event(false);
    show_modems(modems, max_modems);
    return start_update_procedure(modems, max_modems, false);
}

// The one modem that has just been attached.
static int update_attached_modem(modem *modems, uint8_t max_modems)
{
    static constexpr char function[] = "update_after_listening";
    log_as(function, CORE_LOG_DBG, "found supported modem");
    if (is_in_download_mode(&modems[0]))
        return start_update_procedure(modems, max_modems, true);
    if (collect_modem_array_basic_information(modems, max_modems, false) != CORE_OK)
        log_as(function, CORE_LOG_ERR, "failure in modem probing, trying fw update anyway");
    show_modems(modems, max_modems);
    const int err = start_update_procedure(modems, max_modems, false);
    if (err != CORE_OK)
        log_as(function, CORE_LOG_ERR, "error %d trying fw update", err);
    return err;
}

static int end_interrupted_listening()
{
    log_as("update_after_listening", CORE_LOG_INF, "Firmware update interrupted");
    core_deinit();
    return CORE_ECANCELED;
}

int update_after_listening(modem *modems, uint8_t max_modems, bool json)
{
    log_inf("Waiting for the modem to attach");
    for (;;) {
        core_usb_event event{};
        int err = core_device_usb_id_event_listener(core_usb_id_find_match, &modem_list, &event,
                                                    CORE_LISTEN_FOREVER);
        if (keep_running == 0)
            return end_interrupted_listening();
        if (err != CORE_OK) {
            log_err("failed listening on the USB bus");
            return err;
        }
        if (json)
            json_set_event(event.removed);
        log_dbg("device %04X:%04X, type %s, path %s", event.id.vid, event.id.pid,
                event.removed ? "remove" : "add", event.path);
        if (event.removed)
            continue;
        memset(modems, 0, sizeof *modems * max_modems);
        err = start_usb_bus_scan(&modem_list, modems, max_modems);
        if (err == CORE_ENODEV)
            continue;
        if (err == CORE_ECANCELED)
            return end_interrupted_listening();
        if (err != CORE_OK) {
            log_err("failed USB bus scan");
            return err;
        }
        const uint8_t count = count_modems(modems, max_modems);
        if (count == 0)
            continue; // gone again
        if (count > 1)
            return refuse_several_modems(modems, max_modems, __func__);
        return update_attached_modem(modems, max_modems);
    }
}

int start_update_procedure(modem *modems, uint8_t max_modems, bool already_in_qdl)
{
    if (const int err = fw_package_init(); err != CORE_OK)
        return err;
    if (const int err = check_package(&package, options.otp, uploads_programmer(&modems[0], already_in_qdl));
        err != CORE_OK)
        return err;
    if (!already_in_qdl) {
        const int err = check_fw_compatibility(modems[0].versions, &package, options.force);
        if (err != CORE_OK) {
            log_dbg("flashing is not possible");
            return err;
        }
    } else if (!options.force) {
        log_err("cannot check firmware compatibility in QDL mode, --force option is mandatory");
        return CORE_OK; // the modem is left as it is, which counts as a success
    }
    if (options.dry_run) {
        log_err("dry-run requested, bailing out");
        return CORE_OK;
    }
    return hand_off(modems, max_modems, already_in_qdl);
}
