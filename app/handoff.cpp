#include "handoff.hpp"

#include "android-utils.hpp"
#include "core-device.hpp"
#include "core-discovery.hpp"
#include "core.hpp"
#include "diag.hpp"
#include "firehose-session.hpp"
#include "interrupt.hpp"
#include "modem-probing.hpp"
#include "modem-search.hpp"
#include "modem-table.hpp"
#include "options.hpp"
#include "package.hpp"
#include "run-lock.hpp"
#include "sahara.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_start_update_procedure[] = "start_update_procedure"; // whose second half this is
constexpr char download_port[] = "/dev/ttyUSB0";

// The kernel's driver makes the port a moment after the device is on the bus, later where it is loaded first.
// A port that never comes is reported by who opens it.
void await_download_port()
{
    for (int i = 0; i < timeouts::download_port_tries && keep_running != 0; ++i) {
        if (access(download_port, F_OK) == 0)
            return;
        core_sleep(timeouts::download_port_pause);
    }
}

// Where the platform tells of no arrivals: looks for the download device in sysfs.
int find_download_device(modem *m)
{
    const bool found =
        wait_for_usb_device(QDL_VENDOR_TEXT, QDL_PRODUCT_TEXT, timeouts::download_device_tries);
    if (found)
        await_download_port();
    if (keep_running == 0)
        return CORE_ECANCELED;
    if (!found) {
        log_as(in_start_update_procedure, CORE_LOG_ERR, "failed listening on the USB bus");
        return CORE_ENOTSUPPORTED;
    }
    prepare_port_modem(m, true, download_port);
    return CORE_OK;
}

// The download device has arrived: takes it over from the bus.
int scan_download_device(modem *modems, uint8_t max_modems)
{
    memset(modems, 0, sizeof *modems * max_modems);
    int err = start_usb_bus_scan(&download_mode_list, modems, max_modems);
    if (err != CORE_OK && err != CORE_ENODEV)
        return err;
    err = collect_modem_array_basic_information(modems, max_modems, true);
    if (err != CORE_OK) {
        log_as(in_start_update_procedure, CORE_LOG_ERR, "modem not probed");
        return err;
    }
    if (count_modems(modems, max_modems) != 1) {
        log_as(in_start_update_procedure, CORE_LOG_ERR,
               "the tool does not support multiple modems in QDL mode,                             "
               "please keep a single modem attached");
        return CORE_EINVAL;
    }
    return CORE_OK;
}

// A PCIe modem has one identifier: it may have restarted, but not into download mode yet.
bool is_still_in_normal_mode(const modem *m)
{
    return m->is_pcie && find_port(m, PORT_FIRMWARE_UPDATE) == nullptr;
}

int wait_for_download_device(modem *modems, uint8_t max_modems)
{
    core_usb_event event{};
    do {
        event = {};
        const int err = core_device_usb_id_event_listener(core_usb_id_find_match, &download_mode_list, &event,
                                                          timeouts::download_device_event);
        if (keep_running == 0)
            return CORE_ECANCELED;
        if (err == CORE_ENOTSUPPORTED)
            return find_download_device(&modems[0]);
        if (err != CORE_OK) {
            log_as(in_start_update_procedure, CORE_LOG_ERR, "failed listening on the USB bus");
            return err;
        }
        if (event.removed)
            continue;
        if (const int scan_err = scan_download_device(modems, max_modems); scan_err != CORE_OK)
            return scan_err;
    } while (event.removed || is_still_in_normal_mode(&modems[0]));
    return CORE_OK;
}

// A modem that was told to restart into download mode is asked again until it is there.
int upload_programmer(const modem *m)
{
    int err = sahara_send_programmer(m, &package);
    while (err == CORE_EAGAIN) {
        core_sleep(timeouts::sahara_retry_pause);
        if (keep_running == 0)
            return CORE_ECANCELED;
        err = sahara_send_programmer(m, &package);
    }
    if (err != CORE_OK)
        log_as(in_start_update_procedure, CORE_LOG_ERR, "unable to send the programmer through SAHARA");
    return err;
}

