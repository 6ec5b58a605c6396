#include "core-reading.hpp"

#include "core.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "core-file.c";
constexpr char in_core_file_open[] = "core_file_open"; // whose cautious form this is

struct proc_path {
    char text[32];
    explicit proc_path(int handle) { snprintf(text, sizeof text, "/proc/self/fd/%d", handle); }
};

// Where the opened file really lies.
struct real_path {
    char text[PATH_MAX];
    ssize_t length;
    explicit real_path(int handle) : length(readlink(proc_path(handle).text, text, sizeof text)) {}
    // Empty where the kernel does not tell, or the path was cut.
    std::string_view view() const
    {
        return length > 0 && length < static_cast<ssize_t>(sizeof text)
                   ? std::string_view(text, static_cast<size_t>(length))
                   : std::string_view();
    }
};

// Opens without any effect.
int open_as_path(const char *path, int flags)
{
    return open(path, O_PATH | O_CLOEXEC | flags);
}

// What has been logged is no error of the system.
int refuse(int result)
{
    errno = 0;
    return result;
}

// Tells of a link to nothing, of which the system's own message would say too little.
int refuse_unopened(const char *path)
{
    const int err = errno;
    struct stat status {};
    if (err == ENOENT && lstat(path, &status) == 0) {
        log_as(in_core_file_open, CORE_LOG_ERR, "'%s' is a link to a file that is not there", path);
        return refuse(CORE_ENOENT);
    }
    errno = err;
    return map_errno_to_core_err(err);
}

// A file that cannot be looked at is not taken for one of another kind: its errno stays for the caller to
// log.
int check_regular(int handle, const char *path)
{
    struct stat status {};
    if (fstat(handle, &status) != 0)
        return map_errno_to_core_err(errno);
    if (S_ISREG(status.st_mode))
        return CORE_OK;
    log_as(in_core_file_open, CORE_LOG_ERR, "'%s' is not a regular file", path);
    return refuse(CORE_EINVAL);
}

// True when the file lies in the folder or below it.
bool lies_beneath(int handle, const char *folder)
{
    const owned_handle<close> directory(open_as_path(folder, O_DIRECTORY));
    const real_path outer(directory.get());
    const real_path inner(handle);
    std::string_view rest = inner.view();
    if (outer.view().empty() || !rest.starts_with(outer.view()))
        return false;
    rest.remove_prefix(outer.view().size());
    return rest.starts_with('/') || outer.view().ends_with('/');
}

int open_checked(const char *folder, const char *path, int *handle)
{
    *handle = -1;
    const owned_handle<close> found(open_as_path(path, 0)); // whose end leaves errno alone
    if (found.get() < 0)
        return refuse_unopened(path);
    if (const int err = check_regular(found.get(), path); err != CORE_OK)
        return err;
    if (folder != nullptr && !lies_beneath(found.get(), folder)) {
        log_as(in_core_file_open, CORE_LOG_ERR, "file name leads out of the package: %s", path);
        return refuse(CORE_EINVAL);
    }
    *handle = open(proc_path(found.get()).text, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return *handle >= 0 ? CORE_OK : map_errno_to_core_err(errno);
}

} // namespace

int core_file_open_to_read(const char *path, int *handle)
{
    return open_checked(nullptr, path, handle);
}

int core_file_open_beneath(const char *folder, const char *path, int *handle)
{
    return open_checked(folder, path, handle);
}

int core_file_identify(int handle, core_file_identity *identity)
{
    struct stat status {};
    if (fstat(handle, &status) != 0) {
        const int err = errno;
        log_err("could not get file status: error %d %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    *identity = {static_cast<uint64_t>(status.st_dev),         static_cast<uint64_t>(status.st_ino),
                 static_cast<int64_t>(status.st_size),         static_cast<int64_t>(status.st_mtim.tv_sec),
                 static_cast<int64_t>(status.st_mtim.tv_nsec), static_cast<int64_t>(status.st_ctim.tv_sec),
                 static_cast<int64_t>(status.st_ctim.tv_nsec)};
    return CORE_OK;
}
