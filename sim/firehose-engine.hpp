// The programmer: takes XML requests and raw data, answers with XML chunks.
//
// A request ends with "</data>" and a line feed. The line feed may be missing or late: when the bytes end
// right after "</data>" the engine waits for more or for settled(). Bytes that are no request are refused.
// After the ACK of a program request the announced number of raw bytes is taken as it comes, then
// acknowledged once. What was received is in the store, in closed files, before it is acknowledged.
#pragma once

#include "data-guard.hpp"
#include "engine.hpp"
#include "firehose-request.hpp"
#include "firehose-words.hpp"

#include <string>
#include <string_view>

namespace sim {

class firehose_engine : public engine {
  public:
    explicit firehose_engine(workbench &bench);

    void begin(uint32_t delay_ms) override;
    size_t receive(view bytes, unsigned channel) override;
    bool wants_quiet() const override { return complete_; }
    void settled() override;
    uint64_t input_limit() const override;

    // One row of the table of elements: how it is handled and under which step of the fault plan it is
    // answered.
    struct element_row {
        std::string_view element;
        std::string_view step; // of the answer
        std::string_view way;  // the step of the request's way here
        bool kept;             // in the store
        bool told;             // a log line says that it is being handled; all log lines of others are values
        void (firehose_engine::*handle)(const firehose_request &, const element_row &);
    };

  private:
    size_t take_request_bytes(view bytes);
    [[nodiscard]] bool find_end();
    void handle_request();
    const element_row &row_of(const std::string &element) const;

    void acknowledge(const firehose_request &request, const element_row &row);
    void configure(const firehose_request &request, const element_row &row);
    void program(const firehose_request &request, const element_row &row);
    void power(const firehose_request &request, const element_row &row);
    void storage_info(const firehose_request &request, const element_row &row);

    size_t take_data(view bytes);
    void finish_data();

    posted say(std::string_view step, std::string_view kind, const std::string &element,
               raw_mode refused = raw_mode::none);
    void say_log(std::string_view step, const std::string &value);
    void say_logs(uint32_t count);
    posted answer(std::string_view step, std::string_view kind, const std::string &element,
                  raw_mode refused = raw_mode::none);
    void say_reason(const std::string &why);
    void refuse(std::string_view step, const std::string &why, raw_mode raw = raw_mode::none);
    void refuse_bytes(const std::string &text, const char *why);

    firehose_words words_;
    std::string request_;         // the request so far
    size_t searched_ = 0;         // of request_, known not to hold its end
    bool complete_ = false;       // but for the line feed that may follow
    bool heard_ = false;          // anything at all
    bool owes_line_feed_ = false; // the last request came without its line feed
    bool in_data_ = false;
    uint64_t data_left_ = 0;
    data_guard guard_;
};

} // namespace sim
