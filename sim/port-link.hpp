// A symbolic link to the port, there as long as this object lives.
#pragma once

#include <string>

namespace sim {

class port_link {
  public:
    port_link() = default;
    port_link(const port_link &) = delete;
    port_link &operator=(const port_link &) = delete;
    ~port_link();

    // Replaces an older symbolic link, but nothing else. False with errno set.
    [[nodiscard]] bool make(const std::string &path, const std::string &target);

  private:
    std::string path_;
    std::string target_;
};

} // namespace sim
