// What the waits of kestrel-hasty are divided by: the short ones by little, so that a busy machine does not
// make an answer of the simulated modem later than they are long, the long ones by more.
#pragma once

constexpr unsigned haste(unsigned shipped_ms)
{
    return shipped_ms <= 1000 ? 2 : shipped_ms < 30000 ? 8 : shipped_ms == 30000 ? 25 : 4;
}
