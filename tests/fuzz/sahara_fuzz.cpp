// The programmer upload, with a boot loader that is played from the input. The first byte is the platform;
// the boot loader's script follows (fuzz_peer.hpp).
//
// What the updater sent is judged from what it had received: the answer to a HELLO, then for each request
// just the bytes of the file that it asks for, and after a failure a reset at most.
#include "core.hpp"
#include "fuzz.hpp"
#include "fuzz_file.hpp"
#include "fuzz_peer.hpp"
#include "image-list.hpp"
#include "sahara.hpp"

#include <algorithm>

namespace {

constexpr size_t programmer_size = 3000;

std::string make_programmer()
{
    std::string content;
    for (size_t i = 0; i < programmer_size; ++i)
        content += static_cast<char>((i * 7 + i / 256) % 251);
    return content;
}

uint64_t number_at(const std::string &packet, size_t offset, size_t size)
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(static_cast<uint8_t>(packet[offset + i])) << (8 * i);
    return value;
}

std::string header(char command)
{
    return std::string({command, 0, 0, 0, 8, 0, 0, 0});
}

const std::string done = header(5);
const std::string reset = header(7);
const std::string state_reset = header(19);
const std::string restart = header('\xF0');

bool is_header(const std::string &sent)
{
    return sent == done || sent == reset || sent == state_reset || sent == restart;
}

// The conversation as the updater saw it, burst by burst.
class judge {
  public:
    judge(const fuzz_peer &peer, const std::string &programmer, uint32_t platform)
        : peer_(peer), programmer_(programmer), platform_(platform)
    {
    }

    void check(int result)
    {
        const auto bursts = peer_.bursts();
        for (size_t i = 0; i < bursts.size(); ++i) {
            const bool last = i + 1 == bursts.size();
            read_until(bursts[i].first_event);
            check_burst(bursts[i].bytes, last && peer_.write_failed());
            fuzz_check(!reset_seen_ || last); // the reset is the last thing that is said
        }
        read_until(peer_.events().size());
        check_result(result);
    }

  private:
    // Takes what was received before event `end` into the packet, as the updater does: a request that is
    // shorter than the one before leaves the rest of that in place.
    void read_until(size_t end)
    {
        for (; position_ < end; ++position_) {
            const peer_event &event = peer_.events()[position_];
            if (event.what == peer_event::receive_failed) {
                failed_ = true;
            } else if (event.what == peer_event::received) {
                failed_ = false;
                received_ = before_last_.empty() || event.bytes.size() != 40 ? event.bytes
                                                                             : before_last_ + event.bytes;
                before_last_ = event.bytes.size() == 8 ? event.bytes : "";
                if (answered_)
                    std::copy_n(event.bytes.begin(), std::min<size_t>(event.bytes.size(), packet_.size()),
                                packet_.begin());
            }
        }
    }

    void check_burst(const std::string &sent, bool may_be_cut)
    {
        if (is_header(sent)) {
            count_header(sent);
            return;
        }
        if (may_be_cut && sent.size() < 8 &&
            (starts_with(done, sent) || starts_with(reset, sent) || starts_with(state_reset, sent) ||
             starts_with(restart, sent)))
            return;
        if (!answered_)
            check_hello_response(sent, may_be_cut);
        else
            check_block(sent, may_be_cut);
    }

    void count_header(const std::string &sent)
    {
        fuzz_check(sent != done || (answered_ && ++dones_ == 1));
        fuzz_check(sent != state_reset || (!answered_ && ++state_resets_ == 1));
        fuzz_check(sent != restart || (!answered_ && ++restarts_ == 1));
        reset_seen_ = reset_seen_ || sent == reset;
    }

    void check_hello_response(const std::string &sent, bool may_be_cut)
    {
        std::string expected("\2\0\0\0\x30\0\0\0", 8);
        if (failed_) {
            fuzz_check(platform_ == 0);
            expected += std::string("\2\0\0\0\1\0\0\0", 8);
        } else {
            fuzz_check(received_.size() == 48 && number_at(received_, 0, 4) == 1);
            expected += received_.substr(8, 8);
        }
        expected += std::string(32, '\0');
        fuzz_check(sent == expected || (may_be_cut && starts_with(expected, sent)));
        answered_ = true;
    }

    void check_block(const std::string &sent, bool may_be_cut)
    {
        fuzz_check(!failed_ && dones_ == 0);
        const uint64_t command = number_at(packet_, 0, 4);
        fuzz_check(command == 3 || command == 18);
        if (!served_)
            wide_ = command == 18;
        served_ = true;
        const uint64_t offset = wide_ ? number_at(packet_, 16, 8) : number_at(packet_, 12, 4);
        const uint64_t length = wide_ ? number_at(packet_, 24, 8) : number_at(packet_, 16, 4);
        fuzz_check(offset < programmer_.size() && length <= programmer_.size() - offset);
        const std::string expected = programmer_.substr(offset, length);
        fuzz_check(sent == expected || (may_be_cut && starts_with(expected, sent)));
    }

    void check_result(int result) const
    {
        if (result == CORE_OK || result == CORE_EAGAIN)
            fuzz_check(!reset_seen_);
        else if (!peer_.write_failed())
            fuzz_check(reset_seen_);
        if (result != CORE_OK || dones_ == 0)
            return;
        fuzz_check(done_is_answered());
    }

    // The first thing that was received behind DONE is the response, with the platform's own status.
    bool done_is_answered() const
    {
        size_t sent = 0;
        for (const auto &burst : peer_.bursts()) {
            if (burst.bytes == done)
                sent = burst.first_event;
        }
        for (size_t i = sent; i < peer_.events().size(); ++i) {
            const peer_event &event = peer_.events()[i];
            if (event.what != peer_event::received)
                continue;
            std::string packet = event.bytes;
            packet.resize(12, '\0');
            return number_at(packet, 0, 4) == 6 && number_at(packet, 8, 4) == (platform_ == 0 ? 0 : 1);
        }
        return false;
    }

    const fuzz_peer &peer_;
    const std::string &programmer_;
    uint32_t platform_;
    size_t position_ = 0;
    std::string received_;
    std::string before_last_;                    // when it was a header alone
    std::string packet_ = std::string(32, '\0'); // the latest of the upload
    bool failed_ = false;
    bool answered_ = false;
    bool served_ = false;
    bool wide_ = false;
    bool reset_seen_ = false;
    int dones_ = 0;
    int state_resets_ = 0;
    int restarts_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string programmer = make_programmer();
    static fuzz_file file;
    static modem m;
    static image_list package;
    if (package.programmer_path[0] == '\0') {
        file.set(programmer);
        package.programmer = file.identity();
        strlcpy(package.programmer_path, file.path(), sizeof package.programmer_path);
        m.modem_port_size = 1;
        m.modem_port[0].port_type = PORT_FIRMWARE_UPDATE;
    }
    fuzz_input input(data, size);
    package.platform = input.take_byte() % 3;
    quiet_log();
    fuzz_peer peer(input.rest());
    strlcpy(m.modem_port[0].port_name, peer.lend(), sizeof m.modem_port[0].port_name);
    const int result = sahara_send_programmer(&m, &package);
    fuzz_check(peer.was_closed());
    judge(peer, programmer, package.platform).check(result);
    return 0;
}
