// Writing a whole buffer through an operation that may take only a part of it.
#pragma once

#include "core.hpp"
#include "interrupt.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"

// How often -11 (try again) is answered with a pause and another try.
enum class back_pressure { fail, retry };

// Calls write_some(data, size, &written), which returns a core error code, from the first unwritten byte
// until all `size` bytes are out. 0; the first error; CORE_EAGAIN after the fifth -11 where those are
// retried; CORE_ECANCELED after a second interruption;
// CORE_EPROTO when ten writes in a row succeed without taking a byte, or when bytes are left after
// five minutes, so that a port that takes nothing or next to nothing cannot hold the program for ever.
template <typename WriteSome>
[[nodiscard]] int write_all(const void *data, size_t size, back_pressure on_full, WriteSome write_some)
{
    constexpr int max_idle_writes = 10;
    const auto *bytes = static_cast<const uint8_t *>(data);
    const time_limit limit(timeouts::write_in_all);
    int retries = 0;
    int idle_writes = 0;
    size_t done = 0;
    while (done < size) {
        size_t written = 0;
        const int err = outlast_interrupt([&] { return write_some(bytes + done, size - done, &written); });
        if (err == CORE_EAGAIN && on_full == back_pressure::retry) {
            core_sleep(timeouts::write_retry_pause);
            if (++retries == timeouts::write_retries)
                return err;
            continue;
        }
        if (err != CORE_OK)
            return err;
        done += written;
        idle_writes = written == 0 ? idle_writes + 1 : 0;
        if (idle_writes == max_idle_writes || (done < size && limit.passed()))
            return CORE_EPROTO;
    }
    return CORE_OK;
}
