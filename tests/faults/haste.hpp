// The waits of kestrel-hasty, in place of those of timeouts.hpp: the short ones are shortened by little, so
// that a busy machine does not make an answer of the simulated modem later than they are long, the long ones
// by more.
#pragma once

constexpr unsigned haste(unsigned ms)
{
    const unsigned divisor = ms <= 1000 ? 2 : ms < 30000 ? 8 : ms == 30000 ? 25 : 4;
    return (ms + divisor - 1) / divisor; // rounded up: a wait stays one
}

#define KESTREL_WAIT(ms) haste(ms)
