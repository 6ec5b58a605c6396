// Single waits of a Firehose session, with a programmer that is played from the input. The first byte chooses
// the wait; the programmer's script follows (fuzz_peer.hpp).
#include "core.hpp"
#include "firehose-otp.hpp"
#include "firehose-session.hpp"
#include "firehose.hpp"
#include "fuzz-answers.hpp"
#include "fuzz.hpp"
#include "fuzz_peer.hpp"
#include "package-check.hpp"

#include <algorithm>

namespace {

constexpr char configure[] =
    "<?xml version=\"1.0\"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes=\"1048576\" "
    "MemoryName=\"nand\" />\n</data>\n";
constexpr char ping[] = "<?xml version=\"1.0\"?>\n<data>\n<nop value=\"ping\"/>\n</data>\n";

bool is_write(const peer_event &event)
{
    return event.what == peer_event::sent || event.what == peer_event::send_failed;
}

// The chunks that were received, in order; an empty one stands for a read that failed or brought nothing.
struct conversation {
    std::vector<std::string> waiting; // before the first write
    std::vector<std::string> answers; // after it
    bool has_written = false;
};

conversation follow(const fuzz_peer &peer)
{
    conversation c;
    for (const peer_event &event : peer.events()) {
        c.has_written = c.has_written || is_write(event);
        if (!is_write(event))
            (c.has_written ? c.answers : c.waiting).push_back(event.bytes);
    }
    return c;
}

// What a wait without a request received: it writes nothing.
std::vector<std::string> chunks_of(const fuzz_peer &peer)
{
    const conversation c = follow(peer);
    fuzz_check(!c.has_written);
    return c.waiting;
}

bool was_silent_or_failed(const fuzz_peer &peer)
{
    return peer.events().back().what == peer_event::receive_failed || peer.events().back().bytes.empty();
}

// The updater has looked for what waits. False where that was a refusal: the request failed then, and nothing
// was written.
bool check_waiting(const conversation &c, int result)
{
    fuzz_check(is_look_for_strays(c.waiting));
    if (!has_nak(c.waiting.back()))
        return true;
    fuzz_check(result == CORE_EGENERIC && !c.has_written);
    return false;
}

// All but the last answer say neither yes nor no.
template <typename IsAck> void check_skipped(const std::vector<std::string> &answers, IsAck is_ack)
{
    for (size_t i = 0; i + 1 < answers.size(); ++i)
        fuzz_check(!answers[i].empty() && !is_ack(answers[i]) && !has_nak(answers[i]));
}

// An ACK that announces raw data answers something else.
bool has_own_ack(const std::string &chunk)
{
    return has_ack_without(chunk, "rawmode=\"true\"");
}

void check_request(firehose_device *device, const fuzz_peer &peer)
{
    const int result = send_nop(device);
    const conversation c = follow(peer);
    if (!check_waiting(c, result))
        return;
    if (peer.write_failed()) {
        fuzz_check(result != CORE_OK && starts_with(ping, peer.written()));
        return;
    }
    fuzz_check(peer.written() == ping);
    check_skipped(c.answers, has_own_ack);
    fuzz_check((result == CORE_OK) == has_own_ack(c.answers.back()));
    fuzz_check(result == CORE_OK ||
               (result == CORE_EGENERIC && (was_silent_or_failed(peer) || has_nak(c.answers.back()))));
}

void check_configure(firehose_device *device, const fuzz_peer &peer)
{
    uint32_t payload = FIREHOSE_PAYLOAD_SIZE;
    const int result = send_config(device, &payload);
    const conversation c = follow(peer);
    if (!check_waiting(c, result))
        return;
    if (peer.write_failed()) {
        fuzz_check(result != CORE_OK && starts_with(configure, peer.written()));
        return;
    }
    fuzz_check(peer.written() == configure);
    check_skipped(c.answers, has_ack);
    const std::string last = c.answers.back().c_str();
    if (has_ack(last)) {
        fuzz_check(result == CORE_OK && payload == 1048576);
    } else if (has_nak(last)) {
        fuzz_check(result == CORE_OK || result == CORE_EGENERIC || result == CORE_EPROTO);
        if (result == CORE_OK) {
            fuzz_check(payload >= 1 && payload <= 1073741824);
            fuzz_check(contains(last, "MaxPayloadSizeToTargetInBytesSupported=\""));
            fuzz_check(contains(last, std::to_string(payload) + "\""));
        }
    } else {
        fuzz_check(result == CORE_EGENERIC && was_silent_or_failed(peer));
    }
}

// Chunks that brought nothing are read over; ten in a row end the wait.
bool ends_with_ten_empty(const std::vector<std::string> &chunks)
{
    return chunks.size() >= 10 && std::all_of(chunks.end() - 10, chunks.end(),
                                              [](const std::string &chunk) { return chunk.empty(); });
}

void check_reset(firehose_device *device, const fuzz_peer &peer, bool wait_for_target)
{
    const int result = wait_reset_response(device, wait_for_target);
    fuzz_check(peer.written().empty());
    const auto chunks = chunks_of(peer);
    const bool acked = std::any_of(chunks.begin(), chunks.end(), has_ack);
    const bool target_reset = std::any_of(chunks.begin(), chunks.end(), [](const std::string &chunk) {
        return contains(chunk.c_str(), "bsp_target_reset");
    });
    for (size_t i = 0; i + 1 < chunks.size(); ++i)
        fuzz_check(!has_nak(chunks[i]));
    const bool read_failed = peer.events().back().what == peer_event::receive_failed;
    if (has_nak(chunks.back()))
        fuzz_check(result == CORE_EGENERIC);
    else if (read_failed)
        fuzz_check(result != CORE_OK);
    else if (result == CORE_OK)
        fuzz_check(acked && (target_reset || !wait_for_target));
    else
        fuzz_check(result == CORE_EPROTO && ends_with_ten_empty(chunks));
}

// Every value that is printed stands in the chunk that came.
void check_otp(firehose_device *device, const fuzz_peer &peer)
{
    const int result = print_otp_response(device);
    fuzz_check(peer.written().empty());
    const auto chunks = chunks_of(peer);
    for (size_t i = 0; i + 1 < chunks.size(); ++i)
        fuzz_check(!has_ack(chunks[i]));
    if (peer.events().back().what == peer_event::receive_failed)
        fuzz_check(result != CORE_OK);
    else if (result == CORE_OK)
        fuzz_check(has_ack(chunks.back()) || contains(chunks.back(), " value=\""));
    else
        fuzz_check(result == CORE_EPROTO && ends_with_ten_empty(chunks));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const uint8_t choice = input.take_byte() % 5;
    quiet_log();
    const fuzz_peer peer(input.rest());
    firehose_device device{};
    device.serial_handle = peer.descriptor();
    if (choice == 0)
        check_request(&device, peer);
    else if (choice == 1)
        check_configure(&device, peer);
    else if (choice == 2)
        check_otp(&device, peer);
    else
        check_reset(&device, peer, choice == 4);
    return 0;
}
