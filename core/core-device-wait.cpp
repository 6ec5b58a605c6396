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
#include <string_view>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-device.c";
constexpr char in_core_wait_for_serial[] = "core_wait_for_serial";

constexpr int keep_waiting = 1; // no result yet

// An inotify descriptor and its watch.
class directory_watch {
  public:
    directory_watch() : descriptor_(inotify_init()) {}
    directory_watch(const directory_watch &) = delete;
    directory_watch &operator=(const directory_watch &) = delete;
    ~directory_watch()
    {
        if (watch_ != -1)
            inotify_rm_watch(descriptor_, watch_);
        if (descriptor_ != -1)
            close(descriptor_);
    }

    int descriptor() const { return descriptor_; }
    // Watches for new entries; false on failure.
    bool watch(const char *directory)
    {
        watch_ = inotify_add_watch(descriptor_, directory, IN_CREATE);
        return watch_ != -1;
    }

  private:
    int descriptor_;
    int watch_ = -1;
};

// A copy that `function`, which cuts it up, may change.
owned_text copy_for(const char *function, const char *port)
{
    owned_text copy(strdup(port));
    if (copy == nullptr)
        log_as(in_core_wait_for_serial, CORE_LOG_ERR, "could not copy port '%s' for %s: error %d %s", port,
               function, errno, strerror(errno));
    return copy;
}

// True when one of the events is the creation of `name`. They lie one after another, each with a name of its
// own length behind its header.
bool holds_creation(std::string_view events, const char *name)
{
    inotify_event event;
    while (events.size() >= sizeof event) {
        memcpy(&event, events.data(), sizeof event);
        events.remove_prefix(sizeof event);
        if (event.len > events.size())
            return false;
        if ((event.mask & IN_CREATE) != 0 && event.len > 0 && strncmp(events.data(), name, event.len) == 0)
            return true;
        events.remove_prefix(event.len);
    }
    return false;
}

// Takes the events that are there; true when one is the creation of `name`.
bool is_created(int descriptor, const char *name)
{
    char buffer[1024];
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count == -1) {
        const int err = errno;
        log_as(in_core_wait_for_serial, CORE_LOG_DBG, "Read error %d, %s\n", err, strerror(err));
        errno = 0;
        return false;
    }
    return holds_creation({buffer, static_cast<size_t>(count)}, name);
}

// One pass of the wait: 0 when the node exists, an error, or keep_waiting.
int wait_once(int descriptor, const char *port, const char *name)
{
    if (access(port, F_OK) == 0)
        return CORE_OK;
    pollfd watched{descriptor, POLLIN, 0};
    if (poll(&watched, 1, timeouts::node_watch) == -1) {
        const int err = errno;
        if (err == EINTR && sigint_detected != 0)
            return keep_waiting; // the loop sees the flag
        log_as(in_core_wait_for_serial, CORE_LOG_ERR, "Poll error %d, %s\n", err, strerror(err));
        return CORE_EGENERIC;
    }
    if ((watched.revents & POLLERR) != 0) {
        log_as(in_core_wait_for_serial, CORE_LOG_ERR, "Poll device error\n");
        return CORE_EGENERIC;
    }
    if ((watched.revents & POLLIN) == 0 || !is_created(descriptor, name))
        return keep_waiting;
    log_as(in_core_wait_for_serial, CORE_LOG_DBG, "%s is created\n", port);
    return CORE_OK;
}

} // namespace

// The library's interface: the updater itself does not call this.

int core_wait_for_serial(const char *port)
{
    if (port == nullptr) {
        log_err("invalid port name\n");
        return CORE_EINVAL;
    }
    if (access(port, F_OK) == 0)
        return CORE_OK;
    directory_watch node;
    if (node.descriptor() == -1) {
        log_err("inotify_init\n");
        return CORE_EGENERIC;
    }
    const owned_text for_directory = copy_for("dirname", port);
    if (for_directory == nullptr)
        return CORE_ENOMEM;
    const owned_text for_name = copy_for("basename", port);
    if (for_name == nullptr)
        return CORE_ENOMEM;
    if (!node.watch(dirname(for_directory.get()))) {
        log_err("inotify_add_watch\n");
        return CORE_EGENERIC;
    }
    const char *const name = basename(for_name.get());
    int result = keep_waiting;
    while (sigint_detected == 0 && result == keep_waiting)
        result = wait_once(node.descriptor(), port, name);
    return result != keep_waiting ? result : CORE_ENODEV;
}
