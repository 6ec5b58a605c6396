#include "firehose-program.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "interrupt.hpp"
#include "log-output.hpp"
#include "package-check.hpp"
#include "xml.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cinttypes>

namespace {

constexpr char log_source[] = "../firehose.c";
constexpr char in_send_binary[] = "send_binary";
constexpr char in_send_command_with_binary[] = "send_command_with_binary";
constexpr char command_frame[] = "<?xml version=\"1.0\"?>\n<data>\n%s\n</data>\n";
constexpr std::string_view sectors_attribute = "num_partition_sectors=\"";
constexpr unsigned char padding_byte = 0xFF;

// Holds the endpoint's zero-length-packet flag set for the length of a data phase.
class zero_length_packets {
  public:
    explicit zero_length_packets(firehose_device *device) : flag_(&device->endpoint.send_zero_length_packet)
    {
        *flag_ = true;
    }
    zero_length_packets(const zero_length_packets &) = delete;
    zero_length_packets &operator=(const zero_length_packets &) = delete;
    ~zero_length_packets() { *flag_ = false; }

  private:
    bool *flag_;
};

// One file on its way to the programmer.
struct transmission {
    firehose_device *device;
    int file;
    const char *path;
    uint64_t size;
    uint64_t offset;
    uint32_t max_payload;
    uint32_t sector_size;
    unsigned char *buffer;
};

void show_progress(const transmission &t, uint32_t chunk)
{
    core_log_progress(log_source, in_send_binary, __LINE__, static_cast<int64_t>(t.offset),
                      static_cast<int64_t>(t.size), t.path);
    log_as(in_send_binary, CORE_LOG_DBG, "Sending %u bytes at offset %" PRIu64, chunk, t.offset);
}

// How many bytes go out for `count` bytes read. Of a file that has grown since it was checked, a partial
// payload may be left over that the sector size does not fit.
uint32_t padded_size(const transmission &t, uint32_t count)
{
    if (count <= t.sector_size) {
        const uint32_t sector = std::min(t.sector_size, t.max_payload);
        log_as(in_send_binary, CORE_LOG_DBG, "Actually sending %u bytes at offset %" PRIu64 " due to padding",
               sector, t.offset);
        return sector;
    }
    if (count >= t.max_payload || t.sector_size == 0)
        return count;
    const uint32_t padded = find_minimum_chunk_size(count, t.max_payload, t.sector_size);
    log_as(in_send_binary, CORE_LOG_DBG,
           "Actually sending max_payload_size_to_target_in_bytes %u bytes at offset %" PRIu64
           " due to padding",
           padded, t.offset);
    return padded;
}

// Sends one chunk.
ending send_chunk(transmission *t)
{
    if (must_end_at_once())
        return CORE_ECANCELED;
    const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(t->size - t->offset, t->max_payload));
    show_progress(*t, chunk);
    if (const int err = core_file_seek(t->file, static_cast<int64_t>(t->offset)); err != CORE_OK) {
        log_as(in_send_binary, CORE_LOG_ERR, "lseek error at %" PRIu64, t->offset);
        return err;
    }
    size_t count = 0;
    int err = core_file_read(t->file, t->buffer, chunk, &count);
    if (err != CORE_OK || count != chunk) {
        log_as(in_send_binary, CORE_LOG_ERR, "error %u reading %u bytes (read %u bytes)",
               static_cast<unsigned>(err), t->max_payload, static_cast<unsigned>(count));
        return err; // 0 after a short read, on purpose
    }
    const uint32_t length = padded_size(*t, chunk);
    memset(t->buffer + chunk, padding_byte, length - chunk);
    err = firehose_write(t->device, t->buffer, length);
    if (err != CORE_OK) {
        log_as(in_send_binary, CORE_LOG_ERR, "error %u sending buffer", static_cast<unsigned>(err));
        return err;
    }
    t->offset += chunk;
    return go_on;
}

// Sends an open file and waits for its one ACK; `*sent` counts the bytes of the file that have gone out.
int send_file(firehose_device *device, uint32_t max_payload, uint32_t sector_size, const char *path, int file,
              uint64_t *sent)
{
    const zero_length_packets flag(device);
    int64_t size = 0;
    if (const int err = core_file_get_size(file, &size); err != CORE_OK) {
        log_as(in_send_binary, CORE_LOG_ERR, "unable to get bin file size %u", static_cast<unsigned>(err));
        return err;
    }
    const auto total = static_cast<uint64_t>(size);
    // No chunk is longer than the payload, and this file's only chunk may be shorter: padding never adds two
    // whole sectors.
    const uint64_t needed =
        std::min<uint64_t>(max_payload, total + 2 * static_cast<uint64_t>(sector_size) + 1);
    const owned_bytes buffer(static_cast<unsigned char *>(malloc(static_cast<size_t>(needed))));
    if (buffer == nullptr) {
        log_as(in_send_binary, CORE_LOG_ERR, "memory failure");
        return CORE_ENOMEM;
    }
    transmission t{device, file, path, total, 0, max_payload, sector_size, buffer.get()};
    while (t.offset < t.size) {
        if (const ending end = send_chunk(&t))
            return *end;
        *sent = t.offset;
    }
    log_as(in_send_binary, CORE_LOG_INF, "Sent %" PRIu64 " bytes", t.offset);
    const int err = read_ack_nack(device);
    if (err == CORE_OK)
        core_log_progress_complete(log_source, in_send_binary, __LINE__, size, path);
    return err;
}

