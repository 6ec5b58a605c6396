// Memory that runs out, for the rest of the case: blocks of half a gibibyte or more cannot be had.
#pragma once

// Refuses the blocks by a limit of the process; under a sanitizer, whose memory would not fit into it, by the
// option that case-state.cpp sets.
void limit_memory();
