#include "fuzz_file.hpp"

#include "core.hpp"
#include "fuzz.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

fuzz_file::fuzz_file() : handle_(memfd_create("fuzz", MFD_CLOEXEC))
{
    fuzz_check(handle_ >= 0);
    path_ = "/proc/self/fd/" + std::to_string(handle_);
}

fuzz_file::fuzz_file(const std::string &path)
    : handle_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)), path_(path)
{
    fuzz_check(handle_ >= 0);
}

fuzz_file::~fuzz_file()
{
    close(handle_);
}

void fuzz_file::set(const std::string &content)
{
    fuzz_check(ftruncate(handle_, 0) == 0);
    fuzz_check(pwrite(handle_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
}

core_file_identity fuzz_file::identity() const
{
    core_file_identity found{};
    fuzz_check(core_file_identify(handle_, &found) == CORE_OK);
    return found;
}
