// What the programmer says, word by word. In full, as programmers in the field do: start-up lines, a line
// about what it does, the reason before a refusal, answers with all their attributes. Or plain: nothing but
// the answers, with nothing but their value.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Whether an answer opens or ends the transfer of raw data, or has nothing to do with it.
enum class raw_mode { none, begins, ends };

class firehose_words {
  public:
    explicit firehose_words(bool plain) : plain_(plain) {}

    bool plain() const { return plain_; }

    // Elements. A log value stands as it is: escaped() makes one of any text.
    std::string log(std::string_view value) const;
    static std::string escaped(std::string_view text);
    std::string answer(bool good, raw_mode raw = raw_mode::none) const;
    // The answer to configure: `payload` was asked for, `supported` is what the programmer takes.
    std::string configured(bool good, uint64_t payload, uint64_t supported) const;
    // Neither ACK nor NAK: nothing that a host could know.
    static std::string unknown_answer();

    // An element as a message of its own.
    std::string message(const std::string &element) const;

    // The lines of the start.
    std::vector<std::string> start_lines() const;

  private:
    bool plain_;
};

} // namespace sim
