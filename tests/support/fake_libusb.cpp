#include "fake_libusb.hpp"

#include "restored-state.hpp"
#include "timeouts.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <libusb.h>
#include <memory>

// The opaque types of libusb are whatever this stand-in needs.
struct libusb_context {};
struct libusb_device {
    const fake_device *description;
};
struct libusb_device_handle {
    libusb_device device;
};

namespace {

const restored_state restored([] { fake_libusb::instance().reset(); },
                              [] { fake_libusb::instance().verify(); });

fake_libusb &fake()
{
    return fake_libusb::instance();
}

std::string format(const char *text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *text, ...)
{
    char buffer[128];
    va_list arguments;
    va_start(arguments, text);
    vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

// A configuration descriptor with everything that it points to.
struct built_config {
    libusb_config_descriptor config{};
    std::vector<libusb_interface> interfaces;
    std::vector<std::vector<libusb_interface_descriptor>> settings;
    std::vector<std::vector<std::vector<libusb_endpoint_descriptor>>> endpoints;
};
std::vector<std::unique_ptr<built_config>> built;

libusb_config_descriptor *build_config(const fake_device &device)
{
    auto made = std::make_unique<built_config>();
    const size_t count = device.interfaces.size();
    made->interfaces.resize(count);
    made->settings.resize(count);
    made->endpoints.resize(count);
    for (size_t i = 0; i < count; ++i) {
        const fake_interface &source = device.interfaces[i];
        made->settings[i].resize(source.settings.size());
        made->endpoints[i].resize(source.settings.size());
        for (size_t s = 0; s < source.settings.size(); ++s) {
            for (const fake_endpoint &e : source.settings[s]) {
                libusb_endpoint_descriptor d{};
                d.bEndpointAddress = e.address;
                d.bmAttributes = e.attributes;
                d.wMaxPacketSize = e.max_packet_size;
                made->endpoints[i][s].push_back(d);
            }
            libusb_interface_descriptor &setting = made->settings[i][s];
            setting.bInterfaceNumber = source.number;
            setting.bAlternateSetting = static_cast<uint8_t>(s);
            setting.bNumEndpoints = static_cast<uint8_t>(source.settings[s].size());
            setting.endpoint = made->endpoints[i][s].data();
        }
        made->interfaces[i].altsetting = made->settings[i].data();
        made->interfaces[i].num_altsetting = static_cast<int>(source.settings.size());
    }
    made->config.bNumInterfaces = static_cast<uint8_t>(count);
    made->config.interface = made->interfaces.data();
    built.push_back(std::move(made));
    return &built.back()->config;
}

const fake_interface *find_interface(const libusb_device_handle *handle, int number)
{
    for (const fake_interface &interface : handle->device.description->interfaces) {
        if (interface.number == number)
            return &interface;
    }
    ADD_FAILURE() << "no interface " << number;
    return nullptr;
}

std::vector<std::unique_ptr<libusb_device>> listed;

} // namespace

fake_libusb &fake_libusb::instance()
{
    static fake_libusb only;
    return only;
}

void fake_libusb::reset()
{
    *this = {};
    built.clear();
    listed.clear();
}

void fake_libusb::verify()
{
    EXPECT_TRUE(transfers.empty()) << transfers.size() << " expected transfers never came";
    EXPECT_EQ(open_contexts, 0);
    EXPECT_EQ(open_handles, 0);
    EXPECT_EQ(open_lists, 0);
    EXPECT_EQ(open_descriptors, 0);
    EXPECT_EQ(open_claims, 0);
}

extern "C" {

int libusb_init(libusb_context **context)
{
    fake().calls.emplace_back("init");
    if (fake().init_result != 0)
        return fake().init_result;
    ++fake().open_contexts;
    *context = new libusb_context;
    return 0;
}

void libusb_exit(libusb_context *context)
{
    fake().calls.emplace_back("exit");
    --fake().open_contexts;
    delete context;
}

// The enumeration as last named parameter is libusb's own declaration.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
int libusb_set_option(libusb_context *, libusb_option option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    fake().calls.push_back(format("option %d", va_arg(arguments, int)));
    va_end(arguments);
    EXPECT_EQ(option, LIBUSB_OPTION_LOG_LEVEL);
    return 0;
}
#pragma GCC diagnostic pop

libusb_device_handle *libusb_open_device_with_vid_pid(libusb_context *, uint16_t vid, uint16_t pid)
{
    fake().calls.push_back(format("open %04x:%04x", vid, pid));
    for (const fake_device &device : fake().devices) {
        if (device.vid == vid && device.pid == pid && device.open_result == 0) {
            ++fake().open_handles;
            return new libusb_device_handle{{&device}};
        }
    }
    return nullptr;
}

ssize_t libusb_get_device_list(libusb_context *, libusb_device ***list)
{
    fake().calls.emplace_back("list");
    if (fake().device_list_result < 0)
        return fake().device_list_result;
    ++fake().open_lists;
    const size_t count = fake().devices.size();
    *list = new libusb_device *[count + 1]();
    for (size_t i = 0; i < count; ++i) {
        listed.push_back(std::make_unique<libusb_device>(libusb_device{&fake().devices[i]}));
        (*list)[i] = listed.back().get();
    }
    return static_cast<ssize_t>(count);
}

void libusb_free_device_list(libusb_device **list, int unref)
{
    fake().calls.push_back(format("free list %d", unref));
    --fake().open_lists;
    delete[] list;
}

int libusb_open(libusb_device *device, libusb_device_handle **handle)
{
    fake().calls.push_back(format("open %04x:%04x", device->description->vid, device->description->pid));
    if (device->description->open_result != 0)
        return device->description->open_result;
    ++fake().open_handles;
    *handle = new libusb_device_handle{*device};
    return 0;
}

void libusb_close(libusb_device_handle *handle)
{
    fake().calls.emplace_back("close");
    --fake().open_handles;
    delete handle;
}

libusb_device *libusb_get_device(libusb_device_handle *handle)
{
    return fake().no_device_of_handle ? nullptr : &handle->device;
}

uint8_t libusb_get_bus_number(libusb_device *device)
{
    return device->description->bus;
}

int libusb_get_port_numbers(libusb_device *device, uint8_t *numbers, int size)
{
    const auto &ports = device->description->ports;
    if (device->description->port_overflow || ports.size() > static_cast<size_t>(size))
        return LIBUSB_ERROR_OVERFLOW;
    std::copy(ports.begin(), ports.end(), numbers);
    return static_cast<int>(ports.size());
}

int libusb_get_active_config_descriptor(libusb_device *device, libusb_config_descriptor **config)
{
    if (device->description->config_result != 0)
        return device->description->config_result;
    ++fake().open_descriptors;
    *config = build_config(*device->description);
    return 0;
}

void libusb_free_config_descriptor(libusb_config_descriptor *)
{
    --fake().open_descriptors;
}

int libusb_kernel_driver_active(libusb_device_handle *handle, int number)
{
    const fake_interface *const interface = find_interface(handle, number);
    return interface != nullptr && interface->driver_active ? 1 : 0;
}

int libusb_detach_kernel_driver(libusb_device_handle *handle, int number)
{
    fake().calls.push_back(format("detach %d", number));
    const fake_interface *const interface = find_interface(handle, number);
    if (interface == nullptr || interface->detach_result != 0)
        return interface == nullptr ? LIBUSB_ERROR_NOT_FOUND : interface->detach_result;
    const_cast<fake_interface *>(interface)->driver_active = false;
    return 0;
}

int libusb_claim_interface(libusb_device_handle *, int number)
{
    fake().calls.push_back(format("claim %d", number));
    if (fake().claim_result != 0)
        return fake().claim_result;
    ++fake().open_claims;
    return 0;
}

int libusb_release_interface(libusb_device_handle *, int number)
{
    if (fake().looking) {
        fake().looking = false;
        --fake().open_claims;
        return 0;
    }
    fake().calls.push_back(format("release %d", number));
    --fake().open_claims;
    return 0;
}

int libusb_bulk_transfer(libusb_device_handle *, unsigned char endpoint, unsigned char *data, int length,
                         int *transferred, unsigned timeout)
{
    fake_libusb &f = fake();
    const bool in = (endpoint & 0x80) != 0;
    if (in && timeout == timeouts::stray_answer) {
        ++f.looks;
        if (f.transfers.empty() || !f.transfers.front().waits) {
            f.looking = true;
            f.calls.pop_back(); // the claim
            *transferred = 0;
            return LIBUSB_ERROR_TIMEOUT;
        }
    }
    f.calls.push_back(format("%s %02x %d", in ? "in" : "out", endpoint, length));
    f.timeouts.push_back(timeout);
    EXPECT_EQ(f.open_claims, 1) << "a transfer without a claimed interface";
    if (!in && f.sink) {
        f.sink(data, length);
        *transferred = length;
        return 0;
    }
    if (!in)
        f.written.emplace_back(reinterpret_cast<char *>(data), static_cast<size_t>(length));
    if (f.transfers.empty()) {
        ADD_FAILURE() << "unexpected transfer: " << f.calls.back();
        return LIBUSB_ERROR_OTHER;
    }
    const fake_transfer expected = f.transfers.front();
    f.transfers.pop_front();
    EXPECT_EQ(endpoint, expected.endpoint);
    if (in) {
        const size_t count = std::min(expected.data.size(), static_cast<size_t>(length));
        memcpy(data, expected.data.data(), count);
        *transferred = static_cast<int>(count);
    } else {
        if (!expected.any_data) {
            EXPECT_EQ(f.written.back(), expected.data);
        }
        *transferred = expected.moved >= 0 ? expected.moved : length;
    }
    return expected.result;
}

} // extern "C"
