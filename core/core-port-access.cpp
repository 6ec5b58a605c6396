#include "core-port-access.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-discovery.c";
constexpr char in_core_device_enumerate[] = "core_device_enumerate";

constexpr std::string_view dev_prefix = "/dev/";
constexpr std::string_view modem_manager = "ModemManager";

struct process {
    long id;
    char name[32];
};

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

bool is_same_node(const struct stat &a, const struct stat &b)
{
    if (S_ISCHR(a.st_mode) && S_ISCHR(b.st_mode))
        return a.st_rdev == b.st_rdev;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// True when the descriptor is open on the node. A process in a container knows the port by another path, or
// another port by this one: the device decides. Only what has the node's name is looked at, since a look at a
// file on a server that does not answer would never end.
bool is_open_on(int descriptors, const char *number, std::string_view node, const struct stat &status)
{
    path_text target;
    const ssize_t length = readlinkat(descriptors, number, target, sizeof target);
    struct stat opened {};
    return length >= 0 &&
           core_last_component({target, static_cast<size_t>(length)}) == core_last_component(node) &&
           fstatat(descriptors, number, &opened, 0) == 0 && is_same_node(opened, status);
}

// True when one of the process's descriptors is open on the node.
bool holds(const char *process_folder, const char *node, const struct stat &status)
{
    path_text folder;
    if (!core_compose(folder, "%s/fd", process_folder))
        return false;
    const owned_directory descriptors(opendir(folder));
    if (descriptors == nullptr)
        return false; // gone, or another user's
    while (const dirent *const entry = readdir(descriptors.get())) {
        if (is_open_on(dirfd(descriptors.get()), entry->d_name, node, status))
            return true;
    }
    return false;
}

// A process names itself as it likes; the log gets printable characters.
void read_name(const char *process_folder, std::span<char> out)
{
    path_text path;
    const owned_stream file(core_compose(path, "%s/comm", process_folder) ? fopen(path, "re") : nullptr);
    if (file == nullptr || fgets(out.data(), static_cast<int>(out.size()), file.get()) == nullptr)
        out[0] = '\0';
    out[strcspn(out.data(), "\n")] = '\0';
    if (out[0] == '\0')
        strlcpy(out.data(), "another program", out.size());
    for (char *c = out.data(); *c != '\0'; ++c)
        *c = isprint(static_cast<unsigned char>(*c)) != 0 ? *c : '?';
}

// The number of another process; 0 for an entry that is none.
long process_id(const char *name)
{
    char *end = nullptr;
    const long id = strtol(name, &end, 10);
    return id > 0 && *end == '\0' && id != getpid() ? id : 0;
}

bool find_holder(const core_roots &roots, const char *node, process *holder)
{
    const owned_directory processes(opendir(roots.proc));
    struct stat status {};
    if (processes == nullptr || stat(node, &status) != 0)
        return false;
    while (const dirent *const entry = readdir(processes.get())) {
        const long id = process_id(entry->d_name);
        path_text folder;
        if (id == 0 || !core_compose(folder, "%s/%s", roots.proc, entry->d_name) ||
            !holds(folder, node, status))
            continue;
        holder->id = id;
        read_name(folder, holder->name);
        return true;
    }
    return false;
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
    process holder{};
    if (!node_of(roots, port, node) || !find_holder(roots, node, &holder) || !take_note(reported, port))
        return;
    const char *const advice =
        holder.name == modem_manager ? ", for example: systemctl stop ModemManager" : "";
    log_as(in_core_device_enumerate, CORE_LOG_ERR, "port %s is in use by %s (process %ld): stop it first%s\n",
           port, holder.name, holder.id, advice);
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
