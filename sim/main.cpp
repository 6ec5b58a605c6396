// kestrel-sim: the simulated modem, on a pseudo-terminal or on the kernel's virtual USB bus.

#include "device.hpp"
#include "options.hpp"
#include "port-link.hpp"
#include "pty-port.hpp"
#include "pty-server.hpp"
#include "usb-server.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int exit_system_error = 1;
constexpr int exit_usage = 2;

int stop_pipe[2] = {-1, -1}; // a signal handler can reach nothing but globals

void ask_to_stop(int)
{
    const int saved = errno;
    const ssize_t ignored = write(stop_pipe[1], "", 1);
    static_cast<void>(ignored);
    errno = saved;
}

bool catch_signals()
{
    if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action {};
    action.sa_handler = ask_to_stop;
    return sigaction(SIGTERM, &action, nullptr) == 0 && sigaction(SIGINT, &action, nullptr) == 0;
}

int complain(int status, const std::string &text)
{
    std::fprintf(stderr, "kestrel-sim: %s\n", text.c_str());
    return status;
}

int system_error(const std::string &what)
{
    return complain(exit_system_error, what + ": " + std::strerror(errno));
}

// Where the modem can be reached; whoever started the program waits for it.
void announce(const std::string &place)
{
    std::printf("%s\n", place.c_str());
    std::fflush(stdout);
}

int result_status(const sim::served &result)
{
    const int status = static_cast<int>(result.how);
    return status == 0 ? 0 : complain(status, result.trouble);
}

int run_on_usb(const sim::program_options &options, sim::device &modem, sim::transcript &log)
{
    sim::vhci_port port(options.usb.first_port);
    if (!port.plug_in())
        return complain(exit_system_error, port.error());
    if (!modem.start())
        return complain(exit_system_error, modem.trouble());
    announce(port.name());
    return result_status(sim::serve_usb(modem, port, options.usb, options.limits, log, stop_pipe[0]));
}

int run_on_pty(const sim::program_options &options, sim::device &modem)
{
    sim::pty_port port;
    if (!port.open())
        return complain(exit_system_error, port.error());
    sim::port_link link;
    if (!options.link.empty() && !link.make(options.link, port.path()))
        return system_error(options.link);
    if (!modem.start())
        return complain(exit_system_error, modem.trouble());
    sim::bus_file bus(options.bus, options.usb.id, port.path());
    if (!bus.show(modem.where()))
        return system_error(options.bus);
    announce(port.path());
    return result_status(sim::serve(modem, port, bus, options.limits, stop_pipe[0]));
}

int run(const sim::program_options &options)
{
    sim::transcript log;
    if (!options.transcript.empty() && !log.open(options.transcript))
        return system_error(options.transcript);
    if (!options.record.empty() && !log.open_record(options.record))
        return system_error(options.record);
    if (!catch_signals())
        return system_error("signals");
    sim::device modem(options.device, log);
    return options.usb.wanted ? run_on_usb(options, modem, log) : run_on_pty(options, modem);
}

} // namespace

int main(int argc, char **argv)
{
    sim::program_options options;
    const std::string wrong = sim::parse_options(argc, argv, options);
    if (!wrong.empty())
        return complain(exit_usage, wrong + " (try --help)");
    if (!options.help && !options.version)
        return run(options);
    std::fputs((options.help ? sim::help_text() : sim::version_text()).c_str(), stdout);
    return 0;
}
