// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace sim {

class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor &operator=(descriptor &&other) noexcept
    {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~descriptor() { reset(); }

    int get() const { return fd_; }
    bool open() const { return fd_ >= 0; }
    // The result of close(2); 0 when nothing was open.
    int reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        return old >= 0 ? ::close(old) : 0;
    }

  private:
    int fd_ = -1;
};

} // namespace sim
