#include "zepho-json.hpp"

#include "core-base.hpp"
#include "core-owners.hpp"
#include "zepho-log.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

static constexpr char log_source[] = "zepho-log.c";

namespace {

constexpr size_t array_text_size = 5120;        // value text of an array
constexpr size_t array_piece_size = 5155;       // key and value of an array
constexpr size_t piece_size = 547;              // key and value of anything else
constexpr size_t element_overhead = 3;          // "{", "}" and "," of an array element
constexpr size_t unregistered_entry_size = 512; // buffer per entry when none is registered
constexpr size_t escape_growth = 6;             // one byte as \u00XX
constexpr size_t name_size = CORE_LOG_PREFIX_SIZE * escape_growth + 1;
constexpr size_t message_size = CORE_LOG_MESSAGE_SIZE * escape_growth + 1;

char *registered_buffer = nullptr;
size_t registered_size = 0;

struct time_stamp {
    unsigned long long seconds;
    long nanoseconds;
};

// The failed read is itself logged, which in JSON mode comes back here: only the outermost call reports it.
time_stamp wall_clock(const char *function, int line)
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        static bool reporting = false;
        now = {};
        if (!reporting) {
            reporting = true;
            core_log(CORE_LOG_ERR, log_source, function, line, "could not get time for logs\n");
            reporting = false;
        }
    }
    return {static_cast<unsigned long long>(now.tv_sec), static_cast<long>(now.tv_nsec)};
}

