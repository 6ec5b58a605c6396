// A place on the bus of the kernel's virtual USB host controller (module vhci_hcd): plugging a device in
// gives a socket over which the kernel speaks USB/IP to it; closing the socket pulls it out.
#pragma once

#include "descriptor.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace sim {

// The number of the first free high-speed port in the text of the controller's `status` file, from `from` on.
[[nodiscard]] std::optional<unsigned> find_free_port(std::string_view status, unsigned from);

class vhci_port {
  public:
    // `first`: the port to try first.
    explicit vhci_port(unsigned first = 0) : number_(first) {}

    // Takes a free port, the one it had before if possible. False: see error().
    [[nodiscard]] bool plug_in();
    void pull_out() { socket_.reset(); }

    bool plugged() const { return socket_.open(); }
    int socket() const { return socket_.get(); }
    std::string name() const { return "vhci_hcd.0 port " + std::to_string(number_); }
    const std::string &error() const { return error_; }

  private:
    [[nodiscard]] bool try_port(unsigned number, int kernel_end);
    bool fail(std::string what);

    descriptor socket_;
    unsigned number_;
    std::string error_;
};

} // namespace sim
