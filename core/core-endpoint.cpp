#include "core-endpoint.hpp"

#include "core.hpp"
#include "log-output.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

#include <climits>
#include <cstdio>
#include <libusb.h>
#include <memory>

static constexpr char log_source[] = "core-endpoint.c";

namespace {

constexpr int max_port_depth = 7;
constexpr int libusb_log_level_info = 3;
constexpr int libusb_log_level_none = 0;
constexpr uint8_t transfer_type_mask = 0x03;
constexpr uint8_t direction_in = 0x80;

// Owns the libusb context and the device handle until both are handed over to an endpoint record.
class usb_session {
  public:
    usb_session() = default;
    usb_session(const usb_session &) = delete;
    usb_session &operator=(const usb_session &) = delete;
    ~usb_session()
    {
        if (handle != nullptr)
            libusb_close(handle);
        if (context != nullptr)
            libusb_exit(context);
    }

    // libusb writes its own log to standard error; where each line must be JSON, it has to be silent.
    int start()
    {
        if (const int err = libusb_init(&context); err != 0) {
            context = nullptr;
            return err;
        }
        libusb_set_option(context, LIBUSB_OPTION_LOG_LEVEL,
                          core_log_is_json() ? libusb_log_level_none : libusb_log_level_info);
        return 0;
    }

    void hand_over(core_endpoint *ep)
    {
        ep->context = context;
        ep->handle = handle;
        context = nullptr;
        handle = nullptr;
    }

    libusb_context *context = nullptr;
    libusb_device_handle *handle = nullptr;
};

struct config_deleter {
    void operator()(libusb_config_descriptor *config) const { libusb_free_config_descriptor(config); }
};
using owned_config = std::unique_ptr<libusb_config_descriptor, config_deleter>;

class device_list {
  public:
    explicit device_list(libusb_context *context) : count(libusb_get_device_list(context, &devices)) {}
    device_list(const device_list &) = delete;
    device_list &operator=(const device_list &) = delete;
    ~device_list()
    {
        if (count >= 0)
            libusb_free_device_list(devices, 1);
    }