// What has gone out must be all that the command announced, of the file that it was then.
int check_sent(const image *img, int file, uint64_t sent)
{
    if (const int err = check_same_file(file, img->filename, img->identity); err != CORE_OK)
        return err;
    if (sent == img->file_size)
        return CORE_OK;
    log_as(in_send_command_with_binary, CORE_LOG_ERR, "%" PRIu64 " of %" PRIu64 " bytes were sent of %s",
           sent, img->file_size, img->filename);
    return CORE_EINVAL;
}

// The data of one image, whose command announced so many sectors.
int send_data(firehose_device *device, const image *img, int file, uint32_t max_payload)
{
    if (const int err = check_same_file(file, img->filename, img->identity); err != CORE_OK)
        return err;
    if (img->file_size > 0) { // where there is nothing to send, its acknowledgement waits already
        if (const int err = drain_answers(device); err != CORE_OK)
            return err;
    }
    if (img->label[0] != '\0')
        log_as(in_send_command_with_binary, CORE_LOG_INF, "Updating image %s", img->label);
    log_as(in_send_command_with_binary, CORE_LOG_DBG, "sending binary %s", img->filename);
    uint64_t sent = 0;
    if (const int err = send_file(device, max_payload, img->sector_size_in_bytes, img->filename, file, &sent);
        err != CORE_OK) {
        log_as(in_send_command_with_binary, CORE_LOG_ERR, "error in sending binary %s", img->filename);
        return err;
    }
    return check_sent(img, file, sent);
}

} // namespace

int send_commands(const image_list *package, firehose_device *device, uint32_t max_payload, bool *reset_sent)
{
    for (uint32_t i = 0; i < package->image_count; ++i) {
        const image *const img = &package->images[i];
        if (is_empty_image(img))
            continue;
        if (keep_running == 0)
            return CORE_ECANCELED; // the image before is complete
        const int err = send_command_with_binary(device, img, max_payload);
        if (text_contains(img->command, "value=\"reset\""))
            *reset_sent = true;
        if (err != CORE_OK) {
            dump_image(img);
            return err;
        }
    }
    return CORE_OK;
}

int send_command_with_binary(firehose_device *device, const image *img, uint32_t max_payload)
{
    const bool is_erase = text_contains(img->command, "<erase ");
    const bool has_file = img->filename[0] != '\0';
    const bool has_data = has_file && !is_erase;
    if (!has_file && text_contains(img->command, "<program ")) {
        log_dbg("Skip program command without filename: %s", img->command);
        return CORE_OK;
    }
    owned_file file;
    if (has_data) {
        if (const int err = check_sectors(img, max_payload); err != CORE_OK)
            return err;
        if (const int err = open_same_file(img->filename, img->identity, file.receive()); err != CORE_OK)
            return err;
    }
    const uninterrupted_step step;
    const raw_mode awaited = has_data ? raw_mode::on : raw_mode::off;
    if (const int err = send_command(device, img, is_erase, awaited); err != CORE_OK) {
        log_err("error for command");
        return err;
    }
    return has_data ? send_data(device, img, file.get(), max_payload) : CORE_OK;
}

int send_command(firehose_device *device, const image *img, bool is_erase, raw_mode awaited)
{
    owned_text request;
    if (get_command_xml(&request, img, is_erase) < 0) {
        log_err("error in get_command_xml");
        return CORE_ENOMEM;
    }
    log_dbg("%s", request.get());
    return generic_ack_nack_request(device, request.get(), awaited);
}

int get_command_xml(owned_text *out, const image *img, bool is_erase)
{
    owned_text line;
    if (change_num_partition_sectors_attrib(&line, img, is_erase) < 0) {
        log_dbg("failed changing num_partition_sectors attrib");
        return -1;
    }
    *out = format_text(command_frame, line.get());
    return *out != nullptr ? static_cast<int>(strlen(out->get())) : -1;
}

int change_num_partition_sectors_attrib(owned_text *out, const image *img, bool is_erase)
{
    const std::optional<std::string_view> value = text_behind(img->command, sectors_attribute);
    uint32_t sector_size = 0;
    if (is_erase || !value || img->filename[0] == '\0' ||
        !get_uint_attribute(img->command, "SECTOR_SIZE_IN_BYTES", &sector_size) || sector_size == 0) {
        out->reset(strdup(img->command));
        if (*out == nullptr) {
            log_err("not enough memory");
            return -1;
        }
        return 0;
    }
    const auto sectors = static_cast<int32_t>((img->file_size + sector_size - 1) / sector_size);
    // The first character of the old value is never taken as the closing quote.
    const size_t end = value->find('"', 1);
    if (end == value->npos) {
        log_dbg("xml syntax error: %s", img->command);
        return -1;
    }
    const auto kept = static_cast<int>(value->data() - img->command);
    *out = format_text("%.*s%d%s", kept, img->command, sectors, value->data() + end);
    return *out != nullptr ? static_cast<int>(strlen(out->get())) : -1;
}

uint32_t find_minimum_chunk_size(uint32_t read_size, uint32_t max_payload, uint32_t sector_size)
{
    const uint32_t count = max_payload / sector_size;
    if (const uint32_t remainder = max_payload % sector_size; remainder != 0)
        log_wrn("remainder for max_payload_size_to_target_in_bytes = %d", static_cast<int>(remainder));
    for (uint32_t i = 0; i < count; ++i) {
        if (i * sector_size >= read_size)
            return i * sector_size;
    }
    return max_payload;
}

// The library's interface: the updater itself sends the files that it holds open.

int send_binary(firehose_device *device, uint32_t max_payload, uint32_t sector_size, const char *path)
{
    owned_file file;
    if (const int err = core_file_open_to_read(path, file.receive()); err != CORE_OK) {
        log_err("unable to open bin file %u", static_cast<unsigned>(err));
        return err;
    }
    uint64_t sent = 0;
    return send_file(device, max_payload, sector_size, path, file.get(), &sent);
}
