#include "firehose-engine.hpp"

#include "numbers.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace sim {
namespace {

constexpr size_t longest_request = size_t{64} * 1024;
// More sectors than any flash memory has; keeps sectors x size within 64 bits.
constexpr uint64_t most_sectors = INT32_MAX;

// What a programmer takes in one transfer that was not told otherwise.
constexpr uint64_t usual_payload = 1048576;

constexpr size_t other_row = 7;

// A host that missed the DONE response still talks to the boot loader and resets it.
constexpr std::array<uint8_t, 8> late_reset = {7, 0, 0, 0, 8, 0, 0, 0};

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
    : engine(bench), words_(bench.wanted.plain_answers),
      guard_("firehose.data-in", bench.faults, bench.out, bench.log)
{
}

void firehose_engine::begin(uint32_t)
{
    request_.clear();
    searched_ = 0;
    complete_ = false;
    heard_ = false;
    owes_line_feed_ = false;
    in_data_ = false;
    for (const std::string &line : words_.start_lines())
        say_log("firehose.log", firehose_words::escaped(line));
    say_logs(bench_.wanted.log_start);
}

const firehose_engine::element_row &firehose_engine::row_of(const std::string &element) const
{
    using self = firehose_engine;
    static const std::array<element_row, other_row + 1> rows = {{
        {"nop", "firehose.nop", "host.nop", false, true, &self::acknowledge},
        {"configure", "firehose.configure", "host.configure", false, true, &self::configure},
        {"program", "firehose.program", "host.program", true, true, &self::program},
        {"erase", "firehose.erase", "host.erase", true, true, &self::acknowledge},
        {"power", "firehose.reset", "host.reset", true, true, &self::power},
        {"getstorageinfo", "firehose.otp", "host.otp", true, false, &self::storage_info},
        {"patch", "firehose.other", "host.other", true, true, &self::acknowledge},
        {"", "firehose.other", "host.other", true, true, &self::acknowledge},
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

size_t firehose_engine::receive(view bytes, unsigned)
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
    const bool first = !std::exchange(heard_, true);
    if (first && std::ranges::equal(bytes, late_reset)) {
        bench_.log.received("reset", bytes.size());
        finish(progress::reset);
        return bytes.size();
    }
    // Never beyond the end of this request: what follows may be data.
    const size_t before = request_.size();
    request_ += as_text(bytes.first(std::min<size_t>(bytes.size(), 4096)));
    if (!find_end())
        return bytes.size();
    return request_.size() - before;
}

// False when this becomes no request any more; it was refused, and so is what came with it.
bool firehose_engine::find_end()
{
    const size_t from = searched_ < 8 ? 0 : searched_ - 8;
    if (const auto length = request_length(std::string_view(request_).substr(from))) {
        request_.resize(from + *length);
        complete_ = true;
        return true;
    }
    static constexpr std::string_view declaration = "<?xml";
    const size_t known = std::min(request_.size(), declaration.size());
    if (request_.compare(0, known, declaration, 0, known) != 0)
        refuse_bytes(std::exchange(request_, {}), "bytes that are no request");
    else if (request_.size() > longest_request)
        refuse_bytes(std::exchange(request_, {}), "a request without an end");
    searched_ = request_.size();
    return !request_.empty();
}

void firehose_engine::settled()
{
    if (complete_ && state() == progress::busy)
        handle_request();
}

void firehose_engine::handle_request()
{
    const std::string text = std::exchange(request_, {});
    searched_ = 0;
    complete_ = false;
    owes_line_feed_ = !text.ends_with('\n');
    const auto request = parse_request(text);
    if (!request)
        return refuse_bytes(text, "a request without a declaration or a data frame");
    const element_row &row = row_of(request->element);
    bench_.log.received(row.element.empty() ? "unknown" : row.element, text.size(),
                        described(*request).text("text", text));
    const arrival came = arrived(row.way);
    if (came == arrival::lost)
        return;
    if (came == arrival::garbled)
        return refuse(row.step, "a request that cannot be understood");
    if (row.kept && !stored(bench_.store.keep_request(request->element, text)))
        return;
    if (row.told && !request->element.empty() && !words_.plain())
        say_log("firehose.log", "INFO: Calling handler for " + firehose_words::escaped(request->element));
    (this->*row.handle)(*request, row);
}

void firehose_engine::acknowledge(const firehose_request &request, const element_row &row)
{
    if (request.element.empty())
        return refuse(row.step, "a request without an element");
    answer(row.step, "ack", words_.answer(true));
}

void firehose_engine::configure(const firehose_request &request, const element_row &row)
{
    const auto text = attribute(request.line, "MaxPayloadSizeToTargetInBytes");
    const auto asked = text ? parse_number(*text, UINT32_MAX) : std::optional(usual_payload);
    const auto &offer = bench_.wanted.payload;
    if (!asked)
        return refuse(row.step, "a payload size that is no number");
    if (!offer || *offer == *asked) {
        answer(row.step, "ack", words_.configured(true, *asked, std::max(*asked, usual_payload)));
        return;
    }
    say_reason("MaxPayloadSizeToTargetInBytes " + std::to_string(*asked) + " is not supported");
    answer(row.step, "nak", words_.configured(false, *offer, *offer));
}

void firehose_engine::program(const firehose_request &request, const element_row &row)
{
    const auto size = number_attribute(request.line, "SECTOR_SIZE_IN_BYTES", UINT32_MAX);
    const auto sectors = number_attribute(request.line, "num_partition_sectors", most_sectors);
    if (!size || !sectors)
        return refuse(row.step, "a program request without sizes", raw_mode::ends);
    // Without the ACK the host has no leave to send data: its next bytes are another request.
    const posted sent = answer(row.step, "ack", words_.answer(true, raw_mode::begins), raw_mode::ends);
    if (sent != posted::whole || !stored(bench_.store.open_image()))
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
    if (!words_.plain())
        say_log("firehose.log", "INFO: Programmed " + std::to_string(bench_.store.image_size()) + " bytes");
    answer("firehose.data", "ack", words_.answer(true, raw_mode::ends), raw_mode::ends);
}

void firehose_engine::power(const firehose_request &request, const element_row &row)
{
    const bool resets = attribute(request.line, "value") == "reset";
    const posted sent = answer(resets ? row.step : "firehose.other", "ack", words_.answer(true));
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
    answer(row.step, "ack", words_.answer(true));
}

posted firehose_engine::say(std::string_view step, std::string_view kind, const std::string &element,
                            raw_mode refused)
{
    const std::string text = words_.message(element);
    const std::string reason = words_.plain() ? "" : words_.message(words_.log("ERROR: not carried out"));
    return bench_.out.post({std::string(step),
                            std::string(kind),
                            to_octets(text),
                            to_octets(words_.message(words_.answer(false, refused))),
                            json_members().text("text", text),
                            0,
                            to_octets(words_.message(firehose_words::unknown_answer())),
                            {},
                            to_octets(reason)});
}

void firehose_engine::say_log(std::string_view step, const std::string &value)
{
    say(step, "log", words_.log(value));
}

void firehose_engine::say_logs(uint32_t count)
{
    for (uint32_t i = 1; i <= count; i++)
        say_log("firehose.log", "INFO: programmer line " + std::to_string(i));
}

posted firehose_engine::answer(std::string_view step, std::string_view kind, const std::string &element,
                               raw_mode refused)
{
    say_logs(bench_.wanted.log_before);
    const posted sent = say(step, kind, element, refused);
    say_logs(bench_.wanted.log_after);
    return sent;
}

void firehose_engine::say_reason(const std::string &why)
{
    if (!words_.plain())
        say_log("firehose.log", "ERROR: " + firehose_words::escaped(why));
}

void firehose_engine::refuse(std::string_view step, const std::string &why, raw_mode raw)
{
    say_reason(why);
    answer(step, "nak", words_.answer(false, raw), raw);
}

// They are no request, or will never be one.
void firehose_engine::refuse_bytes(const std::string &text, const char *why)
{
    bench_.log.received("bad_request", text.size(), json_members().text("text", text));
    refuse("firehose.other", why);
}

} // namespace sim
