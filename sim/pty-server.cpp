#include "pty-server.hpp"

#include "clock.hpp"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace sim {
namespace {

constexpr uint64_t never = UINT64_MAX;
constexpr uint64_t drain_check_us = 300; // the kernel has no event for "was read"
constexpr uint64_t quiet_us = 20000;
constexpr size_t read_size = size_t{128} * 1024;

class server {
  public:
    server(device &modem, pty_port &port, bus_file &bus, const serve_limits &limits, int stop_fd)
        : modem_(modem), port_(port), bus_(bus), limits_(limits), stop_fd_(stop_fd), room_(read_size)
    {
        if (limits.timeout_ms != 0)
            deadline_ = monotonic_us() + limits.timeout_ms * 1000;
    }

    served run();

  private:
    bool show_stage();
    bool send_due();
    bool write_rest();
    void read_out();
    void schedule_head();
    bool check_end();
    bool past_deadline();
    bool wait();
    bool take_input(short events);
    void fail(ending how, std::string trouble) { result_ = {how, std::move(trouble)}; }

    device &modem_;
    pty_port &port_;
    bus_file &bus_;
    std::optional<stage> shown_; // on the bus
    serve_limits limits_;
    int stop_fd_;
    std::vector<uint8_t> room_;
    octets unsent_;          // the rest of the unit being written
    bool scheduled_ = false; // the next unit has its times:
    uint64_t due_ = 0;       // not before
    uint64_t wake_ = never;  // when to look again
    uint64_t deadline_ = never;
    uint64_t last_input_ = 0;
    uint64_t drain_until_ = 0; // no longer wait for the host to read
    uint64_t drained_at_ = 0;  // 0: what was written is not known to be read
    bool answered_ = false;    // a unit was written since the last input
    uint64_t leave_at_ = 0;    // at the end: when to stop lingering; 0: not yet
    served result_;
};

// The next unit may go at its delay; a second one without input between them leaves the gap too, counted from
// the moment the host had read the first.
void server::schedule_head()
{
    const uint64_t now = monotonic_us();
    due_ = now + uint64_t{modem_.delay_ms()} * 1000;
    drain_until_ = due_ + uint64_t{limits_.drain_ms} * 1000;
    drained_at_ = 0;
    scheduled_ = true;
}

bool server::write_rest()
{
    const auto done = port_.write(unsent_);
    if (!done) {
        fail(ending::system_error, std::string("writing to the port: ") + std::strerror(errno));
        return false;
    }
    unsent_.erase(unsent_.begin(), unsent_.begin() + static_cast<std::ptrdiff_t>(*done));
    return true;
}

// Follows the device's stage on the bus; false ends the service.
bool server::show_stage()
{
    if (shown_ == modem_.where())
        return true;
    if (bus_.kept() && shown_ == stage::normal) {
        modem_.forget_earlier();
        port_.discard_unread();
        scheduled_ = false;
    }
    shown_ = modem_.where();
    if (bus_.show(*shown_))
        return true;
    fail(ending::system_error, std::string("writing the bus file: ") + std::strerror(errno));
    return false;
}

// Takes from the line what the device has left there.
void server::read_out()
{
    for (auto got = port_.read(room_); got && *got > 0; got = port_.read(room_))
        modem_.leave(std::span(room_).first(*got));
}

// Writes what may be written now; false ends the service.
bool server::send_due()
{
    while (true) {
        if (!unsent_.empty() && !write_rest())
            return false;
        if (!unsent_.empty() || modem_.idle())
            return true;
        if (!scheduled_)
            schedule_head();
        const uint64_t now = monotonic_us();
        if (drained_at_ == 0 && (port_.drained() || now >= drain_until_))
            drained_at_ = now;
        const uint64_t gap_end = answered_ ? drained_at_ + uint64_t{limits_.gap_ms} * 1000 : 0;
        const uint64_t next = drained_at_ == 0 ? now + drain_check_us : std::max(due_, gap_end);
        if (now < next) {
            wake_ = std::min(wake_, next);
            return true;
        }
        write_unit unit = modem_.take();
        scheduled_ = false;
        answered_ = true;
        if (unit.hang_up) {
            static_cast<void>(bus_.show(stage::ended));
            port_.hang_up();
            return false;
        }
        unsent_ = std::move(unit.bytes);
    }
}

bool server::past_deadline()
{
    if (monotonic_us() < deadline_ || leave_at_ != 0)
        return false;
    fail(ending::timed_out, std::string("time-out in stage ") + modem_.stage_name());
    return true;
}

// At the end everything must be read before the master is closed, for that throws unread bytes away; then the
// host is given time to close the port.
bool server::check_end()
{
    if (!modem_.ended() || !modem_.idle() || !unsent_.empty())
        return false;
    const uint64_t now = monotonic_us();
    if (leave_at_ == 0) {
        result_ = {modem_.how(), modem_.trouble()};
        port_.release_slave();
        leave_at_ = now + uint64_t{limits_.linger_ms} * 1000;
    }
    wake_ = std::min(wake_, leave_at_);
    return now >= leave_at_;
}

// Reads what came; false when the host has closed the port at the end.
bool server::take_input(short events)
{
    if ((events & (POLLIN | POLLHUP | POLLERR)) == 0)
        return true;
    const uint64_t limit = std::min<uint64_t>(modem_.input_limit(), room_.size());
    if (limit == 0)
        return true;
    const auto got = port_.read(std::span(room_).first(static_cast<size_t>(limit)));
    if (!got) {
        if (leave_at_ == 0)
            fail(ending::system_error, std::string("reading from the port: ") + std::strerror(errno));
        return false;
    }
    if (*got == 0)
        return true;
    last_input_ = monotonic_us();
    answered_ = false;
    modem_.receive(std::span(room_).first(*got));
    return true;
}

bool server::wait()
{
    const uint64_t now = monotonic_us();
    if (modem_.wants_quiet())
        wake_ = std::min(wake_, last_input_ + quiet_us);
    if (leave_at_ == 0)
        wake_ = std::min(wake_, deadline_);
    const uint64_t pause = wake_ > now ? wake_ - now : 0;
    const struct timespec limit {
        static_cast<time_t>(pause / 1000000), static_cast<long>(pause % 1000000 * 1000)
    };
    const int input = modem_.input_limit() == 0 ? 0 : POLLIN;
    const int output = unsent_.empty() ? 0 : POLLOUT;
    struct pollfd fds[2] = {{port_.master(), static_cast<short>(input | output), 0}, {stop_fd_, POLLIN, 0}};
    const int ready = ppoll(fds, 2, wake_ == never ? nullptr : &limit, nullptr);
    wake_ = never;
    if (ready < 0 && errno != EINTR) {
        fail(ending::system_error, std::string("poll: ") + std::strerror(errno));
        return false;
    }
    if (ready <= 0)
        fds[0].revents = fds[1].revents = 0;
    if (fds[1].revents != 0)
        return false;
    if (ready == 0 && modem_.wants_quiet() && monotonic_us() >= last_input_ + quiet_us)
        modem_.settled();
    return take_input(fds[0].revents);
}

served server::run()
{
    while (show_stage() && send_due() && !past_deadline() && !check_end() && wait()) {
    }
    read_out();
    if (modem_.ended() && result_.how == ending::complete)
        result_ = {modem_.how(), modem_.trouble()};
    return result_;
}

} // namespace

served serve(device &modem, pty_port &port, bus_file &bus, const serve_limits &limits, int stop_fd)
{
    return server(modem, port, bus, limits, stop_fd).run();
}

} // namespace sim
