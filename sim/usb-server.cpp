#include "usb-server.hpp"

#include "clock.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <vector>

namespace sim {
namespace {

constexpr uint64_t never = UINT64_MAX;
constexpr uint64_t quiet_us = 20000;
constexpr uint8_t direction_in = 0x80;
constexpr uint8_t diagnostic_endpoint = 1;
constexpr std::array<uint8_t, 2> frame_start = {0x4B, 0x65};

// A transfer that the host submitted and that is not complete.
struct transfer {
    uint32_t seqnum = 0;
    bool in = false;
    uint8_t endpoint = 0;
    uint32_t length = 0;
};

// What goes to the host on one interface.
struct outgoing {
    octets unsent; // the rest of a unit that is longer than the host's transfer
    bool scheduled = false;
    uint64_t due = 0;
    uint64_t sent_at = 0;
    bool answered = false; // a unit was sent since the last input
};

// Interface and channel of the device have one number, the endpoints are one higher.
uint8_t endpoint_of(unsigned channel)
{
    return static_cast<uint8_t>(channel + 1);
}

class server {
  public:
    server(device &modem, vhci_port &port, const usb_settings &usb, const serve_limits &limits,
           transcript &log, int stop_fd)
        : modem_(modem), port_(port), usb_(usb), limits_(limits), log_(log), stop_fd_(stop_fd)
    {
        if (limits.timeout_ms != 0)
            deadline_ = monotonic_us() + limits.timeout_ms * 1000;
    }

    served run();

  private:
    enum class face { none, modem, download };

    // The bus
    bool follow_stage();
    bool appear(face wanted);
    void disappear();
    bool past_deadline();
    bool wait();

    // From the host
    bool read_command();
    bool read_all(std::span<uint8_t> room);
    bool take_control(const usbip_command &command);
    bool take_out(const usbip_command &command);
    bool take_unlink(const usbip_command &command);
    bool is_heard(uint8_t endpoint, view data) const;

    // To the host
    bool send_due();
    bool send_channel(unsigned channel);
    bool send_unit(unsigned channel, write_unit unit);
    bool send_rest(unsigned channel);
    bool all_fetched() const;
    bool halt_endpoint(uint8_t address);
    bool complete(const transfer &it, int32_t status, uint32_t moved, view data = {});
    bool reply(view header, view data = {});
    std::deque<transfer>::iterator find_pending(bool in, uint8_t endpoint);

    bool fail(ending how, std::string trouble)
    {
        result_ = {how, std::move(trouble)};
        return false;
    }
    bool lost()
    {
        return fail(ending::system_error, std::string("the virtual bus: ") + std::strerror(errno));
    }

    device &modem_;
    vhci_port &port_;
    usb_settings usb_;
    serve_limits limits_;
    transcript &log_;
    int stop_fd_;

    face face_ = face::none;
    std::optional<usb_function> function_; // while on the bus
    uint64_t appear_at_ = 0;
    uint64_t first_at_ = 0;     // the first message not before; 0: the host has not asked yet
    uint64_t leave_at_ = never; // the time is up for what waits to be fetched

