#include "interrupt.hpp"

#include "core.hpp"

volatile std::sig_atomic_t keep_running = 1;

void interrupt_handler(int signo)
{
    core_signal_handler(signo);
    keep_running = 0;
}
