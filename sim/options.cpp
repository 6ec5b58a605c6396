#include "options.hpp"

#include "at-answers.hpp"
#include "numbers.hpp"
#include "read-plan.hpp"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <vector>

namespace sim {
namespace {

// A setter answers whether the value is good, or what is wrong with it.
constexpr const char *bad_value = "bad value";

using target = program_options;
using setter = std::string (*)(target &, const char *);

template <typename T> struct choice {
    std::string_view name;
    T value;
};

template <typename T, size_t N>
std::string choose(T &out, const std::array<choice<T>, N> &choices, std::string_view text)
{
    const auto found = std::ranges::find(choices, text, &choice<T>::name);
    if (found == choices.end())
        return bad_value;
    out = found->value;
    return "";
}

template <typename T> std::string number(T &out, const char *text, uint64_t min, uint64_t max)
{
    const auto value = parse_number(text, max);
    if (!value || *value < min)
        return bad_value;
    out = static_cast<T>(*value);
    return "";
}

// Seconds with at most three decimals, as milliseconds.
std::string seconds(uint64_t &out_ms, std::string_view text)
{
    const size_t point = text.find('.');
    const auto whole = parse_number(text.substr(0, point), 1000000);
    std::string decimals(point == std::string_view::npos ? "0" : text.substr(point + 1));
    if (!whole || decimals.empty() || decimals.size() > 3)
        return bad_value;
    decimals.resize(3, '0');
    const auto thousandths = parse_number(decimals, 999);
    if (!thousandths || *whole * 1000 + *thousandths == 0)
        return bad_value;
    out_ms = *whole * 1000 + *thousandths;
    return "";
}

std::string add_at_answer(target &out, const char *text)
{
    auto answer = parse_at_answer(text);
    if (!answer)
        return "COMMAND=ANSWER expected, with the escapes \\r \\n \\\\ \\xHH";
    out.device.at_answers.push_back(std::move(*answer));
    return "";
}

std::string add_at_code(std::vector<std::string> &out, const char *text)
{
    auto code = parse_at_text(text);
    if (!code || code->empty())
        return "a text expected, with the escapes \\r \\n \\\\ \\xHH";
    out.push_back(std::move(*code));
    return "";
}

std::string add_fault(target &out, const char *text)
{
    fault planned;
    std::string wrong = parse_fault(text, planned);
    if (wrong.empty())
        out.device.faults.push_back(std::move(planned));
    return wrong;
}

// VID:PID, each in one to four hexadecimal digits.
std::string usb_identifier(usb_id &out, std::string_view text)
{
    const size_t colon = text.find(':');
    const auto half = [](std::string_view digits, uint16_t &value) {
        const auto [end, wrong] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        return wrong == std::errc() && end == digits.data() + digits.size() && digits.size() <= 4 &&
               value != 0;
    };
    const bool good = colon != std::string_view::npos && half(text.substr(0, colon), out.vid) &&
                      half(text.substr(colon + 1), out.pid);
    return good ? "" : "two hexadecimal numbers expected, as in fff0:1001";
}

std::string path(std::string &out, const char *text)
{
    out = text;
    return out.empty() ? "a path is needed" : "";
}

constexpr std::array<choice<stage>, 3> start_stages = {
    {{"normal", stage::normal}, {"sahara", stage::sahara}, {"firehose", stage::firehose}}};
constexpr std::array<choice<stage>, 4> last_stages = {{{"diag", stage::normal},
                                                       {"sahara", stage::sahara},
                                                       {"firehose", stage::firehose},
                                                       {"reset", stage::firehose}}};
constexpr std::array<choice<uint32_t>, 2> request_widths = {{{"32", 32}, {"64", 64}}};
constexpr std::array<choice<read_order>, 4> orders = {{{"forward", read_order::forward},
                                                       {"backward", read_order::backward},
                                                       {"twice", read_order::twice},
                                                       {"shuffle", read_order::shuffle}}};
constexpr std::array<choice<delivery>, 3> deliveries = {
    {{"whole", delivery::whole}, {"bytes", delivery::bytes}, {"glued", delivery::glued}}};

struct option_row {
    const char *name;
    const char *argument; // nullptr: takes none
    const char *help;
    setter set;
};

constexpr uint64_t max32 = UINT32_MAX;
constexpr uint64_t max_size = uint64_t{1} << 40;

// clang-format off
const auto rows = std::to_array<option_row>({
    {"help", nullptr, "print this text and leave",
     [](target &o, const char *) { o.help = true; return std::string(); }},
    {"version", nullptr, "print the version and leave",
     [](target &o, const char *) { o.version = true; return std::string(); }},
    {"start", "STAGE", "begin in normal (default), sahara or firehose",
     [](target &o, const char *v) { return choose(o.device.start, start_stages, v); }},
    {"until", "STAGE", "leave after diag, sahara, firehose or reset; the last two are the same (default)",
     [](target &o, const char *v) { return choose(o.device.until, last_stages, v); }},
    {"stay", nullptr, "begin again in normal mode after every reset",
     [](target &o, const char *) { o.device.stay = true; return std::string(); }},
    {"flash", "DIR", "keep what is flashed in DIR",
     [](target &o, const char *v) { return path(o.device.flash, v); }},
    {"flash-from", "DIR", "with --flash: begin with what an earlier run left in DIR, and count on from there",
     [](target &o, const char *v) { return path(o.device.flash_from, v); }},
    {"discard", nullptr, "only count data bytes, keep none",
     [](target &o, const char *) { o.device.discard = true; return std::string(); }},
    {"transcript", "FILE", "write the conversation to FILE, a JSON object a line",
     [](target &o, const char *v) { return path(o.transcript, v); }},
    {"record", "FILE", "write every byte that the host sends to FILE",
     [](target &o, const char *v) { return path(o.record, v); }},
    {"bus", "FILE", "keep in FILE what a USB bus would show: VID:PID and port; no file: no device",
     [](target &o, const char *v) { return path(o.bus, v); }},
    {"link", "PATH", "make PATH a symbolic link to the port while running",
     [](target &o, const char *v) { return path(o.link, v); }},
    {"usb", nullptr, "be a device on the virtual USB bus (kernel module vhci_hcd)",
     [](target &o, const char *) { o.usb.wanted = true; return std::string(); }},
    {"usb-id", "VID:PID", "with --usb: identifier in normal mode (default fff0:1001)",
     [](target &o, const char *v) { return usb_identifier(o.usb.id, v); }},
    {"usb-port", "N", "with --usb: port of the virtual host controller to try first (default 0)",
     [](target &o, const char *v) { return number(o.usb.first_port, v, 0, 255); }},
    {"usb-first", "MS", "with --usb: wait between the host's first fetch and the first message (default 0)",
     [](target &o, const char *v) { return number(o.usb.first_ms, v, 0, 60000); }},
    {"usb-away", "MS", "with --usb: how long a switch or a reset takes it off the bus (default 1000)",
     [](target &o, const char *v) { return number(o.usb.away_ms, v, 0, 600000); }},
    {"timeout", "SECONDS", "give up after this time, exit status 3 (default: never)",
     [](target &o, const char *v) { return seconds(o.limits.timeout_ms, v); }},
    {"gap", "MS", "pause between two messages that follow each other (default 1)",
     [](target &o, const char *v) { return number(o.limits.gap_ms, v, 0, 60000); }},
    {"drain", "MS", "longest wait for the host to read a message before the next (default 1000)",
     [](target &o, const char *v) { return number(o.limits.drain_ms, v, 0, 600000); }},
    {"linger", "MS", "longest wait at the end for the host to close the port (default 5000)",
     [](target &o, const char *v) { return number(o.limits.linger_ms, v, 0, 600000); }},
    {"delivery", "HOW", "messages as whole writes (default), bytes one by one, or glued together",
     [](target &o, const char *v) { return choose(o.device.how, deliveries, v); }},
    {"platform", "N", "0, 1 (default) or 2: DONE status 0 or 1, target reset message",
     [](target &o, const char *v) { return number(o.device.platform, v, 0, 2); }},
    {"at", "COMMAND=ANSWER", "whole answer to an AT command; escapes \\r \\n \\\\ \\xHH; may be repeated",
     add_at_answer},
    {"at-delay", "MS", "every answer to an AT command that much later, the echo at once (default 0)",
     [](target &o, const char *v) { return number(o.device.at_delay_ms, v, 0, 600000); }},
    {"at-before", "TEXT", "an unsolicited result code before every answer; escapes as above; may be repeated",
     [](target &o, const char *v) { return add_at_code(o.device.at_before, v); }},
    {"at-after", "TEXT", "an unsolicited result code after every answer; may be repeated",
     [](target &o, const char *v) { return add_at_code(o.device.at_after, v); }},
    {"no-hello", nullptr, "never send HELLO, wait for the host's response to it",
     [](target &o, const char *) { o.device.no_hello = true; return std::string(); }},
    {"hello-mode", "N", "mode of the HELLO (default 0; 2: asks to be sent back to download mode)",
     [](target &o, const char *v) { return number(o.device.hello_mode, v, 0, max32); }},
    {"hello-version", "N", "version of the HELLO (default 2)",
     [](target &o, const char *v) { return number(o.device.hello_version, v, 0, max32); }},
    {"hello-compatible", "N", "lowest compatible version of the HELLO (default 1)",
     [](target &o, const char *v) { return number(o.device.hello_compatible, v, 0, max32); }},
    {"request-bits", "N", "32 (default) or 64: READ_DATA packets",
     [](target &o, const char *v) { return choose(o.device.request_bits, request_widths, v); }},
    {"programmer-size", "BYTES", "bytes of the programmer to ask for (default 4096)",
     [](target &o, const char *v) { return number(o.device.programmer_size, v, 0, max_size); }},
    {"read-size", "BYTES", "bytes of one request (default 4096)",
     [](target &o, const char *v) { return number(o.device.read_size, v, 1, max_size); }},
    {"read-order", "ORDER", "forward (default), backward, twice or shuffle",
     [](target &o, const char *v) { return choose(o.device.order, orders, v); }},
    {"image-id", "N", "image id of the requests (default 13)",
     [](target &o, const char *v) { return number(o.device.image_id, v, 0, max32); }},
    {"end-status", "N", "status of END_IMAGE_TX (default 0)",
     [](target &o, const char *v) { return number(o.device.end_status, v, 0, max32); }},
    {"done-status", "N", "status of the DONE response (default: the platform's)",
     [](target &o, const char *v) {
         uint32_t status = 0;
         std::string wrong = number(status, v, 0, max32);
         o.device.done_status = status;
         return wrong;
     }},
    {"plain-answers", nullptr, "the programmer says no log lines of its own, and answers without attributes",
     [](target &o, const char *) { o.device.plain_answers = true; return std::string(); }},
    {"payload", "N", "refuse any other payload size with N as counter-offer",
     [](target &o, const char *v) {
         uint64_t size = 0;
         std::string wrong = number(size, v, 0, UINT64_MAX);
         o.device.payload = size;
         return wrong;
     }},
    {"log-start", "N", "more log messages when the programmer starts (default 0)",
     [](target &o, const char *v) { return number(o.device.log_start, v, 0, 1000); }},
    {"log-before", "N", "more log messages before every answer of the programmer (default 0)",
     [](target &o, const char *v) { return number(o.device.log_before, v, 0, 1000); }},
    {"log-after", "N", "more log messages after every answer of the programmer (default 0)",
     [](target &o, const char *v) { return number(o.device.log_after, v, 0, 1000); }},
    {"otp", "VALUE", "a value reported for getstorageinfo, sent as given; may be repeated",
     [](target &o, const char *v) { o.device.otp.emplace_back(v); return std::string(); }},
    {"fault", "STEP=KIND[:VALUE][@N]", "misbehave at a step; may be repeated",
     add_fault},
});
// clang-format on

std::vector<struct option> getopt_table()
{
    std::vector<struct option> table;
    table.reserve(std::size(rows) + 1);
    for (const option_row &row : rows)
        table.push_back({row.name, row.argument == nullptr ? no_argument : required_argument, nullptr, 0});
    table.push_back({nullptr, 0, nullptr, 0});
    return table;
}

// What the options say together.
std::string check_together(const target &options)
{
    const settings &device = options.device;
    if (device.start > device.until)
        return "--start lies behind --until";
    if (device.flash.empty() && (device.discard || !device.flash_from.empty()))
        return device.discard ? "--discard without --flash" : "--flash-from without --flash";
    const uint64_t blocks = device.programmer_size / device.read_size;
    if (blocks > most_reads)
        return "--read-size is too small for --programmer-size";
    if (device.request_bits == 32 && std::max(device.programmer_size, device.read_size) > max32)
        return "sizes of 4 GiB and more need --request-bits 64";
    if (options.usb.wanted && !(options.link.empty() && options.bus.empty()))
        return "--link and --bus are for a pseudo-terminal, not for --usb";
    const auto halts = [](const fault &it) { return it.kind == fault_kind::halt; };
    if (!options.usb.wanted && std::ranges::any_of(device.faults, halts))
        return "the fault kind halt needs --usb";
    return "";
}

std::string complaint(char **argv, int code)
{
    const std::string word = argv[optind > 0 ? optind - 1 : 0];
    if (code == ':')
        return "option " + word + " needs a value";
    const size_t equals = word.find('=');
    const auto without_value = [&](const option_row &row) { return word.substr(2, equals - 2) == row.name; };
    if (equals != std::string::npos && equals > 2 && std::ranges::any_of(rows, without_value))
        return "option " + word + " takes no value";
    return "unknown option " + word;
}

const char *const faults_help = R"(
A fault strikes when the device is about to take STEP for the N-th time
(@N, default the first time; @all: every time).

