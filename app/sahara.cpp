#include "sahara.hpp"

#include "core-device.hpp"
#include "core-file.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "log-output.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "write-all.hpp"
#include "zepho-log.hpp"

#include <cinttypes>

static constexpr char log_source[] = "../sahara.c";

namespace {

enum command_id : uint32_t {
    HELLO = 1,
    HELLO_RESPONSE = 2,
    READ_DATA = 3,
    END_IMAGE_TX = 4,
    DONE = 5,
    DONE_RESPONSE = 6,
    RESET = 7,
    READ_DATA_64BIT = 18,
    RESET_STATE_MACHINE = 19,
    ENTER_DOWNLOAD_MODE = 240,        // the maker's own
    DOWNLOAD_MODE_ACKNOWLEDGED = 241, // the maker's own
};

constexpr size_t header_size = 8;
constexpr size_t hello_size = 48;
constexpr size_t read_data_size = 20;
constexpr size_t end_image_size = 16;
constexpr size_t read_data_64bit_size = 32;
constexpr size_t done_response_size = 12;

constexpr uint32_t hello_mode_restart = 2;
constexpr uint32_t default_version = 2;
constexpr uint32_t default_compatible_version = 1;
constexpr int max_packets = 10; // read in search of one that is awaited
constexpr uint32_t tolerant_platform = 0;

uint32_t get_u32(const uint8_t *packet, size_t offset)
{
    uint32_t value = 0;
    core_letoh(&value, sizeof value, packet + offset, sizeof value);
    return value;
}

uint64_t get_u64(const uint8_t *packet, size_t offset)
{
    uint64_t value = 0;
    core_letoh(&value, sizeof value, packet + offset, sizeof value);
    return value;
}

void put_u32(uint8_t *packet, size_t offset, uint32_t value)
{
    core_htole(packet + offset, sizeof value, &value, sizeof value);
}

int send_bytes(int port, const void *data, size_t size)
{
    return write_all(data, size, back_pressure::retry,
                     [port](const void *rest, size_t length, size_t *written) {
                         return core_device_write(port, rest, length, written);
                     });
}

int send_header(int port, uint32_t command)
{
    uint8_t packet[header_size];
    put_u32(packet, 0, command);
    put_u32(packet, 4, header_size);
    return send_bytes(port, packet, sizeof packet);
}

bool is_read_request(uint32_t command)
{
    return command == READ_DATA || command == READ_DATA_64BIT;
}

// One upload: the open port and file, and the latest packet of the boot loader.
struct upload {
    int port;
    int file;
    const char *path;
    uint64_t file_size;
    size_t request_size; // of every request, as the first one sets it
    uint8_t packet[read_data_64bit_size];
};

enum class step { served, image_sent, ended };

// A packet that is cut short must not be completed by what was left of the one before.
int read_packet(int port, uint8_t (&packet)[read_data_64bit_size], size_t size, size_t *count)
{
    memset(packet, 0, sizeof packet);
    return core_device_read_timeout(port, packet, size, timeouts::read_request, count);
}

// Reads the first request, which fixes the request size. `*ended` is set when the upload ends with the
// result.
int read_first_request(int port, uint8_t (&packet)[read_data_64bit_size], bool *ended)
{
    static constexpr char function[] = "send_programmer";
    *ended = true;
    for (int i = 0; i < max_packets && !is_read_request(get_u32(packet, 0)); ++i) {
        size_t count = 0;
        const int err = read_packet(port, packet, sizeof packet, &count);
        if (err != CORE_OK) {
            log_as(function, CORE_LOG_ERR, "error %u", static_cast<unsigned>(err));
            return err;
        }
        if (count < header_size) {
            log_as(function, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
            return CORE_OK; // as after a successful upload, on purpose
        }
    }
    if (!is_read_request(get_u32(packet, 0))) {
        log_as(function, CORE_LOG_ERR, "read_data from modem expected instead of cmd %u", get_u32(packet, 0));
        return CORE_EIO;
    }
    *ended = false;
    return CORE_OK;
}

void show_progress(const upload &u, uint64_t offset, uint64_t length)
{
    static constexpr char function[] = "send_programmer";
    core_log_progress(log_source, function, __LINE__, static_cast<int64_t>(offset),
                      static_cast<int64_t>(u.file_size), u.path);
    log_as(function, CORE_LOG_DBG, "Sending %" PRIu64 " bytes at offset %" PRIu64, length, offset);
}

// Sends one block of the file. `*ended` is set when the upload ends with the result.
int send_block(const upload &u, uint64_t offset, uint64_t length, bool *ended)
{
    static constexpr char function[] = "send_programmer";
    *ended = true;
    // A block never holds more than the file does. What goes beyond it is a short read, and so is a length of
    // 4 GiB or more: one read never brings as much.
    const uint64_t readable = length < u.file_size ? length : u.file_size;
    const owned_bytes block(readable >= SIZE_MAX
                                ? nullptr
                                : static_cast<unsigned char *>(malloc(static_cast<size_t>(readable) + 1)));
    if (block == nullptr) {
        log_as(function, CORE_LOG_ERR, "memory failure");
        return CORE_ENOMEM;
    }
    if (const int err = core_file_seek(u.file, static_cast<int64_t>(offset)); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "lseek error at %" PRIu64, offset);
        return err;
    }
    size_t count = 0;
    int err = core_file_read(u.file, block.get(), static_cast<size_t>(readable), &count);
    if (err != CORE_OK || count != length) {
        log_as(function, CORE_LOG_ERR, "error %u reading %" PRIu64 " bytes (read %u bytes)",
               static_cast<unsigned>(err), length, static_cast<unsigned>(count));
        return err; // 0 after a short read, on purpose
    }
    err = send_bytes(u.port, block.get(), count);
    if (err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error %u sending buffer", static_cast<unsigned>(err));
        return err;
    }
    *ended = false;
    return CORE_OK;
}

// Serves the request in hand and reads the next packet.
step serve_request(upload *u, int *result)
{
    static constexpr char function[] = "send_programmer";
    const bool is_64bit = u->request_size == read_data_64bit_size;
    const uint64_t offset = is_64bit ? get_u64(u->packet, 16) : get_u32(u->packet, 12);
    const uint64_t length = is_64bit ? get_u64(u->packet, 24) : get_u32(u->packet, 16);
    show_progress(*u, offset, length);
    bool ended = false;
    *result = send_block(*u, offset, length, &ended);
    if (ended)
        return step::ended;
    size_t count = 0;
    *result = read_packet(u->port, u->packet, u->request_size, &count);
    if (*result != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error %u", static_cast<unsigned>(*result));
        return step::ended;
    }
    if (count < end_image_size) {
        log_as(function, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
        return step::ended; // as after a successful upload, on purpose
    }
    const uint32_t command = get_u32(u->packet, 0);
    if (is_read_request(command))
        return step::served;
    if (command == END_IMAGE_TX)
        return step::image_sent;
    log_as(function, CORE_LOG_ERR, "unexpected command %u", command);
    *result = CORE_EGENERIC;
    return step::ended;
}

// The status of a good DONE response differs by platform.
int check_done_status(uint32_t status, uint32_t platform)
{
    static constexpr char function[] = "send_programmer";
    if (platform == tolerant_platform && status != 0) {
        log_as(function, CORE_LOG_ERR, "error done response status is %d", static_cast<int>(status));
        return CORE_EGENERIC;
    }
    if (platform != tolerant_platform && status != 1) {
        log_as(function, CORE_LOG_ERR, "modem expecting another image");
        return CORE_EGENERIC;
    }
    return CORE_OK;
}

int finish_upload(int port, uint32_t platform)
{
    static constexpr char function[] = "send_programmer";
    if (const int err = send_header(port, DONE); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error %u sending done", static_cast<unsigned>(err));
        return err;
    }
    uint8_t packet[done_response_size] = {};
    size_t count = 0;
    const int err = core_device_read_timeout(port, packet, sizeof packet, timeouts::done_response, &count);
    if (err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error %u", static_cast<unsigned>(err));
        return err;
    }
    if (const uint32_t command = get_u32(packet, 0); command != DONE_RESPONSE) {
        log_as(function, CORE_LOG_ERR, "unexpected command %u", command);
        return CORE_EGENERIC;
    }
    return check_done_status(get_u32(packet, header_size), platform);
}

// Opens the programmer and tells its size.
int open_programmer(const char *path, owned_file *file, uint64_t *size)
{
    static constexpr char function[] = "send_programmer";
    if (const int err = core_file_open(path, file->receive()); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "unable to open programmer image %u", static_cast<unsigned>(err));
        return err;
    }
    int64_t bytes = 0;
    if (const int err = core_file_get_size(file->get(), &bytes); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "unable to get bin file size %u", static_cast<unsigned>(err));
        return err;
    }
    if (bytes == 0) {
        log_as(function, CORE_LOG_ERR, "programmer image %s is empty", path);
        return CORE_EINVAL;
    }
    *size = static_cast<uint64_t>(bytes);
    return CORE_OK;
}

