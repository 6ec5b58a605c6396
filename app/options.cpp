#include "options.hpp"

#include "core-file.hpp"
#include "core.hpp"
#include "json.hpp"
#include "modem-table.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../main.c";
constexpr char in_check_args[] = "check_args";
constexpr char usage[] = "usage examples:\n"
                         "        kestrel --help\n"
                         "        kestrel <firmware directory> [--debug]\n"
                         "        kestrel --flat <programmer path> [--debug]\n"
                         "        kestrel --meta <content xml path> [--debug]\n"
                         "        kestrel <firmware directory> --port /dev/ttyUSB0\n"
                         "        kestrel <firmware directory> --dry-run\n"
                         "        kestrel <firmware directory> --enter-qdl\n"
                         "        kestrel <firmware directory> --otp\n";

void echo_arguments(int argc, char **argv)
{
    for (int i = 0; i < argc; ++i)
        log_as(in_check_args, CORE_LOG_DBG, "arg[%d]: %s", i, argv[i]);
}

// Counts the package sources; -1 (logged) when the first argument is neither a flag nor a directory.
int count_package_sources(int argc, char **argv)
{
    int count = 0;
    if (argc >= 2 && !is_flag(argv[1])) {
        if (core_directory_exists(argv[1]) != CORE_OK) {
            log_as(in_check_args, CORE_LOG_ERR, "first argument must be a directory or a flag: %s", argv[1]);
            return -1;
        }
        options.firmware_directory = argv[1];
        ++count;
    }
    count += options.meta[0] != '\0' ? 1 : 0;
    count += options.flat[0] != '\0' ? 1 : 0;
    return count;
}

} // namespace

program_options options;

const option_descriptor option_table[] = {
    {"--port", "-p", OPTION_TEXT, options.port, false,
     "force the tool to use a specific port instead of the automatic detection", nullptr},
    {"--meta", "-m", OPTION_TEXT, options.meta, false, "contents.xml path", nullptr},
    {"--flat", "-f", OPTION_TEXT, options.flat, false, "programmer path", nullptr},
    {"--debug", "-d", OPTION_BOOLEAN, &options.debug, false, "enable debug logging", nullptr},
    {"--enter-qdl", "-q", OPTION_BOOLEAN, &options.enter_qdl, false, "enter QDL mode and stop", nullptr},
    {"--otp", "", OPTION_BOOLEAN, &options.otp, false, "get OTP values", nullptr},
    {"--skip-enter-qdl", "-s", OPTION_BOOLEAN, &options.skip_enter_qdl, false,
     "skip command to enter QDL mode (to be used with --port flag)", nullptr},
    {"--pcie", "-e", OPTION_BOOLEAN, &options.pcie, false, "firmware upgrade through pcie", nullptr},
    {"--force", "", OPTION_BOOLEAN, &options.force, false, "force flashing", nullptr},
    {"--dry-run", "-r", OPTION_BOOLEAN, &options.dry_run, false,
     "perform modem detection and firmware package validation, then stop", nullptr},
    {"--json", "-j", OPTION_BOOLEAN, &options.json, false, "log in JSON format", nullptr},
    {nullptr, nullptr, OPTION_END, nullptr, false, nullptr, nullptr},
};

void print_help(const option_descriptor *flags)
{
    log_inf("%s\n", usage);
    log_inf("options:\n");
    for (const option_descriptor *flag = flags; flag->long_name != nullptr; ++flag) {
        const char *const need = flag->required ? "required" : "optional";
        if (flag->type != OPTION_BOOLEAN)
            log_inf("   %-10s <value> : %s - %s\n", flag->long_name, flag->help, need);
        else
            log_inf("   %-18s : %s - %s\n", flag->long_name, flag->help, need);
    }
    core_print_ombra_version();
    log_inf("\nSupported modem families: %s", modem_families);
    log_inf("\nSupported compositions:");
    for (unsigned i = 0; i < modem_list.count; ++i) {
        const core_usb_id &id = modem_list.ids[i];
        if (i + 1 < modem_list.count)
            log_inf("0x%04x:0x%04x,", id.vid, id.pid);
        else
            log_inf("0x%04x:0x%04x\n", id.vid, id.pid);
    }
}

int check_args(int argc, char **argv)
{
    if (const int err = get_opts(argc, argv, option_table); err != CORE_OK) {
        print_help(option_table);
        core_deinit();
        return err;
    }
    if (options.json && !setup_json_output()) {
        log_err("unable to setup JSON output");
        return 1;
    }
    if (options.debug) {
        core_log_set_level(CORE_LOG_DBG);
        echo_arguments(argc, argv);
    }
    const int sources = count_package_sources(argc, argv);
    if (sources < 0)
        return 1;
    const bool has_port = options.port[0] != '\0';
    const struct {
        bool refused;
        const char *message;
    } rules[] = {
        {sources == 0, "choose at least one between <firmware directory>, --meta and --flat"},
        {sources > 1, "<firmware directory>, --meta and --flat can't be used at the same time"},
        {!has_port && options.skip_enter_qdl, "--skip-enter-qdl requires --port"},
        {has_port && !options.force,
         "--port requires --force because the firmware compatibility cannot be checked"},
    };
    for (const auto &rule : rules) {
        if (rule.refused) {
            log_err("%s", rule.message);
            print_help(option_table);
            return 1;
        }
    }
    return 0;
}
