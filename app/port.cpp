#include "port.hpp"

#include "core-device.hpp"
#include "core-lock.hpp"
#include "core-place.hpp"
#include "core-port-holder.hpp"
#include "core.hpp"
#include "run-lock.hpp"
#include "zepho-log.hpp"

#include <climits>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace {

constexpr char log_source[] = "../port.c";
constexpr char in_open_port[] = "open_port";
constexpr char proc[] = "/proc";

// Asked from the descriptor: the name may lead somewhere else by now.
int check_node(int handle, const char *path, struct stat *node)
{
    if (fstat(handle, node) == 0 && (S_ISCHR(node->st_mode) || S_ISFIFO(node->st_mode)))
        return CORE_OK;
    log_as(in_open_port, CORE_LOG_ERR, "'%s' is not a character device", path);
    return CORE_EINVAL;
}

int lock_port(int handle, const char *path, const struct stat &node)
{
    if (core_lock_file(handle) != CORE_EBUSY)
        return CORE_OK; // what takes no lock is left as it is
    core_process holder{};
    static_cast<void>(core_find_lock_holder(proc, node, &holder)); // which has just let go, or cannot be seen
    report_in_use(in_open_port, "port", path, holder, "");
    return CORE_EBUSY;
}

} // namespace

int open_port(const char *path, int *handle)
{
    *handle = -1;
    // Before anything is opened: a modem that was about to speak to its own run would be heard by this one.
    if (const int err = hold_port(path); err != CORE_OK)
        return err;
    owned_device port;
    struct stat node {};
    if (const int err = core_device_open(path, port.receive()); err != CORE_OK)
        return err;
    if (const int err = check_node(port.get(), path, &node); err != CORE_OK)
        return err;
    if (const int err = hold_port(path, node); err != CORE_OK)
        return err;
    if (const int err = lock_port(port.get(), path, node); err != CORE_OK)
        return err;
    ioctl(port.get(), TIOCEXCL); // what is no terminal has no such thing
    *handle = port.release();
    return CORE_OK;
}

int close_port(int handle)
{
    // It would stay with a terminal that somebody else keeps open.
    ioctl(handle, TIOCNXCL);
    return core_device_close(handle);
}

int port_error(int open_error)
{
    return open_error == CORE_EINVAL || open_error == CORE_EBUSY ? open_error : CORE_EGENERIC;
}

int refuse_port_holders(int handle, const char *path)
{
    struct stat node {};
    char real[PATH_MAX];
    core_process holder{};
    if (isatty(handle) == 0 || fstat(handle, &node) != 0 || core_is_pseudo_terminal(node) ||
        core_get_real_path(path, real) != CORE_OK || !core_find_port_holder(proc, real, node, &holder))
        return CORE_OK;
    report_in_use(__func__, "port", path, holder, core_advice_on(holder));
    return CORE_EBUSY;
}
