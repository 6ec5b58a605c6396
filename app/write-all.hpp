// Writing a whole buffer through an operation that may take only a part of it.
#pragma once

#include "core.hpp"
#include "timeouts.hpp"

// How often -11 (try again) is answered with a pause and another try.
enum class back_pressure { fail, retry };

// Calls write_some(data, size, &written), which returns a core error code, from the first unwritten byte
// until all `size` bytes are out. 0; the first error; CORE_EAGAIN after the fifth -11 where those are
// retried; CORE_EPROTO when ten writes in a row succeed without taking a byte, so that a port that takes
// nothing cannot hold the program for ever.
template <typename WriteSome>
int write_all(const void *data, size_t size, back_pressure on_full, WriteSome write_some)
{
    constexpr int max_idle_writes = 10;
    const auto *bytes = static_cast<const uint8_t *>(data);
    int retries = 0;
    int idle_writes = 0;
    size_t done = 0;
    while (done < size) {
        size_t written = 0;
        const int err = write_some(bytes + done, size - done, &written);
        if (err == CORE_EAGAIN && on_full == back_pressure::retry) {
            core_sleep(timeouts::write_retry_pause);
            if (++retries == timeouts::write_retries)
                return err;
            continue;
        }
        if (err != CORE_OK)
            return err;
        idle_writes = written == 0 ? idle_writes + 1 : 0;
        if (idle_writes == max_idle_writes)
            return CORE_EPROTO;
        done += written;
    }
    return CORE_OK;
}
