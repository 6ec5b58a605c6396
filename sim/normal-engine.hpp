// The modem in normal operation: AT commands and DIAG frames, told apart by their first byte. Command lines
// ("AT...", ended by a carriage return) are answered from the table, echoed until ATE0; every channel has a
// line buffer and an echo of its own. The one DIAG frame that is understood asks for download mode: the stage
// is done. Whatever else comes, as from a program that tries every port for a modem, is not heard.
#pragma once

#include "engine.hpp"

#include <array>

namespace sim {

class normal_engine : public engine {
  public:
    explicit normal_engine(workbench &bench) : engine(bench) {}

    void begin(uint32_t delay_ms) override;
    size_t receive(view bytes, unsigned channel) override;

  private:
    struct line {
        octets input;     // the command line or frame so far
        bool echo = true; // ATE0 switches it off
    };

    void take_first(line &from, uint8_t byte);
    void take(line &from, uint8_t byte);
    void take_frame_byte(line &from, uint8_t byte);
    void answer_command(line &from, const std::string &command);
    void answer(const std::string &word, const std::string &echo, const std::string &text);
    void say_codes(const std::vector<std::string> &codes);
    void take_frame(const octets &frame);
    void switch_to_download();

    std::array<line, most_channels> lines_;
    size_t noise_ = 0; // bytes not heard since the last receive()
};

} // namespace sim
