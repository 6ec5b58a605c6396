#include "firehose-engine.hpp"

#include <algorithm>
#include <array>

namespace sim {
namespace {

constexpr size_t longest_request = size_t{64} * 1024;
// More sectors than any flash memory has; keeps sectors x size within 64 bits.
constexpr uint64_t most_sectors = INT32_MAX;

const std::string ack = "<response value=\"ACK\" />";
const std::string nak = "<response value=\"NAK\" />";
const std::string other = "<response value=\"WAIT\" />"; // nothing that a host could know

std::string chunk(const std::string &element)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n" + element + "\n</data>";
}

constexpr size_t other_row = 7;

// The element and those of its attributes that matter.
json_members described(const firehose_request &request)
{
    static constexpr std::array<std::string_view, 5> attributes = {
        "SECTOR_SIZE_IN_BYTES", "num_partition_sectors", "MaxPayloadSizeToTargetInBytes", "label", "value"};
    json_members fields;
    fields.text("element", request.element);
    for (const std::string_view name : attributes)
        if (const auto value = attribute(request.line, name))
            fields.text(name, *value);
    return fields;
}

} // namespace

firehose_engine::firehose_engine(workbench &bench)
    : engine(bench), guard_("firehose.data-in", bench.faults, bench.out, bench.log)
{
}

void firehose_engine::begin(uint32_t)
{
    request_.clear();
    searched_ = 0;
    complete_ = false;
    any_request_ = false;
    owes_line_feed_ = false;
    in_data_ = false;
    say_logs(bench_.wanted.log_start);
}

const firehose_engine::element_row &firehose_engine::row_of(const std::string &element) const
{
    using self = firehose_engine;
    static const std::array<element_row, other_row + 1> rows = {{
        {"nop", "firehose.nop", "host.nop", false, &self::acknowledge},
        {"configure", "firehose.configure", "host.configure", false, &self::configure},
        {"program", "firehose.program", "host.program", true, &self::program},
        {"erase", "firehose.erase", "host.erase", true, &self::acknowledge},
        {"power", "firehose.reset", "host.reset", true, &self::power},
        {"getstorageinfo", "firehose.otp", "host.otp", true, &self::storage_info},
        {"patch", "firehose.other", "host.other", true, &self::acknowledge},
        {"", "firehose.other", "host.other", true, &self::acknowledge},
    }};
    const auto found = std::ranges::find(rows, element, &element_row::element);
    // cppcheck-suppress containerOutOfBounds ; counts one row less than there are
    return found == rows.end() ? rows[other_row] : *found;
}

uint64_t firehose_engine::input_limit() const
{
    if (guard_.struck())
        return 0;
    return in_data_ ? guard_.limit() : UINT64_MAX;
}

size_t firehose_engine::receive(view bytes)
{
    size_t used = 0;
    while (used < bytes.size() && state() == progress::busy) {
        const view rest = bytes.subspan(used);
        if (const size_t lost = guard_.drop(rest.size())) {
            used += lost;
            continue;
        }
        const size_t taken = in_data_ ? take_data(rest) : take_request_bytes(rest);
        used += taken;
        if (input_limit() == 0)
            break; // stalled
    }
    return used;
}

size_t firehose_engine::take_request_bytes(view bytes)
{
    if (complete_) {
        const bool line_feed = bytes.front() == '\n';
        if (line_feed)
            request_ += '\n';
        handle_request();
        return line_feed ? 1 : 0;
    }
    if (owes_line_feed_ && bytes.front() == '\n') {
        owes_line_feed_ = false;
        return 1;
    }
    if (request_.empty() && !any_request_ && bytes.front() == 7)
        return take_late_reset(bytes);
    // Never beyond the end of this request: what follows may be data.
    const size_t before = request_.size();
    request_ += as_text(bytes.first(std::min<size_t>(bytes.size(), 4096)));
    find_end();
    return request_.size() - before;
}

// A host that missed the DONE response still talks to the boot loader and resets it: an 8-byte packet with
// command 7.
size_t firehose_engine::take_late_reset(view bytes)
{
    static constexpr std::array<uint8_t, 8> packet = {7, 0, 0, 0, 8, 0, 0, 0};
    if (!std::ranges::equal(bytes, packet)) {
        blame_host("bytes that are no request");
        return bytes.size();
    }
    bench_.log.received("reset", bytes.size());
    finish(progress::reset);
    return bytes.size();
}

void firehose_engine::find_end()
{
    const size_t from = searched_ < 8 ? 0 : searched_ - 8;
    if (const auto length = request_length(std::string_view(request_).substr(from))) {
        request_.resize(from + *length);
        complete_ = true;
        return;
    }
    searched_ = request_.size();
    static constexpr std::string_view declaration = "<?xml";
    const size_t known = std::min(request_.size(), declaration.size());
    if (request_.compare(0, known, declaration, 0, known) != 0)
        blame_host("bytes that are no request");
    else if (request_.size() > longest_request)
        blame_host("request without an end");
}

