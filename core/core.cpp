#include "core.hpp"

#include "zepho-log.hpp"

#include <cerrno>
#include <cstdlib>
#include <sys/time.h>

static constexpr char log_source[] = "core.c";

int core_init()
{
    return CORE_OK;
}

void core_deinit()
{
    core_log_deinit();
}

int core_log_set_native(bool native)
{
    is_log_native_enabled = native;
    core_log_set_print(native ? syslog_print : stdout_print);
    return 0;
}

int core_get_time_of_day(core_time_of_day *out)
{
    *out = {};
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        const int err = errno;
        log_err("error in get time of day %d, %s\n", err, strerror(err));
        return map_errno_to_core_err(err);
    }
    out->seconds = static_cast<uint32_t>(now.tv_sec);
    out->microseconds = static_cast<uint32_t>(now.tv_usec);
    return CORE_OK;
}

static bool is_integer_size(size_t size)
{
    return size == 1 || size == 2 || size == 4 || size == 8;
}

static void store_little_endian(void *dest, size_t size, uint64_t value)
{
    auto *bytes = static_cast<uint8_t *>(dest);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

static uint64_t load_little_endian(const void *src, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(src);
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    return value;
}

// Host order: a copy of the number's own low bytes, whatever the host's byte order.
static void store_host(void *dest, size_t size, uint64_t value)
{
    const auto v8 = static_cast<uint8_t>(value);
    const auto v16 = static_cast<uint16_t>(value);
    const auto v32 = static_cast<uint32_t>(value);
    switch (size) {
    case 1:
        memcpy(dest, &v8, 1);
        break;
    case 2:
        memcpy(dest, &v16, 2);
        break;
    case 4:
        memcpy(dest, &v32, 4);
        break;
    default:
        memcpy(dest, &value, 8);
        break;
    }
}

static uint64_t load_host(const void *src, size_t size)
{
    uint8_t v8 = 0;
    uint16_t v16 = 0;
    uint32_t v32 = 0;
    uint64_t v64 = 0;
    switch (size) {
    case 1:
        memcpy(&v8, src, 1);
        return v8;
    case 2:
        memcpy(&v16, src, 2);
        return v16;
    case 4:
        memcpy(&v32, src, 4);
        return v32;
    default:
        memcpy(&v64, src, 8);
        return v64;
    }
}

void _ec_mtoh(void *dest, size_t dest_size, uint64_t value) // NOLINT(bugprone-reserved-identifier)
{
    if (!is_integer_size(dest_size)) {
        log_wrn("%s: destination size %zu not supported", __func__, dest_size);
        return;
    }
    store_host(dest, dest_size, value);
}

void _ec_htom(void *dest, size_t dest_size, uint64_t value) // NOLINT(bugprone-reserved-identifier)
{
    if (!is_integer_size(dest_size)) {
        log_wrn("%s: destination size %zu not supported", __func__, dest_size);
        return;
    }
    store_little_endian(dest, dest_size, value);
}

// A wrong size is a mistake in the program, never in its input: nothing sensible can follow.
static void check_sizes(const char *function, int line, size_t dest_size, size_t src_size)
{
    if (dest_size != src_size) {
        core_log(CORE_LOG_ERR, log_source, function, line, "dest_size %zu != src_size %zu", dest_size,
                 src_size);
        exit(1);
    }
    if (!is_integer_size(src_size)) {
        core_log(CORE_LOG_ERR, log_source, function, line, "%s: source size %zu not supported", function,
                 src_size);
        exit(1);
    }
}

void core_letoh(void *dest, size_t dest_size, const void *src, size_t src_size)
{
    check_sizes(__func__, __LINE__, dest_size, src_size);
    _ec_mtoh(dest, dest_size, load_little_endian(src, src_size));
}

void core_htole(void *dest, size_t dest_size, const void *src, size_t src_size)
{
    check_sizes(__func__, __LINE__, dest_size, src_size);
    _ec_htom(dest, dest_size, load_host(src, src_size));
}
