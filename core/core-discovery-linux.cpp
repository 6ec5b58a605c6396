#include "core-discovery-linux.hpp"

#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"

#include <algorithm>
#include <poll.h>
#include <span>

namespace {

constexpr size_t max_found = 32;

using identifiers = std::span<const core_usb_id>;

bool is_one_of(const core_usb_id *id, const void *context)
{
    return std::ranges::any_of(*static_cast<const identifiers *>(context),
                               [id](const core_usb_id &wanted) { return core_usb_id_equals(id, &wanted); });
}

// Returns when a message that concerns modems is there, and after `pause_ms` in any case. A broken socket is
// given up.
void await_message(owned_socket *socket, int pause_ms)
{
    pollfd watched{socket->get(), POLLIN, 0}; // poll(2) passes over a negative descriptor
    const time_limit limit(static_cast<unsigned>(pause_ms));
    while (sigint_detected == 0 && !limit.passed()) {
        if (poll(&watched, 1, pause_ms) <= 0)
            return;
        switch (core_uevent_drain(watched.fd)) {
        case core_uevents::none:
            break;
        case core_uevents::some:
            return;
        case core_uevents::broken:
            static_cast<void>(socket->close()); // of no use any more, however it goes
            return;
        }
    }
}

core_discovery &machine()
{
    static core_known_devices known;
    static core_reported_ports reported;
    static core_discovery only{{"/sys", "/dev", "/proc"}, {}, &known, &reported};
    return only;
}

} // namespace

int core_discovery_enumerate(core_discovery *discovery, const core_usb_id *ids, size_t count,
                             core_device_info *devices, size_t *size)
{
    static core_sysfs_device found[max_found];
    const identifiers wanted{ids, count};
    const core_roots &roots = discovery->roots;
    const size_t room = std::min(*size, max_found);
    const size_t present = core_sysfs_find_devices(roots.sys, is_one_of, &wanted, found, room);
    *size = 0;
    for (const core_sysfs_device &device : std::span(found, present)) {
        if (!core_sysfs_describe(roots.sys, &device, &devices[*size]))
            continue;
        core_know_device(discovery->known, device);
        ++*size;
    }
    if (*size == 0)
        return CORE_ENODEV;
    core_await_port_access(roots, devices, *size);
    core_report_port_holders(roots, devices, *size, discovery->reported);
    return CORE_OK;
}

int core_discovery_listen(core_discovery *discovery, core_usb_id_matcher match, const core_usb_id_list *list,
                          core_usb_event *event, int timeout_ms)
{
    const bool is_limited = timeout_ms != CORE_LISTEN_FOREVER;
    const time_limit limit(is_limited ? static_cast<unsigned>(timeout_ms) : 0);
    const int pause_ms = is_limited ? std::min(timeout_ms, timeouts::bus_look) : timeouts::bus_look;
    *event = {};
    while (sigint_detected == 0) {
        if (core_find_bus_event(discovery->roots.sys, discovery->known, match, list, event))
            return CORE_OK;
        if (is_limited && limit.passed())
            return CORE_ETIMEDOUT;
        await_message(&discovery->socket, pause_ms);
    }
    return CORE_EINTR;
}

int core_device_enumerate(const core_usb_id *ids, size_t count, core_device_info *devices, size_t *size)
{
    return core_discovery_enumerate(&machine(), ids, count, devices, size);
}

int core_device_usb_id_event_listener(core_usb_id_matcher match, const core_usb_id_list *list,
                                      core_usb_event *event, int timeout_ms)
{
    core_discovery &discovery = machine();
    if (discovery.socket.get() < 0)
        *discovery.socket.receive() = core_uevent_subscribe();
    return core_discovery_listen(&discovery, match, list, event, timeout_ms);
}
