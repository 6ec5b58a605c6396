// Files and directories on descriptors: existence, open-or-create, size, exact seek, directory creation,
// listing and recursive deletion. Reading, writing and closing go through the device primitives.
//
// Every operation returns a core error code unless it says otherwise, and never waits beyond the 5000 ms
// writability wait of core_file_write.
#pragma once

#include "core-owners.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// 0 when the path exists, else CORE_ENOENT whatever the reason; CORE_EINVAL for a null path.
[[nodiscard]] int core_file_exists(const char *path);
// Asked before a file is opened, because opening a FIFO waits for its other end and opening some devices has
// effects: 0 for a regular file (links are followed) and where nothing is that could be opened by mistake;
// CORE_EINVAL, logged, for a directory, FIFO, device or socket; CORE_ENOENT, logged, for a link to nothing,
// through which a file would be created somewhere else.
[[nodiscard]] int core_file_check_regular(const char *path);
// Opens for reading and writing, non-blocking; a missing file is created empty (mode 0644), an existing one
// is not truncated. `*handle` receives the descriptor, -1 on failure. 0, the mapped errno or the refusal of
// core_file_check_regular.
[[nodiscard]] int core_file_open(const char *path, int *handle);
// Opens a regular file for reading only, as a stream that the caller closes. Null with errno, after a refusal
// of core_file_check_regular with EINVAL. Reading does not wait: some files of the kernel are regular ones
// that bring something when there is news.
[[nodiscard]] FILE *core_file_open_stream(const char *path);
[[nodiscard]] int core_file_close(int handle);
using owned_file = owned_handle<core_file_close>;
[[nodiscard]] int core_file_read(int handle, void *buf, size_t len, size_t *nread);
// Size in bytes. 0 or the mapped errno.
[[nodiscard]] int core_file_get_size(int handle, int64_t *size);
// 0 when the new offset equals `offset`, else -1, which is no core error code. Meant for SEEK_SET.
[[nodiscard]] int core_file_lseek(int handle, int64_t offset, int whence);
// Seeks to `offset` from the start. 0 or CORE_EGENERIC.
[[nodiscard]] int core_file_seek(int handle, int64_t offset);

// 0 when the directory can be opened, CORE_ENOENT when there is none, CORE_EINVAL for anything else.
[[nodiscard]] int core_directory_exists(const char *path);

// The library's interface: the updater itself calls none of these.

// As core_device_write.
[[nodiscard]] int core_file_write(int handle, const void *buf, size_t len, size_t *written);
// mkdir(2) with mode 0755: 0 or -1, silently.
[[nodiscard]] int core_create_directory(const char *path);
// Appends the full paths of the regular files directly inside `dir` to `*list` (grown with realloc(3), each
// path from strdup(3); all owned by the caller) and counts them in `*count`. 0, CORE_ENOENT or CORE_ENOMEM.
[[nodiscard]] int core_directory_list_files(const char *dir, char ***list, size_t *count);
// Deletes a directory tree; links to directories are followed. 0, CORE_EINVAL for a null path, CORE_ENOENT
// when it cannot be opened, CORE_EIO at the first entry that cannot be removed.
[[nodiscard]] int core_delete_directory(const char *path);
