#include "diag.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "port.hpp"
#include "write-all.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../diag.c";

// HDLC-framed DIAG request without an opening flag; no byte needs escaping.
constexpr uint8_t switch_frame[] = {
    0x4B,       // subsystem dispatch
    0x65,       // subsystem 101
    0x01, 0x00, // subsystem command 1
    0x54, 0x0F, // frame check sequence over the four bytes before (RFC 1662, 16-bit FCS)
    0x7E,       // closing flag
};

} // namespace

int switch_QDload_mode(const modem *m)
{
    const modem_port_record *const port = find_port(m, PORT_DIAGNOSTIC);
    if (port == nullptr) {
        log_err("no diagnostic port found");
        return CORE_ENODEV;
    }
    owned_port device;
    if (const int err = open_port(port->port_name, device.receive()); err != CORE_OK) {
        log_err("unable to open device path %s", port->port_name);
        return port_error(err);
    }
    // A modem that the scan found is found again whatever its port is called then; the scan has named the
    // holders.
    if (m->probing_mode != PROBING_USB) {
        if (const int err = refuse_port_holders(device.get(), port->port_name); err != CORE_OK)
            return err;
    }
    const auto write_some = [&device](const void *data, size_t size, size_t *written) {
        return core_device_write(device.get(), data, size, written);
    };
    const int err = write_all(switch_frame, sizeof switch_frame, back_pressure::fail, write_some);
    if (err != CORE_OK)
        log_err("error in writing the switch command");
    return err;
}
