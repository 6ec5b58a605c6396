#include "firehose-otp.hpp"

#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

static constexpr char log_source[] = "../firehose.c";

static constexpr char otp_request[] =
    "<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n</data>\n";
static constexpr char value_mark[] = " value=\"";

// Logs the first value of the chunk; false when its closing quote is missing.
static bool print_value(firehose_chunk *chunk)
{
    static constexpr char function[] = "print_otp_response";
    char *const mark = strstr(chunk->text, value_mark);
    if (mark == nullptr) {
        log_as(function, CORE_LOG_ERR, "unexpected response");
        return true;
    }
    char *const value = mark + strlen(value_mark);
    char *const end = strchr(value, '"');
    if (end == nullptr) {
        log_as(function, CORE_LOG_ERR, "xml value attribute not ended: %s", chunk->text);
        return false;
    }
    *end = '\0';
    log_as(function, CORE_LOG_INF, "%s", value);
    return true;
}

int get_otp(firehose_device *device)
{
    if (const int err = firehose_write(device, otp_request, sizeof otp_request - 1); err != CORE_OK) {
        log_err("error sending otp request %u", static_cast<unsigned>(err));
        return err;
    }
    return print_otp_response(device);
}

int print_otp_response(firehose_device *device)
{
    answer_guard guard;
    for (;;) {
        firehose_chunk chunk;
        int err = firehose_read(device, timeouts::otp, &chunk);
        if (err == CORE_OK)
            err = guard.check(&chunk);
        if (err != CORE_OK) {
            log_err("error reading otp values %u", static_cast<unsigned>(err));
            return err;
        }
        if (chunk.size == 0)
            continue;
        log_dbg("%s", chunk.text);
        if (firehose_has_ack(&chunk) || !print_value(&chunk))
            return CORE_OK;
    }
}
