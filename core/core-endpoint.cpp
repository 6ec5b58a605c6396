#include "core-endpoint.hpp"

#include "core-owners.hpp"
#include "core.hpp"
#include "log-output.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <libusb.h>
#include <span>
#include <string_view>

namespace {

constexpr char log_source[] = "core-endpoint.c";
constexpr char in_endpoint_open[] = "endpoint_open";
constexpr char in_endpoint_transfer[] = "endpoint_transfer";

constexpr int max_port_depth = 7;
constexpr int libusb_log_level_info = 3;
constexpr int libusb_log_level_none = 0;
constexpr uint8_t transfer_type_mask = 0x03;
constexpr uint8_t direction_in = 0x80;

using owned_config = owned<libusb_config_descriptor, libusb_free_config_descriptor>;

// What an opening holds until it is handed over to an endpoint record. The handle goes before its context.
struct usb_session {
    owned<libusb_context, libusb_exit> context;
    owned<libusb_device_handle, libusb_close> handle;
};

class device_list {
  public:
    explicit device_list(libusb_context *context) : count_(libusb_get_device_list(context, &devices_)) {}
    device_list(const device_list &) = delete;
    device_list &operator=(const device_list &) = delete;
    ~device_list()
    {
        if (!failed())
            libusb_free_device_list(devices_, 1);
    }
    bool failed() const { return count_ < 0; }
    std::span<libusb_device *> devices() const { return {devices_, static_cast<size_t>(count_)}; }

