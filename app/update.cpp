#include "update.hpp"

#include "compatibility.hpp"
#include "core-discovery.hpp"
#include "core.hpp"
#include "handoff.hpp"
#include "interrupt.hpp"
#include "json.hpp"
#include "modem-probing.hpp"
#include "modem-search.hpp"
#include "modem-table.hpp"
#include "options.hpp"
#include "package-check.hpp"
#include "package.hpp"
#include "route.hpp"
#include "run-lock.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_update_after_listening[] = "update_after_listening";

int refuse_several_modems(const modem *modems, uint8_t max_modems, const char *function)
{
    log_as(function, CORE_LOG_ERR, "multiple modems not supported, please keep a single modem attached:");
    show_modems(modems, max_modems);
    return CORE_EINVAL;
}

// The one modem that has just been attached.
int update_attached_modem(modem *modems, uint8_t max_modems)
{
    log_as(in_update_after_listening, CORE_LOG_DBG, "found supported modem");
    if (is_in_download_mode(&modems[0]))
        return start_update_procedure(modems, max_modems, true);
    if (const int err = hold_modem(&modems[0]); err != CORE_OK)
        return err;
    const int probe_err = collect_modem_array_basic_information(modems, max_modems, false);
    if (keep_running == 0)
        return CORE_ECANCELED;
    if (probe_err != CORE_OK)
        log_as(in_update_after_listening, CORE_LOG_ERR, "failure in modem probing, trying fw update anyway");
    show_modems(modems, max_modems);
    const int err = start_update_procedure(modems, max_modems, false);
    if (err != CORE_OK)
        log_as(in_update_after_listening, CORE_LOG_ERR, "error %d trying fw update", err);
    return err;
}

int end_interrupted_listening()
{
    log_as(in_update_after_listening, CORE_LOG_INF, "Firmware update interrupted");
    core_deinit();
    return CORE_ECANCELED;
}

} // namespace

int update_with_port(modem *modems, uint8_t max_modems, bool skip_enter_qdl, const char *port)
{
    prepare_port_modem(&modems[0], skip_enter_qdl, port);
    if (!options.dry_run) { // which speaks to nobody
        if (const int err = hold_modem(&modems[0]); err != CORE_OK)
            return err;
    }
    if (!skip_enter_qdl) {
        if (const int err = refuse_download_devices(); err != CORE_OK)
            return err;
    }
    return start_update_procedure(modems, max_modems, skip_enter_qdl);
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
    if (const int lock_err = hold_modem(&modems[0]); lock_err != CORE_OK)
        return lock_err;
    const int probe_err = collect_modem_array_basic_information(modems, max_modems, false);
    if (keep_running == 0)
        return CORE_ECANCELED;
    if (probe_err != CORE_OK && probe_err != CORE_ENODEV)
        log_dbg("failure in modem probing, trying fw update anyway");
    if (json)
        json_set_event(false);
    show_modems(modems, max_modems);
    return start_update_procedure(modems, max_modems, false);
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
    const route way = plan_route(options, &modems[0], already_in_qdl);
    if (const int err = check_package(&package, !options.otp && !way.stops, way.uploads); err != CORE_OK)
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
    return hand_off(modems, max_modems, way);
}
