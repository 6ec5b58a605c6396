#include "sahara.hpp"

#include "core-device.hpp"
#include "core-file.hpp"
#include "core.hpp"
#include "interrupt.hpp"
#include "log-output.hpp"
#include "package-check.hpp"
#include "port.hpp"
#include "sahara-packet.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "write-all.hpp"
#include "zepho-log.hpp"

#include <cinttypes>

namespace {

using namespace sahara;

constexpr char log_source[] = "../sahara.c";
constexpr char in_send_programmer[] = "send_programmer";
constexpr char in_hello_handshake[] = "hello_handshake";
constexpr char in_sahara_send_programmer[] = "sahara_send_programmer";
constexpr uint32_t hello_mode_restart = 2;
constexpr uint32_t default_version = 2;
constexpr uint32_t default_compatible_version = 1;
constexpr int max_packets = 10; // read in search of one that is awaited
constexpr uint32_t tolerant_platform = 0;

int send_bytes(int port, const void *data, size_t size)
{
    return write_all(data, size, back_pressure::retry,
                     [port](const void *rest, size_t length, size_t *written) {
                         return core_device_write(port, rest, length, written);
                     });
}

int send_header(int port, command_id command)
{
    const packet sent = make_packet(command, HEADER_SIZE);
    return send_bytes(port, sent.bytes.data(), HEADER_SIZE);
}

// An upload outlives an interruption.
int read_bytes(int port, void *data, size_t size, unsigned timeout_ms, size_t *count)
{
    return outlast_interrupt([=] { return core_device_read_timeout(port, data, size, timeout_ms, count); });
}

// A packet that is cut short must not be completed by what was left of the one before.
int read_packet(int port, packet *received, size_t size, unsigned timeout_ms, size_t *count)
{
    *received = {};
    return read_bytes(port, received->bytes.data(), size, timeout_ms, count);
}

// One upload: the open port and file, and the latest packet of the boot loader.
struct upload {
    int port;
    int file;
    const char *path;
    core_file_identity identity;
    uint64_t file_size;
    uint64_t missing;    // bytes that were asked for, and that the file did not give
    size_t request_size; // of every request, as the first one sets it
    packet request;
};

// Reads up to the first request, which fixes the request size.
ending read_first_request(upload *u)
{
    for (int i = 0; i < max_packets && !u->request.is_read_request(); ++i) {
        size_t count = 0;
        const int err =
            read_packet(u->port, &u->request, READ_DATA_64BIT_SIZE, timeouts::read_request, &count);
        if (err != CORE_OK) {
            log_as(in_send_programmer, CORE_LOG_ERR, "error %u", static_cast<unsigned>(err));
            return err;
        }
        if (count < HEADER_SIZE) {
            log_as(in_send_programmer, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
            return CORE_OK; // as after a successful upload, on purpose
        }
    }
    if (!u->request.is_read_request()) {
        log_as(in_send_programmer, CORE_LOG_ERR, "read_data from modem expected instead of cmd %u",
               u->request.command());
        return CORE_EIO;
    }
    u->request_size = u->request.command() == READ_DATA_64BIT ? READ_DATA_64BIT_SIZE : READ_DATA_SIZE;
    return go_on;
}

void show_progress(const upload &u, uint64_t offset, uint64_t length)
{
    core_log_progress(log_source, in_send_programmer, __LINE__, static_cast<int64_t>(offset),
                      static_cast<int64_t>(u.file_size), u.path);
    log_as(in_send_programmer, CORE_LOG_DBG, "Sending %" PRIu64 " bytes at offset %" PRIu64, length, offset);
}

// Sends one block of the file.
ending send_block(upload &u, uint64_t offset, uint64_t length)
{
    // A block never holds more than the file does. What goes beyond it is a short read, and so is a length of
    // 4 GiB or more: one read never brings as much.
    const uint64_t readable = length < u.file_size ? length : u.file_size;
    const owned_bytes block(readable >= SIZE_MAX
                                ? nullptr
                                : static_cast<unsigned char *>(malloc(static_cast<size_t>(readable) + 1)));
    if (block == nullptr) {
        log_as(in_send_programmer, CORE_LOG_ERR, "memory failure");
        return CORE_ENOMEM;
    }
    if (const int err = core_file_seek(u.file, static_cast<int64_t>(offset)); err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "lseek error at %" PRIu64, offset);
        return err;
    }
    size_t count = 0;
    int err = core_file_read(u.file, block.get(), static_cast<size_t>(readable), &count);
    if (err != CORE_OK || count != length) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error %u reading %" PRIu64 " bytes (read %u bytes)",
               static_cast<unsigned>(err), length, static_cast<unsigned>(count));
        u.missing = length - count;
        return err; // 0 after a short read, on purpose
    }
    err = send_bytes(u.port, block.get(), count);
    if (err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error %u sending buffer", static_cast<unsigned>(err));
        return err;
    }
    return go_on;
}

