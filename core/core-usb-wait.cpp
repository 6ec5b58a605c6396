#include "core-usb-wait.hpp"

#include "core-discovery.hpp"
#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "core-usb-id.c";
constexpr char in_core_usb_id_wait_for_devices[] = "core_usb_id_wait_for_devices";

// Whether one of the devices is there: what the enumeration answers, without what it tells of the device.
int look_for(const core_usb_id *ids, size_t count)
{
    static core_device_info unused;
    size_t size = 1;
    return core_device_enumerate(ids, count, &unused, &size);
}

// A device that has just arrived may need a moment until it is there.
int look_for_arrived(const core_usb_id &id)
{
    int result = look_for(&id, 1);
    for (int i = 0; i < timeouts::arrived_device_retries && result != CORE_OK; ++i) {
        log_as(in_core_usb_id_wait_for_devices, CORE_LOG_DBG,
               "no device found, maybe not ready yet. Retrying after %ums...\n",
               timeouts::arrived_device_pause);
        core_sleep(timeouts::arrived_device_pause);
        result = look_for(&id, 1);
    }
    return result;
}

} // namespace

// The library's interface: the updater itself calls none of these.

int core_usb_id_get_device_if_connected(const core_usb_id_list *list, core_device_info *info)
{
    int result = CORE_ENODEV;
    for (unsigned i = 0; i < list->count; ++i) {
        const core_usb_id &id = list->ids[i];
        log_dbg("looking for device %u/%u: 0x%04X:0x%04X\n", i + 1, list->count, id.vid, id.pid);
        *info = {};
        size_t size = 1;
        result = core_device_enumerate(&id, 1, info, &size);
        if (result == CORE_OK || result == CORE_ENOTSUPPORTED)
            return result;
        log_dbg("device not found\n");
    }
    return result;
}

int core_usb_id_wait_for_devices(const core_usb_id_list *list)
{
    int result = look_for(list->ids, list->count);
    if (result == CORE_OK || result == CORE_ENOTSUPPORTED)
        return result;
    log_inf("no device connected yet. Waiting for a device to connect...\n");
    core_usb_event event{};
    do {
        result = core_device_usb_id_event_listener(core_usb_id_find_match, list, &event, CORE_LISTEN_FOREVER);
    } while (result == CORE_OK && event.removed && sigint_detected == 0);
    if (result != CORE_OK) {
        if (result != CORE_ETIMEDOUT)
            log_err("event listener error %d\n", result);
        return result;
    }
    if (event.removed)
        return CORE_ENODEV; // SIGINT came before a device did
    log_dbg("USB attach from device %04X:%04X\n", event.id.vid, event.id.pid);
    return look_for_arrived(event.id);
}
