#include "log-sink.hpp"

#include "core-base.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t ns_per_ms = 1000000;
constexpr int64_t no_time = -1;

int64_t monotonic_ns()
{
    timespec now{};
    return core_get_time(&now) == 0 ? int64_t{now.tv_sec} * 1000 * ns_per_ms + now.tv_nsec : no_time;
}

// Made once. Where there is none left, or the kernel has none, a write blocks where poll(2) was wrong.
struct signal_timer {
    signal_timer()
    {
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGURG;
        exists = timer_create(CLOCK_MONOTONIC, &event, &timer) == 0;
    }
    void set(timespec period) const
    {
        const itimerspec setting{period, period};
        if (exists)
            timer_settime(timer, 0, &setting, nullptr);
    }

    timer_t timer{};
    bool exists;
};

// As long as one lives, signals end a system call that blocks: again and again, since the first one may come
// before the call has begun. Handler and mask of the signal are the process's own again afterwards.
class call_limit {
  public:
    call_limit()
    {
        struct sigaction interrupting {};
        interrupting.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGURG, &interrupting, &action_);
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGURG);
        pthread_sigmask(SIG_UNBLOCK, &signals, &mask_);
        timer().set({0, long{timeouts::output_write} * ns_per_ms});
    }
    call_limit(const call_limit &) = delete;
    call_limit &operator=(const call_limit &) = delete;
    ~call_limit()
    {
        const int err = errno;
        timer().set({});
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        sigaction(SIGURG, &action_, nullptr);
        errno = err;
    }

  private:
    static const signal_timer &timer()
    {
        static const signal_timer only;
        return only;
    }

    struct sigaction action_ {};
    sigset_t mask_{};
};

ssize_t interruptible_write(int descriptor, const void *data, size_t size)
{
    const call_limit limit;
    return ::write(descriptor, data, size);
}

} // namespace

void log_patience::take_off_since(int64_t begun_ns)
{
    const int64_t now = monotonic_ns();
    left_ns_ = begun_ns == no_time || now == no_time ? 0 : left_ns_ - (now - begun_ns);
}

bool log_patience::wait_for_room(int descriptor)
{
    pollfd watched{descriptor, POLLOUT, 0};
    int ready = poll(&watched, 1, 0);
    while (ready <= 0 && !is_over()) {
        const int64_t begun = monotonic_ns();
        ready = poll(&watched, 1, static_cast<int>((left_ns_ + ns_per_ms - 1) / ns_per_ms));
        take_off_since(begun);
    }
    return ready > 0;
}

// A write that is whole did not wait, but for a fraction of a millisecond: nothing is taken off for a machine
// that was busy with other processes meanwhile.
ssize_t log_patience::write(int descriptor, const void *data, size_t size)
{
    const int64_t begun = monotonic_ns();
    const ssize_t written = interruptible_write(descriptor, data, size);
    if (written == static_cast<ssize_t>(size))
        return written;
    const int err = errno;
    if (written < 0 && err == EAGAIN) // a descriptor that others have made non-blocking
        core_sleep(timeouts::output_write);
    take_off_since(begun);
    errno = err;
    return written;
}

// Writes what is left of the line. No more than PIPE_BUF bytes at a time: so much a pipe takes at once or not
// at all.
bool log_sink::write_rest()
{
    while (!is_written()) {
        if (!patience_.wait_for_room(descriptor_))
            return false;
        const size_t size = std::min(size_ - written_, size_t{PIPE_BUF});
        const ssize_t count = patience_.write(descriptor_, line_ + written_, size);
        written_ += count > 0 ? static_cast<size_t>(count) : 0;
        const bool failed = count < 0 && errno != EINTR && errno != EAGAIN;
        if (failed || (count != static_cast<ssize_t>(size) && patience_.is_over()))
            return false;
    }
    return true;
}

bool log_sink::leads_where(const log_sink &other) const
{
    struct stat own {};
    struct stat others {};
    return fstat(descriptor_, &own) == 0 && fstat(other.descriptor_, &others) == 0 &&
           own.st_dev == others.st_dev && own.st_ino == others.st_ino;
}

bool log_sink::begin()
{
    if (!write_rest() || (!twin_.is_written() && leads_where(twin_) && !twin_.write_rest()))
        return false;
    size_ = 0;
    written_ = 0;
    return true;
}

int log_sink::add(const char *format, va_list arguments)
{
    const int length = vsnprintf(line_ + size_, sizeof line_ - size_, format, arguments);
    if (length < 0 || static_cast<size_t>(length) >= sizeof line_ - size_) {
        size_ = 0;
        return -1;
    }
    size_ += static_cast<size_t>(length);
    return length;
}

bool log_sink::end()
{
    if (write_rest() || written_ > 0)
        return true;
    size_ = 0;
    return false;
}
