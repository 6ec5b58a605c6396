#include "normal-engine.hpp"

#include "at-answers.hpp"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

constexpr size_t longest_command = 512;
constexpr size_t longest_frame = 64;
constexpr std::array<uint8_t, 2> frame_start = {0x4B, 0x65};
constexpr uint8_t closing_flag = 0x7E;

// Subsystem 101, command 1, with its frame check sequence (RFC 1662).
const octets download_frame = {0x4B, 0x65, 0x01, 0x00, 0x54, 0x0F, 0x7E};

const std::string refusal = "\r\nERROR\r\n";

} // namespace

void normal_engine::begin(uint32_t)
{
    lines_.fill({});
}

size_t normal_engine::receive(view bytes, unsigned channel)
{
    line &from = lines_[channel];
    size_t used = 0;
    noise_ = 0;
    while (used < bytes.size() && state() == progress::busy)
        take(from, bytes[used++]);
    if (noise_ > 0)
        bench_.log.received("noise", noise_);
    return used;
}

void normal_engine::take_first(line &from, uint8_t byte)
{
    if (byte == 'A' || byte == 'a' || byte == frame_start[0])
        from.input.push_back(byte);
    else if (byte != '\r' && byte != '\n' && byte != ' ')
        noise_++;
}

void normal_engine::take(line &from, uint8_t byte)
{
    if (from.input.empty())
        return take_first(from, byte);
    if (from.input.front() == frame_start[0])
        return take_frame_byte(from, byte);
    if (byte == '\r')
        return answer_command(from, std::string(as_text(std::exchange(from.input, {}))));
    from.input.push_back(byte);
    if (from.input.size() > longest_command)
        noise_ += std::exchange(from.input, {}).size();
}

void normal_engine::take_frame_byte(line &from, uint8_t byte)
{
    if (from.input.size() == 1 && byte != frame_start[1]) {
        noise_ += std::exchange(from.input, {}).size();
        return take_first(from, byte);
    }
    from.input.push_back(byte);
    if (byte == closing_flag)
        return take_frame(std::exchange(from.input, {}));
    if (from.input.size() > longest_frame)
        noise_ += std::exchange(from.input, {}).size();
}

void normal_engine::answer_command(line &from, const std::string &command)
{
    const std::string word = at_command_word(command);
    if (!word.starts_with("AT")) {
        noise_ += command.size();
        return;
    }
    bench_.log.received("at", command.size() + 1, json_members().text("command", command));
    const std::string echo = from.echo ? command + "\r" : "";
    const std::string text = find_at_answer(bench_.wanted.at_answers, command).value_or(refusal);
    if (word == "ATE0" || word == "ATE1")
        from.echo = word == "ATE1";
    const arrival came = arrived("host.at");
    if (came == arrival::lost || text.empty()) // the table may leave a command without any answer
        return;
    say_codes(bench_.wanted.at_before);
    answer(word, echo, came == arrival::garbled ? refusal : text);
    say_codes(bench_.wanted.at_after);
}

// A modem that takes its time has echoed the command at once.
void normal_engine::answer(const std::string &word, const std::string &echo, const std::string &text)
{
    const uint32_t delay = bench_.wanted.at_delay_ms;
    if (delay != 0 && !echo.empty())
        bench_.out.post({"at.ECHO", "echo", to_octets(echo), {}, json_members().text("text", echo)});
    const std::string before = delay == 0 ? echo : "";
    bench_.out.post({"at." + word, "at", to_octets(before + text), to_octets(before + refusal),
                     json_members().text("text", before + text), delay, to_octets("\r\nNO CARRIER\r\n")});
}

// Unsolicited result codes, each a message of its own.
void normal_engine::say_codes(const std::vector<std::string> &codes)
{
    for (const std::string &code : codes)
        bench_.out.post({"at.CODE", "code", to_octets(code), {}, json_members().text("text", code)});
}

void normal_engine::take_frame(const octets &frame)
{
    const bool known = frame == download_frame;
    bench_.log.received(known ? "download_mode" : "diag", frame.size());
    if (known)
        switch_to_download();
}

// The switch has no answer: its faults change what becomes of the device.
void normal_engine::switch_to_download()
{
    const auto struck = bench_.faults.strike("diag");
    if (!struck)
        return finish(progress::done);
    bench_.log.event("fault", json_members().text("step", "diag").text("fault", fault_name(struck->kind)));
    if (struck->kind == fault_kind::hangup)
        bench_.out.hang_up();
    if (struck->kind == fault_kind::silence)
        bench_.out.fall_silent();
    if (struck->kind != fault_kind::late)
        return;
    next_delay_ms_ = static_cast<uint32_t>(struck->value);
    finish(progress::done);
}

} // namespace sim
