// A whole AT command, or a whole query, with a modem that is played from the input. The first byte chooses
// what is asked, the second how often a silent modem is asked; the modem's script follows (fuzz_peer.hpp).
#include "at_channel.hpp"
#include "core.hpp"
#include "fuzz.hpp"
#include "fuzz_peer.hpp"
#include "modem-probing.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <memory>

namespace {

// How many times the frame went out whole; what is left over is a part of one more, and only where the port
// took no more.
size_t count_frames(const fuzz_peer &peer, const std::string &frame)
{
    const std::string sent = peer.written();
    size_t count = 0;
    while (sent.substr(count * frame.size(), frame.size()) == frame)
        ++count;
    const std::string part = sent.substr(count * frame.size());
    fuzz_check(starts_with(frame, part));
    const auto &events = peer.events();
    const bool refused = std::any_of(events.begin(), events.end(), [](const peer_event &event) {
        return event.what == peer_event::send_failed ||
               (event.what == peer_event::sent && event.bytes.empty());
    });
    fuzz_check(part.empty() || refused);
    return count;
}

// Nothing is sent once the modem has answered with as much as a byte. What is read without waiting is what
// the port held from before, and is thrown away.
void check_silence_after_answer(const fuzz_peer &peer)
{
    bool asked = false;
    bool answered = false;
    for (const peer_event &event : peer.events()) {
        fuzz_check(event.what != peer_event::sent || !answered);
        asked = asked || event.what == peer_event::sent;
        answered =
            answered || (asked && event.what == peer_event::received && event.polled && !event.bytes.empty());
    }
}

void check_response(int result, const at_response &response, uint32_t type)
{
    fuzz_check(is_terminated(response.text, sizeof response.text) &&
               is_terminated(response.final, sizeof response.final));
    const std::string final_text = response.final;
    const std::string text = response.text;
    if (response.ok == 0) {
        fuzz_check(final_text.empty() ? result != CORE_OK : result == CORE_OK && final_text == "ERROR");
        return;
    }
    fuzz_check(response.ok == 1 && result == CORE_OK);
    fuzz_check(final_text == "OK" || final_text == "BUSY" || final_text == "CONNECT");
    if (type == AT_NO_INFORMATION)
        fuzz_check(text.empty());
    if (type == AT_SINGLE_LINE || type == AT_SEVERAL_LINES)
        fuzz_check(text.empty() || (text.size() > 2 && text.substr(text.size() - 2) == "\r\n"));
}

void check_command(fuzz_peer &peer, uint32_t type, uint8_t retries)
{
    at_command command = {"AT#TEST=1", "#TEST:", type, 500, retries};
    const auto response = std::make_unique<at_response>();
    const int result = at_send_command(peer.descriptor(), &command, response.get());
    check_response(result, *response, type);
    fuzz_check(count_frames(peer, "AT#TEST=1\r") <= std::max<size_t>(1, retries));
    check_silence_after_answer(peer);
    fuzz_check(std::string(command.command) == "AT#TEST=1" && command.type == type);
}

// A text of the modem record came from the modem, and holds no line end.
void check_field(int result, const char *field, size_t size, const fuzz_peer &peer)
{
    fuzz_check(is_terminated(field, size));
    const std::string text = field;
    fuzz_check(result == CORE_OK || text.empty());
    fuzz_check(!contains(text, "\r\n"));
    std::string received;
    for (const peer_event &event : peer.events()) {
        if (event.what == peer_event::received)
            received += event.bytes;
    }
    fuzz_check(contains(received, text));
}

void check_versions(int result, const modem &m)
{
    fuzz_check(is_terminated(m.versions, sizeof m.versions));
    const std::string text = m.versions;
    fuzz_check(!contains(text, "\r\n"));
    if (result == CORE_OK && text.size() < sizeof m.versions - 1)
        fuzz_check(std::count(text.begin(), text.end(), ';') >= 3);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const uint8_t choice = input.take_byte() % 8;
    const uint8_t retries = input.take_byte() % 8;
    quiet_log();
    fuzz_peer peer(input.rest());
    const auto m = std::make_unique<modem>();
    switch (choice) {
    case 4:
        check_field(get_model(peer.descriptor(), m.get()), m->model_name, sizeof m->model_name, peer);
        break;
    case 5:
        check_field(get_imei(peer.descriptor(), m.get()), m->imei, sizeof m->imei, peer);
        fuzz_check(count_frames(peer, "AT#CGSN\r") <= 3);
        break;
    case 6:
        check_versions(get_swpkgv(peer.descriptor(), m.get()), *m);
        fuzz_check(count_frames(peer, "AT#SWPKGV\r") <= 3);
        break;
    case 7:
        core_log_set_level(CORE_LOG_INF); // a silent modem is asked 660 times
        static_cast<void>(turn_off_echo(peer.descriptor()));
        fuzz_check(count_frames(peer, "ATE0\r") <= 660);
        break;
    default:
        check_command(peer, choice, retries);
        break;
    }
    return 0;
}
