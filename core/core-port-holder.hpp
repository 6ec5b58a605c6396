// Who else has a device node open, or a lock on it, as /proc tells it: to root of every process, to others of
// their own ones.
//
// Nothing here logs, and nothing is changed; a process that ends while it is looked at counts as not there.
#pragma once

#include <sys/stat.h>

struct core_process {
    long id;       // 0 where it cannot be told
    char name[32]; // in printable characters; "another program" where it cannot be told
};

// Tells the name of the process of that number.
void core_describe_process(const char *proc, long id, core_process *out);
// What to do about a process that is in the way: ": stop it first", with an example where there is one.
[[nodiscard]] const char *core_advice_on(const core_process &holder);

// Finds another process that has a node open: `node` is its path without links, `status` what stat(2) tells
// of it. True when there is one.
[[nodiscard]] bool core_find_port_holder(const char *proc, const char *node, const struct stat &status,
                                         core_process *holder);
// Finds the process that has an flock(2) lock on the file of `status`; /proc/locks tells that to everybody.
[[nodiscard]] bool core_find_lock_holder(const char *proc, const struct stat &status, core_process *holder);
