#include "outbox.hpp"

#include <algorithm>
#include <utility>

namespace sim {

// Neither a packet, nor an answer, nor a final response.
static const octets garbage_bytes = {0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A,
                                     0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A};

static octets shortened(const octets &bytes, uint32_t keep)
{
    const size_t wanted = keep == 0 ? bytes.size() / 2 : keep;
    const size_t size = std::min(wanted, bytes.size());
    return octets(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

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
        hang_up();
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
        later.delay_ms += what.value;
        queue(later, it.bytes);
        return posted::whole;
    }
    case fault_kind::skip:
    case fault_kind::stall:
        break;
    }
    return posted::spoiled;
}

void outbox::queue(const message &it, octets bytes)
{
    if (bytes.empty())
        return;
    const size_t total = bytes.size();
    if (how_ != delivery::bytes) {
        queue_.push_back({log_.stage(), it.kind, it.fields, {.bytes = std::move(bytes)}, it.delay_ms, total});
        return;
    }
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
void outbox::queue_event(const char *kind, write_unit unit)
{
    if (!silent_)
        queue_.push_back({log_.stage(), kind, {}, std::move(unit), 0, 0});
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
    if (how_ != delivery::glued || first.is_event())
        return std::move(first.unit);
    write_unit unit = std::move(first.unit);
    while (!queue_.empty() && queue_.front().delay_ms == 0 && !queue_.front().is_event()) {
        const entry next = pop();
        note(next);
        unit.bytes.insert(unit.bytes.end(), next.unit.bytes.begin(), next.unit.bytes.end());
    }
    return unit;
}

} // namespace sim