enum class hello { answered, retry };

// Reads one HELLO and answers it, unless it has to be asked for again; `*result` is the handshake's then.
hello receive_hello(int port, uint32_t platform, int *result)
{
    static constexpr char function[] = "hello_handshake";
    uint8_t packet[hello_size] = {};
    size_t count = 0;
    *result = core_device_read_timeout(port, packet, header_size, timeouts::hello_header, &count);
    if (*result != CORE_OK) {
        if (*result != CORE_ETIMEDOUT)
            log_as(function, CORE_LOG_ERR, "error %d", *result);
        if (platform != tolerant_platform)
            return hello::retry;
        if (*result == CORE_ETIMEDOUT) {
            sahara::send_hello_response(port, default_version, default_compatible_version);
            *result = CORE_OK;
        }
        return hello::answered;
    }
    if (count < header_size) {
        log_as(function, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
        return hello::retry;
    }
    if (const uint32_t command = get_u32(packet, 0); command != HELLO) {
        log_as(function, CORE_LOG_ERR, "hello from modem expected instead of cmd %u", command);
        core_print_buffer_to_level(packet, sizeof packet, 16, CORE_LOG_ERR);
        return hello::retry;
    }
    *result = core_device_read_timeout(port, packet + header_size, hello_size - header_size,
                                       timeouts::hello_remainder, &count);
    if (*result != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error reading the HELLO packet remainder %d", *result);
        *result = CORE_EPROTO;
        return hello::answered;
    }
    if (count < hello_size - header_size) {
        log_as(function, CORE_LOG_ERR, "bogus HELLO packet size %u", static_cast<unsigned>(count));
        *result = CORE_EPROTO;
        return hello::answered;
    }
    *result = get_u32(packet, 20) == hello_mode_restart
                  ? sahara::send_zepho_qdl_cmd(port)
                  : sahara::send_hello_response(port, get_u32(packet, 8), get_u32(packet, 12));
    return hello::answered;
}

// Throws away what the modem sent long ago; a lone HELLO is kept.
void drop_stale_packets(int port)
{
    core_sleep(timeouts::sahara_settle);
    int waiting = 0;
    if (core_device_get_bytes_available(port, &waiting) == CORE_OK &&
        waiting > static_cast<int>(hello_size)) {
        log_as("sahara_send_programmer", CORE_LOG_DBG, "Flush port");
        sahara::flush_port(port);
    }
}

} // namespace

