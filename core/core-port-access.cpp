#include "core-port-access.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char log_source[] = "core-discovery.c";

namespace {

constexpr char dev_prefix[] = "/dev/";
constexpr char modem_manager[] = "ModemManager";

struct process {
    long id;
    char name[32];
};

// The node of a port of the records, whose names all begin with "/dev/". False when it does not fit.
bool node_of(const core_roots &roots, const char *port, char *out, size_t size)
{
    const int length = snprintf(out, size, "%s/%s", roots.dev, port + sizeof dev_prefix - 1);
    return length >= 0 && static_cast<size_t>(length) < size;
}

bool is_worth_waiting(const core_roots &roots, const char *port)
{
    char node[1024];
    return node_of(roots, port, node, sizeof node) && access(node, R_OK | W_OK) != 0 &&
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
bool is_open_on(int descriptors, const char *number, const char *node, const struct stat &status)
{
    char target[1024];
    const ssize_t length = readlinkat(descriptors, number, target, sizeof target - 1);
    if (length < 0)
        return false;
    target[length] = '\0';
    struct stat opened {};
    return strcmp(core_last_component(target), core_last_component(node)) == 0 &&
           fstatat(descriptors, number, &opened, 0) == 0 && is_same_node(opened, status);
}

// True when one of the process's descriptors is open on the node.
bool holds(const char *process_folder, const char *node, const struct stat &status)
{
    char folder[512];
    snprintf(folder, sizeof folder, "%s/fd", process_folder);
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
void read_name(const char *process_folder, char *out, size_t size)
{
    char path[512];
    snprintf(path, sizeof path, "%s/comm", process_folder);
    const owned_stream file(fopen(path, "re"));
    if (file == nullptr || fgets(out, static_cast<int>(size), file.get()) == nullptr)
        out[0] = '\0';
    out[strcspn(out, "\n")] = '\0';
    if (out[0] == '\0')
        strlcpy(out, "another program", size);
    for (char *c = out; *c != '\0'; ++c)
        *c = isprint(static_cast<unsigned char>(*c)) != 0 ? *c : '?';
}

bool find_holder(const core_roots &roots, const char *node, process *holder)
{
    const owned_directory processes(opendir(roots.proc));
    struct stat status {};
    if (processes == nullptr || stat(node, &status) != 0)
        return false;
    while (const dirent *const entry = readdir(processes.get())) {
        char *end = nullptr;
        const long id = strtol(entry->d_name, &end, 10);
        char folder[256];
        const int length = snprintf(folder, sizeof folder, "%s/%s", roots.proc, entry->d_name);
        if (id <= 0 || *end != '\0' || id == getpid() || length < 0 ||
            static_cast<size_t>(length) >= sizeof folder || !holds(folder, node, status))
            continue;
        holder->id = id;
        read_name(folder, holder->name, sizeof holder->name);
        return true;
    }
    return false;
}

// Notes that the port's holder is reported. False when it was before, or there is no room to remember it.
bool take_note(core_reported_ports *reported, const char *port)
{
    for (size_t i = 0; i < reported->count; ++i) {
        if (strcmp(reported->names[i], port) == 0)
            return false;
    }
    if (reported->count == core_reported_ports::room || strlen(port) >= sizeof reported->names[0])
        return false;
    strlcpy(reported->names[reported->count++], port, sizeof reported->names[0]);
    return true;
}

void report_holder(const core_roots &roots, const char *port, core_reported_ports *reported)
{
    static constexpr char function[] = "core_device_enumerate";
    char node[1024];
    process holder{};
    if (!node_of(roots, port, node, sizeof node) || !find_holder(roots, node, &holder) ||
        !take_note(reported, port))
        return;
    const bool is_service = strcmp(holder.name, modem_manager) == 0;
    log_as(function, CORE_LOG_ERR, "port %s is in use by %s (process %ld): stop it first%s\n", port,
           holder.name, holder.id, is_service ? ", for example: systemctl stop ModemManager" : "");
}

template <typename Visit> void for_each_port(const core_device_info *devices, size_t count, Visit visit)
{
    for (size_t i = 0; i < count; ++i) {
        for (uint32_t port = 0; port < devices[i].port_count; ++port)
            visit(devices[i].port_names[port]);
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
