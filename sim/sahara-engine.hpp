// The boot loader: says HELLO, asks for the programmer block by block, ends the image and leaves to the
// programmer after DONE.
//
//   begin -> HELLO, wait for its response
//   HELLO response -> READ_DATA, the block, READ_DATA, ... END_IMAGE_TX
//   DONE -> DONE response, stage done
//   RESET_STATE_MACHINE -> begin again; RESET -> the device leaves
//   HELLO in mode 2: command 240 -> 241, begin again in mode 0
//   anything else, also a transfer that is no whole packet -> END_IMAGE_TX with a status that is not 0; the
//   same again until one of the two resets
//
// A RESET or RESET_STATE_MACHINE that arrives alone in the middle of a block or of a packet is obeyed: a host
// that gave up has nothing else to say.
#pragma once

#include "data-guard.hpp"
#include "engine.hpp"
#include "read-plan.hpp"

#include <vector>

namespace sim {

class sahara_engine : public engine {
  public:
    explicit sahara_engine(workbench &bench);

    void begin(uint32_t delay_ms) override;
    size_t receive(view bytes, unsigned channel) override;
    void end_transfer() override;
    uint64_t input_limit() const override;

  private:
    enum class phase { hello, data, done, refused };

    size_t take_packet_bytes(view bytes);
    size_t take_data(view bytes);
    size_t take_packet(size_t behind);
    void take_hello_response();
    void take_download_request();
    void take_done();
    void take_state_reset();
    void take_reset();

    void say_hello(uint32_t delay_ms);
    void next_request();
    void ask(const read_request &wanted);
    void end_image();
    void report_end(const char *step, uint32_t status);
    void refuse(uint32_t status, const std::string &why);
    [[nodiscard]] bool awaits(phase wanted, const char *packet);
    [[nodiscard]] bool heard(const char *step);
    bool speaks_with(uint32_t version, uint32_t compatible) const;

    phase phase_ = phase::hello;
    uint32_t mode_; // of the HELLO to come
    bool said_hello_ = false;
    octets packet_; // the packet so far
    std::vector<read_request> reads_;
    size_t next_read_ = 0; // the request after the one being served
    uint64_t block_left_ = 0;
    uint64_t total_ = 0; // bytes received since the HELLO response
    data_guard guard_;
};

} // namespace sim
