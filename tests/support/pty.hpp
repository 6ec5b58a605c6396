// A raw pseudo-terminal: the code under test opens `path()`, the test plays the modem on `master()`.
#pragma once

#include <chrono>
#include <string>

class pty {
  public:
    pty();
    pty(const pty &) = delete;
    pty &operator=(const pty &) = delete;
    ~pty();

    const std::string &path() const { return path_; }
    int master() const { return master_; }

    // Writes all of `bytes` to the code under test.
    void send(const std::string &bytes);
    // Reads exactly `size` bytes that the code under test wrote; fewer when `limit` passes first.
    std::string receive(size_t size, std::chrono::milliseconds limit = std::chrono::milliseconds(2000));
    // Reads what comes until nothing came for `quiet`.
    std::string receive_until_quiet(std::chrono::milliseconds quiet = std::chrono::milliseconds(50));
    // Waits until the other side has read all that was sent; false when `limit` passes first.
    bool wait_drained(std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    // Closes the master: the other side sees a hang-up.
    void hang_up();

  private:
    int master_ = -1;
    int held_slave_ = -1; // keeps the terminal alive between two opens of the code under test
    std::string path_;
};
