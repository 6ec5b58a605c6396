// Discovery on a bus of at most one modem, all of whose ports are the same one.
#include "bus.hpp"

#include "core-discovery.hpp"
#include "core.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>

static constexpr const char *interfaces[] = {"00", "01", "02"};
static constexpr uint32_t normal_mode_vendor = 0xFFF0;

bool read_bus(bus_device *device)
{
    const char *const path = getenv("KESTREL_BUS");
    FILE *const file = path != nullptr ? fopen(path, "re") : nullptr;
    if (file == nullptr)
        return false;
    const bool read = fscanf(file, "%x:%x %63s", &device->id.vid, &device->id.pid, device->port) == 3;
    fclose(file);
    return read;
}

static void describe(const bus_device &device, core_device_info *info)
{
    *info = {};
    snprintf(info->vid, sizeof info->vid, "%04x", device.id.vid & 0xFFFFU);
    snprintf(info->pid, sizeof info->pid, "%04x", device.id.pid & 0xFFFFU);
    strlcpy(info->path, "/sys/bus/usb/devices/1-1", sizeof info->path);
    info->port_count = device.id.vid == normal_mode_vendor ? 3 : 1;
    for (uint32_t i = 0; i < info->port_count; ++i) {
        strlcpy(info->port_names[i], device.port, sizeof info->port_names[i]);
        strlcpy(info->interface_numbers[i], interfaces[i], sizeof info->interface_numbers[i]);
    }
}

int core_device_enumerate(const core_usb_id *identifiers, size_t count, core_device_info *devices,
                          size_t *size)
{
    bus_device device{};
    const bool there = read_bus(&device);
    for (size_t i = 0; there && i < count; ++i) {
        if (core_usb_id_equals(&identifiers[i], &device.id)) {
            describe(device, devices);
            *size = 1;
            return CORE_OK;
        }
    }
    *size = 0;
    return CORE_ENODEV;
}

int core_device_usb_id_event_listener(core_usb_id_matcher match, const core_usb_id_list *list,
                                      core_usb_event *event, int timeout_ms)
{
    constexpr int step_ms = 2;
    for (int waited = 0; timeout_ms == CORE_LISTEN_FOREVER || waited < timeout_ms; waited += step_ms) {
        if (sigint_detected != 0)
            return CORE_EINTR;
        bus_device device{};
        static core_device_info info;
        if (read_bus(&device)) {
            describe(device, &info);
            if (match(&info, list)) {
                event->id = device.id;
                event->removed = false;
                return CORE_OK;
            }
        }
        const timespec pause{0, step_ms * 1000000L};
        nanosleep(&pause, nullptr);
    }
    return CORE_ETIMEDOUT;
}