  private:
    libusb_device **devices_ = nullptr;
    ssize_t count_;
};

// libusb writes its own log to standard error; where each line must be JSON, it has to be silent.
int start_libusb(usb_session *session)
{
    libusb_context *context = nullptr;
    if (const int err = libusb_init(&context); err != 0)
        return err;
    session->context.reset(context);
    libusb_set_option(context, LIBUSB_OPTION_LOG_LEVEL,
                      core_log_is_json() ? libusb_log_level_none : libusb_log_level_info);
    return 0;
}

// Clears the record, so that it may be closed whatever comes, parses the identifier texts of `info` and
// starts libusb.
int prepare(const core_device_info *info, core_endpoint *ep, usb_session *session, core_usb_id *id,
            const char *function)
{
    ep->context = nullptr;
    ep->handle = nullptr;
    ep->interface = 0;
    ep->in_endpoint = CORE_ENDPOINT_NONE;
    ep->out_endpoint = CORE_ENDPOINT_NONE;
    ep->max_packet_size = 0;
    if (info->vid[0] == '\0' || info->pid[0] == '\0')
        return CORE_EINVAL;
    if (!core_usb_id_from_str(id, info->vid, info->pid)) {
        log_as(function, CORE_LOG_ERR, "could not convert %s:%s\n", info->vid, info->pid);
        return CORE_EGENERIC;
    }
    const int err = start_libusb(session);
    if (err != 0)
        log_as(function, CORE_LOG_ERR, "could not start libusb: error %d\n", err);
    return err;
}

int report_not_opened(const core_usb_id &id, const char *function)
{
    log_as(function, CORE_LOG_ERR, "could not open device 0x%04X:0x%04X\n", id.vid, id.pid);
    return CORE_ENODEV;
}

int open_by_id(const core_usb_id &id, usb_session *session, const char *function)
{
    session->handle.reset(libusb_open_device_with_vid_pid(
        session->context.get(), static_cast<uint16_t>(id.vid), static_cast<uint16_t>(id.pid)));
    return session->handle != nullptr ? CORE_OK : report_not_opened(id, function);
}

// Opens the first device whose system name the path ends in; 0 also when none does.
int open_by_path(std::string_view path, const core_usb_id &id, usb_session *session)
{
    const device_list list(session->context.get());
    if (list.failed()) {
        log_as(in_endpoint_open, CORE_LOG_ERR, "could not find any flashing devices\n");
        return CORE_ENODEV;
    }
    for (libusb_device *const device : list.devices()) {
        char name[4096];
        if (get_sys_name(name, sizeof name, device) == 0 || !path.ends_with(name))
            continue;
        libusb_device_handle *handle = nullptr;
        if (libusb_open(device, &handle) != 0)
            return report_not_opened(id, in_endpoint_open);
        session->handle.reset(handle);
        return CORE_OK;
    }
    return CORE_OK;
}

int get_configuration(const usb_session &session, owned_config *config, const char *function)
{
    libusb_device *const device = libusb_get_device(session.handle.get());
    if (device == nullptr) {
        log_as(function, CORE_LOG_ERR, "could not get device handle\n");
        return CORE_EGENERIC;
    }
    libusb_config_descriptor *descriptor = nullptr;
    const int err = libusb_get_active_config_descriptor(device, &descriptor);
    if (err != 0) {
        log_as(function, CORE_LOG_ERR, "could not get active configuration descriptor: error %d\n", err);
        return err;
    }
    config->reset(descriptor);
    return CORE_OK;
}

void take_endpoint(const libusb_endpoint_descriptor &endpoint, core_endpoint *ep)
{
    if ((endpoint.bEndpointAddress & direction_in) != 0) {
        ep->in_endpoint = endpoint.bEndpointAddress;
    } else {
        ep->out_endpoint = endpoint.bEndpointAddress;
        ep->max_packet_size = endpoint.wMaxPacketSize;
    }
}

// Takes the non-control endpoints of one alternate setting, each after the kernel's driver has let go.
int scan_setting(libusb_device_handle *handle, const libusb_interface_descriptor &setting, core_endpoint *ep)
{
    for (const libusb_endpoint_descriptor &endpoint : std::span(setting.endpoint, setting.bNumEndpoints)) {
        if ((endpoint.bmAttributes & transfer_type_mask) == 0)
            continue;
        if (libusb_kernel_driver_active(handle, setting.bInterfaceNumber) == 1) {
            if (const int err = libusb_detach_kernel_driver(handle, setting.bInterfaceNumber); err != 0) {
                log_err("could not detach kernel driver: error %d\n", err);
                return err;
            }
        }
        ep->interface = setting.bInterfaceNumber;
        take_endpoint(endpoint, ep);
    }
    return CORE_OK;
}

// Takes the endpoints of the interfaces, whose every setting is looked at even after a failure, and hands the
// session over to the record. The last failure.
int take_interfaces(std::span<const libusb_interface> interfaces, usb_session *session, core_endpoint *ep,
                    const char *function)
{
    int result = CORE_OK;
    for (const libusb_interface &interface : interfaces) {
        for (const auto &setting :
             std::span(interface.altsetting, static_cast<size_t>(interface.num_altsetting))) {
            if (const int err = scan_setting(session->handle.get(), setting, ep); err != CORE_OK)
                result = err;
        }
    }
    if (ep->in_endpoint == CORE_ENDPOINT_NONE && ep->out_endpoint == CORE_ENDPOINT_NONE) {
        log_as(function, CORE_LOG_ERR, "could not find endpoints\n");
    } else {
        ep->context = session->context.release();
        ep->handle = session->handle.release();
    }
    return result;
}

// A receiver that waits for more than came knows a transfer's end by a short packet only: data of whole
// packets needs an empty one behind it.
bool needs_zero_length_packet(const core_endpoint *ep, bool out, size_t len)
{
    return out && ep->send_zero_length_packet && ep->max_packet_size != 0 && len % ep->max_packet_size == 0;
}

// One transfer. Of its failures the result tells a time-out alone: `*moved` tells the others.
int transfer(const core_endpoint *ep, uint8_t address, std::span<unsigned char> data, int *moved,
             const char *kind)
{
    const int err = libusb_bulk_transfer(ep->handle, address, data.data(), static_cast<int>(data.size()),
                                         moved, timeouts::usb_transfer);
    if (err != 0)
        log_as(in_endpoint_transfer, CORE_LOG_ERR, "%s transfer error %i\n", kind, err);
    return err == LIBUSB_ERROR_TIMEOUT ? CORE_ETIMEDOUT : CORE_OK;
}

} // namespace

int get_sys_name(char *buf, size_t size, libusb_device *dev)
{
    memset(buf, 0, size);
    const int bus = libusb_get_bus_number(dev);
    uint8_t ports[max_port_depth] = {};
    const int depth = libusb_get_port_numbers(dev, ports, max_port_depth);
    if (depth == LIBUSB_ERROR_OVERFLOW) {
        log_err("libusb_get_port_numbers error: Array is too small (%lu)\n",
                static_cast<unsigned long>(max_port_depth));
        return 0;
    }
    int total = depth <= 0 ? snprintf(buf, size, "usb%d", bus) : snprintf(buf, size, "%d-", bus);
    for (int i = 0; i < depth; ++i) {
        if (total < 0 || static_cast<size_t>(total) >= size)
            return 0;
        const int added =
            snprintf(buf + total, size - static_cast<size_t>(total), i == 0 ? "%d" : ".%d", ports[i]);
        if (added < 0)
            return 0;
        total += added;
    }
    return total >= 0 && static_cast<size_t>(total) < size ? total : 0;
}

