#include "core-usb-id.hpp"

#include "core.hpp"
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
