// What the program's output looks like: text lines, bare texts or one JSON object per message, and the
// reports of progress in either form. The one room that knows both the log core and the JSON event stream.
#pragma once

#include <cstdint>

// Modes of core_log_set_pprint.
enum core_log_pprint_mode : int {
    CORE_LOG_PPRINT_NEWLINE = 0, // every message ends in a line feed
    CORE_LOG_PPRINT_PLAIN = 1,   // messages as they are: progress lines
    CORE_LOG_PPRINT_JSON = 2,    // one JSON object per message
};

// Chooses the pretty printer by mode; any mode but 0 and 2 is the plain printer. JSON mode first makes
// standard output and standard error unbuffered.
void core_log_set_pprint(int mode);

// True while log messages become JSON objects.
[[nodiscard]] bool core_log_is_json();

// Reports that `current` of `max` bytes of `description` are done, before the next block is sent. Text
// output: a percentage line that overwrites itself, below the debug threshold only (the callers log their own
// line at debug level). JSON: one PROGRESS event. Neither current nor max may be negative.
void core_log_progress(const char *file, const char *function, int line, int64_t current, int64_t max,
                       const char *description);
// Reports that all `max` bytes are acknowledged: one PROGRESS event with current = max; JSON only.
void core_log_progress_complete(const char *file, const char *function, int line, int64_t max,
                                const char *description);