// Serves the request in hand and reads the next packet: another request, or the end of the image.
ending serve_request(upload *u)
{
    if (must_end_at_once())
        return CORE_ECANCELED;
    const bool is_64bit = u->request_size == READ_DATA_64BIT_SIZE;
    const uint64_t offset = u->request.get(is_64bit ? READ_OFFSET_64BIT : READ_OFFSET);
    const uint64_t length = u->request.get(is_64bit ? READ_LENGTH_64BIT : READ_LENGTH);
    show_progress(*u, offset, length);
    if (const ending end = send_block(*u, offset, length))
        return end;
    size_t count = 0;
    const int err = read_packet(u->port, &u->request, u->request_size, timeouts::read_request, &count);
    if (err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error %u", static_cast<unsigned>(err));
        return err;
    }
    if (count < END_IMAGE_SIZE) {
        log_as(in_send_programmer, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
        return CORE_OK; // as after a successful upload, on purpose
    }
    if (!u->request.is_read_request() && u->request.command() != END_IMAGE_TX) {
        log_as(in_send_programmer, CORE_LOG_ERR, "unexpected command %u", u->request.command());
        return CORE_EGENERIC;
    }
    return go_on;
}

// Serves requests until the end of the image.
ending serve_requests(upload *u)
{
    const time_limit limit(timeouts::upload_in_all);
    while (u->request.is_read_request()) {
        if (limit.passed()) {
            log_as(in_send_programmer, CORE_LOG_ERR, "the boot loader asks for more and more");
            return CORE_EPROTO;
        }
        if (const ending end = serve_request(u))
            return end;
    }
    if (const int err = check_same_file(u->file, u->path, u->identity); err != CORE_OK)
        return err;
    if (const uint32_t status = u->request.get_u32(END_IMAGE_STATUS); status != 0) {
        log_as(in_send_programmer, CORE_LOG_ERR, "image transfer failed %u", status);
        return CORE_EGENERIC;
    }
    return go_on;
}

// The status of a good DONE response differs by platform.
int check_done_status(uint32_t status, uint32_t platform)
{
    if (platform == tolerant_platform && status != 0) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error done response status is %d",
               static_cast<int>(status));
        return CORE_EGENERIC;
    }
    if (platform != tolerant_platform && status != 1) {
        log_as(in_send_programmer, CORE_LOG_ERR, "modem expecting another image");
        return CORE_EGENERIC;
    }
    return CORE_OK;
}

int finish_upload(int port, uint32_t platform)
{
    if (const int err = send_header(port, DONE); err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error %u sending done", static_cast<unsigned>(err));
        return err;
    }
    packet response;
    size_t count = 0;
    const int err = read_packet(port, &response, DONE_RESPONSE_SIZE, timeouts::done_response, &count);
    if (err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "error %u", static_cast<unsigned>(err));
        return err;
    }
    if (response.command() != DONE_RESPONSE) {
        log_as(in_send_programmer, CORE_LOG_ERR, "unexpected command %u", response.command());
        return CORE_EGENERIC;
    }
    return check_done_status(response.get_u32(DONE_STATUS), platform);
}

// Opens the programmer, which must be the one that was validated, where one was.
int open_programmer(const image_list *package, owned_file *file, upload *u)
{
    u->path = package->programmer_path;
    const bool is_known = package->programmer != core_file_identity{};
    if (const int err = is_known ? open_same_file(u->path, package->programmer, file->receive())
                                 : core_file_open_to_read(u->path, file->receive());
        err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "unable to open programmer image %u",
               static_cast<unsigned>(err));
        return err;
    }
    u->file = file->get();
    if (const int err = core_file_identify(u->file, &u->identity); err != CORE_OK) {
        log_as(in_send_programmer, CORE_LOG_ERR, "unable to get bin file size %u",
               static_cast<unsigned>(err));
        return err;
    }
    if (u->identity.size == 0) {
        log_as(in_send_programmer, CORE_LOG_ERR, "programmer image %s is empty", u->path);
        return CORE_EINVAL;
    }
    u->file_size = static_cast<uint64_t>(u->identity.size);
    return CORE_OK;
}

// What is left of a HELLO whose header has come, and the answer to it.
int answer_hello(int port, packet *hello)
{
    constexpr size_t remainder = HELLO_SIZE - HEADER_SIZE;
    size_t count = 0;
    const int err =
        read_bytes(port, hello->bytes.data() + HEADER_SIZE, remainder, timeouts::hello_remainder, &count);
    if (err != CORE_OK) {
        log_as(in_hello_handshake, CORE_LOG_ERR, "error reading the HELLO packet remainder %d", err);
        return CORE_EPROTO;
    }
    if (count < remainder) {
        log_as(in_hello_handshake, CORE_LOG_ERR, "bogus HELLO packet size %u", static_cast<unsigned>(count));
        return CORE_EPROTO;
    }
    if (hello->get_u32(HELLO_MODE) == hello_mode_restart)
        return send_zepho_qdl_cmd(port);
    return send_hello_response(port, hello->get_u32(HELLO_VERSION), hello->get_u32(HELLO_COMPATIBLE_VERSION));
}

