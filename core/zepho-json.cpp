#include "zepho-json.hpp"

#include "core-base.hpp"
#include "core-owners.hpp"
#include "log-text.hpp"
#include "zepho-log.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <span>
#include <string_view>

namespace {

constexpr char log_source[] = "zepho-log.c";
constexpr char in_core_log_json[] = "core_log_json";
constexpr char in_json_compose[] = "json_compose";

constexpr size_t array_text_size = 5120;        // value text of an array
constexpr size_t array_piece_size = 5155;       // key and value of an array
constexpr size_t piece_size = 547;              // key and value of anything else
constexpr size_t element_overhead = 3;          // "{", "}" and "," of an array element
constexpr size_t unregistered_entry_size = 512; // buffer per entry when none is registered
constexpr size_t escape_growth = 6;             // one byte as \u00XX
constexpr char separator[] = ", ";              // between two entries
constexpr size_t name_size = CORE_LOG_PREFIX_SIZE * escape_growth + 1;
constexpr size_t message_size = CORE_LOG_MESSAGE_SIZE * escape_growth + 1;

std::span<char> registered_buffer;

struct time_stamp {
    unsigned long long seconds;
    long nanoseconds;
};

// The failed read is itself logged, which in JSON mode comes back here: only the outermost call reports it.
time_stamp wall_clock()
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        static bool reporting = false;
        now = {};
        if (!reporting) {
            reporting = true;
            log_as(in_core_log_json, CORE_LOG_ERR, "could not get time for logs\n");
            reporting = false;
        }
    }
    return {static_cast<unsigned long long>(now.tv_sec), static_cast<long>(now.tv_nsec)};
}

// The escaped form of a character of `length` bytes, 0 for a byte that is none; where it is made up, in
// `room`.
std::string_view escape(const char *character, size_t length, char (&room)[8])
{
    struct row {
        char character;
        std::string_view escaped;
    };
    static constexpr row rows[] = {
        {'"', "\\\""}, {'\\', "\\\\"}, {'\b', "\\b"}, {'\f', "\\f"},
        {'\n', "\\n"}, {'\r', "\\r"},  {'\t', "\\t"},
    };
    static constexpr std::string_view replacement = "\xEF\xBF\xBD"; // U+FFFD
    if (length == 0)
        return replacement;
    if (const auto *const r = std::ranges::find(rows, *character, &row::character); r != std::end(rows))
        return r->escaped;
    if (!is_control_character({character, length}))
        return {character, length};
    // The last byte of those that take two, U+0080 to U+009F, is the number too.
    const unsigned number = static_cast<unsigned char>(character[length - 1]);
    return {room, static_cast<size_t>(snprintf(room, sizeof room, "\\u%04X", number))};
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

// Where the body of `count` entries is composed: the registered buffer, or else memory that `own` gets;
// nowhere without memory.
std::span<char> find_room(size_t count, owned_text *own)
{
    if (!registered_buffer.empty())
        return registered_buffer;
    const size_t size = unregistered_entry_size * count;
    own->reset(static_cast<char *>(calloc(size, 1)));
    return {own->get(), *own != nullptr ? size : 0};
}

// The entries without the first one, which is the type, as a body in `room`; false when there is none to
// print.
bool compose_custom(const json_entry *entries, std::span<char> room)
{
    if (room.empty())
        return false;
    const size_t needed = json_compose(entries + 1, room.data(), room.size());
    // The terminator needs a byte as well: a body of exactly that size would lose its last character.
    if (needed >= room.size()) {
        log_as(in_core_log_json, CORE_LOG_ERR, "json string error: not enough space (%u < %u)\n",
               static_cast<unsigned>(room.size()), static_cast<unsigned>(needed));
        return false;
    }
    return needed != 0 && room[0] != '\0'; // if nothing was composed, that has been logged
}

int print_custom(int level, time_stamp now, const json_entry *entries)
{
    const size_t count = count_entries(entries);
    if (count == 0) {
        log_as(in_core_log_json, CORE_LOG_ERR, "could not find any JSON data\n");
        return 0;
    }
    const auto *const type = static_cast<const char *>(entries[0].value);
    if (count == 1) {
        log_as(in_core_log_json, CORE_LOG_ERR, "custom JSON data only has the type '%s'\n",
               type != nullptr ? type : "");
        return 0;
    }
    owned_text own;
    const std::span<char> body = find_room(count - 1, &own);
    if (!compose_custom(entries, body))
        return 0;
    char type_text[name_size];
    json_escape(type, type_text, sizeof type_text);
    return print_function(level, "{\"timestamp\": \"%llu.%.9ld\", \"type\": \"%s\", %s}\n", now.seconds,
                          now.nanoseconds, type_text, body.data());
}

// Collects the pieces of a body; counts what all of them need, keeps what fits.
class body_writer {
  public:
    explicit body_writer(std::span<char> room) : room_(room) { std::ranges::fill(room_, '\0'); }

    void append(std::string_view piece)
    {
        needed_ += piece.size();
        if (needed_ >= room_.size()) // the terminator needs a byte as well
            stopped_ = true;
        if (stopped_)
            return;
        std::ranges::copy(piece, room_.begin() + static_cast<ptrdiff_t>(used_));
        used_ += piece.size();
    }

    void stop() { stopped_ = true; }
    size_t needed() const { return needed_; }

    // A body that ends early ends with a separator, which must not stay in front of the brace.
    void trim_separator()
    {
        if (std::string_view(room_.data(), used_).ends_with(separator))
            room_[used_ - (sizeof separator - 1)] = '\0';
    }

  private:
    std::span<char> room_;
    size_t used_ = 0;
    size_t needed_ = 0;
    bool stopped_ = false;
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
bool format_array(const json_entry &array, unsigned count, char (&text)[array_text_size])
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
            snprintf(text + used, sizeof text - used, "{%s}%s", element, i + 1 < count ? "," : ""));
        table += count_entries(table) + 1;
    }
    strlcpy(text + used, "]", sizeof text - used);
    return true;
}

