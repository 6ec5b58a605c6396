#include "outbox.hpp"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

// Neither a packet, nor an answer, nor a final response.
const octets garbage_bytes = {0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A,
                              0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A, 0xA5, 0x5A};

// How long the first part of a message is that is cut: as planned, or half of it.
size_t cut_at(const octets &bytes, uint64_t planned)
{
    const uint64_t wanted = planned == 0 ? bytes.size() / 2 : planned;
    return static_cast<size_t>(std::min<uint64_t>(wanted, bytes.size()));
}

octets shortened(const octets &bytes, uint64_t keep)
{
    return octets(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut_at(bytes, keep)));
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
        if (!it.reason.empty())
            queue_other(it, "log", it.reason);
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
        queue_pieces(it, it.bytes, 1, 1);
        return posted::whole;
    case fault_kind::halves:
        queue_pieces(it, it.bytes, cut_at(it.bytes, what.value), it.bytes.size());
        return posted::whole;
    case fault_kind::twice: {
        octets both = it.bytes;
        both.insert(both.end(), it.bytes.begin(), it.bytes.end());
        queue(it, std::move(both));
        return posted::whole;
    }
    case fault_kind::glue:
    case fault_kind::nul:
    case fault_kind::overdue:
        queue(it, it.bytes);
        if (line().empty())
            return posted::whole;
        if (what.kind == fault_kind::nul)
            line().back().unit.bytes.push_back(0);
        line().back().glued = what.kind != fault_kind::overdue;
        line().back().held = what.kind == fault_kind::overdue;
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
        return queue_pieces(it, bytes, 1, 1);
    const size_t total = bytes.size();
    line().push_back({log_.stage(), it.kind, it.fields, {.bytes = std::move(bytes)}, it.delay_ms, total});
}

// In units of their own: the first one of `first` bytes, the others of `others`.
void outbox::queue_pieces(const message &it, const octets &bytes, size_t first, size_t others)
{
    for (size_t from = 0; from < bytes.size();) {
        const bool begins = from == 0;
        const size_t size = std::min(begins ? first : others, bytes.size() - from);
        const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(from);
        line().push_back({log_.stage(),
                          it.kind,
                          begins ? it.fields : json_members(),
                          {.bytes = octets(start, start + static_cast<std::ptrdiff_t>(size))},
                          begins ? it.delay_ms : 0,
                          begins ? bytes.size() : 0});
        from += size;
    }
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
        line().push_back({log_.stage(), kind, {}, std::move(unit), delay_ms, 0});
    fall_silent();
}

void outbox::note(const entry &it)
{
    if (it.is_event())
        log_.event(it.kind);
    else if (it.total != 0)
        log_.sent(it.stage, it.kind, it.total, it.fields);
}

write_unit outbox::take(unsigned channel)
{
    auto &waiting = queues_[channel];
    const auto pop = [&] {
        entry it = std::move(waiting.front());
        waiting.pop_front();
        note(it);
        return it;
    };
    entry first = pop();
    bool glued = how_ == delivery::glued || first.glued;
    if (!glued || first.is_event())
        return std::move(first.unit);
    write_unit unit = std::move(first.unit);
    while (glued && !waiting.empty() && waiting.front().delay_ms == 0 && !waiting.front().is_event()) {
        const entry next = pop();
        glued = how_ == delivery::glued || next.glued;
        unit.bytes.insert(unit.bytes.end(), next.unit.bytes.begin(), next.unit.bytes.end());
    }
    return unit;
}

} // namespace sim
