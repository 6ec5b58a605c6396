// One line of the package's XML files at a time: its kind, its attributes, its value. There is no general XML
// parser: what the lines hold is looked for as plain text. Nothing is owned, nothing waits.
#pragma once

#include <cstddef>
#include <cstdint>

enum line_type : int32_t {
    LINE_NULL = -1,
    LINE_COMMENT_START = 3,     // "<!--" without "-->"
    LINE_COMMENT_END = 4,       // "-->" without "<!--"
    LINE_COMMENT = 5,           // both
    LINE_PARTITION_FILE = 6,    // "<partition_file"
    LINE_DEVICE_PROGRAMMER = 7, // "<device_programmer"
    LINE_FILE_NAME = 8,         // "<file_name"
    LINE_COMMAND = 9,           // any other element line
    LINE_OTHER = 100,           // no element, or the "<data>" frame
};

// Classifies one line; inside a comment only comment marks and commands are told apart.
[[nodiscard]] line_type get_line_type(const char *line, bool in_comment);

// Copies the value of `name="..."` into `dest` of `max_dest_size` bytes, which the caller zeroed: no
// terminator is added. False when it is absent, empty or too long. The name is looked for anywhere in the
// line.
[[nodiscard]] bool get_string_attribute(const char *line, const char *name, char *dest, int max_dest_size);
// Reads the decimal value of `name="..."`, at most UINT32_MAX. False when it is absent or no such number.
[[nodiscard]] bool get_uint_attribute(const char *line, const char *name, uint32_t *value);
// Copies the text between "<file_name>" and "</file_name>", cut to `dest_size`. False for any other line type
// or a malformed line.
[[nodiscard]] bool get_value(char *dest, size_t dest_size, const char *line, line_type type);
// True for a null line, a line with "<?xml", or any line with '>'.
[[nodiscard]] bool is_valid_xml(const char *line);
