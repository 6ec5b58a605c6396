// One AT command over an open serial device: sends it, collects the answer until a final response arrives,
// classifies that, and hands out the information lines one at a time.
//
// The channel keeps no state and neither opens nor closes the device; everything lives in the caller's
// command and response. Copy a command's template before use (sending changes `retries`) and zero the
// response before each send. Waits: `timeout` for each read; a silent modem is asked as often as `retries`
// says.
#pragma once

#include <cstddef>
#include <cstdint>

enum at_answer_type : uint32_t {
    AT_NO_INFORMATION = 0, // the text is emptied
    AT_RAW = 1,            // the text is left as received
    AT_SINGLE_LINE = 2,    // the text is trimmed
    AT_SEVERAL_LINES = 3,  // the text is trimmed
};

struct at_command {
    char command[128]; // without terminator
    char prefix[128];  // what introduces the information, empty for none
    uint32_t type;
    uint16_t timeout; // of each read, in milliseconds
    uint8_t retries;  // how often the command may be sent to a silent modem; counted down in place
};

struct at_response {
    uint32_t ok;     // 1 after a success response, 0 after an error response or none
    char final[128]; // the final response that matched
    char text[1024]; // what came before it
};

// Sends the command, followed by a carriage return, and reads its answer; SIGINT ends the retries. 0, also
// when the modem refused the command: test `ok`. CORE_ETIMEDOUT (silence, or an answer that stopped short);
// CORE_ENOMEM; CORE_EPROTO for an answer that does not fit or has no end after 15 s, or a port that delivers
// nothing; or the error of a read or write.
[[nodiscard]] int at_send_command(int device, at_command *command, at_response *response);
// Takes the next information line out of the text into `line` of `line_size` bytes. 0; CORE_EINVAL when no
// line is left or it was truncated; CORE_EPROTO for a line without "\r\n"; CORE_ENOMEM for one too long.
[[nodiscard]] int at_get_line(const at_command *command, at_response *response, char *line, size_t line_size);
// Trims white space at both ends of the text and ends it with one "\r\n"; a text of white space only becomes
// empty. 0 or CORE_ENOMEM.
[[nodiscard]] int clean_command_response(at_response *response);
// Discards what the device has buffered.
void flush_port(int device);
// Looks for a final response anywhere in the text; at the first found fills `final` and `ok`, cuts the text
// there and returns true.
[[nodiscard]] bool at_classify_response(at_response *response);
