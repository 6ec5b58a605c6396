// A file that shows what a USB bus would: one line "VID:PID PORT" while the device is attached, and no file
// while it is not. For test programs whose discovery is a stand-in.
#pragma once

#include "settings.hpp"
#include "usb-function.hpp"

#include <optional>
#include <string>

namespace sim {

class bus_file {
  public:
    // `id` is the identifier in normal mode; with an empty `path` no file is kept.
    bus_file(std::string path, usb_id id, std::string port)
        : path_(std::move(path)), id_(id), port_(std::move(port))
    {
    }
    ~bus_file();
    bus_file(const bus_file &) = delete;
    bus_file &operator=(const bus_file &) = delete;

    bool kept() const { return !path_.empty(); }
    // Shows the device as it is in this stage; a reader never meets half a line. False with errno set when
    // the file cannot be written.
    [[nodiscard]] bool show(stage now);

  private:
    [[nodiscard]] bool write(usb_id id);

    std::string path_;
    usb_id id_;
    std::string port_;
};

} // namespace sim
