// The device at the other end of a descriptor, played from a fuzz input. While an object lives, poll, read,
// write and ioctl(FIONREAD) on its descriptor are answered from the script, at once, and pauses take no time;
// everything is put down in order. Its lock is always granted, and no other name is locked meanwhile.
//
// The first byte of the script says how writes go: the low three bits are a `write_mode`, the rest its
// number. What follows comes from the device. A byte 0xFF with one of these behind it is an event, any other
// 0xFF itself:
//   |  the end of a message: a read never brings bytes of two
//   w  what follows comes after the next write
//   t  silence: a poll times out, a read without poll finds nothing
//   0  ready, but a read brings nothing
//   a  ready, but a read fails with EAGAIN
//   e  ready, but a read fails with EIO
//   i  a poll is interrupted
//   p  a poll tells of a device error
//   h  the device hangs up, for good
// Behind the end of the script is silence.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

enum class write_mode : uint8_t {
    whole,      // every write takes all
    pieces,     // every write takes `number` + 1 bytes at most
    again_once, // write `number` fails with EAGAIN
    again,      // every write from `number` on fails with EAGAIN
    fails,      // every write from `number` on fails with EIO
    no_room,    // the poll for room times out from write `number` on
    takes_none, // every write from `number` on takes nothing
    hangs_up,   // the poll for room tells of a hang-up from write `number` on
};

// One thing that the code under test did on the descriptor.
struct peer_event {
    enum kind : uint8_t { received, receive_failed, sent, send_failed } what;
    std::string bytes;
    bool polled = false; // a read that followed a poll: one that waited
};

class fuzz_peer {
  public:
    explicit fuzz_peer(const std::string &script);
    fuzz_peer(const fuzz_peer &) = delete;
    fuzz_peer &operator=(const fuzz_peer &) = delete;
    ~fuzz_peer();

    // For functions that take an open port.
    int descriptor() const { return handle_; }
    // For functions that open the port themselves: closes the descriptor, so that the next open gets its
    // number. was_closed() tells whether they closed it again.
    const char *lend();
    bool was_closed() const;

    const std::vector<peer_event> &events() const { return events_; }
    // All that was taken from the code under test.
    std::string written() const;
    // What was taken between two events of another kind. A write that failed with EAGAIN does not part two,
    // but as many as are tried do.
    struct burst {
        std::string bytes;
        size_t first_event; // its index: what was received before lies in front of it
    };
    std::vector<burst> bursts() const;
    // True when a write failed for good, or as often as it was tried.
    bool write_failed() const;

    // The calls of the C library.
    int poll(short wanted, short *got);
    long read(void *buffer, size_t size);
    long write(const void *data, size_t size);
    int available() const;

  private:
    struct step {
        char event; // 0 for bytes
        std::string bytes;
    };

    void parse(const std::string &script, size_t start);
    void add_message(std::string *bytes);
    // Whether the next write is one that the mode tells of.
    bool is_due() const;

    int handle_;
    bool lent_ = false;
    write_mode mode_ = write_mode::whole;
    unsigned write_number_ = 0;
    unsigned writes_ = 0;
    bool gone_ = false;
    bool polled_ = false;
    std::deque<step> steps_;
    std::vector<peer_event> events_;
};
