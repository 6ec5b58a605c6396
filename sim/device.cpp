#include "device.hpp"

#include "firehose-engine.hpp"
#include "normal-engine.hpp"
#include "sahara-engine.hpp"

#include <array>

namespace sim {
namespace {

constexpr std::array<const char *, 4> stage_names = {"normal", "sahara", "firehose", "ended"};

} // namespace

device::device(settings wanted, transcript &log)
    : wanted_(std::move(wanted)), log_(log), faults_(wanted_.faults), out_(wanted_.how, faults_, log_),
      store_(wanted_.flash, wanted_.discard, wanted_.flash_from), bench_{wanted_, faults_, log_, out_, store_}
{
}

const char *device::stage_name() const
{
    return stage_names[static_cast<size_t>(stage_)];
}

bool device::start()
{
    if (!store_.prepare()) {
        end(ending::system_error, "system error", store_.error());
        return false;
    }
    enter(wanted_.start, 0);
    return true;
}

std::unique_ptr<engine> device::make_engine(stage which)
{
    if (which == stage::normal)
        return std::make_unique<normal_engine>(bench_);
    if (which == stage::sahara)
        return std::make_unique<sahara_engine>(bench_);
    return std::make_unique<firehose_engine>(bench_);
}

void device::enter(stage next, uint32_t delay_ms)
{
    stage_ = next;
    log_.set_stage(stage_name());
    log_.event("stage");
    engine_ = make_engine(next);
    out_.speak_on(0);
    engine_->begin(delay_ms);
}

uint64_t device::input_limit() const
{
    return ended() ? UINT64_MAX : engine_->input_limit();
}

void device::receive(view bytes, unsigned channel)
{
    log_.record(bytes);
    out_.speak_on(channel);
    out_.release();
    while (!bytes.empty() && !ended()) {
        const size_t used = engine_->receive(bytes, channel);
        if (engine_->state() == progress::busy && engine_->input_limit() == 0)
            return; // stalled
        bytes = bytes.subspan(used);
        follow();
    }
    if (!bytes.empty())
        log_.received("after_end", bytes.size());
}

void device::end_transfer()
{
    if (ended())
        return;
    out_.speak_on(0);
    engine_->end_transfer();
    follow();
}

void device::settled()
{
    if (ended())
        return;
    out_.speak_on(0);
    engine_->settled();
    follow();
}

void device::follow()
{
    switch (engine_->state()) {
    case progress::busy:
        return;
    case progress::done:
        return complete_stage();
    case progress::reset:
        return wanted_.stay ? enter(stage::normal, 0) : end(ending::complete, "reset by the host");
    case progress::system_error:
        return end(ending::system_error, "system error", engine_->trouble());
    }
}

void device::complete_stage()
{
    if (stage_ == wanted_.until && !wanted_.stay)
        return end(ending::complete, "complete");
    static constexpr std::array<stage, 3> following = {stage::sahara, stage::firehose, stage::normal};
    enter(following[static_cast<size_t>(stage_)], engine_->next_delay_ms());
}

void device::end(ending how, const char *reason, const std::string &trouble)
{
    how_ = how;
    trouble_ = trouble;
    stage_ = stage::ended;
    log_.set_stage(stage_name());
    json_members fields = json_members().text("reason", reason);
    if (!trouble.empty())
        fields.text("trouble", trouble);
    log_.event("end", fields);
}

} // namespace sim
