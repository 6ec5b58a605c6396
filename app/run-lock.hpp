// One run for a modem: whoever begins holds it to the end of the run, through all of its restarts; a second
// run is refused before it opens or writes anything.
//
// What is held is the modem's place on the bus; where a port has none, the port. It is held by the process,
// by names that the kernel keeps (core-lock.hpp), so that a run that was killed leaves nothing behind. Where
// the system gives no such names, the locks of the opened ports remain. Nothing here waits.
#pragma once

#include "core-port-holder.hpp"
#include "core-usb-id.hpp"
#include "modem.hpp"

#include <sys/stat.h>

// Holds the modem behind the port, again and again if need be. `node`: what the opened port is; without it
// the path is looked at. 0; CORE_EBUSY (logged) while another run holds it; CORE_ENOMEM.
[[nodiscard]] int hold_port(const char *port, const struct stat &node);
[[nodiscard]] int hold_port(const char *port);
// The same for all ports of a modem.
[[nodiscard]] int hold_modem(const modem *m);
// Locks the node of the attached USB device of that identifier, for other programs: of the one at a place
// that this run holds; where it holds none, of all, and their places, since libusb opens the first that it
// finds. The same results.
[[nodiscard]] int hold_usb_devices(const core_usb_id &id);
// Logs in one way who has what: `what` and `which`, "port" and its path; `advice` may be empty.
void report_in_use(const char *function, const char *what, const char *which, const core_process &holder,
                   const char *advice);
// Lets go of all of them: the end of the run.
void release_modems();