// No HELLO came: a platform may begin without one, the others are asked for it again.
ending do_without_hello(int port, uint32_t platform, int err)
{
    if (err != CORE_ETIMEDOUT)
        log_as(in_hello_handshake, CORE_LOG_ERR, "error %d", err);
    if (platform != tolerant_platform)
        return go_on;
    if (err != CORE_ETIMEDOUT)
        return err;
    static_cast<void>(send_hello_response(port, default_version, default_compatible_version)); // logged
    return CORE_OK;
}

// Reads one HELLO and answers it; goes on when it has to be asked for again.
ending receive_hello(int port, uint32_t platform)
{
    packet hello;
    size_t count = 0;
    if (const int err = read_packet(port, &hello, HEADER_SIZE, timeouts::hello_header, &count);
        err != CORE_OK)
        return do_without_hello(port, platform, err);
    if (count < HEADER_SIZE) {
        log_as(in_hello_handshake, CORE_LOG_ERR, "bogus packet size %u", static_cast<unsigned>(count));
        return go_on;
    }
    if (hello.command() != HELLO) {
        log_as(in_hello_handshake, CORE_LOG_ERR, "hello from modem expected instead of cmd %u",
               hello.command());
        core_print_buffer_to_level(hello.bytes.data(), HELLO_SIZE, 16, CORE_LOG_ERR);
        return go_on;
    }
    return answer_hello(port, &hello);
}

// Throws away what the modem sent long ago; a lone HELLO is kept.
void drop_stale_packets(int port)
{
    core_sleep(timeouts::sahara_settle);
    int waiting = 0;
    if (core_device_get_bytes_available(port, &waiting) == CORE_OK &&
        waiting > static_cast<int>(HELLO_SIZE)) {
        log_as(in_sahara_send_programmer, CORE_LOG_DBG, "Flush port");
        static_cast<void>(flush_port(port)); // what is wrong with the port, the handshake meets
    }
}

// What the boot loader was given must be all that it asked for.
int send_whole_programmer(int port, const image_list *package)
{
    uint64_t missing = 0;
    const int err = send_programmer(port, package, &missing);
    if (err != CORE_OK || missing == 0)
        return err;
    log_as(in_sahara_send_programmer, CORE_LOG_ERR, "%" PRIu64 " bytes that were asked for are not in %s",
           missing, package->programmer_path);
    return CORE_EINVAL;
}

int upload_over(int port, const image_list *package)
{
    int err = hello_handshake(port, package->platform);
    if (err == CORE_EAGAIN)
        return err; // the modem restarts by itself
    if (err != CORE_OK) {
        log_as(in_sahara_send_programmer, CORE_LOG_ERR, "error in hello handshake");
    } else if (err = send_whole_programmer(port, package); err != CORE_OK) {
        log_as(in_sahara_send_programmer, CORE_LOG_ERR, "error in updating the programmer");
    } else {
        log_as(in_sahara_send_programmer, CORE_LOG_DBG, "Flush port");
        static_cast<void>(flush_port(port)); // silence is its usual end
    }
    if (err != CORE_OK && err != CORE_EAGAIN) // after "try again" the caller does, with the modem as it is
        static_cast<void>(reset_modem(port)); // the upload's own failure is the one to report
    return err;
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
    static_cast<void>(flush_port(port)); // silence is its usual end
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
    packet response = make_packet(HELLO_RESPONSE, HELLO_SIZE); // status, mode and the reserved words stay 0
    response.put(HELLO_VERSION, version);
    response.put(HELLO_COMPATIBLE_VERSION, compatible_version);
    const int err = send_bytes(port, response.bytes.data(), HELLO_SIZE);
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
        packet answer;
        size_t count = 0;
        const int err = read_packet(port, &answer, HELLO_SIZE, timeouts::download_acknowledged, &count);
        if (err != CORE_OK) {
            log_err("error %d", err);
            return err;
        }
        if (answer.command() == DOWNLOAD_MODE_ACK)
            return CORE_EAGAIN;
    }
    return CORE_EPROTO;
}

int hello_handshake(int port, uint32_t platform)
{
    if (const ending first = receive_hello(port, platform))
        return *first;
    log_dbg("Send state reset command");
    static_cast<void>(state_reset(port)); // the HELLO that does not come then tells
    return receive_hello(port, platform).value_or(CORE_EPROTO);
}

int send_programmer(int port, const image_list *package, uint64_t *missing)
{

    const uninterrupted_step step;
    log_inf("Sending programmer");
    upload u{};
    u.port = port;
    if (const ending end = read_first_request(&u))
        return *end;
    owned_file file;
    if (const int err = open_programmer(package, &file, &u); err != CORE_OK)
        return err;
    const ending end = serve_requests(&u);
    if (missing != nullptr)
        *missing = u.missing;
    if (end)
        return *end;
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
    owned_port port;
    if (const int err = open_port(record->port_name, port.receive()); err != CORE_OK) {
        log_err("unable to open device path %s", record->port_name);
        return port_error(err);
    }
    if (const int err = core_device_set_raw_mode(port.get()); err != CORE_OK) {
        log_err("Unable to configure device");
        return err;
    }
    drop_stale_packets(port.get());
    return upload_over(port.get(), package);
}
