// A standard stream as a sink of the log that never holds the run for long: whoever does not read costs it a
// second in all, then lines are dropped. A line that went out in part is completed before anything else goes
// out, so that what is read stays whole lines.
//
// The descriptors are the run's own only in part: a terminal or a pipe is shared with other processes, so
// that its file description is never made non-blocking. poll(2) tells whether there is room, and a timer of
// this process interrupts a write(2) that blocks all the same: where another process has filled a pipe in
// between, or a terminal has room for a part of the line. That holds for whatever the descriptor is; a
// description of its own, by opening it anew, could not be had for a socket, for a terminal or pipe of
// another user, or without /proc. The timer's signal is SIGURG, which does no harm when nobody expects it.
#pragma once

#include "timeouts.hpp"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// How long the output may still make the run wait. One for all sinks.
class log_patience {
  public:
    // Waits until the descriptor takes something, or fails; false when it did not, and from then on there is
    // no patience left.
    [[nodiscard]] bool wait_for_room(int descriptor);
    // write(2) that is interrupted when it blocks; what it waited is taken off.
    [[nodiscard]] ssize_t write(int descriptor, const void *data, size_t size);
    [[nodiscard]] bool is_over() const { return left_ns_ <= 0; }

  private:
    void take_off_since(int64_t begun_ns);

    int64_t left_ns_ = int64_t{timeouts::output_in_all} * 1000000;
};

// Room for a line. The longest is an event of the JSON stream: its body of 10 KiB, or a message of 1 KiB, six
// times as long when each byte is escaped.
using log_line = char[16384];

class log_sink {
  public:
    // `twin` is the other sink, which may lead to the same pipe or terminal. Nothing is owned.
    constexpr log_sink(int descriptor, log_line &line, log_patience &patience, log_sink &twin)
        : descriptor_(descriptor), line_(line), patience_(patience), twin_(twin)
    {
    }
    log_sink(const log_sink &) = delete;
    log_sink &operator=(const log_sink &) = delete;
    ~log_sink() = default;

    // Begins a line; false as long as the rest of one that went out in part cannot be written.
    [[nodiscard]] bool begin();
    // Appends to it. The length of what was appended; -1 when there is no room for it, and the line is
    // forgotten.
    [[nodiscard]] int add(const char *format, va_list arguments) __attribute__((format(printf, 2, 0)));
    // Writes it; true once any of it is written, the rest follows by the next begin(). False: nothing was
    // written, and the line is forgotten.
    [[nodiscard]] bool end();

  private:
    [[nodiscard]] bool write_rest();
    [[nodiscard]] bool leads_where(const log_sink &other) const;
    bool is_written() const { return written_ == size_; }

    int descriptor_;
    log_line &line_;
    log_patience &patience_;
    log_sink &twin_;
    size_t size_ = 0; // of the line, and how much of it is written
    size_t written_ = 0;
};
