// What the device wants to say, in order, and what the plan of faults makes of it. Engines post whole
// messages; a front (a pseudo-terminal, a USB function) takes write units: each unit is one write, or one USB
// transfer. A front must wait `delay_ms` before a unit and let the host read the unit before it takes the
// next one, so that two messages never arrive glued by accident.
#pragma once

#include "bytes.hpp"
#include "fault-plan.hpp"
#include "json-line.hpp"
#include "transcript.hpp"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// whole: a message is a unit; bytes: every byte is a unit; glued: the messages that wait together without a
// delay between them are one unit.
enum class delivery { whole, bytes, glued };

// Where a message has a number that a fault may replace, little-endian.
struct number_field {
    fault_kind replaced_by;
    size_t at;
    size_t width; // bytes
};

struct message {
    std::string step; // a step name of the fault plan
    std::string kind; // for the transcript
    octets bytes;
    octets refusal; // what a "nak" fault sends instead
    json_members fields{};
    uint32_t delay_ms = 0;
    octets wrong{}; // what a "wrong" fault sends instead
    std::vector<number_field> numbers{};
    octets reason{}; // what a "nak" fault sends before the refusal, in a unit of its own
};

// Bytes, or something that the front is to do to the line instead.
struct write_unit {
    octets bytes{};
    bool hang_up = false;  // close the line
    bool halt_in = false;  // USB: the host's next fetch is answered with STALL
    bool halt_out = false; // USB: and so is what the host is sending
};

// What becomes of a message: it goes out whole (perhaps late or twice), or harmed or not at all, or a refusal
// goes out instead.
enum class posted { whole, spoiled, refused };

// The lines that a front may have, each with what waits for it: none holds another one up.
inline constexpr unsigned most_channels = 3;

class outbox {
  public:
    outbox(delivery how, fault_plan &faults, transcript &log) : how_(how), faults_(faults), log_(log) {}

    // The line that everything goes to that is posted from now on.
    void speak_on(unsigned channel) { channel_ = channel; }
    posted post(const message &it);

    // Closes the line after everything that was posted so far.
    void hang_up() { queue_event("hangup", {.hang_up = true}); }
    // USB: halts the endpoint that the host sends to.
    void halt_input() { queue_event("halt", {.halt_out = true}); }
    // From now on nothing is sent any more.
    void fall_silent() { silent_ = true; }

    // Drops what was posted in other stages and did not go out yet.
    void keep_only(std::string_view stage)
    {
        for (auto &waiting : queues_)
            std::erase_if(waiting, [stage](const entry &it) { return it.stage != stage; });
    }

    // The host has sent something: what was held back for that may go.
    void release()
    {
        for (auto &waiting : queues_)
            for (entry &it : waiting)
                it.held = false;
    }

    // Nothing is to be sent on a channel, or not yet.
    bool empty(unsigned channel = 0) const
    {
        return queues_[channel].empty() || queues_[channel].front().held;
    }
    // Whether the next unit is something else than bytes. Only when not empty.
    bool is_event(unsigned channel = 0) const { return queues_[channel].front().is_event(); }
    // The delay of the next unit. Only when not empty.
    uint32_t delay_ms(unsigned channel = 0) const { return queues_[channel].front().delay_ms; }
    // The next unit; it is written to the transcript as sent. Only when not empty.
    write_unit take(unsigned channel = 0);

  private:
    struct entry {
        std::string stage;
        std::string kind;
        json_members fields;
        write_unit unit;
        uint32_t delay_ms = 0;
        size_t total = 0;   // length of the whole message; 0: already in the transcript, or an event
        bool glued = false; // goes out together with the next one
        bool held = false;  // until the host sends something

        bool is_event() const { return unit.hang_up || unit.halt_in || unit.halt_out; }
    };

    void queue(const message &it, octets bytes);
    void queue_pieces(const message &it, const octets &bytes, size_t first, size_t others);
    void queue_event(const char *kind, write_unit unit, uint32_t delay_ms = 0);
    void queue_other(const message &it, const char *kind, octets bytes);
    posted spoil(const message &it, const fault &what);
    posted send_changed(const message &it, const fault &what);
    std::deque<entry> &line() { return queues_[channel_]; }
    void note(const entry &it);

    delivery how_;
    fault_plan &faults_;
    transcript &log_;
    std::array<std::deque<entry>, most_channels> queues_;
    unsigned channel_ = 0;
    bool silent_ = false;
};

} // namespace sim
