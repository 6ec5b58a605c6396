#include "modem-probing.hpp"

#include "at_channel.hpp"
#include "core-device.hpp"
#include "core.hpp"
#include "port.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../at_channel.c";
constexpr char in_at_handshake[] = "at_handshake";
constexpr at_command echo_off_command = {"ATE0", "", AT_NO_INFORMATION, timeouts::at_echo_off, 60};
constexpr at_command model_command = {"AT#CGMM", "#CGMM:", AT_SINGLE_LINE, timeouts::at_query, 3};
constexpr at_command model_fallback_command = {"AT+GMM", "", AT_SINGLE_LINE, timeouts::at_query, 3};
constexpr at_command imei_command = {"AT#CGSN", "#CGSN:", AT_SINGLE_LINE, timeouts::at_query, 3};
constexpr at_command versions_command = {"AT#SWPKGV", "", AT_SEVERAL_LINES, timeouts::at_query, 3};

constexpr int echo_off_tries = 11;
constexpr int version_lines = 4;
constexpr size_t line_size = 128;

using information_query = int (*)(int device, modem *m);
constexpr information_query no_queries[] = {nullptr};
constexpr information_query usb_queries[] = {get_imei, get_swpkgv, nullptr};

const information_query *queries_of(uint32_t mode)
{
    return mode == PROBING_USB ? usb_queries : no_queries;
}

// Sends a copy of the command with a fresh response; CORE_EPROTO when the modem refuses it.
int ask(int device, const at_command &command, at_response *response)
{
    at_command sent = command;
    *response = {};
    const int err = at_send_command(device, &sent, response);
    if (err != CORE_OK)
        return err;
    return response->ok == 1 ? CORE_OK : CORE_EPROTO;
}

int configure_port(int device, const modem *m)
{
    if (!m->is_pcie) {
        if (const int err = core_device_set_raw_mode(device); err != CORE_OK) {
            log_as(in_at_handshake, CORE_LOG_ERR, "unable to configure device");
            return err;
        }
        if (const int err = core_set_control_signals(device, true, true); err != CORE_OK) {
            log_as(in_at_handshake, CORE_LOG_ERR, "unable to set control signals");
            return err;
        }
    }
    if (m->probing_mode == PROBING_PORT && core_device_set_baud_rate(device, 115200) != CORE_OK)
        log_as(in_at_handshake, CORE_LOG_WRN, "unable to set baudrate");
    return CORE_OK;
}

} // namespace

int turn_off_echo(int device)
{
    int err = CORE_EPROTO;
    for (int i = 0; i < echo_off_tries; ++i) {
        at_response response;
        err = ask(device, echo_off_command, &response);
        if (err == CORE_OK)
            return CORE_OK;
        if (sigint_detected != 0)
            return CORE_ECANCELED;
        core_sleep(timeouts::echo_off_pause);
        if (response.ok == 1)
            return err;
        err = CORE_EPROTO;
    }
    return err;
}

int get_model(int device, modem *m)
{
    at_response response;
    int err = ask(device, model_command, &response);
    if (err == CORE_EPROTO && response.final[0] != '\0')
        err = ask(device, model_fallback_command, &response);
    if (err != CORE_OK)
        return err;
    char line[line_size];
    err = at_get_line(&model_command, &response, line, sizeof line);
    if (err == CORE_OK)
        strlcpy(m->model_name, line, sizeof m->model_name);
    return err;
}

int get_imei(int device, modem *m)
{
    at_response response;
    int err = ask(device, imei_command, &response);
    if (err != CORE_OK)
        return err;
    char line[line_size];
    err = at_get_line(&imei_command, &response, line, sizeof line);
    if (err == CORE_OK)
        strlcpy(m->imei, line, sizeof m->imei);
    return err;
}

int get_swpkgv(int device, modem *m)
{
    at_response response;
    if (const int err = ask(device, versions_command, &response); err != CORE_OK)
        return err;
    for (int i = 0; i < version_lines; ++i) {
        char line[sizeof m->versions];
        if (const int err = at_get_line(&versions_command, &response, line, sizeof line); err != CORE_OK)
            return err;
        strlcat(m->versions, line, sizeof m->versions);
        if (i + 1 < version_lines)
            strlcat(m->versions, ";", sizeof m->versions);
    }
    log_dbg("at#swpkgv: %s", m->versions);
    return CORE_OK;
}

int at_handshake(const char *path, int *device, modem *m)
{
    log_dbg("device path: %s", path);
    owned_port port;
    if (const int err = open_port(path, port.receive()); err != CORE_OK) {
        log_err("unable to open device path %s", path);
        return err;
    }
    if (const int err = configure_port(port.get(), m); err != CORE_OK)
        return err;
    if (const int err = turn_off_echo(port.get()); err != CORE_OK) {
        log_err("unable to turn off echo");
        return err;
    }
    if (const int err = get_model(port.get(), m); err != CORE_OK) {
        log_err("unable to get model name");
        return err;
    }
    *device = port.release();
    return CORE_OK;
}

int collect_modem_basic_information(modem *m, bool skip)
{
    if (skip)
        return CORE_OK;
    const modem_port_record *const port = find_port(m, PORT_AT);
    if (port == nullptr) {
        log_err("no AT port");
        return CORE_ENODEV;
    }
    owned_port device;
    if (const int err = at_handshake(port->port_name, device.receive(), m); err != CORE_OK) {
        log_err("fail to get AT command answer on port %s", port->port_name);
        return err;
    }
    int err = CORE_OK;
    const information_query *const queries = queries_of(m->probing_mode);
    for (int i = 0; queries[i] != nullptr && err == CORE_OK; ++i) {
        err = queries[i](device.get(), m);
        if (err != CORE_OK)
            log_err("failed command at index %d", i);
    }
    return err;
}

int collect_modem_array_basic_information(modem *modems, uint8_t count, bool skip)
{
    int result = CORE_EINVAL;
    for (uint8_t i = 0; i < count; ++i) {
        if (modems[i].probing_mode == PROBING_UNKNOWN)
            continue;
        result = collect_modem_basic_information(&modems[i], skip);
        if (result != CORE_OK && result != CORE_ENODEV) {
            log_dbg("unable to properly probe modem at index %d or no AT ports found", i);
            return result;
        }
    }
    return result;
}
