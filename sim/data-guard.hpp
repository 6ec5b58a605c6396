// The fault planned on received data bytes: where the device stops reading or leaves in the middle of a
// transfer, or where bytes get lost on the way.
#pragma once

#include "outbox.hpp"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

class data_guard {
  public:
    data_guard(std::string_view step, fault_plan &faults, outbox &out, transcript &log)
        : step_(step), faults_(faults), out_(out), log_(log), planned_(faults.on_data(step))
    {
    }

    // How many more data bytes may be taken.
    uint64_t limit() const { return struck_ ? 0 : planned_ ? planned_->at - taken_ : UINT64_MAX; }

    bool struck() const { return struck_; }

    // How many of `size` bytes that came get lost before they are data.
    size_t drop(size_t size)
    {
        const auto count = static_cast<size_t>(std::min<uint64_t>(size, to_drop_));
        to_drop_ -= count;
        return count;
    }

    // `bytes` (never more than limit()) were taken.
    void take(uint64_t bytes)
    {
        taken_ += bytes;
        check();
    }
    // Data are expected from now on: a fault at 0 bytes strikes here.
    void check()
    {
        if (!planned_ || struck_ || taken_ < planned_->at)
            return;
        log_.event("fault", json_members()
                                .text("step", step_)
                                .text("fault", fault_name(planned_->kind))
                                .number("bytes", taken_));
        faults_.forget_data(step_);
        if (planned_->kind == fault_kind::lost) {
            to_drop_ = std::max<uint64_t>(planned_->value, 1);
            planned_.reset();
            return;
        }
        struck_ = true;
        if (planned_->kind == fault_kind::hangup)
            out_.hang_up();
        if (planned_->kind == fault_kind::halt)
            out_.halt_input();
        out_.fall_silent();
    }

  private:
    std::string step_;
    fault_plan &faults_;
    outbox &out_;
    transcript &log_;
    std::optional<fault> planned_;
    uint64_t taken_ = 0;
    uint64_t to_drop_ = 0;
    bool struck_ = false;
};

} // namespace sim
