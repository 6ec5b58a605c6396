#include "core-port-holder.hpp"

#include "core-owners.hpp"
#include "core.hpp"

#include <cctype>
#include <cinttypes>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr std::string_view modem_manager = "ModemManager";

using path_text = char[1024];

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

// The number of another process; 0 for an entry that is none.
long process_id(const char *name)
{
    char *end = nullptr;
    const long id = strtol(name, &end, 10);
    return id > 0 && *end == '\0' && id != getpid() ? id : 0;
}

// One line of /proc/locks, "1: FLOCK  ADVISORY  WRITE 708 00:06:13 0 EOF": the process that has the lock when
// it is one on the file. The line of a process that waits for the lock has an arrow before the word.
bool read_lock(const char *line, const struct stat &status, long *id)
{
    unsigned major_number = 0;
    unsigned minor_number = 0;
    uint64_t inode = 0;
    return sscanf(line, "%*d: FLOCK %*s %*s %ld %x:%x:%" SCNu64, id, &major_number, &minor_number, &inode) ==
               4 &&
           makedev(major_number, minor_number) == status.st_dev && inode == status.st_ino;
}

} // namespace

// A process names itself as it likes; the log gets printable characters.
void core_describe_process(const char *proc, long id, core_process *out)
{
    *out = {id, ""};
    path_text path;
    const owned_stream file(core_compose(path, "%s/%ld/comm", proc, id) ? fopen(path, "re") : nullptr);
    if (file == nullptr || fgets(out->name, sizeof out->name, file.get()) == nullptr)
        out->name[0] = '\0';
    out->name[strcspn(out->name, "\n")] = '\0';
    if (out->name[0] == '\0')
        strlcpy(out->name, "another program", sizeof out->name);
    for (char *c = out->name; *c != '\0'; ++c)
        *c = isprint(static_cast<unsigned char>(*c)) != 0 ? *c : '?';
}

const char *core_advice_on(const core_process &holder)
{
    return holder.name == modem_manager ? ": stop it first, for example: systemctl stop ModemManager"
                                        : ": stop it first";
}

bool core_find_port_holder(const char *proc, const char *node, const struct stat &status,
                           core_process *holder)
{
    const owned_directory processes(opendir(proc));
    if (processes == nullptr)
        return false;
    while (const dirent *const entry = readdir(processes.get())) {
        const long id = process_id(entry->d_name);
        path_text folder;
        if (id == 0 || !core_compose(folder, "%s/%s", proc, entry->d_name) || !holds(folder, node, status))
            continue;
        core_describe_process(proc, id, holder);
        return true;
    }
    return false;
}

bool core_find_lock_holder(const char *proc, const struct stat &status, core_process *holder)
{
    path_text path;
    const owned_stream locks(core_compose(path, "%s/locks", proc) ? fopen(path, "re") : nullptr);
    char line[256];
    long id = 0;
    while (locks != nullptr && fgets(line, sizeof line, locks.get()) != nullptr) {
        if (!read_lock(line, status, &id))
            continue;
        core_describe_process(proc, id, holder);
        return true;
    }
    return false;
}
