#include "run-lock.hpp"

#include "core-lock.hpp"
#include "core-place.hpp"
#include "core-port-holder.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <array>
#include <fcntl.h>

namespace {

constexpr char log_source[] = "../port.c";
constexpr char in_hold_port[] = "hold_port";
constexpr char in_hold_usb_devices[] = "hold_usb_devices";
constexpr char sys[] = "/sys";
constexpr char proc[] = "/proc";
constexpr char name_of_place[] = "kestrel/%s";
constexpr char name_of_path[] = "kestrel/path/%s";

using lock_name = std::array<char, CORE_LOCK_NAME_SIZE>;

struct held_lock {
    lock_name name{};
    owned_lock lock;
};

// Two for each port before and after the switch, two for each download device, and room to spare.
std::array<held_lock, 64> held;

held_lock *find_held(const char *name)
{
    const auto found = std::find_if(held.begin(), held.end(), [name](const held_lock &each) {
        return each.lock.get() >= 0 && std::string_view(each.name.data()) == name;
    });
    return found != held.end() ? &*found : nullptr;
}

// Keeps a lock until the end of the run.
int keep(const char *name, owned_lock *lock)
{
    const auto room =
        std::find_if(held.begin(), held.end(), [](const held_lock &each) { return each.lock.get() < 0; });
    if (room == held.end())
        return CORE_ENOMEM;
    strlcpy(room->name.data(), name, room->name.size());
    *room->lock.receive() = lock->release();
    return CORE_OK;
}

// Names the run that has the lock.
int report_run(const char *function, const char *what, const char *which, const char *name)
{
    long id = 0;
    static_cast<void>(core_find_name_holder(name, &id)); // which has just let go, or cannot be seen
    core_process holder{};
    core_describe_process(proc, id, &holder);
    report_in_use(function, what, which, holder, ": wait until it has ended");
    return CORE_EBUSY;
}

// CORE_EBUSY, without a word, while another run holds the name.
int hold(const char *name)
{
    if (find_held(name) != nullptr)
        return CORE_OK;
    owned_lock lock;
    const int err = core_lock_name(name, lock.receive());
    if (err == CORE_OK)
        return keep(name, &lock);
    return err == CORE_EBUSY ? err : CORE_OK;
}

int hold_place(const char *place, const char *function, const char *what, const char *which)
{
    lock_name name;
    const int err = core_compose(name, name_of_place, place) ? hold(name.data()) : CORE_OK;
    return err == CORE_EBUSY ? report_run(function, what, which, name.data()) : err;
}

// While the modem restarts its port is gone, and with it what tells the place: who is given the same path
// then is to know of this run. For others it is no obstacle, since a path is another modem's next.
void show_path(const char *port)
{
    lock_name name;
    if (core_compose(name, name_of_path, port))
        static_cast<void>(hold(name.data()));
}

int refuse_shown_path(const char *port)
{
    lock_name name;
    long id = 0;
    if (!core_compose(name, name_of_path, port) || find_held(name.data()) != nullptr ||
        !core_find_name_holder(name.data(), &id))
        return CORE_OK;
    return report_run(in_hold_port, "port", port, name.data());
}

int hold_port_of(const char *port, const struct stat *node)
{
    std::array<char, CORE_PLACE_SIZE> place;
    if (!core_find_place(sys, port, node, place))
        return refuse_shown_path(port); // it cannot be opened either
    if (const int err = hold_place(place.data(), in_hold_port, "port", port); err != CORE_OK)
        return err;
    show_path(port);
    return CORE_OK;
}

// A node that cannot be opened is left to libusb, which tells.
int lock_node(const core_usb_place &device)
{
    std::array<char, sizeof device.node + 8> path;
    if (!core_compose(path, "/dev/%s", device.node) || find_held(path.data()) != nullptr)
        return CORE_OK;
    owned_lock node(open(path.data(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (node.get() < 0 || fstat(node.get(), &status) != 0)
        return CORE_OK;
    if (core_lock_file(node.get()) != CORE_EBUSY)
        return keep(path.data(), &node);
    core_process holder{};
    if (!core_find_lock_holder(proc, status, &holder))
        core_describe_process(proc, 0, &holder);
    report_in_use(in_hold_usb_devices, "USB device", device.place, holder, "");
    return CORE_EBUSY;
}

bool holds_place_of(const core_usb_place &device)
{
    lock_name name;
    return core_compose(name, name_of_place, device.place) && find_held(name.data()) != nullptr;
}

} // namespace

int hold_port(const char *port, const struct stat &node)
{
    return hold_port_of(port, &node);
}

int hold_port(const char *port)
{
    struct stat node {};
    return hold_port_of(port, stat(port, &node) == 0 ? &node : nullptr);
}

int hold_modem(const modem *m)
{
    for (uint8_t i = 0; i < m->modem_port_size && i < MAX_MODEM_PORTS; ++i) {
        if (const int err = hold_port(m->modem_port[i].port_name); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

int hold_usb_devices(const core_usb_id &id)
{
    std::array<core_usb_place, MAX_MODEM_NUMBER> devices{};
    const std::span found = std::span(devices).first(core_find_usb_places(sys, id, devices));
    // Once the modem's own place is held, the devices at other places are other runs' business.
    const bool is_place_known = std::any_of(found.begin(), found.end(), holds_place_of);
    for (const core_usb_place &device : found) {
        if (is_place_known && !holds_place_of(device))
            continue;
        if (const int err = hold_place(device.place, in_hold_usb_devices, "USB device", device.place);
            err != CORE_OK)
            return err;
        if (const int err = lock_node(device); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

void report_in_use(const char *function, const char *what, const char *which, const core_process &holder,
                   const char *advice)
{
    if (holder.id != 0)
        log_as(function, CORE_LOG_ERR, "%s %s is in use by %s (process %ld)%s", what, which, holder.name,
               holder.id, advice);
    else
        log_as(function, CORE_LOG_ERR, "%s %s is in use by another program%s", what, which, advice);
}

void release_modems()
{
    for (held_lock &each : held)
        static_cast<void>(each.lock.close());
}
