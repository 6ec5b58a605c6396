#include "firehose-program.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "log-output.hpp"
#include "package-check.hpp"
#include "xml.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cinttypes>

static constexpr char log_source[] = "../firehose.c";

namespace {

constexpr char command_frame[] = "<?xml version=\"1.0\"?>\n<data>\n%s\n</data>\n";
constexpr char sectors_attribute[] = "num_partition_sectors=\"";
constexpr unsigned char padding_byte = 0xFF;

// Holds the endpoint's zero-length-packet flag set for the length of a data phase.
class zero_length_packets {
  public:
    explicit zero_length_packets(firehose_device *device) : flag(&device->endpoint.send_zero_length_packet)
    {
        *flag = true;
    }
    zero_length_packets(const zero_length_packets &) = delete;
    zero_length_packets &operator=(const zero_length_packets &) = delete;
    ~zero_length_packets() { *flag = false; }

  private:
    bool *flag;
};

// Data that ends in a partial payload is padded to whole sectors; a sector must fit into a payload.
bool fits_sectors(uint64_t file_size, uint32_t max_payload, uint32_t sector_size)
{
    const bool has_partial_payload = file_size % max_payload != 0;
    return (sector_size != 0 || !has_partial_payload) && (sector_size <= max_payload || file_size == 0);
}

int check_sectors(uint64_t file_size, uint32_t max_payload, uint32_t sector_size, const char *path,
                  const char *function)
{
    if (fits_sectors(file_size, max_payload, sector_size))
        return CORE_OK;
    log_as(function, CORE_LOG_ERR, "sector size %u does not fit payload size %u for %s", sector_size,
           max_payload, path);
    return CORE_EINVAL;
}

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
    static constexpr char function[] = "send_binary";
    core_log_progress(log_source, function, __LINE__, static_cast<int64_t>(t.offset),
                      static_cast<int64_t>(t.size), t.path);
    log_as(function, CORE_LOG_DBG, "Sending %u bytes at offset %" PRIu64, chunk, t.offset);
}

// How many bytes go out for `count` bytes read.
uint32_t padded_size(const transmission &t, uint32_t count)
{
    static constexpr char function[] = "send_binary";
    if (count <= t.sector_size) {
        log_as(function, CORE_LOG_DBG, "Actually sending %u bytes at offset %" PRIu64 " due to padding",
               t.sector_size, t.offset);
        return t.sector_size;
    }
    if (count >= t.max_payload)
        return count;
    const uint32_t padded = find_minimum_chunk_size(count, t.max_payload, t.sector_size);
    log_as(function, CORE_LOG_DBG,
           "Actually sending max_payload_size_to_target_in_bytes %u bytes at offset %" PRIu64
           " due to padding",
           padded, t.offset);
    return padded;
}

// Sends one chunk. `*ended` is set when the call ends with the result.
int send_chunk(transmission *t, bool *ended)
{
    static constexpr char function[] = "send_binary";
    *ended = true;
    const auto chunk = static_cast<uint32_t>(std::min<uint64_t>(t->size - t->offset, t->max_payload));
    show_progress(*t, chunk);
    if (const int err = core_file_seek(t->file, static_cast<int64_t>(t->offset)); err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "lseek error at %" PRIu64, t->offset);
        return err;
    }
    size_t count = 0;
    int err = core_file_read(t->file, t->buffer, chunk, &count);
    if (err != CORE_OK || count != chunk) {
        log_as(function, CORE_LOG_ERR, "error %u reading %u bytes (read %u bytes)",
               static_cast<unsigned>(err), t->max_payload, static_cast<unsigned>(count));
        return err; // 0 after a short read, on purpose
    }
    const uint32_t length = padded_size(*t, chunk);
    memset(t->buffer + chunk, padding_byte, length - chunk);
    err = firehose_write(t->device, t->buffer, length);
    if (err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error %u sending buffer", static_cast<unsigned>(err));
        return err;
    }
    t->offset += chunk;
    *ended = false;
    return CORE_OK;
}

bool contains(const image *img, const char *text)
{
    return strstr(img->command, text) != nullptr;
}

// The data of one image, whose command announced so many sectors: the file must be what it was then, also
// when all of it has gone out.
int send_data(firehose_device *device, const image *img, uint32_t max_payload)
{
    static constexpr char function[] = "send_command_with_binary";
    if (const int err = check_image_file(img); err != CORE_OK)
        return err;
    if (img->label[0] != '\0')
        log_as(function, CORE_LOG_INF, "Updating image %s", img->label);
    log_as(function, CORE_LOG_DBG, "sending binary %s", img->filename);
    if (const int err = send_binary(device, max_payload, img->sector_size_in_bytes, img->filename);
        err != CORE_OK) {
        log_as(function, CORE_LOG_ERR, "error in sending binary %s", img->filename);
        return err;
    }
    return check_image_file(img);
}

} // namespace

