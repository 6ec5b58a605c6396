#include "core-lock.hpp"

#include "core.hpp"

#include <cerrno>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

struct socket_name {
    sockaddr_un address;
    socklen_t size; // 0 where the name is too long
};

// An abstract name begins with a zero and ends with its length.
socket_name make_name(const char *name)
{
    socket_name made{};
    made.address.sun_family = AF_UNIX;
    const size_t length = strlen(name);
    if (length >= sizeof made.address.sun_path)
        return made;
    memcpy(made.address.sun_path + 1, name, length);
    made.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
    return made;
}

const sockaddr *generic(const socket_name &name)
{
    return reinterpret_cast<const sockaddr *>(&name.address);
}

int open_socket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

} // namespace

int core_lock_name(const char *name, int *lock)
{
    *lock = -1;
    const socket_name address = make_name(name);
    owned_lock taken(address.size != 0 ? open_socket() : -1);
    if (taken.get() < 0)
        return CORE_ENOTSUPPORTED;
    if (bind(taken.get(), generic(address), address.size) != 0)
        return errno == EADDRINUSE ? CORE_EBUSY : CORE_ENOTSUPPORTED;
    // Who asks for the holder connects; nobody ever accepts that.
    if (listen(taken.get(), SOMAXCONN) != 0)
        return CORE_ENOTSUPPORTED;
    *lock = taken.release();
    return CORE_OK;
}

bool core_find_name_holder(const char *name, long *id)
{
    *id = 0;
    const socket_name address = make_name(name);
    const owned_lock asking(address.size != 0 ? open_socket() : -1);
    if (asking.get() < 0)
        return false;
    // EAGAIN: locked by one whom too many have asked.
    if (connect(asking.get(), generic(address), address.size) != 0)
        return errno == EAGAIN;
    ucred holder{};
    socklen_t size = sizeof holder;
    if (getsockopt(asking.get(), SOL_SOCKET, SO_PEERCRED, &holder, &size) == 0)
        *id = holder.pid;
    return true;
}

int core_lock_file(int handle)
{
    if (flock(handle, LOCK_EX | LOCK_NB) == 0)
        return CORE_OK;
    return errno == EWOULDBLOCK ? CORE_EBUSY : CORE_ENOTSUPPORTED;
}
