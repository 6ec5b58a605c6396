// The planned misbehaviour of the device. A fault is written
//
//   STEP=KIND[:VALUE][@N]      e.g. sahara.read=late:600@3
//
// and strikes when the device is about to take STEP for the N-th time (the first time without @N, every time
// with @all). Two steps count received data bytes instead: sahara.data-in and firehose.data-in, written
// STEP=hangup@BYTES, STEP=stall@BYTES, STEP=halt@BYTES or STEP=lost[:COUNT]@BYTES. Nothing here waits; the
// plan only answers questions.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

enum class fault_kind {
    silence,
    skip,
    nak,
    garbage,
    hangup,
    truncate,
    repeat,
    late,
    stall,
    halt,
    split,
    twice,
    glue,
    wrong,
    length,
    offset,
    bytes,
    lost,
    garbled,
    overdue,
    halves,
    nul,
};

struct fault {
    std::string step;
    fault_kind kind = fault_kind::silence;
    // late: milliseconds; truncate, halves: bytes of the first part, 0 = half; length, offset, bytes: what
    // the field says; lost: how many bytes of the data
    uint64_t value = 0;
    bool every_time = false;
    uint64_t at = 1; // the N-th time, or for a data-in step the byte count
};

// Empty text: parsed into `out`. Otherwise what is wrong with it.
[[nodiscard]] std::string parse_fault(std::string_view text, fault &out);

std::string_view fault_name(fault_kind kind);

class fault_plan {
  public:
    explicit fault_plan(std::vector<fault> faults) : faults_(std::move(faults)) {}

    // Counts one more time at `step` and gives the fault that strikes now.
    std::optional<fault> strike(std::string_view step);

    // The fault planned on received data at the data-in step, if it did not strike yet.
    std::optional<fault> on_data(std::string_view step) const;
    void forget_data(std::string_view step);

  private:
    std::vector<fault> faults_;
    std::map<std::string, uint64_t, std::less<>> times_;
};

} // namespace sim