  STEP      at.WORD (at.ATE0, at.AT#CGMM, ...), at.CODE (a result code that
            nobody asked for), at.ECHO (with --at-delay), diag,
            sahara.hello sahara.read sahara.end sahara.refusal sahara.done
            sahara.qdl,
            firehose.log firehose.nop firehose.configure firehose.program
            firehose.data firehose.erase firehose.other firehose.otp
            firehose.reset firehose.target-reset; and what the host sends:
            host.at host.hello host.done host.qdl host.nop host.configure
            host.program host.erase host.otp host.reset host.other
  KIND      silence     nothing is sent, now and later
            skip        this message is not sent
            garbage     16 bytes that mean nothing instead
            truncate    half the message; truncate:BYTES: its first bytes
            overdue     the message only when the host has sent something more
            split       every byte by itself
            halves      in two writes, half each; halves:BYTES: the first that long
            repeat      the message twice
            twice       the message twice, in one write
            glue        in one write with the message behind it
            nul         the same, with a NUL byte between the two
            wrong       a message of the same kind that means nothing
            length:N, offset:N, bytes:N  (Sahara) a field that says N
            late:MS     the message that much later
            hangup      the port is closed; with --usb the device is unplugged
            halt        with --usb: the endpoint answers STALL instead
            nak         a refusal instead: ERROR, NAK, an error status
                        (not sahara.hello, .read, .refusal, .qdl, firehose.log)
  host steps: lost (never heard of), garbled (refused as nonsense).
  diag takes silence, skip, late:MS and hangup: the modem does not switch, or
  later. While data arrive, after BYTES bytes of the stage in all:
            sahara.data-in=hangup@BYTES     firehose.data-in=hangup@BYTES
            sahara.data-in=stall@BYTES      firehose.data-in=stall@BYTES
            sahara.data-in=halt@BYTES       firehose.data-in=halt@BYTES
            sahara.data-in=lost[:COUNT]@BYTES  and the same for firehose

Exit status: 0 the conversation came to its end, or a signal or a planned
hang-up ended it; 1 system error; 2 usage; 3 time-out.
)";

constexpr size_t help_column = 28;

} // namespace