int endpoint_open(const core_device_info *info, core_endpoint *ep)
{
    usb_session session;
    core_usb_id id{};
    int err = prepare(info, ep, &session, &id, __func__);
    if (err != CORE_OK)
        return err;
    err = info->name[0] == '\0' ? open_by_id(id, &session, __func__) : open_by_path(info->name, id, &session);
    if (err != CORE_OK)
        return err;
    if (session.handle == nullptr) {
        log_err("Device not found\n");
        return CORE_EGENERIC;
    }
    owned_config config;
    err = get_configuration(session, &config, __func__);
    if (err != CORE_OK)
        return err;
    return take_interfaces({config->interface, config->bNumInterfaces}, &session, ep, __func__);
}

int endpoint_close(core_endpoint *ep)
{
    CORE_ASSERT(ep);
    if (ep->handle != nullptr)
        libusb_close(ep->handle);
    if (ep->context != nullptr)
        libusb_exit(ep->context);
    return CORE_OK;
}

int endpoint_transfer(core_endpoint *ep, bool out, void *buf, size_t len, int *transferred)
{
    *transferred = 0;
    if (ep->handle == nullptr || len > INT_MAX) {
        log_err("no open device for a transfer of %zu bytes\n", len);
        return CORE_EINVAL;
    }
    const uint8_t address = out ? ep->out_endpoint : ep->in_endpoint;
    if (const int err = libusb_claim_interface(ep->handle, ep->interface); err != 0) {
        log_err("could not claim interface %u: error %d", ep->interface, err);
        return err;
    }
    int moved = 0;
    int result = transfer(ep, address, {static_cast<unsigned char *>(buf), len}, &moved, "bulk");
    if (moved > 0)
        *transferred = moved;
    if (needs_zero_length_packet(ep, out, len)) {
        log_dbg("sending zero-length packet\n");
        if (const int err = transfer(ep, address, {}, &moved, "bulk zlp"); err != CORE_OK)
            result = err;
    }
    libusb_release_interface(ep->handle, ep->interface);
    return result;
}

int core_usb_endpoint_open(const core_device_info *info, core_endpoint *ep)
{
    return endpoint_open(info, ep);
}

int core_usb_endpoint_close(core_endpoint *ep)
{
    return endpoint_close(ep);
}

int core_usb_endpoint_write(core_endpoint *ep, const void *buf, size_t len, int *transferred)
{
    return endpoint_transfer(ep, true, const_cast<void *>(buf), len, transferred); // libusb only reads it
}

int core_usb_endpoint_read(core_endpoint *ep, void *buf, size_t len, int *transferred)
{
    return endpoint_transfer(ep, false, buf, len, transferred);
}

int core_usb_endpoint_take(core_endpoint *ep, void *buf, size_t len, unsigned timeout_ms, int *transferred)
{
    *transferred = 0;
    if (ep->handle == nullptr || len > INT_MAX)
        return CORE_EINVAL;
    if (const int err = libusb_claim_interface(ep->handle, ep->interface); err != 0)
        return err;
    int moved = 0; // also of a transfer that has timed out
    const int err = libusb_bulk_transfer(ep->handle, ep->in_endpoint, static_cast<unsigned char *>(buf),
                                         static_cast<int>(len), &moved, timeout_ms);
    *transferred = std::max(moved, 0);
    libusb_release_interface(ep->handle, ep->interface);
    return err == 0 || err == LIBUSB_ERROR_TIMEOUT ? CORE_OK : CORE_EGENERIC;
}

// The library's interface: the updater itself calls none of these.

int interface_open(const core_device_info *info, core_endpoint *ep, uint8_t interface)
{
    usb_session session;
    core_usb_id id{};
    int err = prepare(info, ep, &session, &id, __func__);
    if (err != CORE_OK)
        return err;
    ep->interface = interface;
    err = open_by_id(id, &session, __func__);
    if (err != CORE_OK)
        return err;
    owned_config config;
    err = get_configuration(session, &config, __func__);
    if (err != CORE_OK)
        return err;
    if (interface >= config->bNumInterfaces) {
        log_err("Interface %d is out of device capability (%d)\n", interface, config->bNumInterfaces);
        return CORE_ENODEV;
    }
    log_dbg("opening edpoint from interface %d\n", interface);
    return take_interfaces({&config->interface[interface], 1}, &session, ep, __func__);
}

int core_usb_interface_open(const core_device_info *info, core_endpoint *ep, int interface)
{
    return interface_open(info, ep, static_cast<uint8_t>(interface));
}
