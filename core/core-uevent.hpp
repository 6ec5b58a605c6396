// The kernel's announcements of devices (netlink(7), NETLINK_KOBJECT_UEVENT). They tell when to look at
// sysfs, which is what counts: a message may be lost, come twice, or be older than what sysfs shows.
#pragma once

#include "core-owners.hpp"

#include <unistd.h>

using owned_socket = owned_handle<close>;

enum class core_uevents {
    none,   // nothing that concerns a modem
    some,   // a device, an interface or a port came, left or changed
    broken, // the socket is of no use any more
};

// Subscribes to the kernel's messages. A descriptor that the caller owns, or -1 where the system does not let
// it.
[[nodiscard]] int core_uevent_subscribe();
// Takes what is there, without waiting, and at most 256 messages. Messages that are not the kernel's, and
// those that are none, are passed over; an overflow counts as some.
[[nodiscard]] core_uevents core_uevent_drain(int socket);
// True for a well-formed message of the subsystems that modems live in: usb, mhi and wwan.
[[nodiscard]] bool core_uevent_concerns_modems(const char *message, size_t size);
