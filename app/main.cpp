// The program: logging and the interrupt handler first, then the command line, one of the entries of the
// driver, and the final line. The exit status is the run's result modulo 256.
#include "core.hpp"
#include "interrupt.hpp"
#include "log-output.hpp"
#include "modem.hpp"
#include "options.hpp"
#include "package.hpp"
#include "run-lock.hpp"
#include "update.hpp"
#include "zepho-log.hpp"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "../main.c";

modem modems[MAX_MODEM_NUMBER];

// Keeps descriptors 0 to 2 taken: a modem's port that got one of them would receive the log.
void reserve_standard_descriptors()
{
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0)
        close(descriptor);
}

int run(int argc, char **argv)
{
    if (const int err = check_args(argc, argv); err != 0)
        return err;
    if (options.port[0] != '\0') {
        // A scan sees for itself, and a marked record would count as a modem.
        modems[0].is_pcie = options.pcie;
        return update_with_port(modems, MAX_MODEM_NUMBER, options.skip_enter_qdl, options.port);
    }
    return update_with_scan(modems, MAX_MODEM_NUMBER, options.json);
}

} // namespace

int main(int argc, char **argv)
{
    reserve_standard_descriptors();
    // Whoever stops reading the log, or limits its size, must not stop a modem half written.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    core_log_set_native(false);
    core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
    log_inf("version %s.%s.%s-%s\n", "1", "6", "1", "0");
    if (core_init() != CORE_OK) {
        log_err("core_init() failure");
        return 1;
    }
    install_interrupt_handler();
    const int result = run(argc, argv);
    fw_package_free();
    release_modems();
    core_deinit();
    if (options.otp && result == CORE_OK)
        log_inf("\nOTP values read successfully");
    else if (options.otp)
        log_err("\nOTP values read failed!");
    else if (result == CORE_OK)
        log_inf("\nFirmware update completed");
    else
        log_err("\nFirmware update failed!");
    return result;
}