int send_commands(const image_list *package, firehose_device *device, uint32_t max_payload, bool *reset_sent)
{
    for (uint32_t i = 0; i < package->image_count; ++i) {
        const image *const img = &package->images[i];
        if (is_empty_image(img))
            continue;
        const int err = send_command_with_binary(device, img, max_payload);
        if (contains(img, "value=\"reset\""))
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
    const bool is_erase = contains(img, "<erase ");
    const bool has_file = img->filename[0] != '\0';
    const bool has_data = has_file && !is_erase;
    if (!has_file && contains(img, "<program ")) {
        log_dbg("Skip program command without filename: %s", img->command);
        return CORE_OK;
    }
    if (has_data) {
        int err =
            check_sectors(img->file_size, max_payload, img->sector_size_in_bytes, img->filename, __func__);
        if (err == CORE_OK)
            err = check_image_file(img);
        if (err != CORE_OK)
            return err;
    }
    if (const int err = send_command(device, img, is_erase); err != CORE_OK) {
        log_err("error for command");
        return err;
    }
    return has_data ? send_data(device, img, max_payload) : CORE_OK;
}

int send_command(firehose_device *device, const image *img, bool is_erase)
{
    owned_text request;
    if (get_command_xml(&request, img, is_erase) < 0) {
        log_err("error in get_command_xml");
        return CORE_ENOMEM;
    }
    log_dbg("%s", request.get());
    return generic_ack_nack_request(device, request.get());
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
    const char *const attribute = strstr(img->command, sectors_attribute);
    uint32_t sector_size = 0;
    if (is_erase || attribute == nullptr || img->filename[0] == '\0' ||
        !get_uint_attribute(img->command, "SECTOR_SIZE_IN_BYTES", &sector_size) || sector_size == 0) {
        out->reset(strdup(img->command));
        if (*out == nullptr) {
            log_err("not enough memory");
            return -1;
        }
        return 0;
    }
    const auto sectors = static_cast<int32_t>((img->file_size + sector_size - 1) / sector_size);
    const char *const value = attribute + strlen(sectors_attribute);
    // The first character of the old value is never taken as the closing quote.
    const char *const end = *value != '\0' ? strchr(value + 1, '"') : nullptr;
    if (end == nullptr) {
        log_dbg("xml syntax error: %s", img->command);
        return -1;
    }
    char cut[sizeof img->command];
    strlcpy(cut, img->command, sizeof cut);
    cut[value - img->command] = '\0';
    *out = format_text("%s%d%s", cut, sectors, end);
    return *out != nullptr ? static_cast<int>(strlen(out->get())) : -1;
}

int send_binary(firehose_device *device, uint32_t max_payload, uint32_t sector_size, const char *path)
{
    const zero_length_packets flag(device);
    owned_file file;
    if (const int err = core_file_open(path, file.receive()); err != CORE_OK) {
        log_err("unable to open bin file %u", static_cast<unsigned>(err));
        return err;
    }
    int64_t size = 0;
    if (const int err = core_file_get_size(file.get(), &size); err != CORE_OK) {
        log_err("unable to get bin file size %u", static_cast<unsigned>(err));
        return err;
    }
    const auto total = static_cast<uint64_t>(size);
    if (const int err = check_sectors(total, max_payload, sector_size, path, __func__); err != CORE_OK)
        return err;
    // No chunk is longer than the payload, and this file's only chunk may be shorter: padding never adds two
    // whole sectors.
    const uint64_t needed =
        std::min<uint64_t>(max_payload, total + 2 * static_cast<uint64_t>(sector_size) + 1);
    const owned_bytes buffer(static_cast<unsigned char *>(malloc(static_cast<size_t>(needed))));
    if (buffer == nullptr) {
        log_err("memory failure");
        return CORE_ENOMEM;
    }
    transmission t{device, file.get(), path, total, 0, max_payload, sector_size, buffer.get()};
    while (t.offset < t.size) {
        bool ended = false;
        const int err = send_chunk(&t, &ended);
        if (ended)
            return err;
    }
    log_inf("Sent %" PRIu64 " bytes", t.offset);
    const int err = read_ack_nack(device);
    if (err == CORE_OK)
        core_log_progress_complete(log_source, __func__, __LINE__, size, path);
    return err;
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
