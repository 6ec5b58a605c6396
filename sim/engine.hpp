// What the device's stages have in common. An engine is given the bytes that arrive, however they are cut,
// posts its answers to the outbox and reports how far it came. It knows nothing of the line it speaks over
// and never waits.
#pragma once

#include "bytes.hpp"
#include "flash-store.hpp"
#include "outbox.hpp"
#include "settings.hpp"
#include "transcript.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace sim {

enum class progress {
    busy,         // in the middle of the stage
    done,         // the stage is complete
    reset,        // the host reset the device before the stage was complete
    system_error, // a file could not be written
};

// What every engine works with; it outlives the engines.
struct workbench {
    const settings &wanted;
    fault_plan &faults;
    transcript &log;
    outbox &out;
    flash_store &store;
};

class engine {
  public:
    explicit engine(workbench &bench) : bench_(bench) {}
    virtual ~engine() = default;
    engine(const engine &) = delete;
    engine &operator=(const engine &) = delete;

    // The stage begins; what it sends by itself is to be `delay_ms` late.
    virtual void begin(uint32_t delay_ms) = 0;
    // Consumes bytes from the front and answers how many: all, unless the stage ended or input_limit() fell
    // to 0 before. Only normal mode tells one channel from another.
    virtual size_t receive(view bytes, unsigned channel) = 0;
    // True while a message may be complete or may go on: call settled() when the host has been quiet for a
    // moment.
    virtual bool wants_quiet() const { return false; }
    virtual void settled() {}
    // What came so far was a whole transfer. A line that knows none never says so.
    virtual void end_transfer() {}
    // How many bytes the engine takes at most before it stalls or hangs up; 0: it has stopped reading.
    virtual uint64_t input_limit() const { return UINT64_MAX; }

    progress state() const { return state_; }
    const std::string &trouble() const { return trouble_; }   // for a system error
    uint32_t next_delay_ms() const { return next_delay_ms_; } // for the stage that follows

  protected:
    // What became of a message of the host on its way here.
    enum class arrival { whole, lost, garbled };
    arrival arrived(std::string_view step)
    {
        const auto struck = bench_.faults.strike(step);
        if (!struck)
            return arrival::whole;
        bench_.log.event("fault", json_members().text("step", step).text("fault", fault_name(struck->kind)));
        return struck->kind == fault_kind::lost ? arrival::lost : arrival::garbled;
    }

    void finish(progress how) { state_ = how; }
    [[nodiscard]] bool stored(bool good)
    {
        if (!good) {
            trouble_ = bench_.store.error();
            state_ = progress::system_error;
        }
        return good;
    }

    workbench &bench_;
    uint32_t next_delay_ms_ = 0;

  private:
    progress state_ = progress::busy;
    std::string trouble_;
};

} // namespace sim
