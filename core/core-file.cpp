#include "core-file.hpp"

#include "core-device.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-file.c";

constexpr size_t path_size = 1024;

bool is_dot_entry(std::string_view name)
{
    return name == "." || name == "..";
}

int append_path(char ***list, size_t *count, const char *path)
{
    auto **const grown = static_cast<char **>(realloc(*list, (*count + 1) * sizeof(char *)));
    if (grown == nullptr)
        return CORE_ENOMEM;
    *list = grown;
    grown[*count] = strdup(path);
    if (grown[*count] == nullptr)
        return CORE_ENOMEM;
    ++*count;
    return CORE_OK;
}

int delete_entry(const char *path)
{
    struct stat status {};
    if (stat(path, &status) != 0)
        return CORE_EIO;
    if (S_ISDIR(status.st_mode))
        return core_delete_directory(path) == CORE_OK ? CORE_OK : CORE_EIO;
    return unlink(path) == 0 ? CORE_OK : CORE_EIO;
}

} // namespace

int core_file_exists(const char *path)
{
    if (path == nullptr)
        return CORE_EINVAL;
    errno = 0;
    const int result = access(path, F_OK);
    if (result == 0)
        return CORE_OK;
    const int err = errno;
    log_dbg("access to '%s' returned %d, errno (%d) %s\n", path, result, err, strerror(err));
    return CORE_ENOENT;
}

int core_file_check_regular(const char *path)
{
    struct stat status {};
    if (stat(path, &status) == 0) {
        if (S_ISREG(status.st_mode))
            return CORE_OK;
        log_err("'%s' is not a regular file", path);
        return CORE_EINVAL;
    }
    if (errno != ENOENT || lstat(path, &status) != 0)
        return CORE_OK; // nothing is there, or opening it tells what is wrong
    log_err("'%s' is a link to a file that is not there", path);
    return CORE_ENOENT;
}

int core_file_open(const char *path, int *handle)
{
    *handle = -1;
    if (const int err = core_file_check_regular(path); err != CORE_OK)
        return err;
    *handle = open(path, O_RDWR | O_CREAT | O_NONBLOCK, 0644);
    if (*handle == -1) {
        const int err = errno;
        log_err("error %d %s opening file '%s'\n", err, strerror(err), path);
        return map_errno_to_core_err(err);
    }
    return CORE_OK;
}

FILE *core_file_open_stream(const char *path)
{
    if (core_file_check_regular(path) != CORE_OK) {
        errno = EINVAL;
        return nullptr;
    }
    owned_file handle(open(path, O_RDONLY | O_NONBLOCK));
    FILE *const stream = handle.get() >= 0 ? fdopen(handle.get(), "r") : nullptr;
    if (stream != nullptr)
        static_cast<void>(handle.release()); // the stream closes it
    return stream;
}

int core_file_close(int handle)
{
    return core_device_close(handle);
}

int core_file_read(int handle, void *buf, size_t len, size_t *nread)
{
    return core_device_read(handle, buf, len, nread);
}

int core_file_get_size(int handle, int64_t *size)
{
    struct stat status {};
    if (fstat(handle, &status) != 0) {
        const int err = errno;
        log_err("could not get file size: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    *size = status.st_size;
    return CORE_OK;
}

int core_file_lseek(int handle, int64_t offset, int whence)
{
    const off_t position = lseek(handle, static_cast<off_t>(offset), whence);
    if (position == -1) {
        log_err("lseek error: %d\n", errno);
        return -1;
    }
    if (position != offset) {
        log_err("lseek returned offset different than expected\n");
        return -1;
    }
    return CORE_OK;
}

int core_file_seek(int handle, int64_t offset)
{
    return core_file_lseek(handle, offset, SEEK_SET) == 0 ? CORE_OK : CORE_EGENERIC;
}

int core_directory_exists(const char *path)
{
    if (path == nullptr)
        return CORE_EINVAL;
    const owned_directory directory(opendir(path));
    if (directory != nullptr)
        return CORE_OK;
    const int err = errno;
    if (err == ENOENT)
        return CORE_ENOENT;
    log_err("opendir() failed: %d\n", err);
    return CORE_EINVAL;
}

// The library's interface: the updater itself calls none of these.

int core_file_write(int handle, const void *buf, size_t len, size_t *written)
{
    return core_device_write(handle, buf, len, written);
}

int core_create_directory(const char *path)
{
    return mkdir(path, 0755);
}

int core_directory_list_files(const char *dir, char ***list, size_t *count)
{
    const owned_directory directory(opendir(dir));
    if (directory == nullptr)
        return CORE_ENOENT;
    while (const dirent *const entry = readdir(directory.get())) {
        if (is_dot_entry(entry->d_name))
            continue;
        char path[path_size];
        snprintf(path, sizeof path, "%s/%s", dir, entry->d_name);
        struct stat status {};
        if (stat(path, &status) != 0 || !S_ISREG(status.st_mode))
            continue;
        if (const int err = append_path(list, count, path); err != CORE_OK)
            return err;
    }
    return CORE_OK;
}

int core_delete_directory(const char *path) // NOLINT(misc-no-recursion): as deep as the tree
{
    if (path == nullptr)
        return CORE_EINVAL;
    errno = 0;
    const owned_directory directory(opendir(path));
    if (directory == nullptr) {
        const int err = errno;
        log_err("opendir() failed: error %d: %s\n", err, strerror(err));
        return CORE_ENOENT;
    }
    while (const dirent *const entry = readdir(directory.get())) {
        if (is_dot_entry(entry->d_name))
            continue;
        char child[path_size];
        // A name that was cut is another entry's, and may be this directory's own.
        if (!core_compose(child, "%s/%s", path, entry->d_name) || delete_entry(child) != CORE_OK)
            return CORE_EIO;
    }
    return rmdir(path) == 0 ? CORE_OK : CORE_EIO;
}
