// What befalls the program itself at a chosen byte of what it sends: a write that fails, a signal.
//
// KESTREL_STRIKE=OFFSET:WHAT[:TIMES] in the environment, where OFFSET counts the bytes written to terminals
// so far. WHAT is the name of an errno (that many writes which begin there fail with it, one without TIMES),
// INT (SIGINT comes just before the write that begins there), WAIT (SIGINT comes in the TIMES-th wait for
// input after these bytes), KILL (the program is killed before the write) or DEAF (killed in the TIMES-th
// wait).
#pragma once
