#include "core-port-access.hpp"

#include "core-port-holder.hpp"
#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cerrno>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-discovery.c";
constexpr char in_core_device_enumerate[] = "core_device_enumerate";

constexpr std::string_view dev_prefix = "/dev/";

using path_text = char[1024];

// The node of a port of the records, whose names all begin with "/dev/". False when it does not fit.
bool node_of(const core_roots &roots, const char *port, std::span<char> out)
{
    return core_compose(out, "%s/%s", roots.dev, port + dev_prefix.size());
}

bool is_worth_waiting(const core_roots &roots, const char *port)
{
    path_text node;
    return node_of(roots, port, node) && access(node, R_OK | W_OK) != 0 &&
           (errno == ENOENT || errno == EACCES);
}

// Notes that the port's holder is reported. False when it was before, or there is no room to remember it.
bool take_note(core_reported_ports *reported, const char *port)
{
    const std::string_view name = port;
    const std::span known(reported->names, reported->count);
    if (std::ranges::any_of(known, [name](const char *other) { return name == other; }) ||
        reported->count == core_reported_ports::room || name.size() >= sizeof reported->names[0])
        return false;
    strlcpy(reported->names[reported->count++], port, sizeof reported->names[0]);
    return true;
}

void report_holder(const core_roots &roots, const char *port, core_reported_ports *reported)
{
    path_text node;
    struct stat status {};
    core_process holder{};
    if (!node_of(roots, port, node) || stat(node, &status) != 0 ||
        !core_find_port_holder(roots.proc, node, status, &holder) || !take_note(reported, port))
        return;
    log_as(in_core_device_enumerate, CORE_LOG_ERR, "port %s is in use by %s (process %ld)%s\n", port,
           holder.name, holder.id, core_advice_on(holder));
}

template <typename Visit> void for_each_port(const core_device_info *devices, size_t count, Visit visit)
{
    for (const core_device_info &device : std::span(devices, count)) {
        for (const char *const port : std::span(device.port_names, device.port_count))
            visit(port);
    }
}

} // namespace

void core_await_port_access(const core_roots &roots, const core_device_info *devices, size_t count)
{
    const time_limit limit(timeouts::port_access);
    for_each_port(devices, count, [&roots, &limit](const char *port) {
        while (is_worth_waiting(roots, port) && sigint_detected == 0 && !limit.passed())
            core_sleep(timeouts::port_access_pause);
    });
}

void core_report_port_holders(const core_roots &roots, const core_device_info *devices, size_t count,
                              core_reported_ports *reported)
{
    for_each_port(devices, count,
                  [&roots, reported](const char *port) { report_holder(roots, port, reported); });
}
