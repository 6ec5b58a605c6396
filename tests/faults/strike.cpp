// Stands in front of write(2) and poll(2), by the linker's --wrap.
#include "strike.hpp"

#include "canary.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

extern "C" {
ssize_t __real_write(int file, const void *data, size_t size);
int __real_poll(pollfd *watched, nfds_t count, int timeout_ms);
ssize_t __wrap_write(int file, const void *data, size_t size);
int __wrap_poll(pollfd *watched, nfds_t count, int timeout_ms);
}

namespace {

enum class what { nothing, fail, signal_write, signal_wait };

struct plan_row {
    const char *name;
    what kind;
    int number; // errno, or signal
};

constexpr std::array<plan_row, 9> rows = {{
    {"EIO", what::fail, EIO},
    {"ENOSPC", what::fail, ENOSPC},
    {"EAGAIN", what::fail, EAGAIN},
    {"ENODEV", what::fail, ENODEV},
    {"ETIMEDOUT", what::fail, ETIMEDOUT},
    {"INT", what::signal_write, SIGINT},
    {"WAIT", what::signal_wait, SIGINT},
    {"KILL", what::signal_write, SIGKILL},
    {"DEAF", what::signal_wait, SIGKILL},
}};

struct strike_plan {
    what kind = what::nothing;
    int number = 0;
    uint64_t offset = 0;
    uint64_t times = 1;
    uint64_t written = 0;

    strike_plan()
    {
        const char *const text = getenv("KESTREL_STRIKE");
        if (text == nullptr)
            return;
        char name[16] = "";
        unsigned long long at = 0;
        unsigned long long count = 1;
        if (sscanf(text, "%llu:%15[A-Z]:%llu", &at, name, &count) >= 2)
            for (const plan_row &row : rows)
                if (strcmp(row.name, name) == 0) {
                    kind = row.kind;
                    number = row.number;
                }
        offset = at;
        times = count;
        if (kind == what::nothing) {
            fprintf(stderr, "bad KESTREL_STRIKE\n");
            abort();
        }
    }

    // True once for each of the times, as soon as the bytes before were written.
    bool is_due(what here)
    {
        if (kind != here || written != offset || times == 0)
            return false;
        --times;
        return true;
    }
};

strike_plan &plan()
{
    static strike_plan only;
    return only;
}

int64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Waits in short pieces. A pseudo-terminal sometimes does not wake a writer when its buffer is freed; and
// time in which the machine stood still, or the kernel passed nothing on, is no time that the modem was
// silent.
int poll_port(pollfd *watched, int timeout_ms)
{
    constexpr int piece_ms = 20;
    constexpr int64_t standstill_ms = 20;
    static canary bird;
    int ready = __real_poll(watched, 1, 0);
    for (int left = timeout_ms; ready == 0 && left > 0;) {
        const int piece = std::min(left, piece_ms);
        const int64_t begun = now_ms();
        bird.send();
        ready = __real_poll(watched, 1, piece);
        if (bird.has_arrived() && now_ms() - begun <= piece + standstill_ms)
            left -= piece;
    }
    return ready;
}

} // namespace

ssize_t __wrap_write(int file, const void *data, size_t size)
{
    strike_plan &planned = plan();
    if (planned.kind == what::nothing || isatty(file) == 0)
        return __real_write(file, data, size);
    if (planned.is_due(what::fail)) {
        errno = planned.number;
        return -1;
    }
    if (planned.is_due(what::signal_write))
        raise(planned.number);
    // No write goes beyond the place.
    if (planned.written < planned.offset && size > planned.offset - planned.written)
        size = static_cast<size_t>(planned.offset - planned.written);
    const ssize_t done = __real_write(file, data, size);
    if (done > 0)
        planned.written += static_cast<uint64_t>(done);
    return done;
}

int __wrap_poll(pollfd *watched, nfds_t count, int timeout_ms)
{
    strike_plan &planned = plan();
    const bool is_port = count == 1 && isatty(watched->fd) != 0;
    if (!is_port)
        return __real_poll(watched, count, timeout_ms);
    if (watched->events != POLLIN || planned.kind != what::signal_wait || planned.written != planned.offset ||
        planned.times == 0 || --planned.times != 0)
        return poll_port(watched, timeout_ms);
    raise(planned.number);
    errno = EINTR;
    return -1;
}