    libusb_device **devices = nullptr;
    ssize_t count;
};

bool ends_with(const char *path, const char *name)
{
    const size_t path_length = strlen(path);
    const size_t name_length = strlen(name);
    return path_length >= name_length && strcmp(path + path_length - name_length, name) == 0;
}

void report_not_opened(const char *function, int line, const core_usb_id &id)
{
    core_log(CORE_LOG_ERR, log_source, function, line, "could not open device 0x%04X:0x%04X\n", id.vid,
             id.pid);
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
    const int err = session->start();
    if (err != 0)
        log_as(function, CORE_LOG_ERR, "could not start libusb: error %d\n", err);
    return err;
}

// Opens the first device whose system name the path ends in; 0 also when none does.
int open_by_path(const char *path, const core_usb_id &id, usb_session *session)
{
    static constexpr char function[] = "endpoint_open";
    const device_list list(session->context);
    if (list.count < 0) {
        log_as(function, CORE_LOG_ERR, "could not find any flashing devices\n");
        return CORE_ENODEV;
    }
    for (ssize_t i = 0; i < list.count; ++i) {
        char name[4096];
        if (get_sys_name(name, sizeof name, list.devices[i]) == 0 || !ends_with(path, name))
            continue;
        if (libusb_open(list.devices[i], &session->handle) != 0) {
            session->handle = nullptr;
            report_not_opened(function, __LINE__, id);
            return CORE_ENODEV;
        }
        return CORE_OK;
    }
    return CORE_OK;
}

// Takes the non-control endpoints of one alternate setting, each after the kernel's driver has let go.
int scan_setting(libusb_device_handle *handle, const libusb_interface_descriptor &setting, core_endpoint *ep)
{
    for (uint8_t i = 0; i < setting.bNumEndpoints; ++i) {
        const libusb_endpoint_descriptor &endpoint = setting.endpoint[i];
        if ((endpoint.bmAttributes & transfer_type_mask) == 0)
            continue;
        if (libusb_kernel_driver_active(handle, setting.bInterfaceNumber) == 1) {
            if (const int err = libusb_detach_kernel_driver(handle, setting.bInterfaceNumber); err != 0) {
                log_err("could not detach kernel driver: error %d\n", err);
                return err;
            }
        }
        ep->interface = setting.bInterfaceNumber;
        if ((endpoint.bEndpointAddress & direction_in) != 0) {
            ep->in_endpoint = endpoint.bEndpointAddress;
        } else {
            ep->out_endpoint = endpoint.bEndpointAddress;
            ep->max_packet_size = endpoint.wMaxPacketSize;
        }
    }
    return CORE_OK;
}

// Takes the endpoints of every setting of one interface; a failed detach does not end the scan of the others.
void scan_interface(libusb_device_handle *handle, const libusb_interface &interface, core_endpoint *ep,
                    int *result)
{
    for (int i = 0; i < interface.num_altsetting; ++i) {
        if (const int err = scan_setting(handle, interface.altsetting[i], ep); err != CORE_OK)
            *result = err;
    }
}

int get_configuration(usb_session *session, owned_config *config, const char *function)
{
    libusb_device *const device = libusb_get_device(session->handle);
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

int finish_open(usb_session *session, core_endpoint *ep, int result, const char *function)
{
    if (ep->in_endpoint == CORE_ENDPOINT_NONE && ep->out_endpoint == CORE_ENDPOINT_NONE)
        log_as(function, CORE_LOG_ERR, "could not find endpoints\n");
    else
        session->hand_over(ep);
    return result;
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
    if (const int err = prepare(info, ep, &session, &id, __func__); err != 0)
        return err;
    if (info->name[0] == '\0') {
        session.handle = libusb_open_device_with_vid_pid(session.context, static_cast<uint16_t>(id.vid),
                                                         static_cast<uint16_t>(id.pid));
        if (session.handle == nullptr) {
            report_not_opened(__func__, __LINE__, id);
            return CORE_ENODEV;
        }
    } else if (const int err = open_by_path(info->name, id, &session); err != CORE_OK) {
        return err;
    }
    if (session.handle == nullptr) {
        log_err("Device not found\n");
        return CORE_EGENERIC;
    }
    owned_config config;
    if (const int err = get_configuration(&session, &config, __func__); err != CORE_OK)
        return err;
    int result = CORE_OK;
    for (uint8_t i = 0; i < config->bNumInterfaces; ++i)
        scan_interface(session.handle, config->interface[i], ep, &result);
    return finish_open(&session, ep, result, __func__);
}

int interface_open(const core_device_info *info, core_endpoint *ep, uint8_t interface)
{
    usb_session session;
    core_usb_id id{};
    if (const int err = prepare(info, ep, &session, &id, __func__); err != 0)
        return err;
    ep->interface = interface;
    session.handle = libusb_open_device_with_vid_pid(session.context, static_cast<uint16_t>(id.vid),
                                                     static_cast<uint16_t>(id.pid));
    if (session.handle == nullptr) {
        report_not_opened(__func__, __LINE__, id);
        return CORE_ENODEV;
    }
    owned_config config;
    if (const int err = get_configuration(&session, &config, __func__); err != CORE_OK)
        return err;
    if (interface >= config->bNumInterfaces) {
        log_err("Interface %d is out of device capability (%d)\n", interface, config->bNumInterfaces);
        return CORE_ENODEV;
    }
    log_dbg("opening edpoint from interface %d\n", interface);
    int result = CORE_OK;
    scan_interface(session.handle, config->interface[interface], ep, &result);
    return finish_open(&session, ep, result, __func__);
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

// A receiver that waits for more than came knows a transfer's end by a short packet only: data of whole
// packets needs an empty one behind it.
static bool needs_zero_length_packet(const core_endpoint *ep, bool out, size_t len)
{
    return out && ep->send_zero_length_packet && ep->max_packet_size != 0 && len % ep->max_packet_size == 0;
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
    int result = CORE_OK;
    int moved = 0;
    int err = libusb_bulk_transfer(ep->handle, address, static_cast<unsigned char *>(buf),
                                   static_cast<int>(len), &moved, timeouts::usb_transfer);
    if (err != 0) {
        log_err("bulk transfer error %i\n", err);
        if (err == LIBUSB_ERROR_TIMEOUT)
            result = CORE_ETIMEDOUT;
    }
    if (moved > 0)
        *transferred = moved;
    if (needs_zero_length_packet(ep, out, len)) {
        log_dbg("sending zero-length packet\n");
        err = libusb_bulk_transfer(ep->handle, address, nullptr, 0, &moved, timeouts::usb_transfer);
        if (err != 0) {
            log_err("bulk zlp transfer error %i\n", err);
            if (err == LIBUSB_ERROR_TIMEOUT)
                result = CORE_ETIMEDOUT;
        }
    }
    libusb_release_interface(ep->handle, ep->interface);
    return result;
}

int core_usb_endpoint_open(const core_device_info *info, core_endpoint *ep)
{
    return endpoint_open(info, ep);
}

int core_usb_interface_open(const core_device_info *info, core_endpoint *ep, int interface)
{
    return interface_open(info, ep, static_cast<uint8_t>(interface));
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
