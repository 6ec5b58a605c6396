#include "flash-store.hpp"

#include "numbers.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace sim {
namespace {

const std::string programmer_name = "programmer.bin";
constexpr uint64_t most_requests = 1000000000; // more than any run makes

// Element names come from the host: only harmless characters reach a file name.
std::string harmless(std::string_view element)
{
    std::string name;
    for (const char c : element.substr(0, 32)) {
        const bool plain =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
        name += plain ? c : '_';
    }
    return name.empty() ? "unknown" : name;
}

[[nodiscard]] bool write_all(int fd, view bytes)
{
    while (!bytes.empty()) {
        const ssize_t done = ::write(fd, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            return false;
        bytes = bytes.subspan(static_cast<size_t>(done));
    }
    return true;
}

} // namespace

bool flash_store::failed(const std::string &name)
{
    error_ = folder_ + (name.empty() ? "" : "/" + name) + ": " + std::strerror(errno);
    return false;
}

bool flash_store::prepare()
{
    if (folder_.empty())
        return true;
    struct stat status {};
    if (::mkdir(folder_.c_str(), 0777) != 0 && errno != EEXIST)
        return failed("");
    if (::stat(folder_.c_str(), &status) != 0)
        return failed("");
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return failed("");
    }
    return from_.empty() || take_over();
}

// The files of an earlier run, and its numbers.
bool flash_store::take_over()
{
    namespace fs = std::filesystem;
    std::error_code wrong;
    const bool same = fs::equivalent(from_, folder_, wrong);
    for (fs::directory_iterator it(from_, wrong), end; !wrong && it != end; it.increment(wrong)) {
        const std::string name = it->path().filename();
        const auto number = parse_number(name.substr(0, name.find('-')), most_requests);
        if (!number && name != programmer_name)
            continue;
        if (number)
            requests_ = std::max(requests_, static_cast<unsigned>(*number) + 1);
        if (!same)
            fs::copy_file(it->path(), fs::path(folder_) / name, fs::copy_options::overwrite_existing, wrong);
    }
    if (wrong)
        error_ = from_ + ": " + wrong.message();
    return !wrong;
}

std::string flash_store::numbered(std::string_view element, std::string_view suffix) const
{
    char number[16];
    std::snprintf(number, sizeof number, "%03u-", requests_ == 0 ? 0 : requests_ - 1);
    return number + harmless(element) + std::string(suffix);
}

bool flash_store::create(descriptor &file, const std::string &name)
{
    const std::string path = folder_ + "/" + name;
    file.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file.open() || failed(name);
}

bool flash_store::close(descriptor &file, const std::string &name)
{
    return file.reset() == 0 || failed(name);
}

bool flash_store::keep_request(std::string_view element, std::string_view text)
{
    requests_++;
    if (folder_.empty())
        return true;
    const std::string name = numbered(element, ".xml");
    descriptor file;
    if (!create(file, name))
        return false;
    const view bytes(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    if (!write_all(file.get(), bytes))
        return failed(name);
    return close(file, name);
}

bool flash_store::open_image()
{
    image_size_ = 0;
    image_crc_.reset();
    return !keeps_data() || create(image_, numbered("program", ".bin"));
}

bool flash_store::write_image(view bytes)
{
    image_size_ += bytes.size();
    if (discard_)
        return true;
    image_crc_.update(bytes);
    if (!image_.open() || write_all(image_.get(), bytes))
        return true;
    return failed(numbered("program", ".bin"));
}

bool flash_store::close_image()
{
    return close(image_, numbered("program", ".bin"));
}

std::optional<uint32_t> flash_store::image_crc() const
{
    return discard_ ? std::nullopt : std::optional<uint32_t>(image_crc_.value());
}

bool flash_store::open_programmer()
{
    return !keeps_data() || create(programmer_, programmer_name);
}

bool flash_store::write_programmer(uint64_t offset, view bytes)
{
    if (!programmer_.open())
        return true;
    while (!bytes.empty()) {
        const ssize_t done =
            ::pwrite(programmer_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            return failed(programmer_name);
        bytes = bytes.subspan(static_cast<size_t>(done));
        offset += static_cast<uint64_t>(done);
    }
    return true;
}

bool flash_store::close_programmer()
{
    return close(programmer_, programmer_name);
}

} // namespace sim
