// The JSON event stream: LOG, PROGRESS and custom objects, one per line (RFC 8259).
//
// core_log_json is a pretty printer of the log core; json_compose turns a table of typed entries into the
// body of an object. Texts are escaped; bytes that are not UTF-8 become U+FFFD; whatever has to be cut is cut
// before it is quoted, so that every line parses.
#pragma once

#include <cstddef>
#include <cstdint>

enum json_type : uint32_t {
    JSON_BOOL = 0,       // bool
    JSON_INT32 = 1,      // int32_t
    JSON_INT64 = 2,      // int64_t
    JSON_UINT64 = 3,     // uint64_t
    JSON_TEXT = 4,       // NUL-terminated text
    JSON_ARRAY = 5,      // first of several entry tables that lie one after another
    JSON_ARRAY_SIZE = 6, // uint8_t: how many tables the array just before has
    JSON_END = 7,        // ends a table; name and value are null
};

// One row of an entry table: the key, where its value lies, and how to read it. Nothing is owned.
struct json_entry {
    const char *name;
    const void *value;
    uint32_t type;
};

// What a PROGRESS object reports; current and max in bytes.
struct json_progress {
    int64_t current;
    int64_t max;
    const char *description;
};

// Values of `function` that tell core_log_json what `message` points to: a json_progress, or an entry table
// whose first entry is the object's type.
#define JSON_TYPE_PROGRESS "JSON_TYPE_PROGRESS"
#define JSON_TYPE_CUSTOM "JSON_TYPE_CUSTOM"

// The JSON pretty printer; returns the print function's result, 0 when nothing was printed.
int core_log_json(int level, const char *file, const char *function, int line, char *message);

// Composes the body (no braces) of an object into `buffer` of `size` bytes. Returns the length that the body
// needed, without terminator; 0 for an unknown entry type. A body longer than the buffer is cut after the
// last whole entry.
[[nodiscard]] size_t json_compose(const json_entry *entries, char *buffer, size_t size);

// Sets value and type of entry `id` of a table; false (and an ERR line) for a negative id or a null value.
bool json_update(json_entry *entries, int8_t id, const void *value, uint32_t type);

// Registers the caller's buffer for custom objects; false when either is 0. It must live as long as logging.
[[nodiscard]] bool core_log_set_json_buffer(char *buffer, size_t size);

// Writes `text` escaped as the inside of a JSON string, terminated, and returns its length. At most `size`-1
// bytes, cut between characters, never inside an escape. A null text is empty.
size_t json_escape(const char *text, char *buffer, size_t size);
