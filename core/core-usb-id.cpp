#include "core-usb-id.hpp"

#include "core-discovery.hpp"
#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <cstdlib>

static constexpr char log_source[] = "core-usb-id.c";

static constexpr unsigned long max_id = 0xFFFF;

bool core_usb_id_from_str(core_usb_id *out, const char *vid, const char *pid)
{
    if (vid == nullptr || pid == nullptr)
        return false;
    char *end = nullptr;
    const unsigned long vid_value = strtoul(vid, &end, 16);
    if (*end != '\0') {
        log_err("Invalid vid string\n");
        return false;
    }
    if (vid_value == 0 || vid_value > max_id) {
        log_err("could not convert vendor id %s, value is out of range (1, 0xFFFF)\n", vid);
        return false;
    }
    out->vid = static_cast<uint32_t>(vid_value);
    const unsigned long pid_value = strtoul(pid, &end, 16);
    if (*end != '\0') {
        log_err("Invalid pid string\n");
        return false;
    }
    if (pid_value == 0 || pid_value > max_id) {
        log_err("could not convert product id %s, value is out of range (1, 0xFFFF)\n", pid);
        return false;
    }
    out->pid = static_cast<uint32_t>(pid_value);
    return true;
}

bool core_usb_id_is_empty(const core_usb_id *id)
{
    return id->vid == 0 || id->pid == 0;
}

bool core_usb_id_equals(const core_usb_id *a, const core_usb_id *b)
{
    return a->vid == b->vid && a->pid == b->pid;
}

bool core_usb_id_find_match(const core_device_info *info, const core_usb_id_list *list)
{
    core_usb_id id{};
    if (!core_usb_id_from_str(&id, info->vid, info->pid)) {
        log_err("could not get vid/pid from devinfo\n");
        return false;
    }
    for (unsigned i = 0; i < list->count; ++i) {
        if (core_usb_id_equals(&id, &list->ids[i]))
            return true;
    }
    return false;
}

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

// Enumerates one identifier; a device that has just arrived may need a moment until it is there.
static int enumerate_arrived(const core_usb_id &id)
{
    static constexpr unsigned retries = 3;
    static core_device_info info;
    size_t size = 1;
    int result = core_device_enumerate(&id, 1, &info, &size);
    for (unsigned i = 0; i < retries && result != CORE_OK; ++i) {
        log_as("core_usb_id_wait_for_devices", CORE_LOG_DBG,
               "no device found, maybe not ready yet. Retrying after %ums...\n", timeouts::arrived_device_pause);
        core_sleep(timeouts::arrived_device_pause);
        size = 1;
        result = core_device_enumerate(&id, 1, &info, &size);
    }
    return result;
}

int core_usb_id_wait_for_devices(const core_usb_id_list *list)
{
    static core_device_info info;
    size_t size = 1;
    int result = core_device_enumerate(list->ids, list->count, &info, &size);
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
    return enumerate_arrived(event.id);
}
