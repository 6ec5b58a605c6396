// The command line: a first byte whose low bits choose the table (1: one with every type of value instead of
// the program's), then the arguments, a line each.
#include "core.hpp"
#include "fuzz.hpp"
#include "options.hpp"
#include "zepho-log.hpp"

#include <algorithm>

namespace {

using texts = std::vector<std::string>;

// A table that knows every type.
char other_text[OPTION_TEXT_SIZE];
uint32_t other_number;
bool other_flag;
bool number_present;
bool text_present;
const option_descriptor other_table[] = {
    {"--number", "-n", OPTION_UNSIGNED, &other_number, false, "a number", &number_present},
    {"--text", "", OPTION_TEXT, other_text, true, "a text", &text_present},
    {"--flag", nullptr, OPTION_BOOLEAN, &other_flag, false, "a flag", nullptr},
    {nullptr, nullptr, OPTION_END, nullptr, false, nullptr, nullptr},
};

bool is_given(const texts &arguments, const char *long_name, const char *short_name)
{
    return std::any_of(arguments.begin() + 1, arguments.end(), [=](const std::string &argument) {
        return argument == long_name || (*short_name != '\0' && argument == short_name);
    });
}

// The value behind the last of the flag's names, cut to what an option holds; empty when it was not given.
std::string value_of(const texts &arguments, const char *long_name, const char *short_name)
{
    std::string value;
    for (size_t i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == long_name || (*short_name != '\0' && arguments[i] == short_name))
            value = arguments[i + 1].substr(0, 255);
    }
    return value;
}

bool is_known(const std::string &flag, const texts &known)
{
    return std::find(known.begin(), known.end(), flag) != known.end();
}

void check_flags_are_known(const texts &arguments, const texts &known)
{
    for (size_t i = 1; i < arguments.size(); ++i)
        fuzz_check(!starts_with(arguments[i], "-") || is_known(arguments[i], known));
}

void check_program_options(const texts &arguments, int result)
{
    fuzz_check(result == CORE_OK || result == CORE_EAGAIN || result == CORE_EINVAL || result == 1);
    fuzz_check(is_terminated(options.port, sizeof options.port) &&
               is_terminated(options.meta, sizeof options.meta) &&
               is_terminated(options.flat, sizeof options.flat));
    if (result == CORE_EAGAIN)
        fuzz_check(is_given(arguments, "--help", "-h"));
    if (result != CORE_OK)
        return;
    check_flags_are_known(arguments, {"--port",           "-p",     "--meta", "-m",      "--flat",      "-f",
                                      "--debug",          "-d",     "-q",     "--otp",   "--enter-qdl", "-s",
                                      "--skip-enter-qdl", "--pcie", "-e",     "--force", "--dry-run",   "-r",
                                      "--json",           "-j"});
    fuzz_check(options.port == value_of(arguments, "--port", "-p"));
    fuzz_check(options.meta == value_of(arguments, "--meta", "-m"));
    fuzz_check(options.flat == value_of(arguments, "--flat", "-f"));
    fuzz_check(options.debug == is_given(arguments, "--debug", "-d"));
    fuzz_check(options.enter_qdl == is_given(arguments, "--enter-qdl", "-q"));
    fuzz_check(options.otp == is_given(arguments, "--otp", ""));
    fuzz_check(options.skip_enter_qdl == is_given(arguments, "--skip-enter-qdl", "-s"));
    fuzz_check(options.pcie == is_given(arguments, "--pcie", "-e"));
    fuzz_check(options.force == is_given(arguments, "--force", ""));
    fuzz_check(options.dry_run == is_given(arguments, "--dry-run", "-r"));
    fuzz_check(options.json == is_given(arguments, "--json", "-j"));
    const int sources = (options.firmware_directory != nullptr ? 1 : 0) + (options.meta[0] != '\0' ? 1 : 0) +
                        (options.flat[0] != '\0' ? 1 : 0);
    fuzz_check(sources == 1);
    fuzz_check(options.port[0] != '\0' ? options.force : !options.skip_enter_qdl);
    if (options.firmware_directory != nullptr)
        fuzz_check(arguments[1] == options.firmware_directory);
}

void check_other_options(const texts &arguments, int result)
{
    fuzz_check(result == CORE_OK || result == CORE_EAGAIN || result == CORE_EINVAL);
    fuzz_check(is_terminated(other_text, sizeof other_text));
    if (result != CORE_OK)
        return;
    check_flags_are_known(arguments, {"--number", "-n", "--text", "--flag"});
    fuzz_check(text_present && other_text == value_of(arguments, "--text", ""));
    fuzz_check(other_flag == is_given(arguments, "--flag", ""));
    fuzz_check(number_present == is_given(arguments, "--number", "-n"));
    std::string digits = value_of(arguments, "--number", "-n");
    if (!number_present || digits.size() == 255)
        return;
    digits.erase(0, std::min(digits.find_first_not_of(" \t\v\f\r"), digits.size()));
    if (starts_with(digits, "+"))
        digits.erase(0, 1);
    fuzz_check(digits.find_first_not_of("0123456789") == std::string::npos);
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    fuzz_check(digits == (other_number != 0 ? std::to_string(other_number) : ""));
}

// Help with a row made of the first argument.
void check_help(const std::string &text)
{
    const std::vector<char> name = exact_text(text);
    const option_descriptor row[] = {
        {name.data(), name.data(), OPTION_TEXT, nullptr, false, name.data(), nullptr},
        {name.data(), nullptr, OPTION_BOOLEAN, nullptr, true, name.data(), nullptr}};
    std::vector<char> memory(3 * HELP_LINE_SIZE, 'x');
    auto *const lines = reinterpret_cast<help_line *>(memory.data());
    fuzz_check(compose_help_message(name.data(), row, 2, lines, 3) == 3);
    for (int i = 0; i < 3; ++i)
        fuzz_check(is_terminated(lines[i], HELP_LINE_SIZE));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const bool other = (input.take_byte() & 1) != 0;
    texts arguments = {"kestrel"};
    while (!input.empty() && arguments.size() < MAX_CLI_ARGS)
        arguments.emplace_back(exact_text(input.take_until('\n')).data());
    std::vector<std::vector<char>> memory;
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        memory.push_back(exact_text(argument));
    for (auto &argument : memory)
        argv.push_back(argument.data());
    const int argc = static_cast<int>(argv.size());

    quiet_log();
    options = {};
    memset(other_text, 0, sizeof other_text);
    other_number = 0;
    other_flag = number_present = text_present = false;
    if (other)
        check_other_options(arguments, get_opts(argc, argv.data(), other_table));
    else
        check_program_options(arguments, check_args(argc, argv.data()));
    check_help(arguments.size() > 1 ? arguments[1] : "");
    return 0;
}
