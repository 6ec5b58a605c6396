// One line of a package file: its type, its attributes, its file name. The first byte chooses the name that
// is looked for, the next four the room for the value; the line follows.
#include "fuzz.hpp"
#include "xml.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char *names[] = {"label",
                                 "filename",
                                 "SECTOR_SIZE_IN_BYTES",
                                 "num_partition_sectors",
                                 "MaxPayloadSizeToTargetInBytesSupported",
                                 "a",
                                 "=",
                                 "\""};

bool is_all_zero(const std::vector<char> &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\0'; });
}

void check_string_attribute(const std::string &line, const char *name, size_t room)
{
    std::vector<char> dest(room, '\0');
    const std::vector<char> text = exact_text(line);
    const bool found = get_string_attribute(text.data(), name, dest.data(), static_cast<int>(room));
    if (!found) {
        fuzz_check(is_all_zero(dest));
        return;
    }
    fuzz_check(is_terminated(dest.data(), dest.size()));
    const std::string value = dest.data();
    fuzz_check(!value.empty() && !contains(value, "\""));
    fuzz_check(contains(line, std::string(name) + "=\"" + value + "\""));
}

// A number is accepted as decimal digits; blanks and one plus sign may stand in front of them. No digits at
// all are 0.
void check_uint_attribute(const std::string &line, const char *name)
{
    const std::vector<char> text = exact_text(line);
    uint32_t value = 0xA5A5A5A5;
    if (!get_uint_attribute(text.data(), name, &value)) {
        fuzz_check(value == 0xA5A5A5A5);
        return;
    }
    const std::string start = std::string(name) + "=\"";
    const size_t begin = line.find(start);
    fuzz_check(begin == line.find(name));
    const std::string quoted = line.substr(begin + start.size());
    fuzz_check(contains(quoted, "\""));
    std::string digits = quoted.substr(0, quoted.find('"'));
    digits.erase(0, std::min(digits.find_first_not_of(" \t\n\v\f\r"), digits.size()));
    if (starts_with(digits, "+"))
        digits.erase(0, 1);
    fuzz_check(digits.find_first_not_of("0123456789") == std::string::npos);
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    fuzz_check(digits == (value != 0 ? std::to_string(value) : ""));
}

void check_file_name(const std::string &line, size_t room)
{
    const std::vector<char> text = exact_text(line);
    std::vector<char> dest(room, 'x');
    const bool found = get_value(dest.data(), dest.size(), text.data(), LINE_FILE_NAME);
    fuzz_check(!get_value(dest.data(), dest.size(), text.data(), LINE_COMMAND));
    if (!found)
        return;
    fuzz_check(is_terminated(dest.data(), dest.size()));
    const std::string value = dest.data();
    fuzz_check(contains(line, "<file_name>" + value + (value.size() + 1 < room ? "</file_name>" : "")));
}

void check_type(const std::string &line)
{
    const std::vector<char> text = exact_text(line);
    const line_type outside = get_line_type(text.data(), false);
    const line_type inside = get_line_type(text.data(), true);
    const bool opens = contains(line, "<!--");
    const bool closes = contains(line, "-->");
    fuzz_check((outside == LINE_COMMENT) == (opens && closes));
    fuzz_check((outside == LINE_COMMENT_START) == (opens && !closes));
    fuzz_check((outside == LINE_COMMENT_END) == (!opens && closes));
    if (opens || closes) {
        fuzz_check(inside == outside);
        return;
    }
    const bool is_element = contains(line, "<") && contains(line, ">");
    fuzz_check(is_element || (outside == LINE_OTHER && inside == LINE_OTHER));
    fuzz_check(inside == LINE_COMMAND || inside == LINE_OTHER);
    if (outside == LINE_COMMAND || outside == LINE_OTHER)
        fuzz_check(inside == outside);
    const struct {
        line_type type;
        const char *mark;
    } entries[] = {{LINE_PARTITION_FILE, "<partition_file"},
                   {LINE_DEVICE_PROGRAMMER, "<device_programmer"},
                   {LINE_FILE_NAME, "<file_name"}};
    for (const auto &entry : entries)
        fuzz_check(outside != entry.type || contains(line, entry.mark));
    if (is_element)
        fuzz_check((inside == LINE_OTHER) == (contains(line, "<data>") || contains(line, "</data>")));
    fuzz_check(is_valid_xml(text.data()) == (contains(line, "<?xml") || contains(line, ">")));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const char *const name = names[input.take_byte() % std::size(names)];
    const size_t room = input.take_u32() % 1100 + 1;
    const std::string line = exact_text(input.rest()).data();
    quiet_log();
    check_type(line);
    check_string_attribute(line, name, room);
    check_uint_attribute(line, name);
    check_file_name(line, room);
    return 0;
}