std::string parse_options(int argc, char **argv, program_options &out)
{
    const auto table = getopt_table();
    optind = 0; // start anew, in tests too
    opterr = 0;
    int index = -1;
    for (int code = 0; (code = getopt_long(argc, argv, ":", table.data(), &index)) != -1; index = -1) {
        if (code != 0)
            return complaint(argv, code);
        const option_row &row = rows[static_cast<size_t>(index)];
        const std::string wrong = row.set(out, optarg);
        if (!wrong.empty())
            return std::string("--").append(row.name).append(" ").append(optarg).append(": ").append(wrong);
    }
    if (optind < argc)
        return std::string("unexpected argument ") + argv[optind];
    return out.help || out.version ? "" : check_together(out);
}

std::string help_text()
{
    std::string text = "Usage: kestrel-sim [OPTION]...\n"
                       "A simulated modem on a pseudo-terminal, whose path is printed on standard output,\n"
                       "or on a virtual USB bus.\n\n";
    for (const option_row &row : rows) {
        std::string line = "  --";
        line.append(row.name);
        if (row.argument != nullptr)
            line.append(" ").append(row.argument);
        if (line.size() >= help_column)
            line.append("\n").append(help_column, ' ');
        else
            line.resize(help_column, ' ');
        text.append(line).append(row.help).append("\n");
    }
    return text + faults_help;
}

std::string version_text()
{
    return "kestrel-sim 1.6.1-0\n";
}

} // namespace sim
