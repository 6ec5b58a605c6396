#include "interrupt.hpp"

namespace {

bool step_in_hand = false;

} // namespace

volatile std::sig_atomic_t keep_running = 1;
volatile std::sig_atomic_t interruptions = 0;

void interrupt_handler(int)
{
    core_signal_handler(SIGINT); // the platform library knows this one, and all three mean the same
    keep_running = 0;
    interruptions = interruptions < 2 ? interruptions + 1 : 2;
}

void install_interrupt_handler()
{
    for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (sigaction(signo, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            signal(signo, interrupt_handler);
    }
}

void begin_handling_modem()
{
    signal(SIGHUP, SIG_IGN);
}

bool must_end_at_once()
{
    return interruptions > 1;
}

uninterrupted_step::uninterrupted_step()
{
    step_in_hand = true;
}

uninterrupted_step::~uninterrupted_step()
{
    step_in_hand = false;
}

bool uninterrupted_step::is_in_hand()
{
    return step_in_hand;
}
