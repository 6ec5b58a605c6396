#include "core.hpp"

#include "zepho-log.hpp"

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <span>
#include <sys/time.h>

namespace {

constexpr char log_source[] = "core.c";

bool is_integer_size(size_t size)
{
    return size == 1 || size == 2 || size == 4 || size == 8;
}

// How far into a 64-bit number its `size` low bytes begin, in host order.
constexpr size_t low_bytes_at(size_t size)
{
    return std::endian::native == std::endian::little ? 0 : sizeof(uint64_t) - size;
}

void store_host(void *dest, size_t size, uint64_t value)
{
    memcpy(dest, reinterpret_cast<const uint8_t *>(&value) + low_bytes_at(size), size);
}

uint64_t load_host(const void *src, size_t size)
{
    uint64_t value = 0;
    memcpy(reinterpret_cast<uint8_t *>(&value) + low_bytes_at(size), src, size);
    return value;
}

void store_little_endian(void *dest, size_t size, uint64_t value)
{
    for (uint8_t &byte : std::span(static_cast<uint8_t *>(dest), size)) {
        byte = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

uint64_t load_little_endian(const void *src, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(src);
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    return value;
}

// A wrong size is a mistake in the program, never in its input: nothing sensible can follow.
void check_sizes(const char *function, int line, size_t dest_size, size_t src_size)
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

} // namespace

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
    static_cast<void>(core_log_set_print(native ? syslog_print : stdout_print)); // neither can be refused
    return 0;
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

// The library's interface: the updater itself does not call this.

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