    std::vector<uint8_t> body_;
    std::deque<transfer> pending_;
    std::array<outgoing, most_channels> outgoing_;
    uint64_t last_input_ = 0;
    uint64_t wake_ = never;
    uint64_t deadline_ = never;
    served result_;
};

bool server::appear(face wanted)
{
    function_.emplace(wanted == face::modem ? usb_.id : download_usb_id,
                      wanted == face::modem ? normal_interfaces : uint8_t{1});
    if (!port_.plugged() && !port_.plug_in())
        return fail(ending::system_error, port_.error());
    face_ = wanted;
    log_.event("plugged");
    return true;
}

void server::disappear()
{
    port_.pull_out();
    log_.event("unplugged");
    face_ = face::none;
    pending_.clear();
    outgoing_.fill({});
    leave_at_ = never;
    first_at_ = 0;
    appear_at_ = monotonic_us() + uint64_t{usb_.away_ms} * 1000;
}

// What the device's stage asks of the bus; false ends the service.
bool server::follow_stage()
{
    const stage now_at = modem_.where();
    const face wanted = now_at == stage::ended    ? face::none
                        : now_at == stage::normal ? face::modem
                                                  : face::download;
    if (wanted == face_ && face_ != face::none)
        return true;
    const uint64_t now = monotonic_us();
    if (face_ != face::none) {
        // The switch to download mode is at once; otherwise the host may fetch the last answers.
        if (leave_at_ == never)
            leave_at_ = wanted == face::download ? now : now + uint64_t{limits_.linger_ms} * 1000;
        if (!all_fetched() && now < leave_at_) {
            wake_ = std::min(wake_, leave_at_);
            return true;
        }
        disappear();
        modem_.forget_earlier();
    }
    if (wanted == face::none) {
        result_ = {modem_.how(), modem_.trouble()};
        return false;
    }
    if (now >= appear_at_)
        return appear(wanted);
    wake_ = std::min(wake_, appear_at_);
    return true;
}

bool server::reply(view header, view data)
{
    for (view rest : {header, data}) {
        while (!rest.empty()) {
            const ssize_t done = send(port_.socket(), rest.data(), rest.size(), MSG_NOSIGNAL);
            if (done < 0 && errno == EINTR)
                continue;
            if (done < 0)
                return lost();
            rest = rest.subspan(static_cast<size_t>(done));
        }
    }
    return true;
}

bool server::complete(const transfer &it, int32_t status, uint32_t moved, view data)
{
    return reply(encode_submit_reply(it.seqnum, status, moved), data);
}

std::deque<transfer>::iterator server::find_pending(bool in, uint8_t endpoint)
{
    return std::ranges::find_if(pending_,
                                [=](const transfer &it) { return it.in == in && it.endpoint == endpoint; });
}

// Every waiting transfer of the endpoint fails, and every later one until the host clears it.
bool server::halt_endpoint(uint8_t address)
{
    const bool in = (address & direction_in) != 0;
    function_->halt(address);
    for (auto it = find_pending(in, address & 0x0F); it != pending_.end();
         it = find_pending(in, address & 0x0F)) {
        const transfer stopped = *it;
        pending_.erase(it);
        if (!complete(stopped, -EPIPE, 0))
            return false;
    }
    return true;
}

bool server::all_fetched() const
{
    for (unsigned channel = 0; channel < most_channels; channel++)
        if (!modem_.idle(channel) || !outgoing_[channel].unsent.empty())
            return false;
    return true;
}

// Gives what is left of the unit to the transfers that wait for it.
bool server::send_rest(unsigned channel)
{
    outgoing &line = outgoing_[channel];
    while (!line.unsent.empty()) {
        const auto found = find_pending(true, endpoint_of(channel));
        if (found == pending_.end())
            return true;
        const transfer it = *found;
        pending_.erase(found);
        const auto size = static_cast<uint32_t>(std::min<size_t>(line.unsent.size(), it.length));
        if (!complete(it, 0, size, view(line.unsent).first(size)))
            return false;
        line.unsent.erase(line.unsent.begin(), line.unsent.begin() + static_cast<std::ptrdiff_t>(size));
    }
    line.sent_at = monotonic_us();
    return true;
}

bool server::send_unit(unsigned channel, write_unit unit)
{
    if (unit.hang_up) {
        disappear();
        return false;
    }
    if (unit.halt_in)
        return halt_endpoint(direction_in | endpoint_of(channel));
    if (unit.halt_out)
        return halt_endpoint(endpoint_of(channel));
    outgoing_[channel].unsent = std::move(unit.bytes);
    return send_rest(channel);
}

// Sends what may be sent now; false ends the service.
bool server::send_due()
{
    if (face_ == face::none || (face_ == face::modem && modem_.where() != stage::normal))
        return true; // what waits is for the download device
    for (unsigned channel = 0; channel < most_channels; channel++)
        if (!send_channel(channel))
            return false;
    return true;
}

bool server::send_channel(unsigned channel)
{
    outgoing &line = outgoing_[channel];
    if (!line.unsent.empty() && !send_rest(channel))
        return false;
    while (line.unsent.empty() && !modem_.idle(channel)) {
        const uint64_t now = monotonic_us();
        if (!line.scheduled)
            line.due = now + uint64_t{modem_.delay_ms(channel)} * 1000;
        line.scheduled = true;
        const uint64_t gap_end = line.answered ? line.sent_at + uint64_t{limits_.gap_ms} * 1000 : 0;
        const uint64_t next = std::max({line.due, gap_end, first_at_});
        if (!modem_.event_is_next(channel) && find_pending(true, endpoint_of(channel)) == pending_.end())
            return true; // until the host asks
        if (now < next) {
            wake_ = std::min(wake_, next);
            return true;
        }
        line.scheduled = false;
        line.answered = true;
        if (!send_unit(channel, modem_.take(channel)))
            return false;
    }
    return true;
}

bool server::read_all(std::span<uint8_t> room)
{
    while (!room.empty()) {
        const ssize_t got = recv(port_.socket(), room.data(), room.size(), MSG_WAITALL);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return lost();
        if (got == 0)
            return fail(ending::system_error, "the virtual bus: the kernel has let the device go");
        room = room.subspan(static_cast<size_t>(got));
    }
    return true;
}

bool server::take_control(const usbip_command &command)
{
    control_answer answer = function_->answer(command.setup);
    const transfer it{command.seqnum, command.in, 0, command.length};
    if (answer.status != 0)
        return complete(it, answer.status, 0);
    if (!command.in)
        return complete(it, 0, command.length);
    answer.bytes.resize(std::min<size_t>(answer.bytes.size(), command.length));
    return complete(it, 0, static_cast<uint32_t>(answer.bytes.size()), answer.bytes);
}

// In normal mode the diagnostic interface takes frames only, the others none.
bool server::is_heard(uint8_t endpoint, view data) const
{
    if (face_ != face::modem)
        return true;
    const bool frame = std::ranges::equal(data.first(std::min(data.size(), frame_start.size())), frame_start);
    return frame == (endpoint == diagnostic_endpoint);
}

// Once the device has stopped reading, the transfer stays unanswered.
bool server::take_out(const usbip_command &command)
{
    const transfer it{command.seqnum, false, command.endpoint, command.length};
    view data = body_;
    data = data.first(command.length);
    log_.received("transfer", data.size(), json_members().number("endpoint", command.endpoint));
    if (function_->halted(command.endpoint))
        return complete(it, -EPIPE, 0);
    if (face_ == face::download && (modem_.where() == stage::normal || modem_.ended())) {
        pending_.push_back(it); // the device was reset and is about to leave
        return true;
    }
    last_input_ = monotonic_us();
    const unsigned channel = command.endpoint - 1U;
    outgoing_[channel].answered = false;
    if (!is_heard(command.endpoint, data)) {
        log_.event("ignored", json_members().number("endpoint", command.endpoint));
        return complete(it, 0, command.length);
    }
    while (!data.empty()) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(modem_.input_limit(), data.size()));
        if (part == 0)
            break;
        modem_.receive(data.first(part), channel);
        data = data.subspan(part);
    }
    if (data.empty())
        modem_.end_transfer();
    if (data.empty() && modem_.input_limit() != 0)
        return complete(it, 0, command.length);
    pending_.push_back(it);
    return true;
}

