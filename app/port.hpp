// The one opener of the modem's ports: what it opens is a port, is this run's alone, and stays so until
// close_port.
//
// A port is a character device, or a FIFO, which harms nobody. It is locked (flock(2)) against other runs,
// and a terminal, by TIOCEXCL (ioctl_tty(2)), against other programs as far as their users are not
// privileged. Opening changes nothing of what is opened, and nothing waits.
#pragma once

#include "core-owners.hpp"

// Opens the port; `*handle` receives the descriptor, -1 on failure. 0; CORE_EINVAL (logged) for what is no
// port; CORE_EBUSY (logged) while another run or program has it; or the error of core_device_open.
[[nodiscard]] int open_port(const char *path, int *handle);
// Gives the port up and closes it. The result of core_device_close.
int close_port(int handle);
using owned_port = owned_handle<close_port>;

// The result of a step whose port open_port has refused or could not open: the refusals as they are,
// CORE_EGENERIC for all else.
[[nodiscard]] int port_error(int open_error);

// Asked right before the modem is switched. Whoever else has the port open keeps its number taken, so that
// the download device comes back under another one. CORE_EBUSY (logged) when this process can see that, else
// 0; always 0 for what is no terminal, or is a pseudo-terminal, which who plays the modem may keep open.
[[nodiscard]] int refuse_port_holders(int handle, const char *path);
