// libusb over a serial port: the download device's bulk pair is the port of the bus file, a transfer is a
// read or a write on it. A message of the peer is a transfer, as on a bus; an empty transfer carries nothing
// here.
#include "bus.hpp"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <libusb.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

struct libusb_context {};
struct libusb_device {};
struct libusb_device_handle {
    int port;
};

namespace {

libusb_context the_context;
libusb_device the_device;
libusb_device_handle the_handle{-1};

constexpr libusb_endpoint_descriptor make_endpoint(uint8_t address)
{
    libusb_endpoint_descriptor endpoint{};
    endpoint.bEndpointAddress = address;
    endpoint.bmAttributes = LIBUSB_TRANSFER_TYPE_BULK;
    endpoint.wMaxPacketSize = 512;
    return endpoint;
}

const libusb_endpoint_descriptor endpoints[] = {make_endpoint(0x81), make_endpoint(0x01)};

int64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int error_of(int err)
{
    static constexpr struct {
        int err;
        int code;
    } rows[] = {{ETIMEDOUT, LIBUSB_ERROR_TIMEOUT}, {ENODEV, LIBUSB_ERROR_NO_DEVICE}};
    for (const auto &row : rows)
        if (row.err == err)
            return row.code;
    return LIBUSB_ERROR_IO;
}

// Waits until the port is ready; a signal does not end a transfer.
int wait_ready(int port, short events, int64_t end_ms)
{
    for (;;) {
        const int64_t left = end_ms - now_ms();
        pollfd watched{port, events, 0};
        const int ready = poll(&watched, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR)
            continue;
        if ((watched.revents & (POLLHUP | POLLERR)) != 0)
            return LIBUSB_ERROR_NO_DEVICE;
        return ready > 0 ? 0 : LIBUSB_ERROR_TIMEOUT;
    }
}

int transfer_in(int port, unsigned char *data, int length, int *moved, int64_t end_ms)
{
    if (const int err = wait_ready(port, POLLIN, end_ms); err != 0)
        return err;
    const ssize_t count = read(port, data, static_cast<size_t>(length));
    if (count < 0)
        return LIBUSB_ERROR_NO_DEVICE;
    *moved = static_cast<int>(count);
    return 0;
}

int transfer_out(int port, const unsigned char *data, int length, int *moved, int64_t end_ms)
{
    while (*moved < length) {
        if (const int err = wait_ready(port, POLLOUT, end_ms); err != 0)
            return err;
        const ssize_t count = write(port, data + *moved, static_cast<size_t>(length - *moved));
        if (count < 0 && errno != EAGAIN)
            return error_of(errno);
        if (count > 0)
            *moved += static_cast<int>(count);
    }
    return 0;
}

} // namespace

extern "C" {

int libusb_init(libusb_context **context)
{
    *context = &the_context;
    return 0;
}

void libusb_exit(libusb_context *) {}

// The enumeration as last named parameter is libusb's own declaration.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
int libusb_set_option(libusb_context *, libusb_option, ...)
{
    return 0;
}
#pragma GCC diagnostic pop

libusb_device_handle *libusb_open_device_with_vid_pid(libusb_context *, uint16_t vid, uint16_t pid)
{
    bus_device device{};
    if (!read_bus(&device) || device.id.vid != vid || device.id.pid != pid)
        return nullptr;
    the_handle.port = open(device.port, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return the_handle.port >= 0 ? &the_handle : nullptr;
}

ssize_t libusb_get_device_list(libusb_context *, libusb_device ***)
{
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

void libusb_free_device_list(libusb_device **, int) {}

int libusb_open(libusb_device *, libusb_device_handle **)
{
    return LIBUSB_ERROR_NOT_SUPPORTED;
}

void libusb_close(libusb_device_handle *handle)
{
    close(handle->port);
}

libusb_device *libusb_get_device(libusb_device_handle *)
{
    return &the_device;
}

uint8_t libusb_get_bus_number(libusb_device *)
{
    return 1;
}

int libusb_get_port_numbers(libusb_device *, uint8_t *, int)
{
    return 0;
}

int libusb_get_active_config_descriptor(libusb_device *, libusb_config_descriptor **config)
{
    static libusb_interface_descriptor setting{};
    setting.bNumEndpoints = 2;
    setting.endpoint = endpoints;
    static const libusb_interface interface {
        &setting, 1
    };
    static libusb_config_descriptor only{};
    only.bNumInterfaces = 1;
    only.interface = &interface;
    *config = &only;
    return 0;
}

void libusb_free_config_descriptor(libusb_config_descriptor *) {}

int libusb_kernel_driver_active(libusb_device_handle *, int)
{
    return 0;
}

int libusb_detach_kernel_driver(libusb_device_handle *, int)
{
    return 0;
}

int libusb_claim_interface(libusb_device_handle *, int)
{
    return 0;
}

int libusb_release_interface(libusb_device_handle *, int)
{
    return 0;
}

int libusb_bulk_transfer(libusb_device_handle *handle, unsigned char endpoint, unsigned char *data,
                         int length, int *transferred, unsigned int timeout)
{
    *transferred = 0;
    const int64_t end_ms = now_ms() + timeout;
    return (endpoint & LIBUSB_ENDPOINT_IN) != 0
               ? transfer_in(handle->port, data, length, transferred, end_ms)
               : transfer_out(handle->port, data, length, transferred, end_ms);
}
}