void firehose_engine::settled()
{
    if (complete_ && state() == progress::busy)
        handle_request();
}

void firehose_engine::handle_request()
{
    const std::string text = std::move(request_);
    request_.clear();
    searched_ = 0;
    complete_ = false;
    any_request_ = true;
    owes_line_feed_ = !text.ends_with('\n');
    const auto request = parse_request(text);
    if (!request) {
        bench_.log.received("bad_request", text.size(), json_members().text("text", text));
        return blame_host("request without a declaration or a data frame");
    }
    const element_row &row = row_of(request->element);
    bench_.log.received(row.element.empty() ? "unknown" : row.element, text.size(),
                        described(*request).text("text", text));
    const arrival came = arrived(row.way);
    if (came == arrival::lost)
        return;
    if (came == arrival::garbled) {
        answer(row.step, "nak", nak);
        return;
    }
    if (row.kept && !stored(bench_.store.keep_request(request->element, text)))
        return;
    (this->*row.handle)(*request, row);
}

void firehose_engine::acknowledge(const firehose_request &request, const element_row &row)
{
    const bool good = !request.element.empty();
    answer(row.step, good ? "ack" : "nak", good ? ack : nak);
}

void firehose_engine::configure(const firehose_request &request, const element_row &row)
{
    const auto asked = number_attribute(request.line, "MaxPayloadSizeToTargetInBytes", UINT32_MAX);
    const auto &offer = bench_.wanted.payload;
    if (!asked)
        answer(row.step, "nak", nak);
    else if (!offer || *offer == *asked)
        answer(row.step, "ack", ack);
    else
        answer(row.step, "nak",
               "<response value=\"NAK\" MaxPayloadSizeToTargetInBytesSupported=\"" + std::to_string(*offer) +
                   "\" />");
}

void firehose_engine::program(const firehose_request &request, const element_row &row)
{
    const auto size = number_attribute(request.line, "SECTOR_SIZE_IN_BYTES", UINT32_MAX);
    const auto sectors = number_attribute(request.line, "num_partition_sectors", most_sectors);
    if (!size || !sectors) {
        answer(row.step, "nak", nak);
        return;
    }
    // Without the ACK the host has no leave to send data: its next bytes are another request.
    if (answer(row.step, "ack", ack) != posted::whole || !stored(bench_.store.open_image()))
        return;
    data_left_ = *size * *sectors;
    in_data_ = true;
    if (data_left_ == 0)
        return finish_data();
    guard_.check();
}

size_t firehose_engine::take_data(view bytes)
{
    const uint64_t most = std::min(data_left_, guard_.limit());
    const auto size = static_cast<size_t>(std::min<uint64_t>(bytes.size(), most));
    if (!stored(bench_.store.write_image(bytes.first(size))))
        return size;
    data_left_ -= size;
    guard_.take(size);
    if (data_left_ == 0 && !guard_.struck())
        finish_data();
    return size;
}

void firehose_engine::finish_data()
{
    in_data_ = false;
    if (!stored(bench_.store.close_image()))
        return;
    json_members fields;
    if (const auto crc = bench_.store.image_crc())
        fields.hex32("crc32", *crc);
    bench_.log.received("data", bench_.store.image_size(), fields);
    answer("firehose.data", "ack", ack);
}

void firehose_engine::power(const firehose_request &request, const element_row &row)
{
    const bool resets = attribute(request.line, "value") == "reset";
    const posted sent = answer(resets ? row.step : "firehose.other", "ack", ack);
    if (!resets || sent == posted::refused)
        return;
    if (bench_.wanted.platform != 0)
        say_log("firehose.target-reset", "INFO: bsp_target_reset() 1");
    finish(progress::done);
}

void firehose_engine::storage_info(const firehose_request &, const element_row &row)
{
    for (const std::string &value : bench_.wanted.otp)
        say_log(row.step, value);
    answer(row.step, "ack", ack);
}

posted firehose_engine::say(std::string_view step, std::string_view kind, const std::string &element)
{
    const std::string text = chunk(element);
    return bench_.out.post({std::string(step), std::string(kind), to_octets(text), to_octets(chunk(nak)),
                            json_members().text("text", text), 0, to_octets(chunk(other))});
}

void firehose_engine::say_log(std::string_view step, const std::string &value)
{
    say(step, "log", "<log value=\"" + value + "\"/>");
}

void firehose_engine::say_logs(uint32_t count)
{
    for (uint32_t i = 1; i <= count; i++)
        say_log("firehose.log", "INFO: programmer line " + std::to_string(i));
}

posted firehose_engine::answer(std::string_view step, std::string_view kind, const std::string &text)
{
    say_logs(bench_.wanted.log_before);
    const posted sent = say(step, kind, text);
    say_logs(bench_.wanted.log_after);
    return sent;
}

} // namespace sim
