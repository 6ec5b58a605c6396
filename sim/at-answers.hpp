// The modem's answers to AT commands: a table of whole answer texts.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sim {

using at_answer = std::pair<std::string, std::string>; // command, answer

// The answer to `command` (case does not matter): the last fitting entry of `own`, else the built-in one,
// else nothing. A modem says "ERROR" to those.
[[nodiscard]] std::optional<std::string> find_at_answer(const std::vector<at_answer> &own,
                                                        std::string_view command);

// Up to the first '=' or '?', in capitals: names a step of the fault plan.
std::string at_command_word(std::string_view command);

// A text of an option, where \r \n \\ and \xHH stand for bytes. Nothing when it is malformed.
[[nodiscard]] std::optional<std::string> parse_at_text(std::string_view text);

// "COMMAND=ANSWER" of an option, whose answer is such a text.
[[nodiscard]] std::optional<at_answer> parse_at_answer(std::string_view text);

} // namespace sim
