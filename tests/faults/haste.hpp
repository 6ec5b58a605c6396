// What the waits of kestrel-hasty are divided by: the short ones by less, so that a busy machine does not lengthen an
// answer of the simulated modem beyond them; half a minute, which is silence, by more.
#pragma once

constexpr unsigned haste(unsigned shipped_ms)
{
    return shipped_ms == 30000 ? 25 : 4;
}
