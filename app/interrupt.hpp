// Being asked to end: SIGINT, SIGTERM and SIGHUP, and what is still finished then.
//
// Until the modem is touched, each of the three ends the run at once. From the switch on a hang-up is
// ignored, since the modem itself may carry the connection; the first of the others is noted, and the step in
// hand is finished: the upload, or a command with its data and their acknowledgements. The second ends at the
// next chunk or packet.
#pragma once

#include "core.hpp"

#include <csignal>

// 1 until a signal comes; the waits check it and end the run with CORE_ECANCELED.
extern volatile std::sig_atomic_t keep_running;
// How many have come, at most 2.
extern volatile std::sig_atomic_t interruptions;
// The handler: sets the flag of the platform library, clears keep_running and counts, nothing else.
void interrupt_handler(int signo);
// Takes the three signals, but those that the program was started with as ignored.
void install_interrupt_handler();
// From here on the modem is not left in the middle of a step.
void begin_handling_modem();
// True once the step in hand is to end as well.
[[nodiscard]] bool must_end_at_once();

// A step that the first signal does not cut short, for as long as the object lives.
class uninterrupted_step {
  public:
    uninterrupted_step();
    uninterrupted_step(const uninterrupted_step &) = delete;
    uninterrupted_step &operator=(const uninterrupted_step &) = delete;
    ~uninterrupted_step();
    static bool is_in_hand();
};

// Calls wait(), which returns a core error code, again when a signal has cut it short in such a step. What it
// returns otherwise; CORE_ECANCELED where the step is to end.
template <typename Wait> [[nodiscard]] int outlast_interrupt(Wait wait)
{
    int err = wait();
    while (err == CORE_EINTR && uninterrupted_step::is_in_hand()) {
        if (must_end_at_once())
            return CORE_ECANCELED;
        err = wait();
    }
    return err;
}
