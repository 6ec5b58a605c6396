#include "port-link.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace sim {

bool port_link::make(const std::string &path, const std::string &target)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && ::unlink(path.c_str()) != 0)
        return false;
    if (::symlink(target.c_str(), path.c_str()) != 0)
        return false;
    path_ = path;
    target_ = target;
    return true;
}

// Another run may have taken the path over meanwhile: its link stays.
port_link::~port_link()
{
    std::array<char, 256> now{};
    if (path_.empty())
        return;
    const ssize_t size = ::readlink(path_.c_str(), now.data(), now.size());
    if (size > 0 && target_ == std::string(now.data(), static_cast<size_t>(size)))
        ::unlink(path_.c_str());
}

} // namespace sim