namespace sahara {

int flush_port(int port)
{
    char chunk[1024 + 1];
    const time_limit limit(timeouts::flush_in_all);
    size_t count = 0;
    int err = CORE_OK;
    do {
        memset(chunk, 0, sizeof chunk);
        err = core_device_read_timeout(port, chunk, sizeof chunk - 1, timeouts::flush, &count);
        if (count > 0)
            log_dbg("%s", chunk);
    } while (err == CORE_OK && count > 0 && sigint_detected == 0 && !limit.passed());
    if (err != CORE_OK && err != CORE_ETIMEDOUT)
        log_err("error %d", err);
    return err;
}

int state_reset(int port)
{
    log_dbg("Flush port");
    flush_port(port);
    const int err = send_header(port, RESET_STATE_MACHINE);
    if (err != CORE_OK)
        log_err("error sending state reset command %u", static_cast<unsigned>(err));
    return err;
}

int reset_modem(int port)
{
    if (send_header(port, RESET) != CORE_OK)
        log_err("error writing command");
    log_dbg("Flush port");
    return flush_port(port);
}

int send_hello_response(int port, uint32_t version, uint32_t compatible_version)
{
    uint8_t packet[hello_size] = {}; // status, mode and the reserved words stay 0
    put_u32(packet, 0, HELLO_RESPONSE);
    put_u32(packet, 4, hello_size);
    put_u32(packet, 8, version);
    put_u32(packet, 12, compatible_version);
    const int err = send_bytes(port, packet, sizeof packet);
    if (err == CORE_OK)
        log_dbg("hello response command sent");
    else
        log_err("error sending hello_rsp %d", err);
    return err;
}

int send_zepho_qdl_cmd(int port)
{
    if (const int err = send_header(port, ENTER_DOWNLOAD_MODE); err != CORE_OK) {
        log_err("error sending hdr %d", err);
        return err;
    }
    for (int i = 0; i < max_packets; ++i) {
        uint8_t packet[hello_size] = {};
        size_t count = 0;
        const int err =
            core_device_read_timeout(port, packet, sizeof packet, timeouts::download_acknowledged, &count);
        if (err != CORE_OK) {
            log_err("error %d", err);
            return err;
        }
        if (get_u32(packet, 0) == DOWNLOAD_MODE_ACKNOWLEDGED)
            return CORE_EAGAIN;
    }
    return CORE_EPROTO;
}

int hello_handshake(int port, uint32_t platform)
{
    bool may_retry = true;
    for (;;) {
        int result = CORE_OK;
        if (receive_hello(port, platform, &result) != hello::retry)
            return result;
        if (!may_retry)
            return CORE_EPROTO;
        may_retry = false;
        log_dbg("Send state reset command");
        state_reset(port);
    }
}

int send_programmer(int port, const image_list *package)
{
    log_inf("Sending programmer");
    upload u{};
    u.port = port;
    u.path = package->programmer_path;
    bool ended = false;
    int result = read_first_request(port, u.packet, &ended);
    if (ended)
        return result;
    u.request_size = get_u32(u.packet, 0) == READ_DATA_64BIT ? read_data_64bit_size : read_data_size;
    owned_file file;
    if (const int err = open_programmer(package->programmer_path, &file, &u.file_size); err != CORE_OK)
        return err;
    u.file = file.get();
    const time_limit limit(timeouts::upload_in_all);
    step last = step::served;
    while (last == step::served && !limit.passed())
        last = serve_request(&u, &result);
    if (last == step::served) {
        log_err("the boot loader asks for more and more");
        return CORE_EPROTO;
    }
    if (last == step::ended)
        return result;
    if (const uint32_t status = get_u32(u.packet, 12); status != 0) {
        log_err("image transfer failed %u", status);
        return CORE_EGENERIC;
    }
    if (const int err = finish_upload(port, package->platform); err != CORE_OK)
        return err;
    core_log_progress_complete(log_source, __func__, __LINE__, static_cast<int64_t>(u.file_size), u.path);
    log_inf("Sent %" PRIu64 " bytes", u.file_size);
    return CORE_OK;
}

} // namespace sahara

int sahara_send_programmer(const modem *m, const image_list *package)
{
    const modem_port_record *const record = find_port(m, PORT_FIRMWARE_UPDATE);
    if (record == nullptr) {
        log_err("no sahara port found");
        return CORE_ENODEV;
    }
    owned_device port;
    if (core_device_open(record->port_name, port.receive()) != CORE_OK) {
        log_err("unable to open device path %s", record->port_name);
        return CORE_EGENERIC;
    }
    if (const int err = core_device_set_raw_mode(port.get()); err != CORE_OK) {
        log_err("Unable to configure device");
        return err;
    }
    drop_stale_packets(port.get());
    int err = sahara::hello_handshake(port.get(), package->platform);
    if (err == CORE_EAGAIN)
        return err; // the modem restarts by itself
    if (err != CORE_OK) {
        log_err("error in hello handshake");
    } else {
        err = sahara::send_programmer(port.get(), package);
        if (err == CORE_OK) {
            log_dbg("Flush port");
            sahara::flush_port(port.get());
        } else {
            log_err("error in updating the programmer");
        }
    }
    if (err != CORE_OK && err != CORE_EAGAIN) // after "try again" the caller does, with the modem as it is
        sahara::reset_modem(port.get());
    return err;
}