bool server::take_unlink(const usbip_command &command)
{
    const auto found = std::ranges::find(pending_, command.victim, &transfer::seqnum);
    const bool waits = found != pending_.end();
    if (waits)
        pending_.erase(found);
    return reply(encode_unlink_reply(command.seqnum, waits ? -ECONNRESET : 0));
}

bool server::read_command()
{
    std::array<uint8_t, usbip_header_size> header{};
    if (!read_all(header))
        return false;
    const auto command = decode_command(header);
    if (!command || command->endpoint > most_channels)
        return fail(ending::system_error, "the virtual bus: a message that makes no sense");
    if (body_.size() < command->body_size())
        body_.resize(command->body_size());
    if (!read_all(std::span(body_).first(command->body_size())))
        return false;
    if (command->unlink)
        return take_unlink(*command);
    if (command->endpoint == 0)
        return take_control(*command);
    if (!command->in)
        return take_out(*command);
    const transfer it{command->seqnum, true, command->endpoint, command->length};
    if (function_->halted(direction_in | command->endpoint))
        return complete(it, -EPIPE, 0);
    if (first_at_ == 0)
        first_at_ = monotonic_us() + uint64_t{usb_.first_ms} * 1000;
    pending_.push_back(it);
    return true;
}

bool server::past_deadline()
{
    if (monotonic_us() < deadline_ || modem_.ended())
        return false;
    fail(ending::timed_out, std::string("time-out in stage ") + modem_.stage_name());
    return true;
}

bool server::wait()
{
    const uint64_t now = monotonic_us();
    if (modem_.wants_quiet())
        wake_ = std::min(wake_, last_input_ + quiet_us);
    if (!modem_.ended())
        wake_ = std::min(wake_, deadline_);
    const uint64_t pause = wake_ > now ? wake_ - now : 0;
    const struct timespec limit {
        static_cast<time_t>(pause / 1000000), static_cast<long>(pause % 1000000 * 1000)
    };
    struct pollfd fds[2] = {{port_.socket(), POLLIN, 0}, {stop_fd_, POLLIN, 0}};
    const int ready = ppoll(fds, 2, wake_ == never ? nullptr : &limit, nullptr);
    wake_ = never;
    if (ready < 0 && errno != EINTR)
        return fail(ending::system_error, std::string("poll: ") + std::strerror(errno));
    if (ready <= 0)
        fds[0].revents = fds[1].revents = 0;
    if (fds[1].revents != 0)
        return false;
    if (ready == 0 && modem_.wants_quiet() && monotonic_us() >= last_input_ + quiet_us)
        modem_.settled();
    return fds[0].revents == 0 || read_command();
}

served server::run()
{
    while (send_due() && follow_stage() && !past_deadline() && wait()) {
    }
    return result_;
}

} // namespace

served serve_usb(device &modem, vhci_port &port, const usb_settings &usb, const serve_limits &limits,
                 transcript &log, int stop_fd)
{
    return server(modem, port, usb, limits, log, stop_fd).run();
}

} // namespace sim
