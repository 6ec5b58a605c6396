// The simulated modem as a whole: strings the stages together and says when the conversation is over. A front
// feeds it what the host sends and carries out what take() hands over; the device never waits and never
// touches the line.
//
//     normal --DIAG switch--> sahara --DONE--> firehose --power reset--> ended
//                                                        (or normal again)
//
// One thread only. Use it like this:
//
//     device modem(wanted, log);
//     if (!modem.start()) ...modem.trouble()...
//     modem.receive(bytes);                  // at most input_limit() of them
//     while (!modem.idle()) write(modem.take().bytes);
//
// A front with several lines names the channel: the modem's AT ports are 1 and 2, everything else is 0.
#pragma once

#include "engine.hpp"

#include <memory>

namespace sim {

// How the conversation ended; the numbers are exit statuses of the program.
enum class ending { complete = 0, system_error = 1, timed_out = 3 };

class device {
  public:
    // `log` outlives the device.
    device(settings wanted, transcript &log);

    // Prepares the store and enters the first stage; false: see trouble().
    [[nodiscard]] bool start();

    void receive(view bytes, unsigned channel = 0);
    // All that came so far was a transfer of its own.
    void end_transfer();
    // Bytes that came but are not taken any more: they only go into the record.
    void leave(view bytes) { log_.record(bytes); }
    // How many bytes may be given to receive() next; 0: stop reading the line.
    uint64_t input_limit() const;
    // Call settled() when this is true and nothing came for some 20 ms.
    bool wants_quiet() const { return engine_ && engine_->wants_quiet(); }
    void settled();

    // What waits to be sent.
    bool idle(unsigned channel = 0) const { return out_.empty(channel); }
    uint32_t delay_ms(unsigned channel = 0) const { return out_.delay_ms(channel); }
    bool event_is_next(unsigned channel = 0) const { return out_.is_event(channel); }
    write_unit take(unsigned channel = 0) { return out_.take(channel); }

    bool ended() const { return stage_ == stage::ended; }
    // Only when ended.
    ending how() const { return how_; }
    const std::string &trouble() const { return trouble_; } // one line for a system error
    stage where() const { return stage_; }
    const char *stage_name() const;

    // The line was cut on the way to the present stage: what still waits of an earlier one is lost.
    void forget_earlier() { out_.keep_only(stage_name()); }

  private:
    void enter(stage next, uint32_t delay_ms);
    void follow();
    void complete_stage();
    void end(ending how, const char *reason, const std::string &trouble = "");
    std::unique_ptr<engine> make_engine(stage which);

    const settings wanted_;
    transcript &log_;
    fault_plan faults_;
    outbox out_;
    flash_store store_;
    workbench bench_;
    std::unique_ptr<engine> engine_;
    stage stage_ = stage::normal;
    ending how_ = ending::complete;
    std::string trouble_;
};

} // namespace sim
