#include "normal-engine.hpp"

#include "at-answers.hpp"

#include <algorithm>

namespace sim {
namespace {

constexpr size_t longest_command = 512;
constexpr size_t longest_frame = 64;
constexpr uint8_t subsystem_dispatch = 0x4B;
constexpr uint8_t closing_flag = 0x7E;

// Subsystem 101, command 1, with its frame check sequence (RFC 1662).
const octets download_frame = {0x4B, 0x65, 0x01, 0x00, 0x54, 0x0F, 0x7E};

} // namespace

void normal_engine::begin(uint32_t)
{
    input_.clear();
    echo_ = true;
}

size_t normal_engine::receive(view bytes)
{
    size_t used = 0;
    while (used < bytes.size() && state() == progress::busy) {
        const uint8_t byte = bytes[used++];
        input_.empty() ? take_first(byte) : take(byte);
    }
    return used;
}

void normal_engine::take_first(uint8_t byte)
{
    if (byte == '\r' || byte == '\n' || byte == ' ')
        return;
    if (byte != 'A' && byte != 'a' && byte != subsystem_dispatch)
        return blame_host("neither an AT command nor a DIAG frame");
    input_.push_back(byte);
}

void normal_engine::take(uint8_t byte)
{
    const bool frame = input_.front() == subsystem_dispatch;
    input_.push_back(byte);
    if (frame && byte == closing_flag)
        return take_frame();
    if (!frame && byte == '\r') {
        const std::string command(as_text(input_).substr(0, input_.size() - 1));
        input_.clear();
        return answer_command(command);
    }
    if (input_.size() > (frame ? longest_frame : longest_command))
        blame_host(frame ? "DIAG frame without an end" : "AT command without an end");
}

void normal_engine::answer_command(const std::string &command)
{
    bench_.log.received("at", command.size() + 1, json_members().text("command", command));
    const std::string word = at_command_word(command);
    if (!word.starts_with("AT"))
        return blame_host("neither an AT command nor a DIAG frame");
    const std::string echo = echo_ ? command + "\r" : "";
    const std::string answer = find_at_answer(bench_.wanted.at_answers, command).value_or("\r\nERROR\r\n");
    const std::string refusal = echo + "\r\nERROR\r\n";
    if (word == "ATE0" || word == "ATE1")
        echo_ = word == "ATE1";
    const arrival came = arrived("host.at");
    if (came == arrival::lost || answer.empty()) // the table may leave a command without any answer
        return;
    const std::string whole = came == arrival::garbled ? refusal : echo + answer;
    bench_.out.post({"at." + word, "at", to_octets(whole), to_octets(refusal),
                     json_members().text("text", whole), 0, to_octets("\r\nNO CARRIER\r\n")});
}

void normal_engine::take_frame()
{
    const octets frame = std::move(input_);
    input_.clear();
    const bool known = frame == download_frame;
    bench_.log.received(known ? "download_mode" : "diag", frame.size());
    if (!known)
        return blame_host("DIAG frame that is not the download mode switch");
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
