// The modem in normal operation: AT commands and DIAG frames on one line, told apart by their first byte.
// Command lines ("AT...", ended by a carriage return) are answered from the table, echoed until ATE0. The one
// DIAG frame that is understood asks for download mode: the stage is done.
#pragma once

#include "engine.hpp"

namespace sim {

class normal_engine : public engine {
  public:
    explicit normal_engine(workbench &bench) : engine(bench) {}

    void begin(uint32_t delay_ms) override;
    size_t receive(view bytes) override;

  private:
    void take_first(uint8_t byte);
    void take(uint8_t byte);
    void answer_command(const std::string &command);
    void take_frame();
    void switch_to_download();

    octets input_;     // the command line or frame so far
    bool echo_ = true; // ATE0 switches it off
};

} // namespace sim