int write_images(const modem *m)
{
    const int err = firehose_update(m, &package, options.otp);
    if (err != CORE_OK)
        log_as(in_start_update_procedure, CORE_LOG_ERR, "unable to update the modem through FIREHOSE");
    return err;
}

// What follows the switch.
int complete_update(modem *modems, uint8_t max_modems, route way)
{
    if (way.switches) {
        if (const int err = wait_for_download_device(modems, max_modems); err != CORE_OK)
            return err;
        way = plan_route(options, &modems[0], false); // the record is that of the device that came
    }
    if (way.uploads) {
        if (const int err = upload_programmer(&modems[0]); err != CORE_OK)
            return err;
    }
    return write_images(&modems[0]);
}

// An interrupted run leaves the modem in download mode, or on its way there.
void tell_how_to_complete()
{
    const struct {
        const char *flag;
        const char *path;
    } sources[] = {{"", options.firmware_directory}, {"--meta ", options.meta}, {"--flat ", options.flat}};
    for (const auto &source : sources) {
        if (source.path == nullptr || source.path[0] == '\0')
            continue;
        log_as(in_start_update_procedure, CORE_LOG_INF,
               "interrupted; this completes the modem: kestrel %s%s --port %s --skip-enter-qdl%s --force",
               source.flag, source.path,
               options.port[0] != '\0' && options.skip_enter_qdl ? options.port : download_port,
               options.pcie ? " --pcie" : "");
        return;
    }
}

} // namespace

int write_sysfs_file(const char *path, const char *text, size_t length)
{
    const owned_device file(open(path, O_WRONLY));
    if (file.get() < 0) {
        log_err("unable to open %s, %s", path, strerror(errno));
        return -1;
    }
    if (pwrite(file.get(), text, length, 0) != static_cast<ssize_t>(length)) {
        log_err("unable to write to %s, %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int trigger_edl_mode(const modem *m)
{
    static constexpr char mark[] = "wwan";
    static constexpr size_t shortest = 6; // the mark, the index and what the port is for
    const char *const name = strstr(m->modem_port[0].port_name, mark);
    if (name == nullptr || strlen(name) < shortest) {
        log_err("not able to detect mhi index");
        return 0; // the caller waits for the download device as usual
    }
    char path[64];
    snprintf(path, sizeof path, "/sys/bus/mhi/devices/mhi%c/trigger_edl", name[strlen(mark)]);
    if (write_sysfs_file(path, "1", 1) != 0) {
        log_err("unable to write trigger_edl file (mhi path %s)", path);
        return -1;
    }
    return 0;
}

int refuse_download_devices()
{
    static core_device_info devices[MAX_MODEM_NUMBER];
    size_t found = MAX_MODEM_NUMBER;
    if (core_device_enumerate(download_mode_list.ids, download_mode_list.count, devices, &found) != CORE_OK)
        return CORE_OK;
    for (size_t i = 0; i < found; ++i) {
        core_usb_id id{};
        if (!core_usb_id_from_str(&id, devices[i].vid, devices[i].pid) || !is_download_mode_modem(&id))
            continue; // a PCIe modem, whose identifier is always the same
        log_err("%s is in download mode already: use --skip-enter-qdl, or keep a single modem attached",
                devices[i].path);
        return CORE_EINVAL;
    }
    return CORE_OK;
}

int hand_off(modem *modems, uint8_t max_modems, route way)
{
    modem *const m = &modems[0];
    if (keep_running == 0)
        return CORE_ECANCELED; // the modem has not been touched yet
    if (const int err = hold_modem(m); err != CORE_OK)
        return err;
    begin_handling_modem();
    if (way.switches) {
        const int err = m->is_pcie ? trigger_edl_mode(m) : switch_QDload_mode(m);
        if (err != CORE_OK) {
            log_as(in_start_update_procedure, CORE_LOG_ERR,
                   "unable to set the modem to firmware update mode");
            return err;
        }
    }
    if (way.stops) {
        log_as(in_start_update_procedure, CORE_LOG_INF, "Entered QDL mode, stopping");
        return CORE_OK;
    }
    const int err = complete_update(modems, max_modems, way);
    if (err != CORE_OK && keep_running == 0)
        tell_how_to_complete();
    return err;
}
