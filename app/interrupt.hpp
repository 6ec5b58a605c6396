// The interrupt: SIGINT asks the run to end; whoever waits for a modem looks at the flag.
#pragma once

#include <csignal>

// 1 until SIGINT; the waits check it and end the run with CORE_ECANCELED.
extern volatile std::sig_atomic_t keep_running;
// The handler for SIGINT: sets the flag of the platform library and clears keep_running, nothing else.
void interrupt_handler(int signo);
