// The log core: every message of every module passes through core_log, which filters by severity, shapes the
// line with the pretty printer in force and hands it to the print function in force.
//
// Two text printers are here, the JSON event stream is another pretty printer (log-output.hpp chooses);
// standard output/standard error, a log file and the system log are print functions. State is process-wide,
// for one thread; nothing here stops the program, and a reader who does not read makes it wait for a second
// in all. Only the buffer dump and an unregistered JSON buffer allocate.
#pragma once

#include <cstddef>
#include <cstdint>

// Severities; 0..7 are the priorities of syslog(3).
enum core_log_level : int {
    CORE_LOG_EMR = 0,
    CORE_LOG_ALR = 1,
    CORE_LOG_CRT = 2,
    CORE_LOG_ERR = 3,
    CORE_LOG_WRN = 4,
    CORE_LOG_NOT = 5,
    CORE_LOG_INF = 6,
    CORE_LOG_DBG = 7,
    CORE_LOG_VRB = 8,
};

#if defined(__GNUC__)
#define CORE_PRINTF(format_index, first) __attribute__((format(printf, format_index, first)))
#else
#define CORE_PRINTF(format_index, first)
#endif

// A print function writes one formatted text to its sink and returns what printf(3) would.
typedef int (*core_log_print_fn)(int level, const char *format, ...)
    CORE_PRINTF(2, 3); // NOLINT(modernize-use-using): takes the attribute
// A pretty printer shapes one message; it may change `message` in place.
using core_log_pprint_fn = int (*)(int level, const char *file, const char *function, int line,
                                   char *message);

// The text printers. newline_print ends every message in a line feed; plain_print, the one at the start, adds
// nothing. Control characters but tab and line feed, and bytes that are no UTF-8, appear as \xNN: modems and
// packages choose many texts. A carriage return at either end of a format of core_log is the program's own
// and stays.
int newline_print(int level, const char *file, const char *function, int line, char *message);
int plain_print(int level, const char *file, const char *function, int line, char *message);

// Longest message and longest prefix, in bytes without terminator; longer ones are cut.
constexpr size_t CORE_LOG_MESSAGE_SIZE = 1024;
constexpr size_t CORE_LOG_PREFIX_SIZE = 256;

extern int log_level;                            // threshold, at first CORE_LOG_INF
extern bool core_messages_enabled;               // false drops the messages of "core-" sources
extern bool is_log_native_enabled;               // true while the system log is the print function
extern core_log_print_fn print_function;         // at first stdout_print
extern core_log_pprint_fn pretty_print_function; // at first the plain printer

// Each source file names itself once, as `log_source`, and logs through these.
#define log_at(level, ...) core_log(level, log_source, __func__, __LINE__, __VA_ARGS__)
#define log_err(...) log_at(CORE_LOG_ERR, __VA_ARGS__)
#define log_wrn(...) log_at(CORE_LOG_WRN, __VA_ARGS__)
#define log_inf(...) log_at(CORE_LOG_INF, __VA_ARGS__)
#define log_dbg(...) log_at(CORE_LOG_DBG, __VA_ARGS__)
// In a step of a public function, under that function's name, which its file spells once (`in_get_opts`): the
// log tells operations, not how they are cut up.
#define log_as(function, level, ...) core_log(level, log_source, function, __LINE__, __VA_ARGS__)

// Logs one message (printf(3) format) when `level` is not above the threshold. `file`, `function` and `line`
// may be null or 0 for an anonymous line. Returns the pretty printer's result, 0 when nothing was printed.
int core_log(int level, const char *file, const char *function, int line, const char *format, ...)
    CORE_PRINTF(5, 6);

void core_log_set_level(int level);

// Installs a print function. 0, or -1 (file_print without an open log file; nothing changes).
int core_log_set_print(core_log_print_fn function);

// Flushes and closes the log file, if one is open, and goes back to stdout_print.
void core_log_close_output();
// The last call of a program: closes the log file, if one is open.
void core_log_deinit();

// The print functions. stdout_print: levels 0..3 to standard error, the rest to standard output, by write(2)
// at once; -1 for a line that was dropped because the stream took none of it (log-sink.hpp). How many were is
// told on that stream, in front of the next line that it takes.
int stdout_print(int level, const char *format, ...) CORE_PRINTF(2, 3);
int file_print(int level, const char *format, ...) CORE_PRINTF(2, 3);
int syslog_print(int level, const char *format, ...) CORE_PRINTF(2, 3);

// The upper-case three-letter name of a level, "???" for a number that is none.
[[nodiscard]] const char *core_log_level_name(int level);

// Hexadecimal dump of `length` bytes, `bytes_per_line` (not 0) a line, as anonymous messages of `level`.
void core_print_buffer_to_level(const void *buffer, uint32_t length, uint32_t bytes_per_line, int level);

// Logs the version banner of the portability library at CORE_LOG_INF.
void core_print_ombra_version();

// Removes one trailing line feed from `text` in place.
void log_strip_newline(char *text);

// The library's interface: the updater itself calls none of these.

// The threshold in force.
[[nodiscard]] int core_log_get_level();
// False drops the messages whose source file name contains "core-".
void core_log_enable_core_messages(bool enabled);
// Opens a log file and installs file_print. 0, or the mapped errno of fopen(3).
[[nodiscard]] int core_log_set_output(const char *path, bool append);
// As core_print_buffer_to_level, at CORE_LOG_DBG.
void core_print_buffer(const void *buffer, uint32_t length, uint32_t bytes_per_line);