// A piece that does not fit its own limit is dropped and ends the body.
void append_piece(body_writer *body, size_t limit, const char *name, const char *value, bool quoted,
                  bool last)
{
    char piece[array_piece_size + 1];
    const char *const quote = quoted ? "\"" : "";
    const int length =
        snprintf(piece, limit + 1, "\"%s\": %s%s%s%s", name, quote, value, quote, last ? "" : separator);
    if (length < 0 || static_cast<size_t>(length) > limit) {
        log_as(in_json_compose, CORE_LOG_ERR, "truncated message\n");
        body->stop();
        return;
    }
    body->append({piece, static_cast<size_t>(length)});
}

void compose_value(body_writer *body, const json_entry &entry, bool last)
{
    char value[piece_size * escape_growth];
    const bool is_text = entry.type == JSON_TEXT;
    if (!is_text)
        format_scalar(entry, value, sizeof value);
    const bool is_null =
        is_text && json_escape(static_cast<const char *>(entry.value), value, sizeof value) == 0;
    append_piece(body, piece_size, entry.name, is_null ? "null" : value, is_text && !is_null, last);
}

// An array and its count; false when an element does not fit.
bool compose_array(body_writer *body, const json_entry &array, const json_entry &array_size, bool last)
{
    char value[array_text_size];
    const unsigned count = *static_cast<const uint8_t *>(array_size.value);
    if (!format_array(array, count, value))
        return false;
    const bool is_null = std::string_view(value) == "[{}]";
    append_piece(body, array_piece_size, array.name, is_null ? "null" : value, false, false);
    snprintf(value, sizeof value, "%u", count);
    append_piece(body, piece_size, array_size.name, value, false, last);
    return true;
}

} // namespace

size_t json_escape(const char *text, char *buffer, size_t size)
{
    size_t used = 0;
    for (std::string_view rest = text != nullptr ? text : ""; !rest.empty();) {
        char room[8];
        const size_t length = utf8_sequence_length(rest);
        const std::string_view escaped = escape(rest.data(), length, room);
        if (used + escaped.size() >= size)
            break;
        memcpy(buffer + used, escaped.data(), escaped.size());
        used += escaped.size();
        rest.remove_prefix(length != 0 ? length : 1);
    }
    if (size > 0)
        buffer[used] = '\0';
    return used;
}

int core_log_json(int level, const char *file, const char *function, int line, char *message)
{
    if (!core_messages_enabled && file != nullptr && strstr(file, "core-") != nullptr)
        return 0;
    const time_stamp now = wall_clock();
    const std::string_view kind = function != nullptr ? function : "";
    if (kind == JSON_TYPE_PROGRESS)
        return print_progress(level, now, *reinterpret_cast<const json_progress *>(message));
    if (kind == JSON_TYPE_CUSTOM)
        return print_custom(level, now, reinterpret_cast<const json_entry *>(message));
    return print_log(level, now, file, function, line, message);
}

size_t json_compose(const json_entry *entries, char *buffer, size_t size)
{
    body_writer body({buffer, size});
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
            compose_value(&body, entry, entries[i + 1].type == JSON_END);
        else if (entries[i + 1].type != JSON_ARRAY_SIZE)
            log_err("malformed array entry");
        else if (!compose_array(&body, entry, entries[i + 1], entries[i + 2].type == JSON_END)) {
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
    registered_buffer = {buffer, size};
    return true;
}
