#include "sahara-engine.hpp"

#include <algorithm>
#include <array>

namespace sim {
namespace {

constexpr size_t header_size = 8;
constexpr uint32_t download_request = 240;
constexpr uint32_t largest_command = 0x400; // what HELLO announces

// Why the boot loader ends a transfer, as it reports it.
constexpr uint32_t no_such_command_now = 1;
constexpr uint32_t protocol_mismatch = 2;
constexpr uint32_t bad_packet_size = 5;

octets packet_head(uint32_t command, uint32_t length)
{
    octets out;
    append_le32(out, command);
    append_le32(out, length);
    return out;
}

// A packet without meaning, as long as it says.
octets unknown_packet(uint32_t length)
{
    octets out = packet_head(99, length);
    out.resize(length, 0);
    return out;
}

const number_field packet_length = {fault_kind::length, 4, 4};

std::vector<number_field> numbers_of_read_data(uint32_t request_bits)
{
    if (request_bits == 64)
        return {packet_length, {fault_kind::offset, 16, 8}, {fault_kind::bytes, 24, 8}};
    return {packet_length, {fault_kind::offset, 12, 4}, {fault_kind::bytes, 16, 4}};
}

octets hello(const settings &wanted, uint32_t mode)
{
    octets out = packet_head(1, 48);
    append_le32(out, wanted.hello_version);
    append_le32(out, wanted.hello_compatible);
    append_le32(out, largest_command);
    append_le32(out, mode);
    out.resize(48, 0);
    return out;
}

octets read_data(const settings &wanted, const read_request &block)
{
    if (wanted.request_bits == 64) {
        octets out = packet_head(18, 32);
        append_le64(out, wanted.image_id);
        append_le64(out, block.offset);
        append_le64(out, block.length);
        return out;
    }
    octets out = packet_head(3, 20);
    append_le32(out, wanted.image_id);
    append_le32(out, static_cast<uint32_t>(block.offset));
    append_le32(out, static_cast<uint32_t>(block.length));
    return out;
}

octets end_image_tx(uint32_t image_id, uint32_t status)
{
    octets out = packet_head(4, 16);
    append_le32(out, image_id);
    append_le32(out, status);
    return out;
}

octets done_response(uint32_t status)
{
    octets out = packet_head(6, 12);
    append_le32(out, status);
    return out;
}

// What the platform's boot loader reports after the one image it asked for.
uint32_t good_done_status(uint32_t platform)
{
    return platform == 0 ? 0 : 1;
}

bool lone_reset(view bytes)
{
    if (bytes.size() != header_size || read_le32(bytes, 4) != header_size)
        return false;
    return read_le32(bytes, 0) == 7 || read_le32(bytes, 0) == 19;
}

struct known_packet {
    uint32_t command;
    uint32_t length;
    const char *kind;
};

constexpr std::array<known_packet, 5> known_packets = {{
    {2, 48, "hello_response"},
    {5, 8, "done"},
    {7, 8, "reset"},
    {19, 8, "reset_state_machine"},
    {download_request, 8, "enter_download"},
}};

} // namespace

sahara_engine::sahara_engine(workbench &bench)
    : engine(bench), mode_(bench.wanted.hello_mode),
      guard_("sahara.data-in", bench.faults, bench.out, bench.log)
{
}

void sahara_engine::begin(uint32_t delay_ms)
{
    packet_.clear();
    phase_ = phase::hello;
    block_left_ = 0;
    said_hello_ = false;
    if (!bench_.wanted.no_hello)
        say_hello(delay_ms);
}

void sahara_engine::say_hello(uint32_t delay_ms)
{
    const json_members fields = json_members()
                                    .number("version", bench_.wanted.hello_version)
                                    .number("compatible", bench_.wanted.hello_compatible)
                                    .number("mode", mode_);
    said_hello_ = posted::whole == bench_.out.post({"sahara.hello",
                                                    "hello",
                                                    hello(bench_.wanted, mode_),
                                                    {},
                                                    fields,
                                                    delay_ms,
                                                    unknown_packet(48),
                                                    {packet_length}});
}

uint64_t sahara_engine::input_limit() const
{
    if (guard_.struck())
        return 0;
    return block_left_ > 0 ? guard_.limit() : UINT64_MAX;
}

size_t sahara_engine::receive(view bytes, unsigned)
{
    size_t used = 0;
    while (used < bytes.size() && state() == progress::busy) {
        const view rest = bytes.subspan(used);
        if (const size_t lost = guard_.drop(rest.size())) {
            used += lost;
            continue;
        }
        const bool gave_up = lone_reset(rest) && (block_left_ > header_size || !packet_.empty());
        if (gave_up)
            packet_.clear();
        const size_t taken = block_left_ > 0 && !gave_up ? take_data(rest) : take_packet_bytes(rest);
        if (input_limit() == 0)
            return used + taken; // stalled
        used += taken;
    }
    return used;
}

void sahara_engine::end_transfer()
{
    if (packet_.empty())
        return;
    bench_.log.received("bad_packet", packet_.size());
    refuse(bad_packet_size, "a transfer of " + std::to_string(packet_.size()) + " bytes that is no packet");
    packet_.clear();
}

size_t sahara_engine::take_data(view bytes)
{
    const read_request &block = reads_[next_read_ - 1];
    const uint64_t most = std::min(block_left_, guard_.limit());
    const auto size = static_cast<size_t>(std::min<uint64_t>(bytes.size(), most));
    if (!stored(bench_.store.write_programmer(block.offset + block.length - block_left_, bytes.first(size))))
        return size;
    block_left_ -= size;
    total_ += size;
    guard_.take(size);
    if (block_left_ > 0 || guard_.struck())
        return size;
    bench_.log.received("data", block.length,
                        json_members().number("offset", block.offset).number("total", total_));
    next_request();
    return size;
}

size_t sahara_engine::take_packet_bytes(view bytes)
{
    // The header first: its length field says how much belongs to the packet.
    const size_t wanted = packet_.size() < header_size ? header_size : read_le32(packet_, 4);
    const size_t size = std::min(bytes.size(), wanted - packet_.size());
    packet_.insert(packet_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    return size + (packet_.size() < header_size ? 0 : take_packet(bytes.size() - size));
}

// `behind` bytes came together with what there is of the packet; answers how many of them are nothing.
size_t sahara_engine::take_packet(size_t behind)
{
    const uint32_t command = read_le32(packet_, 0);
    const uint32_t length = read_le32(packet_, 4);
    const auto known = std::ranges::find(known_packets, command, &known_packet::command);
    const bool good = known != known_packets.end() && length == known->length;
    if (!good) {
        bench_.log.received("bad_packet", packet_.size() + behind, json_members().number("command", command));
        known == known_packets.end()
            ? refuse(no_such_command_now, "unknown packet " + std::to_string(command))
            : refuse(bad_packet_size,
                     std::string(known->kind) + " packet with length " + std::to_string(length));
        packet_.clear();
        // What has no plausible length is no packet, and neither is what came with it.
        const bool plausible = length >= header_size && length <= largest_command;
        return plausible ? std::min<size_t>(behind, length - header_size) : behind;
    }
    if (packet_.size() < known->length)
        return 0;
    using handler = void (sahara_engine::*)();
    static constexpr std::array<handler, 5> handlers = {
        &sahara_engine::take_hello_response, &sahara_engine::take_done, &sahara_engine::take_reset,
        &sahara_engine::take_state_reset, &sahara_engine::take_download_request};
    if (command != 2)
        bench_.log.received(known->kind, known->length);
    (this->*handlers[static_cast<size_t>(known - known_packets.begin())])();
    packet_.clear();
    return 0;
}

void sahara_engine::refuse(uint32_t status, const std::string &why)
{
    phase_ = phase::refused;
    bench_.log.event("refused", json_members().text("why", why));
    report_end("sahara.refusal", status);
}

bool sahara_engine::awaits(phase wanted, const char *packet)
{
    if (phase_ == wanted)
        return true;
    refuse(no_such_command_now, std::string(packet) + " at the wrong time");
    return false;
}

// False when the packet was lost, or came garbled.
bool sahara_engine::heard(const char *step)
{
    const arrival came = arrived(step);
    if (came == arrival::garbled)
        refuse(no_such_command_now, "a garbled packet");
    return came == arrival::whole;
}

// Whether the two have a version in common. The boot loader's own is that of its HELLO.
bool sahara_engine::speaks_with(uint32_t version, uint32_t compatible) const
{
    return version >= bench_.wanted.hello_compatible && compatible <= bench_.wanted.hello_version;
}

void sahara_engine::take_hello_response()
{
    const uint32_t version = read_le32(packet_, 8);
    const uint32_t compatible = read_le32(packet_, 12);
    const uint32_t status = read_le32(packet_, 16);
    const uint32_t mode = read_le32(packet_, 20);
    bench_.log.received("hello_response", packet_.size(),
                        json_members()
                            .number("version", version)
                            .number("compatible", compatible)
                            .number("status", status)
                            .number("mode", mode));
    if (!awaits(phase::hello, "HELLO response") || !heard("host.hello"))
        return;
    if (!speaks_with(version, compatible))
        return refuse(protocol_mismatch, "HELLO response with a version that is not spoken here");
    if (status != 0)
        return refuse(no_such_command_now, "HELLO response with status " + std::to_string(status));
    if (mode != 0 && mode != mode_)
        return refuse(no_such_command_now, "HELLO response with mode " + std::to_string(mode));
    if (mode_ == 2 && said_hello_)
        return refuse(no_such_command_now, "HELLO response in mode 2");
    if (!stored(bench_.store.open_programmer()))
        return;
    reads_ = plan_reads(bench_.wanted.programmer_size, bench_.wanted.read_size, bench_.wanted.order);
    next_read_ = 0;
    total_ = 0;
    phase_ = phase::data;
    next_request();
}

void sahara_engine::next_request()
{
    if (next_read_ == reads_.size())
        return end_image();
    const read_request &wanted = reads_[next_read_++];
    block_left_ = wanted.length;
    ask(wanted);
    guard_.check();
}

void sahara_engine::ask(const read_request &wanted)
{
    bench_.out.post({"sahara.read",
                     "read_data",
                     read_data(bench_.wanted, wanted),
                     {},
                     json_members()
                         .number("image_id", bench_.wanted.image_id)
                         .number("offset", wanted.offset)
                         .number("bytes", wanted.length),
                     0,
                     unknown_packet(bench_.wanted.request_bits == 64 ? 32 : 20),
                     numbers_of_read_data(bench_.wanted.request_bits)});
}

void sahara_engine::end_image()
{
    if (!stored(bench_.store.close_programmer()))
        return;
    phase_ = bench_.wanted.end_status == 0 ? phase::done : phase::refused;
    report_end("sahara.end", bench_.wanted.end_status);
}

void sahara_engine::report_end(const char *step, uint32_t status)
{
    const uint32_t id = bench_.wanted.image_id;
    bench_.out.post({step,
                     "end_image",
                     end_image_tx(id, status),
                     end_image_tx(id, 1),
                     json_members().number("image_id", id).number("status", status),
                     0,
                     unknown_packet(16),
                     {packet_length}});
}

void sahara_engine::take_done()
{
    if (!awaits(phase::done, "DONE") || !heard("host.done"))
        return;
    const uint32_t good = good_done_status(bench_.wanted.platform);
    const uint32_t status = bench_.wanted.done_status.value_or(good);
    const posted sent = bench_.out.post({"sahara.done",
                                         "done_response",
                                         done_response(status),
                                         done_response(1 - good),
                                         json_members().number("status", status),
                                         0,
                                         unknown_packet(12),
                                         {packet_length}});
    // Only a host that was told so goes on to the programmer; another one gives up and resets the boot
    // loader, which therefore stays here.
    if (sent == posted::whole && status == good)
        finish(progress::done);
    else
        phase_ = phase::refused;
}

void sahara_engine::take_state_reset()
{
    begin(0);
}

void sahara_engine::take_reset()
{
    finish(progress::reset);
}

void sahara_engine::take_download_request()
{
    if (!awaits(phase::hello, "enter download mode"))
        return;
    if (mode_ != 2)
        return refuse(no_such_command_now, "enter download mode although the HELLO mode is not 2");
    if (arrived("host.qdl") != arrival::whole)
        return;
    bench_.out.post({"sahara.qdl",
                     "download_acknowledged",
                     packet_head(241, 8),
                     {},
                     {},
                     0,
                     unknown_packet(8),
                     {packet_length}});
    mode_ = 0;
    // The loader restarts: its HELLO comes a moment after the acknowledgement.
    static constexpr uint32_t restart_ms = 200;
    begin(restart_ms);
}

} // namespace sim
