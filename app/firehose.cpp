#include "firehose.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "interrupt.hpp"
#include "modem-table.hpp"
#include "port.hpp"
#include "run-lock.hpp"
#include "write-all.hpp"
#include "xml.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../firehose.c";
constexpr char in_send_config[] = "send_config";
constexpr char ping_request[] = "<?xml version=\"1.0\"?>\n<data>\n<nop value=\"ping\"/>\n</data>\n";
constexpr char configure_request[] =
    "<?xml version=\"1.0\"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes=\"%u\" MemoryName=\"%s\" />\n</data>\n";
constexpr char reset_request[] =
    "<?xml version=\"1.0\"?>\n<data>\n<power value=\"reset\" DelayInSeconds=\"3\"/>\n</data>\n";
constexpr char memory_name[] = "nand";
constexpr char supported_payload[] = "MaxPayloadSizeToTargetInBytesSupported";
constexpr std::string_view ack = "value=\"ACK\"";
constexpr int max_empty_chunks = 10;
constexpr int max_stray_chunks = 64;            // what still comes after them never ends
constexpr uint32_t max_payload_size = 1U << 30; // one read and one transfer still move as much

int open_endpoint(core_endpoint *endpoint)
{
    static core_device_info info;
    memset(&info, 0, sizeof info);
    snprintf(info.vid, sizeof info.vid, "%x", QDL_DEVICE.vid);
    snprintf(info.pid, sizeof info.pid, "%x", QDL_DEVICE.pid);
    if (const int err = hold_usb_devices(QDL_DEVICE); err != CORE_OK)
        return err;
    const int err = core_usb_endpoint_open(&info, endpoint);
    if (err != CORE_OK)
        core_usb_endpoint_close(endpoint); // a kernel driver that did not let go leaves it open
    return err;
}

int open_serial(const modem *m, int32_t *handle)
{
    const modem_port_record *const port = find_port(m, PORT_FIRMWARE_UPDATE);
    return open_port(port != nullptr ? port->port_name : "", handle);
}

// One chunk of what waits already; an empty one where nothing does.
int take_chunk(firehose_device *device, firehose_chunk *chunk)
{
    if (device->serial_handle != 0)
        return firehose_read(device, timeouts::stray_answer, chunk);
    memset(chunk, 0, sizeof *chunk);
    int transferred = 0;
    const int err = core_usb_endpoint_take(&device->endpoint, chunk->text, sizeof chunk->text - 1,
                                           timeouts::stray_answer, &transferred);
    chunk->size = static_cast<size_t>(transferred);
    return err;
}

// Takes the programmer's counter-offer out of a NAK.
int take_counter_offer(const firehose_chunk &chunk, uint32_t *payload)
{
    if (!get_uint_attribute(chunk.text, supported_payload, payload)) {
        log_as(in_send_config, CORE_LOG_ERR,
               "Failed to retrieve MaxPayloadSizeToTargetInBytesSupported attribute");
        return CORE_EGENERIC;
    }
    if (*payload == 0 || *payload > max_payload_size) {
        log_as(in_send_config, CORE_LOG_ERR,
               "the programmer supports a payload of %u bytes, which cannot be used", *payload);
        return CORE_EPROTO;
    }
    return CORE_OK;
}

} // namespace

int firehose_open(const modem *m, firehose_device *device)
{
    return m->is_pcie ? open_serial(m, &device->serial_handle) : open_endpoint(&device->endpoint);
}

void firehose_close(firehose_device *device)
{
    if (device->serial_handle != 0)
        close_port(device->serial_handle);
    else
        core_usb_endpoint_close(&device->endpoint);
}

int firehose_read(firehose_device *device, unsigned timeout_ms, firehose_chunk *chunk)
{
    constexpr size_t room = sizeof chunk->text - 1;
    memset(chunk, 0, sizeof *chunk);
    if (device->serial_handle != 0)
        return outlast_interrupt([=] {
            return core_device_read_timeout(device->serial_handle, chunk->text, room, timeout_ms,
                                            &chunk->size);
        });
    int transferred = 0;
    const int err = core_usb_endpoint_read(&device->endpoint, chunk->text, room, &transferred);
    chunk->size = transferred > 0 ? static_cast<size_t>(transferred) : 0;
    return err;
}

bool firehose_has_ack(const firehose_chunk *chunk)
{
    return text_contains(chunk->text, ack);
}

bool firehose_has_nak(const firehose_chunk *chunk)
{
    return text_contains(chunk->text, "value=\"NAK\"");
}

bool firehose_has_ack_of(const firehose_chunk *chunk, raw_mode awaited)
{
    const std::string_view other = awaited == raw_mode::on ? "rawmode=\"false\"" : "rawmode=\"true\"";
    const std::string_view text = chunk->text;
    for (size_t found = text.find(ack); found != text.npos; found = text.find(ack, found + 1)) {
        const size_t begin = text.rfind('<', found) + 1; // 0 where there is none
        const std::string_view element = text_before(chunk->text + begin, "<>");
        if (!text_contains(element, other))
            return true;
    }
    return false;
}

int drain_answers(firehose_device *device)
{
    for (int i = 0; i < max_stray_chunks; ++i) {
        firehose_chunk chunk;
        if (take_chunk(device, &chunk) != CORE_OK || chunk.size == 0)
            return CORE_OK; // what is wrong with the connection, the request meets
        if (firehose_has_nak(&chunk)) {
            log_err("%s", chunk.text);
            return CORE_EGENERIC;
        }
        if (firehose_has_ack(&chunk))
            log_wrn("an answer too many: %s", chunk.text);
        else
            log_dbg("%s", chunk.text);
    }
    return CORE_OK;
}

