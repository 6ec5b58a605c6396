// The discovery on Linux with its surroundings as arguments: what stands behind the two entry points of
// core-discovery.hpp.
#pragma once

#include "core-arrivals.hpp"
#include "core-discovery.hpp"
#include "core-port-access.hpp"
#include "core-uevent.hpp"

struct core_discovery {
    core_roots roots;
    owned_socket socket; // of the kernel's messages; stays open between two calls, so that none is missed
    core_known_devices *known;
    core_reported_ports *reported;
};

// As core_device_enumerate. Waits at most 2 s for nodes that are not there yet or not permitted yet, and
// reports ports that another program holds; neither is a failure.
[[nodiscard]] int core_discovery_enumerate(core_discovery *discovery, const core_usb_id *identifiers,
                                           size_t count, core_device_info *devices, size_t *size);
// As core_device_usb_id_event_listener, and CORE_EINTR within a second after SIGINT. Without a socket, or
// where its messages do not arrive (a container), sysfs is looked at twice a second. The time-out may pass
// half a second late, and 2 s late when a device arrives just then.
[[nodiscard]] int core_discovery_listen(core_discovery *discovery, core_usb_id_matcher match,
                                        const core_usb_id_list *list, core_usb_event *event, int timeout_ms);
