// The JSON event stream: whatever text goes in, what comes out is strict JSON. The first byte chooses the
// event, the next four the room of the buffer; the texts follow, a line each.
#include "core.hpp"
#include "fuzz.hpp"
#include "json.hpp"
#include "json_check.hpp"
#include "log-output.hpp"
#include "zepho-json.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <memory>

namespace {

// Names the fault on standard error when there is one.
void check_json(const std::string &text)
{
    json_value value;
    std::string error;
    const bool good = json_read(text, &value, &error);
    if (!good)
        fprintf(stderr, "%s in: %s\n", error.c_str(), text.c_str());
    fuzz_check(good);
}

void check_lines()
{
    for (const std::string &line : printed_lines()) {
        const std::string fault = json_line_fault(line);
        if (!fault.empty())
            fprintf(stderr, "%s in: %s\n", fault.c_str(), line.c_str());
        fuzz_check(fault.empty());
    }
}

// A whole text comes back as it was, unless it holds what is no UTF-8; a cut one is as long as the room lets
// it be, but for the last character.
void check_escape(const std::string &text, size_t room)
{
    const std::vector<char> source = exact_text(text);
    const std::string whole = source.data();
    std::vector<char> buffer(room, 'x');
    const size_t length = json_escape(source.data(), buffer.data(), buffer.size());
    if (room == 0)
        return;
    fuzz_check(length < room && buffer[length] == '\0' && strlen(buffer.data()) == length);
    const std::string quoted = "\"" + std::string(buffer.data()) + "\"";
    json_value value;
    std::string error;
    check_json(quoted);
    json_read(quoted, &value, &error);
    const bool replaced = contains(value.text, "\xEF\xBF\xBD");
    if (!replaced)
        fuzz_check(starts_with(whole, value.text));
    if (length + 6 < room && !replaced)
        fuzz_check(value.text == whole);
}

// One entry of every type, an array of two tables among them.
struct described {
    bool flag = true;
    int32_t small = 0;
    int64_t large = 0;
    uint64_t huge = 0;
    uint8_t count = 0;
    std::vector<std::vector<char>> texts;
    json_entry elements[6] = {};
    json_entry table[10] = {};
};

void fill(described *d, fuzz_input *input)
{
    d->small = static_cast<int32_t>(input->take_u32());
    d->huge = input->take_u64();
    d->large = static_cast<int64_t>(d->huge);
    d->flag = (d->small & 1) != 0;
    d->count = static_cast<uint8_t>(d->huge % 3);
    for (int i = 0; i < 5; ++i)
        d->texts.push_back(exact_text(input->take_until('\n')));
    const json_entry end = {nullptr, nullptr, JSON_END};
    const json_entry elements[] = {
        {"one", d->texts[2].data(), JSON_TEXT}, {"two", &d->small, JSON_INT32}, end,
        {"one", d->texts[3].data(), JSON_TEXT}, {"two", &d->flag, JSON_BOOL},   end};
    std::copy(std::begin(elements), std::end(elements), d->elements);
    const json_entry table[] = {
        {"type", d->texts[0].data(), JSON_TEXT}, {"flag", &d->flag, JSON_BOOL},
        {"text", d->texts[1].data(), JSON_TEXT}, {"small", &d->small, JSON_INT32},
        {"array", d->elements, JSON_ARRAY},      {"array_size", &d->count, JSON_ARRAY_SIZE},
        {"large", &d->large, JSON_INT64},        {"huge", &d->huge, JSON_UINT64},
        {"last", d->texts[4].data(), JSON_TEXT}, end};
    std::copy(std::begin(table), std::end(table), d->table);
}

void check_compose(const described &d, size_t room)
{
    std::vector<char> buffer(room, 'x');
    static_cast<void>(json_compose(d.table + 1, buffer.data(), buffer.size()));
    fuzz_check(is_terminated(buffer.data(), buffer.size()));
    check_json("{" + std::string(buffer.data()) + "}");
}

void describe_modems(fuzz_input *input)
{
    static modem modems[MAX_MODEM_NUMBER];
    memset(modems, 0, sizeof modems);
    for (int i = 0; i < MAX_MODEM_NUMBER && !input->empty(); ++i) {
        modem &m = modems[i];
        m.probing_mode = input->take_byte() % 4;
        m.usb_id = {input->take_u32(), input->take_u32()};
        m.modem_port_size = input->take_byte() % (MAX_MODEM_PORTS + 1);
        const struct {
            char *text;
            size_t size;
        } fields[] = {{m.model_name, sizeof m.model_name}, {m.imei, sizeof m.imei},
                      {m.versions, sizeof m.versions},     {m.dev_path, sizeof m.dev_path},
                      {m.usb_serial, sizeof m.usb_serial}, {m.cfun, sizeof m.cfun}};
        for (const auto &field : fields)
            strlcpy(field.text, input->take_until('\n').c_str(), field.size);
        for (int port = 0; port < m.modem_port_size; ++port) {
            m.modem_port[port].port_type = input->take_byte() % 5;
            strlcpy(m.modem_port[port].port_name, input->take_until('\n').c_str(),
                    sizeof m.modem_port[port].port_name);
        }
    }
    json_set_event((modems[0].usb_id.vid & 1) != 0);
    json_print_modems(modems, MAX_MODEM_NUMBER);
}

void print_message(fuzz_input *input)
{
    const std::string file = input->take_until('\n');
    const std::string function = exact_text(input->take_until('\n')).data();
    const std::string text = input->rest();
    if (function == JSON_TYPE_PROGRESS || function == JSON_TYPE_CUSTOM)
        return; // these say what the message is
    core_log(CORE_LOG_ERR, file.c_str(), function.c_str(), 12, "%s", text.c_str());
    fuzz_check(printed_lines().size() == 1);
}

void print_progress(fuzz_input *input)
{
    const auto max = static_cast<int64_t>(input->take_u64() >> 1);
    const auto current = static_cast<int64_t>(input->take_u64() >> 1);
    core_log_progress("file.c", "function", 1, current, max, input->rest().c_str());
    core_log_progress_complete("file.c", "function", 1, max, input->rest().c_str());
    fuzz_check(printed_lines().size() == 2);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = setup_json_output();
    fuzz_check(ready);
    fuzz_input input(data, size);
    const uint8_t choice = input.take_byte() % 6;
    const size_t room = input.take_u32() % 8192;
    quiet_log();
    keep_printed_lines(true);
    pretty_print_function = core_log_json;
    if (choice == 0) {
        check_escape(input.rest(), room);
    } else if (choice == 1) {
        print_message(&input);
    } else if (choice == 2) {
        print_progress(&input);
    } else if (choice == 3) {
        describe_modems(&input);
    } else {
        const auto d = std::make_unique<described>();
        fill(d.get(), &input);
        if (choice == 4)
            check_compose(*d, room + 1);
        else
            core_log_json(CORE_LOG_INF, "file.c", JSON_TYPE_CUSTOM, 1, reinterpret_cast<char *>(d->table));
    }
    check_lines();
    return 0;
}
