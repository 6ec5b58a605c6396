#include "bus-file.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace sim {

bus_file::~bus_file()
{
    static_cast<void>(show(stage::ended)); // there is nobody left to tell
}

bool bus_file::show(stage now)
{
    if (!kept())
        return true;
    if (now == stage::ended)
        return ::unlink(path_.c_str()) == 0 || errno == ENOENT;
    return write(now == stage::normal ? id_ : download_usb_id);
}

bool bus_file::write(usb_id id)
{
    const std::string draft = path_ + ".new";
    std::FILE *const file = std::fopen(draft.c_str(), "we");
    if (file == nullptr)
        return false;
    const bool written = std::fprintf(file, "%04x:%04x %s\n", id.vid, id.pid, port_.c_str()) > 0;
    return std::fclose(file) == 0 && written && std::rename(draft.c_str(), path_.c_str()) == 0;
}

} // namespace sim
