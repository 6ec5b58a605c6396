// The wait for a device node, apart from the operations on an open one.
#include "core-device.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdlib>
#include <libgen.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

static constexpr char log_source[] = "core-device.c";

namespace {

constexpr int keep_waiting = 1; // no result yet

// An inotify descriptor and its watch.
struct node_watch {
    int descriptor = -1;
    int watch = -1;

    node_watch() = default;
    node_watch(const node_watch &) = delete;
    node_watch &operator=(const node_watch &) = delete;
    ~node_watch()
    {
        if (watch != -1)
            inotify_rm_watch(descriptor, watch);
        if (descriptor != -1)
            close(descriptor);
    }
};

// True when the buffer holds a creation of `name`. Events lie one after another, each with a name of its own
// length behind its header.
bool holds_creation(const char *buffer, size_t length, const char *name)
{
    size_t offset = 0;
    while (length - offset >= sizeof(inotify_event)) {
        inotify_event event;
        memcpy(&event, buffer + offset, sizeof event);
        const char *const created = buffer + offset + sizeof event;
        if (event.len > length - offset - sizeof event)
            return false;
        if ((event.mask & IN_CREATE) != 0 && event.len > 0 && strncmp(created, name, event.len) == 0)
            return true;
        offset += sizeof event + event.len;
    }
    return false;
}

// One pass of the wait: 0 when the node exists, an error, or keep_waiting.
int wait_once(int descriptor, const char *port, const char *name)
{
    static constexpr char function[] = "core_wait_for_serial";
    if (access(port, F_OK) == 0)
        return CORE_OK;
    pollfd watched{descriptor, POLLIN, 0};
    if (poll(&watched, 1, timeouts::node_watch) == -1) {
        const int err = errno;
        if (err == EINTR && sigint_detected != 0)
            return keep_waiting; // the loop sees the flag
        log_as(function, CORE_LOG_ERR, "Poll error %d, %s\n", err, strerror(err));
        return CORE_EGENERIC;
    }
    if ((watched.revents & POLLERR) != 0) {
        log_as(function, CORE_LOG_ERR, "Poll device error\n");
        return CORE_EGENERIC;
    }
    if ((watched.revents & POLLIN) == 0)
        return keep_waiting;
    char buffer[1024];
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count == -1) {
        const int err = errno;
        log_as(function, CORE_LOG_DBG, "Read error %d, %s\n", err, strerror(err));
        errno = 0;
        return keep_waiting;
    }
    if (!holds_creation(buffer, static_cast<size_t>(count), name))
        return keep_waiting;
    log_as(function, CORE_LOG_DBG, "%s is created\n", port);
    return CORE_OK;
}

} // namespace

int core_wait_for_serial(const char *port)
{
    if (port == nullptr) {
        log_err("invalid port name\n");
        return CORE_EINVAL;
    }
    if (access(port, F_OK) == 0)
        return CORE_OK;
    node_watch node;
    node.descriptor = inotify_init();
    if (node.descriptor == -1) {
        log_err("inotify_init\n");
        return CORE_EGENERIC;
    }
    const owned_text for_directory(strdup(port));
    if (for_directory == nullptr) {
        log_err("could not copy port '%s' for dirname: error %d %s", port, errno, strerror(errno));
        return CORE_ENOMEM;
    }
    const char *const directory = dirname(for_directory.get());
    const owned_text for_name(strdup(port));
    if (for_name == nullptr) {
        log_err("could not copy port '%s' for basename: error %d %s", port, errno, strerror(errno));
        return CORE_ENOMEM;
    }
    const char *const name = basename(for_name.get());
    node.watch = inotify_add_watch(node.descriptor, directory, IN_CREATE);
    if (node.watch == -1) {
        log_err("inotify_add_watch\n");
        return CORE_EGENERIC;
    }
    while (sigint_detected == 0) {
        const int result = wait_once(node.descriptor, port, name);
        if (result != keep_waiting)
            return result;
    }
    return CORE_ENODEV;
}
