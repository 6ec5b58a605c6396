// Locks that end with the process that has them, however it ends, and leave nothing behind.
//
// A name is locked by binding an abstract socket to it (unix(7)): that needs no folder that can be written,
// only one process can do it, and the kernel tells which one it is. The names are those of a network
// namespace, and open to every user. Nothing here waits or logs.
#pragma once

#include "core-owners.hpp"

#include <cstddef>
#include <unistd.h>

using owned_lock = owned_handle<close>;

// Longest name, and the zero behind it.
constexpr size_t CORE_LOCK_NAME_SIZE = 108;

// Locks the name until `*lock`, which the caller owns, is closed. 0; CORE_EBUSY when it is locked already, by
// this process or another; CORE_ENOTSUPPORTED when it is too long, or the system lets nobody bind one.
[[nodiscard]] int core_lock_name(const char *name, int *lock);
// True when a process has the name locked; `*id` receives its number, 0 where it cannot be told.
[[nodiscard]] bool core_find_name_holder(const char *name, long *id);

// Locks the open file (flock(2)) until it is closed. 0; CORE_EBUSY when somebody else has a lock on it;
// CORE_ENOTSUPPORTED for a file that takes none.
[[nodiscard]] int core_lock_file(int handle);
