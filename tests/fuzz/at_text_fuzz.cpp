// An answer to an AT command that has been received: final response, trimming, lines. The first byte chooses
// the prefix that is looked for, the second the room for a line.
#include "at_channel.hpp"
#include "core.hpp"
#include "fuzz.hpp"

#include <memory>

namespace {

constexpr const char *prefixes[] = {"", "#CGMM:", "#CGSN:", ":"};

bool is_white(char c)
{
    return c == ' ' || (c >= 9 && c <= 13);
}

std::unique_ptr<at_response> response_with(const std::string &text)
{
    auto response = std::make_unique<at_response>();
    strlcpy(response->text, text.c_str(), sizeof response->text);
    return response;
}

void check_classification(const std::string &text)
{
    const auto response = response_with(text);
    const std::string before = response->text;
    const bool found = at_classify_response(response.get());
    const bool accepts = contains(before, "OK") || contains(before, "BUSY") || contains(before, "CONNECT");
    fuzz_check(found == (accepts || contains(before, "ERROR")));
    fuzz_check(response->ok == (accepts ? 1U : 0U));
    if (!found) {
        fuzz_check(before == response->text && response->final[0] == '\0');
        return;
    }
    fuzz_check(is_terminated(response->final, sizeof response->final));
    fuzz_check(starts_with(before, std::string(response->text) + response->final));
}

// Empty, or one trimmed text with one line end behind it.
void check_clean(const at_response &response)
{
    fuzz_check(is_terminated(response.text, sizeof response.text));
    const std::string text = response.text;
    if (text.empty())
        return;
    fuzz_check(text.size() > 2 && text.substr(text.size() - 2) == "\r\n");
    fuzz_check(!is_white(text[0]) && !is_white(text[text.size() - 3]));
}

void check_lines(at_response *response, const char *prefix, size_t room)
{
    at_command command{};
    strlcpy(command.prefix, prefix, sizeof command.prefix);
    for (;;) {
        const std::string before = response->text;
        std::vector<char> line(room, 'x');
        const int result = at_get_line(&command, response, line.data(), line.size());
        fuzz_check(is_terminated(line.data(), line.size()));
        fuzz_check(is_terminated(response->text, sizeof response->text));
        const std::string taken = line.data();
        if (result != CORE_OK) {
            fuzz_check(result == CORE_EINVAL || result == CORE_EPROTO || result == CORE_ENOMEM);
            fuzz_check(taken.empty() && before == response->text);
            return;
        }
        fuzz_check(!contains(taken, "\r\n") && contains(before, taken + "\r\n"));
        fuzz_check(taken.empty() || !is_white(taken[0]));
        const std::string rest = response->text;
        fuzz_check(rest.size() < before.size()); // so that it comes to an end
        fuzz_check(before.substr(before.size() - rest.size()) == rest);
        fuzz_check(rest.empty() || !is_white(rest[0]));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const char *const prefix = prefixes[input.take_byte() % std::size(prefixes)];
    const size_t room = static_cast<size_t>(input.take_byte()) * 4 + 1;
    const std::string text = input.rest();
    quiet_log();
    check_classification(text);
    const auto raw = response_with(text);
    check_lines(raw.get(), prefix, room);
    const auto response = response_with(text);
    fuzz_check(clean_command_response(response.get()) == CORE_OK);
    check_clean(*response);
    const std::string once = response->text;
    fuzz_check(clean_command_response(response.get()) == CORE_OK && once == response->text);
    check_lines(response.get(), prefix, room);
    return 0;
}