// Length in bytes of the well-formed UTF-8 sequence at `text` (RFC 3629), 0 when there is none.
size_t utf8_sequence_length(const unsigned char *text)
{
    struct row {
        unsigned char first_low, first_high, second_low, second_high;
        uint8_t length;
    };
    static constexpr row rows[] = {
        {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
        {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
        {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
    };
    if (text[0] < 0x80)
        return 1;
    for (const row &r : rows) {
        if (text[0] < r.first_low || text[0] > r.first_high)
            continue;
        if (text[1] < r.second_low || text[1] > r.second_high)
            return 0;
        for (size_t i = 2; i < r.length; ++i) {
            if (text[i] < 0x80 || text[i] > 0xBF)
                return 0;
        }
        return r.length;
    }
    return 0;
}

// The escaped form of the character at `text`, into `out` (at least 7 bytes); moves `text` past it.
size_t escape_one(const unsigned char *&text, char *out)
{
    static constexpr char short_escapes[][2] = {{'"', '"'},  {'\\', '\\'}, {'\b', 'b'}, {'\f', 'f'},
                                                {'\n', 'n'}, {'\r', 'r'},  {'\t', 't'}};
    const unsigned char c = *text;
    const size_t length = utf8_sequence_length(text);
    if (length == 0) {
        ++text;
        memcpy(out, "\xEF\xBF\xBD", 3); // NOLINT(bugprone-not-null-terminated-result): a part of a text
        return 3;
    }
    if (length > 1) {
        memcpy(out, text, length); // NOLINT(bugprone-not-null-terminated-result): a part of a text
        text += length;
        return length;
    }
    ++text;
    for (const auto &pair : short_escapes) {
        if (static_cast<unsigned char>(pair[0]) == c) {
            out[0] = '\\';
            out[1] = pair[1];
            return 2;
        }
    }
    if (c < 0x20 || c == 0x7F)
        return static_cast<size_t>(snprintf(out, 7, "\\u%04X", c));
    out[0] = static_cast<char>(c);
    return 1;
}

// The product wraps around in 64 bits, and the quotient in the 8 bits of a percentage.
int percentage(int64_t current, int64_t max)
{
    if (max <= 0)
        return -1;
    return static_cast<int8_t>(static_cast<int64_t>(static_cast<uint64_t>(current) * 100) / max);
}

int print_progress(int level, time_stamp now, const json_progress &progress)
{
    const int percent = percentage(progress.current, progress.max);
    char description[message_size];
    json_escape(progress.description, description, sizeof description);
    return print_function(level,
                          "{\"timestamp\": \"%llu.%.9ld\", \"type\": \"PROGRESS\", \"current\": %lld, "
                          "\"max\": %lld, \"percent\": %d, \"description\": \"%s\"}\n",
                          now.seconds, now.nanoseconds, static_cast<long long>(progress.current),
                          static_cast<long long>(progress.max), percent, description);
}

int print_log(int level, time_stamp now, const char *file, const char *function, int line, char *message)
{
    char file_text[name_size];
    char function_text[name_size];
    char message_text[message_size];
    log_strip_newline(message);
    json_escape(file, file_text, sizeof file_text);
    json_escape(function, function_text, sizeof function_text);
    json_escape(message, message_text, sizeof message_text);
    return print_function(level,
                          "{\"timestamp\": \"%llu.%.9ld\", \"type\": \"LOG\", \"severity\":\"%s\", "
                          "\"file\": \"%s\", \"function\": \"%s\", \"line\": %d, \"msg\": \"%s\"}\n",
                          now.seconds, now.nanoseconds, core_log_level_name(level), file_text, function_text,
                          line, message_text);
}

size_t count_entries(const json_entry *entries)
{
    size_t count = 0;
    while (entries[count].type != JSON_END)
        ++count;
    return count;
}

int print_custom(int level, time_stamp now, const json_entry *entries)
{
    static constexpr char function[] = "core_log_json";
    const size_t count = count_entries(entries);
    if (count == 0) {
        log_as(function, CORE_LOG_ERR, "could not find any JSON data\n");
        return 0;
    }
    const auto *const type = static_cast<const char *>(entries[0].value);
    if (count == 1) {
        log_as(function, CORE_LOG_ERR, "custom JSON data only has the type '%s'\n",
               type != nullptr ? type : "");
        return 0;
    }
    owned_text local;
    char *buffer = registered_buffer;
    size_t size = registered_size;
    if (buffer == nullptr) {
        size = unregistered_entry_size * (count - 1);
        local.reset(static_cast<char *>(calloc(size, 1)));
        buffer = local.get();
        if (buffer == nullptr)
            return 0;
    }
    const size_t needed = json_compose(entries + 1, buffer, size);
    // The terminator needs a byte as well: a body of exactly `size` bytes would lose its last character.
    if (needed >= size) {
        log_as(function, CORE_LOG_ERR, "json string error: not enough space (%u < %u)\n",
               static_cast<unsigned>(size), static_cast<unsigned>(needed));
        return 0;
    }
    if (needed == 0 || buffer[0] == '\0')
        return 0; // nothing was composed, which has been logged
    char type_text[name_size];
    json_escape(type, type_text, sizeof type_text);
    return print_function(level, "{\"timestamp\": \"%llu.%.9ld\", \"type\": \"%s\", %s}\n", now.seconds,
                          now.nanoseconds, type_text, buffer);
}

// Collects the pieces of a body; counts what all of them need, keeps what fits.
class body_writer {
  public:
    body_writer(char *text, size_t capacity) : buffer(text), size(capacity) { memset(buffer, 0, size); }

    void append(const char *piece)
    {
        total += strlen(piece);
        if (total >= size) // the terminator needs a byte as well
            stopped = true;
        if (!stopped)
            used += strlcpy(buffer + used, piece, size - used);
    }

    void stop() { stopped = true; }
    size_t needed() const { return total; }

    // A body that ends early ends with a separator, which must not stay in front of the brace.
    void trim_separator()
    {
        if (used >= 2 && buffer[used - 2] == ',' && buffer[used - 1] == ' ')
            buffer[used - 2] = '\0';
    }

  private:
    char *buffer;
    size_t size;
    size_t used = 0;
    size_t total = 0;
    bool stopped = false;
};

// The value of a plain (not array, not text) entry.
void format_scalar(const json_entry &entry, char *text, size_t size)
{
    switch (entry.type) {
    case JSON_BOOL:
        strlcpy(text, *static_cast<const bool *>(entry.value) ? "true" : "false", size);
        break;
    case JSON_INT32:
        snprintf(text, size, "%d", *static_cast<const int32_t *>(entry.value));
        break;
    case JSON_INT64:
        snprintf(text, size, "%lld", static_cast<long long>(*static_cast<const int64_t *>(entry.value)));
        break;
    default:
        snprintf(text, size, "%llu",
                 static_cast<unsigned long long>(*static_cast<const uint64_t *>(entry.value)));
        break;
    }
}

// One array as "[{...},{...}]" in `text`; false when an element does not fit.
bool format_array(const json_entry &array, unsigned count, char *text)
{
    const auto *table = static_cast<const json_entry *>(array.value);
    char element[array_text_size];
    size_t used = 0;
    text[used++] = '[';
    for (unsigned i = 0; i < count; ++i) {
        const size_t limit = array_text_size - 2 - element_overhead * count;
        const size_t room = limit > used ? limit - used : 0;
        if (room == 0 || json_compose(table, element, room) >= room)
            return false;
        used += static_cast<size_t>(
            snprintf(text + used, array_text_size - used, "{%s}%s", element, i + 1 < count ? "," : ""));
        table += count_entries(table) + 1;
    }
    strlcpy(text + used, "]", array_text_size - used);
    return true;
}

// A piece that does not fit its own limit is dropped and ends the body.
void append_piece(body_writer &body, size_t limit, const char *name, const char *value, bool quoted,
                  const char *separator)
{
    char piece[array_piece_size + 1];
    const char *const quote = quoted ? "\"" : "";
    const int length = snprintf(piece, limit + 1, "\"%s\": %s%s%s%s", name, quote, value, quote, separator);
    if (length < 0 || static_cast<size_t>(length) > limit) {
        log_as("json_compose", CORE_LOG_ERR, "truncated message\n");
        body.stop();
        return;
    }
    body.append(piece);
}

void compose_value(body_writer &body, const json_entry &entry, bool last)
{
    char value[piece_size * escape_growth];
    const char *const separator = last ? "" : ", ";
    if (entry.type == JSON_TEXT) {
        const bool empty = json_escape(static_cast<const char *>(entry.value), value, sizeof value) == 0;
        append_piece(body, piece_size, entry.name, empty ? "null" : value, !empty, separator);
        return;
    }
    format_scalar(entry, value, sizeof value);
    append_piece(body, piece_size, entry.name, value, false, separator);
}

// An array and its count; false when an element does not fit.
bool compose_array(body_writer &body, const json_entry &array, const json_entry &array_size, bool last)
{
    char value[array_text_size];
    const unsigned count = *static_cast<const uint8_t *>(array_size.value);
    if (!format_array(array, count, value))
        return false;
    const bool nothing = strcmp(value, "[{}]") == 0;
    append_piece(body, array_piece_size, array.name, nothing ? "null" : value, false, ", ");
    snprintf(value, sizeof value, "%u", count);
    append_piece(body, piece_size, array_size.name, value, false, last ? "" : ", ");
    return true;
}

} // namespace

size_t json_escape(const char *text, char *buffer, size_t size)
{
    size_t used = 0;
    const auto *rest = reinterpret_cast<const unsigned char *>(text != nullptr ? text : "");
    while (*rest != '\0') {
        char escaped[8];
        const size_t length = escape_one(rest, escaped);
        if (used + length >= size)
            break;
        memcpy(buffer + used, escaped, length);
        used += length;
    }
    if (size > 0)
        buffer[used] = '\0';
    return used;
}

int core_log_json(int level, const char *file, const char *function, int line, char *message)
{
    if (!core_messages_enabled && file != nullptr && strstr(file, "core-") != nullptr)
        return 0;
    const time_stamp now = wall_clock(__func__, __LINE__);
    if (function != nullptr && strcmp(function, JSON_TYPE_PROGRESS) == 0)
        return print_progress(level, now, *reinterpret_cast<const json_progress *>(message));
    if (function != nullptr && strcmp(function, JSON_TYPE_CUSTOM) == 0)
        return print_custom(level, now, reinterpret_cast<const json_entry *>(message));
    return print_log(level, now, file, function, line, message);
}

size_t json_compose(const json_entry *entries, char *buffer, size_t size)
{
    body_writer body(buffer, size);
    for (unsigned i = 0; entries[i].type != JSON_END; ++i) {
        const json_entry &entry = entries[i];
        if (entry.type == JSON_ARRAY_SIZE)
            continue; // written together with its array
        if (entry.type > JSON_END) {
            log_err("unknown type value %u for entry %u\n", entry.type, i);
            body.trim_separator();
            return 0;
        }
        if (entry.type != JSON_ARRAY)
            compose_value(body, entry, entries[i + 1].type == JSON_END);
        else if (entries[i + 1].type != JSON_ARRAY_SIZE)
            log_err("malformed array entry");
        else if (!compose_array(body, entry, entries[i + 1], entries[i + 2].type == JSON_END)) {
            log_err("unable to compose array entry %u", i);
            break;
        }
    }
    body.trim_separator();
    return body.needed();
}

bool json_update(json_entry *entries, int8_t id, const void *value, uint32_t type)
{
    if (id < 0) {
        log_err("could not update JSON: ID is negative\n");
        return false;
    }
    if (value == nullptr) {
        log_err("could not update JSON ID %d (%s): value address is NULL\n", id, entries[id].name);
        return false;
    }
    entries[id].value = value;
    entries[id].type = type;
    return true;
}

bool core_log_set_json_buffer(char *buffer, size_t size)
{
    if (buffer == nullptr || size == 0)
        return false;
    registered_buffer = buffer;
    registered_size = size;
    return true;
}
