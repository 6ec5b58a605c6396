// A whole Firehose session, with a programmer that is played from the input. The low bits of the first byte:
// the OTP values instead of the package (1), a package that resets the modem itself (2), a platform that is
// waited for (4). The programmer's script follows (fuzz_peer.hpp).
//
// Whatever the programmer says: the requests come in order, none before the one in front of it was answered
// and what waited behind the answer was read away, and each session ends with one reset.
#include "core.hpp"
#include "firehose-session.hpp"
#include "firehose.hpp"
#include "fuzz-answers.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"
#include "fuzz_peer.hpp"
#include "image-list.hpp"

#include <algorithm>

namespace {

constexpr size_t file_size = 1000;

std::string framed(const std::string &element)
{
    return "<?xml version=\"1.0\"?>\n<data>\n" + element + "\n</data>\n";
}

const std::string ping = framed("<nop value=\"ping\"/>");
const std::string configure =
    framed("<configure MaxPayloadSizeToTargetInBytes=\"1048576\" MemoryName=\"nand\" />");
const std::string otp = framed("<getstorageinfo  physical_partition_number=\"0\"/>");
const std::string reset = framed("<power value=\"reset\" DelayInSeconds=\"3\"/>");
const std::string own_reset = framed("<power value=\"reset\" DelayInSeconds=\"1\"/>");
const std::string erase =
    framed("<erase SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"64\" start_sector=\"0\" />");
const std::string program = framed("<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"one\" filename=\"one.bin\" "
                                   "num_partition_sectors=\"2\" start_sector=\"0\" />");

void add_image(image_list *list, const char *command, const char *path)
{
    image &img = list->images[list->image_count++];
    strlcpy(img.command, command, sizeof img.command);
    if (path == nullptr)
        return;
    strlcpy(img.filename, path, sizeof img.filename);
    strlcpy(img.label, "one", sizeof img.label);
    img.sector_size_in_bytes = 512;
    img.file_size = file_size;
}

void make_package(image_list *list, const char *path, bool with_reset)
{
    list->image_count = 0;
    memset(list->images, 0, 4 * sizeof(image));
    add_image(list, "<erase SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"64\" start_sector=\"0\" />",
              nullptr);
    add_image(
        list,
        "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"one\" filename=\"one.bin\" num_partition_sectors=\"9\" "
        "start_sector=\"0\" />",
        path);
    if (with_reset)
        add_image(list, "<power value=\"reset\" DelayInSeconds=\"1\"/>", nullptr);
}

// The file, padded with 0xFF to whole sectors, or to the payload where that is no multiple of them.
bool is_file_data(const std::string &sent, const std::string &content)
{
    return sent.size() >= file_size && sent.size() < file_size + 1024 && starts_with(sent, content) &&
           sent.find_first_not_of('\xFF', file_size) == std::string::npos;
}

// What was received before event `index`, behind what was sent before: an empty chunk stands for a read that
// failed or brought nothing.
std::vector<std::string> chunks_before(const fuzz_peer &peer, size_t index)
{
    std::vector<std::string> chunks;
    for (; index > 0 && peer.events()[index - 1].what != peer_event::sent; --index) {
        if (peer.events()[index - 1].what != peer_event::send_failed)
            chunks.insert(chunks.begin(), peer.events()[index - 1].bytes);
    }
    return chunks;
}

// An ACK that says of itself the other of what is awaited answers something else; to configure, each will do.
bool is_ack_of(const std::string &request, const std::string &chunk)
{
    if (request == configure)
        return has_ack(chunk);
    return has_ack_without(chunk, request == program ? "rawmode=\"false\"" : "rawmode=\"true\"");
}

// The first chunk that says yes or no says yes, and behind it was looked for what still waits; a refusal
// among that ends the session.
void check_answered(const std::string &request, const std::vector<std::string> &chunks)
{
    const auto decides = [&request](const std::string &chunk) {
        return is_ack_of(request, chunk) || has_nak(chunk);
    };
    const auto answer = std::find_if(chunks.begin(), chunks.end(), decides);
    fuzz_check(answer != chunks.end());
    fuzz_check(is_ack_of(request, *answer) ||
               (request == configure && contains(*answer, "MaxPayloadSizeToTargetInBytesSupported=\"")));
    const std::vector<std::string> behind(answer + 1, chunks.end());
    fuzz_check(is_look_for_strays(behind) && !has_nak(behind.back()));
}

// Compares the bursts with the requests that are due; returns how many of them went out. `*rest` receives the
// bursts behind them.
size_t check_requests(const fuzz_peer &peer, const std::vector<std::string> &requests,
                      const std::string &content, std::vector<std::string> *rest)
{
    const auto bursts = peer.bursts();
    size_t sent = 0;
    for (; sent < bursts.size() && sent < requests.size(); ++sent) {
        const std::string &bytes = bursts[sent].bytes;
        const bool is_due = requests[sent].empty() ? is_file_data(bytes, content) : bytes == requests[sent];
        if (!is_due)
            break;
        const std::vector<std::string> chunks = chunks_before(peer, bursts[sent].first_event);
        if (sent > 0)
            check_answered(requests[sent - 1], chunks);
        else
            fuzz_check(is_look_for_strays(chunks) && !has_nak(chunks.back()));
    }
    for (size_t i = sent; i < bursts.size(); ++i)
        rest->push_back(bursts[i].bytes);
    return sent;
}

// What a port still took that would not take all: a part of what was due, and of the reset behind it.
void check_cut_end(std::vector<std::string> rest, const std::string &due)
{
    if (!rest.empty() && starts_with(reset, rest.back()))
        rest.pop_back();
    fuzz_check(rest.empty() || (rest.size() == 1 && starts_with(due, rest[0])));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string content(file_size, 'k');
    static fuzz_file file;
    static modem m;
    static image_list package;
    fuzz_input input(data, size);
    const uint8_t flags = input.take_byte();
    const bool otp_only = (flags & 1) != 0;
    const bool own = (flags & 2) != 0 && !otp_only;
    quiet_log();
    file.set(content);
    make_package(&package, file.path(), own);
    package.platform = (flags & 4) != 0 ? 1 : 0;

    fuzz_peer peer(input.rest());
    m.is_pcie = true;
    m.modem_port_size = 1;
    m.modem_port[0].port_type = PORT_FIRMWARE_UPDATE;
    strlcpy(m.modem_port[0].port_name, peer.lend(), sizeof m.modem_port[0].port_name);
    const int result = firehose_update(&m, &package, otp_only);
    fuzz_check(peer.was_closed());

    std::vector<std::string> requests = {ping, configure}; // an empty one is the file's data
    if (otp_only)
        requests.push_back(otp);
    else
        requests.insert(requests.end(), {erase, program, ""});
    if (own)
        requests.push_back(own_reset);
    std::vector<std::string> rest;
    const size_t sent = check_requests(peer, requests, content, &rest);
    if (peer.write_failed()) {
        const bool is_data_due = sent < requests.size() && requests[sent].empty();
        check_cut_end(rest, sent == requests.size() ? "" : is_data_due ? content : requests[sent]);
        return 0;
    }
    const bool reset_itself = own && sent == requests.size();
    fuzz_check(rest == (reset_itself ? std::vector<std::string>() : std::vector<std::string>{reset}));
    if (result != CORE_OK)
        return 0;
    fuzz_check(sent == requests.size());
    if (!otp_only && !own) // the package's last answer, in front of the reset
        check_answered(requests.back(), chunks_before(peer, peer.bursts().back().first_event));
    return 0;
}
