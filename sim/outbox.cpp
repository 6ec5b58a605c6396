#include "outbox.hpp"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

// Neither a packet, nor an answer, nor a final response.
const octets garbage_bytes = {0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A,
                              0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A};

octets shortened(const octets &bytes, uint64_t keep)
{
    const uint64_t wanted = keep == 0 ? bytes.size() / 2 : keep;
    const auto size = static_cast<size_t>(std::min<uint64_t>(wanted, bytes.size()));
    return octets(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

octets with_number(const message &it, const fault &what)
{
    octets bytes = it.bytes;
    for (const number_field &field : it.numbers)
        for (size_t i = 0; field.replaced_by == what.kind && i < field.width; i++)
            bytes[field.at + i] = static_cast<uint8_t>(what.value >> (8 * i));
    return bytes;
}

} // namespace

posted outbox::post(const message &it)
{
    const auto struck = faults_.strike(it.step);
    if (struck && !silent_)
        return spoil(it, *struck);
    if (!silent_)
        queue(it, it.bytes);
    return silent_ ? posted::spoiled : posted::whole;
}

posted outbox::spoil(const message &it, const fault &what)
{
    log_.event("fault", json_members().text("step", it.step).text("fault", fault_name(what.kind)));
    switch (what.kind) {
    case fault_kind::silence:
        fall_silent();
        return posted::spoiled;
    case fault_kind::nak:
        queue_other(it, "nak", it.refusal);
        return posted::refused;
    case fault_kind::garbage:
        queue_other(it, "garbage", garbage_bytes);
        return posted::spoiled;
    case fault_kind::hangup:
        queue_event("hangup", {.hang_up = true}, it.delay_ms);
        return posted::spoiled;
    case fault_kind::halt:
        queue_event("halt", {.halt_in = true});
        return posted::spoiled;
    case fault_kind::truncate:
        queue_other(it, "truncated", shortened(it.bytes, what.value));
        return posted::spoiled;
    case fault_kind::repeat:
        queue(it, it.bytes);
        queue(it, it.bytes);
        return posted::whole;
    case fault_kind::late: {
        message later = it;
        later.delay_ms += static_cast<uint32_t>(what.value);
        queue(later, it.bytes);
        return posted::whole;
    }
    default:
        return send_changed(it, what);
    }
}

posted outbox::send_changed(const message &it, const fault &what)
{
    switch (what.kind) {
    case fault_kind::split:
        queue_bytes(it, it.bytes);
        return posted::whole;
    case fault_kind::twice: {
        octets both = it.bytes;
        both.insert(both.end(), it.bytes.begin(), it.bytes.end());
        queue(it, std::move(both));
        return posted::whole;
    }
    case fault_kind::glue:
    case fault_kind::overdue:
        queue(it, it.bytes);
        if (!queue_.empty()) {
            queue_.back().glued = what.kind == fault_kind::glue;
            queue_.back().held = what.kind == fault_kind::overdue;
        }
        return posted::whole;
    case fault_kind::wrong:
        queue_other(it, "wrong", it.wrong);
        return posted::spoiled;
    case fault_kind::length:
    case fault_kind::offset:
    case fault_kind::bytes:
        queue(it, with_number(it, what));
        return posted::whole;
    default: // skip
        return posted::spoiled;
    }
}

void outbox::queue(const message &it, octets bytes)
{
    if (bytes.empty())
        return;
    if (how_ == delivery::bytes)
        return queue_bytes(it, bytes);
    const size_t total = bytes.size();
    queue_.push_back({log_.stage(), it.kind, it.fields, {.bytes = std::move(bytes)}, it.delay_ms, total});
}

void outbox::queue_bytes(const message &it, const octets &bytes)
{
    const size_t total = bytes.size();
    for (size_t i = 0; i < total; i++)
        queue_.push_back({log_.stage(),
                          it.kind,
                          i == 0 ? it.fields : json_members(),
                          {.bytes = {bytes[i]}},
                          i == 0 ? it.delay_ms : 0,
                          i == 0 ? total : 0});
}

// Something else than the message: its fields would not be true.
void outbox::queue_other(const message &it, const char *kind, octets bytes)
{
    message other = it;
    other.kind = kind;
    other.fields = json_members().text("instead_of", it.kind);
    queue(other, std::move(bytes));
}

// The last thing that happens on the line.
void outbox::queue_event(const char *kind, write_unit unit, uint32_t delay_ms)
{
    if (!silent_)
        queue_.push_back({log_.stage(), kind, {}, std::move(unit), delay_ms, 0});
    fall_silent();
}

outbox::entry outbox::pop()
{
    entry it = std::move(queue_.front());
    queue_.pop_front();
    return it;
}

void outbox::note(const entry &it)
{
    if (it.is_event())
        log_.event(it.kind);
    else if (it.total != 0)
        log_.sent(it.stage, it.kind, it.total, it.fields);
}

write_unit outbox::take()
{
    entry first = pop();
    note(first);
    bool glued = how_ == delivery::glued || first.glued;
    if (!glued || first.is_event())
        return std::move(first.unit);
    write_unit unit = std::move(first.unit);
    while (glued && !queue_.empty() && queue_.front().delay_ms == 0 && !queue_.front().is_event()) {
        const entry next = pop();
        note(next);
        glued = how_ == delivery::glued || next.glued;
        unit.bytes.insert(unit.bytes.end(), next.unit.bytes.begin(), next.unit.bytes.end());
    }
    return unit;
}

} // namespace sim
