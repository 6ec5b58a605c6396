// Opening files that are only read and never trusted: nothing is created, nothing is opened for writing, and
// what a name leads to is asked from the opened descriptor, never from the name a second time. Nothing waits.
//
// A file is first opened without any effect (O_PATH of open(2)), looked at, and opened for reading through
// that descriptor: so neither a FIFO nor a device is ever touched. It needs the kernel's /proc.
#pragma once

#include "core-file.hpp"

#include <cstdint>

// Which file it is, and whether it is still as it was. All zero: not known.
struct core_file_identity {
    uint64_t device;
    uint64_t inode;
    int64_t size;       // in bytes
    int64_t modified_s; // content, seconds since the epoch and nanoseconds
    int64_t modified_ns;
    int64_t changed_s; // content or record
    int64_t changed_ns;
    bool operator==(const core_file_identity &) const = default;
};

// Opens a regular file for reading, links followed; `*handle` receives the descriptor, -1 on failure. 0; with
// errno 0 and logged: CORE_EINVAL for a directory, FIFO, device or socket, CORE_ENOENT for a link to nothing;
// or the mapped errno of the opening, which the caller may log.
[[nodiscard]] int core_file_open_to_read(const char *path, int *handle);
// The same for a file that must lie beneath `folder`, wherever links and ".." lead; CORE_EINVAL, logged with
// the name, for one that does not.
[[nodiscard]] int core_file_open_beneath(const char *folder, const char *path, int *handle);
// 0 or the mapped errno, logged.
[[nodiscard]] int core_file_identify(int handle, core_file_identity *identity);
