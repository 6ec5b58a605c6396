#include "firehose-otp.hpp"

#include "core.hpp"
#include "timeouts.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../firehose.c";
constexpr char in_print_otp_response[] = "print_otp_response";
constexpr char otp_request[] =
    "<?xml version=\"1.0\"?>\n<data>\n<getstorageinfo  physical_partition_number=\"0\"/>\n</data>\n";
constexpr std::string_view value_mark = " value=\"";

// Logs the first value of the chunk; false when its closing quote is missing.
bool print_value(const firehose_chunk &chunk)
{
    const std::optional<std::string_view> rest = text_behind(chunk.text, value_mark);
    if (!rest) {
        log_as(in_print_otp_response, CORE_LOG_ERR, "unexpected response");
        return true;
    }
    const std::string_view value = text_before(*rest, "\"");
    if (value.size() == rest->size()) {
        log_as(in_print_otp_response, CORE_LOG_ERR, "xml value attribute not ended: %s", chunk.text);
        return false;
    }
    log_as(in_print_otp_response, CORE_LOG_INF, "%.*s", static_cast<int>(value.size()), value.data());
    return true;
}

} // namespace

int get_otp(firehose_device *device)
{
    if (const int err = drain_answers(device); err != CORE_OK)
        return err;
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
        if (firehose_has_ack(&chunk) || !print_value(chunk))
            return CORE_OK;
    }
}