int answer_guard::check(const firehose_chunk *chunk)
{
    empty_chunks_ = chunk->size == 0 ? empty_chunks_ + 1 : 0;
    if (empty_chunks_ == max_empty_chunks) {
        log_err("the programmer sends empty answers only");
        return CORE_EPROTO;
    }
    if (limit_.passed()) {
        log_err("the programmer sends everything but an answer");
        return CORE_EPROTO;
    }
    return CORE_OK;
}

int firehose_write(firehose_device *device, const void *buf, size_t len)
{
    return write_all(buf, len, back_pressure::retry,
                     [device](const void *rest, size_t size, size_t *written) {
                         if (device->serial_handle != 0)
                             return core_device_write(device->serial_handle, rest, size, written);
                         int transferred = 0;
                         const int err = core_usb_endpoint_write(&device->endpoint, rest, size, &transferred);
                         *written = transferred > 0 ? static_cast<size_t>(transferred) : 0;
                         return err;
                     });
}

int read_ack_nack(firehose_device *device, raw_mode awaited)
{
    answer_guard guard;
    for (;;) {
        firehose_chunk chunk;
        if (firehose_read(device, timeouts::ack, &chunk) != CORE_OK || chunk.size == 0)
            return must_end_at_once() ? CORE_ECANCELED : CORE_EGENERIC;
        log_dbg("%s", chunk.text);
        if (firehose_has_ack_of(&chunk, awaited))
            return CORE_OK;
        if (firehose_has_nak(&chunk)) {
            log_err("%s", chunk.text);
            return CORE_EGENERIC;
        }
        if (const int err = guard.check(&chunk); err != CORE_OK)
            return err;
    }
}

int generic_ack_nack_request(firehose_device *device, const char *xml, raw_mode awaited)
{
    if (const int err = drain_answers(device); err != CORE_OK)
        return err;
    log_dbg("sending request: %s", xml);
    int err = firehose_write(device, xml, strlen(xml));
    if (err != CORE_OK) {
        log_err("error %u sending request:", static_cast<unsigned>(err));
        log_err("%s", xml);
        return err;
    }
    err = read_ack_nack(device, awaited);
    if (err != CORE_OK)
        log_err("error sending reading ack/nack %u", static_cast<unsigned>(err));
    return err;
}

int send_nop(firehose_device *device)
{
    return generic_ack_nack_request(device, ping_request);
}

int get_config_xml(owned_text *out, uint32_t payload, const char *memory)
{
    *out = format_text(configure_request, payload, memory);
    return *out != nullptr ? static_cast<int>(strlen(out->get())) : -1;
}

int send_config(firehose_device *device, uint32_t *payload)
{
    owned_text request;
    if (get_config_xml(&request, *payload, memory_name) < 0) {
        log_err("error in get_config_xml");
        return CORE_ENOMEM;
    }
    if (const int err = drain_answers(device); err != CORE_OK)
        return err;
    if (const int err = firehose_write(device, request.get(), strlen(request.get())); err != CORE_OK) {
        log_err("error sending config %u", static_cast<unsigned>(err));
        return err;
    }
    answer_guard guard;
    for (;;) {
        firehose_chunk chunk;
        if (firehose_read(device, timeouts::configure, &chunk) != CORE_OK || chunk.size == 0)
            return CORE_EGENERIC;
        log_dbg("%s", chunk.text);
        if (firehose_has_ack(&chunk))
            return CORE_OK;
        if (firehose_has_nak(&chunk)) {
            log_dbg("%s", chunk.text);
            return take_counter_offer(chunk, payload);
        }
        if (const int err = guard.check(&chunk); err != CORE_OK)
            return err;
    }
}

int send_reset(firehose_device *device, bool wait_for_bsp_target_reset)
{
    if (const int err = firehose_write(device, reset_request, sizeof reset_request - 1); err != CORE_OK) {
        log_err("error sending reset %u", static_cast<unsigned>(err));
        return err;
    }
    // The modem may be gone before it has answered.
    static_cast<void>(wait_reset_response(device, wait_for_bsp_target_reset));
    core_sleep(timeouts::after_reset);
    return CORE_OK;
}

int wait_reset_response(firehose_device *device, bool wait_for_bsp_target_reset)
{
    bool ack_seen = false;
    bool target_reset_seen = false;
    answer_guard guard;
    for (;;) {
        firehose_chunk chunk;
        if (const int err = firehose_read(device, timeouts::reset_answer, &chunk); err != CORE_OK)
            return err;
        if (const int err = guard.check(&chunk); err != CORE_OK)
            return err;
        if (chunk.size == 0)
            continue;
        log_dbg("%s", chunk.text);
        target_reset_seen = target_reset_seen || text_contains(chunk.text, "bsp_target_reset");
        ack_seen = ack_seen || firehose_has_ack(&chunk);
        if (firehose_has_nak(&chunk)) {
            log_err("%s", chunk.text);
            return CORE_EGENERIC;
        }
        if (wait_for_bsp_target_reset && ack_seen && target_reset_seen) {
            log_dbg("successfully received ack and bsp_target_reset about the reset command");
            return CORE_OK;
        }
        if (!wait_for_bsp_target_reset && ack_seen) {
            log_dbg("successfully received ack about the reset command");
            return CORE_OK;
        }
        core_sleep(timeouts::reset_pause);
    }
}
