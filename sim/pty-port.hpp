// A pseudo-terminal: the device holds the master, the host opens the slave by its path. The port makes the
// slave raw itself and keeps a descriptor of it open, so that the host may open and close it as often as it
// likes.
#pragma once

#include "bytes.hpp"
#include "descriptor.hpp"

#include <optional>
#include <string>

namespace sim {

class pty_port {
  public:
    // False: see error().
    [[nodiscard]] bool open();
    const std::string &error() const { return error_; }
    const std::string &path() const { return path_; }
    int master() const { return master_.get(); } // non-blocking; for poll

    // True when the host has read everything that was written.
    bool drained() const;
    // Bytes read (0: none waiting); nothing when the host closed the slave (only after release_slave) or the
    // line is broken.
    [[nodiscard]] std::optional<size_t> read(std::span<uint8_t> room);
    // Bytes written (0: no room now); nothing when the line is broken.
    [[nodiscard]] std::optional<size_t> write(view bytes);

    // From now on the host's last close is seen as a hang-up of the master.
    void release_slave() { slave_.reset(); }
    void hang_up();
    // What the host did not read yet is gone.
    void discard_unread();

  private:
    bool failed(const char *what);

    descriptor master_;
    descriptor slave_;
    std::string path_;
    std::string error_;
};

} // namespace sim
