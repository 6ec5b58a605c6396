#include "firehose-session.hpp"

#include "core.hpp"
#include "firehose-otp.hpp"
#include "firehose-program.hpp"
#include "firehose.hpp"
#include "interrupt.hpp"
#include "package-check.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../firehose.c";
constexpr char in_firehose_update[] = "firehose_update";

// Programs the package, or reads the OTP values; `*reset_sent` tells whether the package's own commands
// already reset the modem.
int run_session(firehose_device *device, const image_list *package, bool otp, bool *reset_sent)
{
    uint32_t payload = FIREHOSE_PAYLOAD_SIZE;
    int err = send_nop(device);
    if (err != CORE_OK) {
        log_as(in_firehose_update, CORE_LOG_ERR, "error in nop handshake");
        return err;
    }
    err = send_config(device, &payload);
    if (err != CORE_OK) {
        log_as(in_firehose_update, CORE_LOG_ERR, "error in config");
        return err;
    }
    if (keep_running == 0)
        return CORE_ECANCELED; // an upload was finished first
    err = otp ? get_otp(device) : send_commands(package, device, payload, reset_sent);
    if (err == CORE_OK && !otp && !*reset_sent)
        err = drain_answers(device); // a refusal of the last image, behind an answer too many
    if (err != CORE_OK)
        log_as(in_firehose_update, CORE_LOG_ERR, "error sending commands %d", err);
    return err;
}

int finish_session(firehose_device *device, const image_list *package, bool reset_sent)
{
    if (reset_sent) {
        log_as(in_firehose_update, CORE_LOG_DBG, "reset command already sent");
        return CORE_OK;
    }
    const int err = send_reset(device, package->platform != 0);
    if (err != CORE_OK)
        log_as(in_firehose_update, CORE_LOG_ERR, "error in sending reset");
    return err;
}

} // namespace

int firehose_update(const modem *m, const image_list *package, bool otp)
{
    firehose_device device{};
    bool reset_sent = false;
    if (const int err = firehose_open(m, &device); err != CORE_OK) {
        log_err("error in opening the firehose device %d", err);
        return err;
    }
    const int session_err = run_session(&device, package, otp, &reset_sent);
    const int reset_err = finish_session(&device, package, reset_sent);
    firehose_close(&device);
    return session_err != CORE_OK ? session_err : reset_err;
}
