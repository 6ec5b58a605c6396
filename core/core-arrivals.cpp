#include "core-arrivals.hpp"

#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"

#include <algorithm>
#include <cstdio>
#include <span>
#include <string_view>

namespace {

constexpr size_t max_present = 32; // of the wanted devices

struct wanted_devices {
    core_usb_id_matcher match;
    const core_usb_id_list *list;
};

bool is_wanted(const core_usb_id *id, const void *context)
{
    const auto *const wanted = static_cast<const wanted_devices *>(context);
    static core_device_info info;
    snprintf(info.vid, sizeof info.vid, "%04x", id->vid & 0xFFFFU);
    snprintf(info.pid, sizeof info.pid, "%04x", id->pid & 0xFFFFU);
    return wanted->match(&info, wanted->list);
}

core_sysfs_device *find_known(core_known_devices *known, std::string_view path)
{
    const std::span devices(known->devices, known->count);
    const auto found = std::ranges::find(devices, path, &core_sysfs_device::path);
    return found != devices.end() ? &*found : nullptr;
}

void forget(core_known_devices *known, size_t index)
{
    core_sysfs_device *const gone = &known->devices[index];
    std::move(gone + 1, known->devices + known->count, gone);
    --known->count;
}

void describe(const core_sysfs_device &device, bool removed, core_usb_event *event)
{
    event->id = device.id;
    event->removed = removed;
    strlcpy(event->path, device.path, sizeof event->path);
}

// Forgets what has left; true at the first one that is wanted.
bool find_removal(core_known_devices *known, const wanted_devices &wanted, core_usb_event *event)
{
    for (size_t i = 0; i < known->count;) {
        const core_sysfs_device &device = known->devices[i];
        if (core_sysfs_is_attached(&device)) {
            ++i;
            continue;
        }
        const bool is_told = is_wanted(&device.id, &wanted);
        if (is_told)
            describe(device, true, event);
        forget(known, i);
        if (is_told)
            return true;
    }
    return false;
}

// A PCIe modem keeps its place on the bus when it restarts: it comes anew with its ports.
bool is_arrival(const core_sysfs_device &device, core_known_devices *known)
{
    const core_sysfs_device *const before = find_known(known, device.path);
    if (!device.is_pcie)
        return before == nullptr;
    return device.incarnation != 0 && (before == nullptr || before->incarnation != device.incarnation);
}

// False when the device has left meanwhile.
bool await_interfaces(const core_sysfs_device &device)
{
    const time_limit limit(timeouts::interfaces);
    while (!core_sysfs_is_complete(&device) && sigint_detected == 0 && !limit.passed())
        core_sleep(timeouts::interfaces_pause);
    return core_sysfs_is_attached(&device);
}

bool find_arrival(const char *sys, core_known_devices *known, const wanted_devices &wanted,
                  core_usb_event *event)
{
    static core_sysfs_device present[max_present];
    const size_t count = core_sysfs_find_devices(sys, is_wanted, &wanted, present, max_present);
    for (const core_sysfs_device &device : std::span(present, count)) {
        if (!is_arrival(device, known) || !await_interfaces(device))
            continue;
        core_know_device(known, device);
        describe(device, false, event);
        return true;
    }
    return false;
}

} // namespace

void core_know_device(core_known_devices *known, const core_sysfs_device &device)
{
    core_sysfs_device *place = find_known(known, device.path);
    if (place == nullptr) {
        if (known->count == core_known_devices::room)
            forget(known, 0);
        place = &known->devices[known->count++];
    }
    *place = device;
}

bool core_find_bus_event(const char *sys, core_known_devices *known, core_usb_id_matcher match,
                         const core_usb_id_list *list, core_usb_event *event)
{
    const wanted_devices wanted{match, list};
    return find_removal(known, wanted, event) || find_arrival(sys, known, wanted, event);
}
