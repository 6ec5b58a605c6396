#include "vhci-port.hpp"

#include "numbers.hpp"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace sim {
namespace {

constexpr const char *status_file = "/sys/devices/platform/vhci_hcd.0/status";
constexpr const char *attach_file = "/sys/devices/platform/vhci_hcd.0/attach";
constexpr unsigned high_speed = 3;
constexpr unsigned device_id = 0x00010002; // bus 1, device 2: any will do

[[nodiscard]] bool read_text(const char *path, std::string &out)
{
    const descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    char room[4096];
    const ssize_t got = file.open() ? read(file.get(), room, sizeof room) : -1;
    if (got < 0)
        return false;
    out.assign(room, static_cast<size_t>(got));
    return true;
}

} // namespace

// A line is "hs  0000 004 000 00000000 000000 0-0": hub, port, state (004: free), speed, ...
std::optional<unsigned> find_free_port(std::string_view status, unsigned from)
{
    while (!status.empty()) {
        const size_t end = status.find('\n');
        const std::string_view line = status.substr(0, end);
        status = end == std::string_view::npos ? std::string_view() : status.substr(end + 1);
        if (!line.starts_with("hs") || line.size() < 12 || line.substr(8, 4) != " 004")
            continue;
        const auto number = parse_number(line.substr(4, 4), 255);
        if (number && *number >= from)
            return static_cast<unsigned>(*number);
    }
    return std::nullopt;
}

bool vhci_port::fail(std::string what)
{
    error_ = std::move(what);
    return false;
}

// False with errno set.
bool vhci_port::try_port(unsigned number, int kernel_end)
{
    const std::string line = std::to_string(number) + " " + std::to_string(kernel_end) + " " +
                             std::to_string(device_id) + " " + std::to_string(high_speed);
    const descriptor file(open(attach_file, O_WRONLY | O_CLOEXEC));
    return file.open() && write(file.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

bool vhci_port::plug_in()
{
    std::string status;
    if (!read_text(status_file, status))
        return fail(
            "this kernel has no virtual USB host controller: load the module vhci_hcd (modprobe vhci-hcd)");
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return fail(std::string("socketpair: ") + std::strerror(errno));
    socket_.reset(ends[0]);
    const descriptor kernel_end(ends[1]); // the kernel keeps its own reference
    // Somebody else may take a port between the look and the writing.
    for (auto free = find_free_port(status, number_); free; free = find_free_port(status, *free + 1)) {
        if (try_port(*free, kernel_end.get())) {
            number_ = *free;
            return true;
        }
        if (errno != EBUSY) {
            socket_.reset();
            return fail(std::string(attach_file) + ": " + std::strerror(errno));
        }
    }
    socket_.reset();
    if (number_ != 0) { // once more, from the first port on
        number_ = 0;
        return plug_in();
    }
    return fail("all ports of the virtual USB host controller are taken");
}

} // namespace sim
