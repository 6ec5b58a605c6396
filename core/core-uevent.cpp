#include "core-uevent.hpp"

#include <cerrno>
#include <linux/netlink.h>
#include <span>
#include <string_view>
#include <sys/socket.h>

namespace {

constexpr uint32_t kernel_group = 1; // group 2 carries udev's own messages
constexpr int max_messages = 256;
constexpr size_t message_size = 8192; // the kernel's own limit is 2048
constexpr std::string_view subsystem_key = "SUBSYSTEM=";

enum class reading { message, foreign, nothing, overflow, broken };

// One message, without waiting. Only the kernel has the port id 0; any process may send with its own.
reading receive(int socket, std::span<char> buffer, size_t *length)
{
    sockaddr_nl sender{};
    iovec part{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t count = recvmsg(socket, &header, MSG_DONTWAIT);
    if (count < 0) {
        if (errno == ENOBUFS)
            return reading::overflow;
        return errno == EAGAIN || errno == EINTR ? reading::nothing : reading::broken;
    }
    *length = static_cast<size_t>(count);
    const bool is_cut = (header.msg_flags & MSG_TRUNC) != 0;
    return sender.nl_pid != 0 || is_cut ? reading::foreign : reading::message;
}

bool is_wanted_subsystem(std::string_view name)
{
    return name == "usb" || name == "mhi" || name == "wwan";
}

} // namespace

int core_uevent_subscribe()
{
    owned_socket handle(
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kernel_group;
    if (handle.get() < 0 ||
        bind(handle.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return -1;
    return handle.release();
}

// "add@/devices/...", then "KEY=value", each with a terminator.
bool core_uevent_concerns_modems(const char *message, size_t size)
{
    if (size == 0 || message[size - 1] != '\0')
        return false;
    const std::string_view header = message;
    if (header.find('@') == header.npos)
        return false;
    std::string_view subsystem;
    for (size_t start = header.size() + 1; start < size;) {
        std::string_view line = message + start;
        start += line.size() + 1;
        if (!line.starts_with(subsystem_key))
            continue;
        if (subsystem.data() != nullptr)
            return false; // the kernel says it once
        line.remove_prefix(subsystem_key.size());
        subsystem = line;
    }
    return is_wanted_subsystem(subsystem);
}

core_uevents core_uevent_drain(int socket)
{
    static char buffer[message_size];
    core_uevents result = core_uevents::none;
    for (int i = 0; i < max_messages; ++i) {
        size_t length = 0;
        switch (receive(socket, buffer, &length)) {
        case reading::message:
            if (core_uevent_concerns_modems(buffer, length))
                result = core_uevents::some;
            break;
        case reading::foreign:
            break;
        case reading::overflow:
            result = core_uevents::some;
            break;
        case reading::nothing:
            return result;
        case reading::broken:
            return core_uevents::broken;
        }
    }
    return result;
}
