#include "core-usb-id.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cstdlib>
#include <span>

namespace {

constexpr char log_source[] = "core-usb-id.c";
constexpr char in_core_usb_id_from_str[] = "core_usb_id_from_str";

constexpr unsigned long max_id = 0xFFFF;

// `name` is the half's short name, `meaning` its long one.
bool parse_half(const char *text, const char *name, const char *meaning, uint32_t *out)
{
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, 16);
    if (*end != '\0') {
        log_as(in_core_usb_id_from_str, CORE_LOG_ERR, "Invalid %s string\n", name);
        return false;
    }
    if (value == 0 || value > max_id) {
        log_as(in_core_usb_id_from_str, CORE_LOG_ERR,
               "could not convert %s id %s, value is out of range (1, 0xFFFF)\n", meaning, text);
        return false;
    }
    *out = static_cast<uint32_t>(value);
    return true;
}

} // namespace

bool core_usb_id_from_str(core_usb_id *out, const char *vid, const char *pid)
{
    return vid != nullptr && pid != nullptr && parse_half(vid, "vid", "vendor", &out->vid) &&
           parse_half(pid, "pid", "product", &out->pid);
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
    return std::ranges::any_of(std::span(list->ids, list->count),
                               [&id](const core_usb_id &wanted) { return core_usb_id_equals(&id, &wanted); });
}
