// A port with a modem behind it that follows a script, in virtual time: what it sends, what it has to be
// sent, when it falls silent, leaves or breaks. The code under test opens path() and uses the descriptor as
// any terminal's.
//
// The script is strict: bytes that it does not await fail the test, and so do, at the end of the port's life,
// bytes that never came, bytes that nobody read and descriptors that are still open. Behind the end of its
// script a modem is silent.
#pragma once

#include <cstdint>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <termios.h>
#include <vector>

class scripted_port {
  public:
    scripted_port();
    scripted_port(const scripted_port &) = delete;
    scripted_port &operator=(const scripted_port &) = delete;
    ~scripted_port();

    const std::string &path() const { return path_; }
    // A descriptor for the test of a single step, closed at the end of the port's life.
    int open(int flags = O_RDWR | O_NONBLOCK | O_NOCTTY);

    // ---- the script, in order; it goes on by itself up to the first step that waits for the code under test

    // These bytes arrive together, when those of the step before have been read; none at all are an empty
    // read.
    scripted_port &sends(const std::string &bytes);
    // Arrives byte by byte.
    scripted_port &trickles(const std::string &bytes);
    // The code under test writes this, in as many pieces as it likes.
    scripted_port &takes(const std::string &bytes);
    // The code under test writes anything, up to this character.
    scripted_port &takes_up_to(char end);
    // The modem does nothing for so long.
    scripted_port &pauses(int64_t ms);
    // The next wait for input passes in vain, however long it is.
    scripted_port &lets_a_wait_pass();
    // The modem leaves: all that comes after is a hang-up.
    scripted_port &hangs_up();
    // The device reports an error from here on.
    scripted_port &breaks();
    // There is something to read, and reading it fails.
    scripted_port &fails_a_read(int number);
    scripted_port &does(std::function<void()> what);

    // ---- the next writes, whatever the script awaits, and the ones after those

    // Takes all, or no more than this, of the next write that has no outcome yet; or refuses it with an
    // errno.
    scripted_port &lets_a_write_pass();
    scripted_port &takes_at_most(size_t count);
    scripted_port &refuses_a_write(int number);
    size_t largest_write = SIZE_MAX;

    // ---- what happened

    const std::string &written() const { return written_; }
    // What each write offered.
    const std::vector<std::string> &writes() const { return writes_; }
    // The time-outs of the waits for input, in milliseconds.
    const std::vector<int> &waits() const { return waits_; }
    // How many of those passed in vain.
    size_t waits_in_vain() const { return waits_in_vain_; }
    // Takes away what has arrived and nobody has read.
    std::string unread();
    // How many descriptors of the process are open on the port.
    size_t open_descriptors() const;

    termios settings{};
    bool is_exclusive = false; // TIOCEXCL
    int modem_lines = -1;      // TIOCM_*; negative for a port that has none
    std::vector<int> modem_lines_set;

    // ---- what the C library's functions do on such a descriptor (libc-hooks.cpp)

    // Null for a descriptor that is none of a scripted port.
    static scripted_port *of(int handle);
    // Tells a terminal in the place of the file.
    static void disguise(struct stat *status);
    int wait(pollfd *watched, int timeout_ms);
    ssize_t read(int handle, void *data, size_t size);
    ssize_t write(int handle, const void *data, size_t size);
    int control(unsigned long request, void *argument);

  private:
    struct step {
        enum class kind {
            sends,
            takes,
            takes_up_to,
            pauses,
            lets_a_wait_pass,
            does,
            hangs_up,
            breaks,
            fails_a_read
        } what;
        std::string bytes;
        int64_t number;
        std::function<void()> action;
    };

    scripted_port &add(step::kind what, const std::string &bytes = "", int64_t number = 0,
                       std::function<void()> action = nullptr);
    void go_on();
    bool awaits_bytes() const;
    bool is_at(step::kind what) const { return !arrived_.empty() && arrived_.front().what == what; }
    short events() const;
    void take(std::string bytes);

    int file_ = -1; // stands for the port among the descriptors of the process
    int opened_ = -1;
    std::string path_;
    std::deque<step> script_;
    std::deque<step> arrived_;     // what the modem did and the code has not noticed yet
    std::deque<ssize_t> outcomes_; // of the next writes: a count, or a negated errno
    bool is_pausing_ = false;

    std::string written_;
    std::vector<std::string> writes_;
    std::vector<int> waits_;
    size_t waits_in_vain_ = 0;
};
