#include "fault-plan.hpp"

#include "numbers.hpp"

#include <algorithm>
#include <array>

namespace sim {
namespace {

enum class wants { nothing, may_have, value };

struct kind_row {
    std::string_view name;
    fault_kind kind;
    wants number;
};

constexpr std::array<kind_row, 22> kinds = {{
    {"silence", fault_kind::silence, wants::nothing}, {"skip", fault_kind::skip, wants::nothing},
    {"nak", fault_kind::nak, wants::nothing},         {"garbage", fault_kind::garbage, wants::nothing},
    {"hangup", fault_kind::hangup, wants::nothing},   {"truncate", fault_kind::truncate, wants::may_have},
    {"repeat", fault_kind::repeat, wants::nothing},   {"late", fault_kind::late, wants::value},
    {"stall", fault_kind::stall, wants::nothing},     {"halt", fault_kind::halt, wants::nothing},
    {"split", fault_kind::split, wants::nothing},     {"twice", fault_kind::twice, wants::nothing},
    {"glue", fault_kind::glue, wants::nothing},       {"wrong", fault_kind::wrong, wants::nothing},
    {"length", fault_kind::length, wants::value},     {"offset", fault_kind::offset, wants::value},
    {"bytes", fault_kind::bytes, wants::value},       {"lost", fault_kind::lost, wants::may_have},
    {"garbled", fault_kind::garbled, wants::nothing}, {"overdue", fault_kind::overdue, wants::nothing},
    {"halves", fault_kind::halves, wants::may_have},  {"nul", fault_kind::nul, wants::nothing},
}};

constexpr unsigned bit(fault_kind kind)
{
    return 1U << static_cast<unsigned>(kind);
}

constexpr unsigned no_answer =
    bit(fault_kind::silence) | bit(fault_kind::skip) | bit(fault_kind::hangup) | bit(fault_kind::late);
constexpr unsigned any_message = no_answer | bit(fault_kind::halt) | bit(fault_kind::garbage) |
                                 bit(fault_kind::truncate) | bit(fault_kind::repeat) |
                                 bit(fault_kind::split) | bit(fault_kind::twice) | bit(fault_kind::glue) |
                                 bit(fault_kind::halves) | bit(fault_kind::nul) | bit(fault_kind::overdue);
constexpr unsigned any_answer = any_message | bit(fault_kind::nak) | bit(fault_kind::wrong);
constexpr unsigned packet = any_message | bit(fault_kind::wrong) | bit(fault_kind::length);
constexpr unsigned read_packet = packet | bit(fault_kind::offset) | bit(fault_kind::bytes);
constexpr unsigned on_input =
    bit(fault_kind::hangup) | bit(fault_kind::stall) | bit(fault_kind::halt) | bit(fault_kind::lost);
constexpr unsigned on_the_way = bit(fault_kind::lost) | bit(fault_kind::garbled);

struct step_row {
    std::string_view name;
    unsigned allowed; // bits of the kinds that make sense at the step
};

constexpr std::array<step_row, 30> steps = {{
    {"diag", no_answer},
    {"sahara.hello", packet},
    {"sahara.read", read_packet},
    {"sahara.data-in", on_input},
    {"sahara.end", packet | any_answer},
    {"sahara.refusal", packet},
    {"sahara.done", packet | any_answer},
    {"sahara.qdl", packet},
    {"firehose.log", any_message},
    {"firehose.nop", any_answer},
    {"firehose.configure", any_answer},
    {"firehose.program", any_answer},
    {"firehose.data-in", on_input},
    {"firehose.data", any_answer},
    {"firehose.erase", any_answer},
    {"firehose.other", any_answer},
    {"firehose.otp", any_answer},
    {"firehose.reset", any_answer},
    {"firehose.target-reset", any_answer},
    {"host.at", on_the_way},
    {"host.hello", on_the_way},
    {"host.done", on_the_way},
    {"host.qdl", on_the_way},
    {"host.nop", on_the_way},
    {"host.configure", on_the_way},
    {"host.program", on_the_way},
    {"host.erase", on_the_way},
    {"host.otp", on_the_way},
    {"host.other", on_the_way},
    {"host.reset", on_the_way},
}};

std::optional<unsigned> allowed_at(std::string_view step)
{
    if (step.starts_with("at.") && step.size() > 3)
        return any_answer;
    const auto row = std::ranges::find(steps, step, &step_row::name);
    return row == steps.end() ? std::nullopt : std::optional<unsigned>(row->allowed);
}

// KIND[:VALUE]
std::string parse_kind(std::string_view text, fault &out)
{
    const size_t colon = text.find(':');
    const auto row = std::ranges::find(kinds, text.substr(0, colon), &kind_row::name);
    if (row == kinds.end())
        return "unknown fault kind";
    out.kind = row->kind;
    if (colon == std::string_view::npos && row->number == wants::value)
        return out.kind == fault_kind::late ? "late needs milliseconds, as in late:400"
                                            : "this fault kind needs a value";
    if (colon == std::string_view::npos)
        return "";
    if (row->number == wants::nothing)
        return "this fault kind takes no value";
    const auto value = parse_number(text.substr(colon + 1), UINT64_MAX);
    if (!value || (out.kind == fault_kind::late && *value > UINT32_MAX))
        return "bad value";
    out.value = *value;
    return "";
}

std::string parse_time(std::string_view text, fault &out)
{
    if (text == "all") {
        out.every_time = true;
        return "";
    }
    const auto value = parse_number(text, UINT64_MAX);
    if (!value)
        return "bad number after @";
    out.at = *value;
    return "";
}

std::string check_place(const fault &it, bool has_time)
{
    const auto allowed = allowed_at(it.step);
    if (!allowed)
        return "unknown step";
    if ((*allowed & bit(it.kind)) == 0)
        return "this fault kind is not possible at this step";
    const bool counts_bytes = *allowed == on_input;
    if (counts_bytes && (!has_time || it.every_time))
        return "a data-in fault needs @BYTES";
    if (!counts_bytes && it.at == 0)
        return "@N counts from 1";
    return "";
}

} // namespace

std::string parse_fault(std::string_view text, fault &out)
{
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return "STEP=KIND expected";
    out = {};
    out.step = text.substr(0, equals);
    const std::string_view rest = text.substr(equals + 1);
    const size_t at = rest.find('@');
    const bool has_time = at != std::string_view::npos;
    std::string wrong = parse_kind(rest.substr(0, at), out);
    if (wrong.empty() && has_time)
        wrong = parse_time(rest.substr(at + 1), out);
    return wrong.empty() ? check_place(out, has_time) : wrong;
}

std::string_view fault_name(fault_kind kind)
{
    return std::ranges::find(kinds, kind, &kind_row::kind)->name;
}

std::optional<fault> fault_plan::strike(std::string_view step)
{
    auto found = times_.find(step);
    if (found == times_.end())
        found = times_.emplace(std::string(step), 0).first;
    const uint64_t time = ++found->second;
    for (const fault &it : faults_)
        if (it.step == step && (it.every_time || it.at == time))
            return it;
    return std::nullopt;
}

std::optional<fault> fault_plan::on_data(std::string_view step) const
{
    const auto found = std::ranges::find(faults_, step, &fault::step);
    return found == faults_.end() ? std::nullopt : std::optional<fault>(*found);
}

void fault_plan::forget_data(std::string_view step)
{
    std::erase_if(faults_, [step](const fault &it) { return it.step == step; });
}

} // namespace sim
