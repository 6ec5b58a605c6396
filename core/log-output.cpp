#include "log-output.hpp"

#include "zepho-json.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cstdio>

namespace {

constexpr char log_source[] = "zepho-log.c";
constexpr char in_core_log_set_pprint[] = "core_log_set_pprint";

void make_unbuffered(FILE *stream, const char *name)
{
    errno = 0;
    if (setvbuf(stream, nullptr, _IONBF, 0) != 0)
        log_as(in_core_log_set_pprint, CORE_LOG_WRN, "could not disable buffering on %s: error %d\n", name,
               errno);
}

void print_progress_event(const char *file, int line, int64_t current, int64_t max, const char *description)
{
    json_progress progress{current, max, description};
    core_log_json(CORE_LOG_INF, file, JSON_TYPE_PROGRESS, line, reinterpret_cast<char *>(&progress));
}

} // namespace

void core_log_set_pprint(int mode)
{
    switch (mode) {
    case CORE_LOG_PPRINT_NEWLINE:
        pretty_print_function = newline_print;
        break;
    case CORE_LOG_PPRINT_JSON:
        make_unbuffered(stdout, "stdout");
        make_unbuffered(stderr, "stderr");
        pretty_print_function = core_log_json;
        break;
    default:
        pretty_print_function = plain_print;
        break;
    }
}

bool core_log_is_json()
{
    return pretty_print_function == core_log_json;
}

void core_log_progress(const char *file, const char *function, int line, int64_t current, int64_t max,
                       const char *description)
{
    if (core_log_is_json()) {
        print_progress_event(file, line, current, max, description);
        return;
    }
    if (log_level >= CORE_LOG_DBG || max <= 0)
        return;
    const auto percent = static_cast<uint64_t>(current) * 100 / static_cast<uint64_t>(max);
    core_log_set_pprint(CORE_LOG_PPRINT_PLAIN);
    core_log(CORE_LOG_INF, file, function, line, "%.2f%% completed\r", static_cast<double>(percent));
    core_log_set_pprint(CORE_LOG_PPRINT_NEWLINE);
}

void core_log_progress_complete(const char *file, const char *, int line, int64_t max,
                                const char *description)
{
    if (core_log_is_json())
        print_progress_event(file, line, max, max, description);
}
