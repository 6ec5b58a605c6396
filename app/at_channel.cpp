#include "at_channel.hpp"

#include "core-device.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "write-all.hpp"
#include "zepho-log.hpp"

static constexpr char log_source[] = "../at_channel.c";

namespace {

struct final_response {
    const char *text;
    uint32_t ok;
};

// The order is the order of the search. "ERROR" in front of the extended errors means that those match as
// "ERROR", with "+CME " left in the text.
constexpr final_response final_responses[] = {
    {"OK", 1}, {"BUSY", 1}, {"CONNECT", 1}, {"ERROR", 0}, {"+CMS ERROR:", 0}, {"+CME ERROR:", 0},
};

bool is_white(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

const char *skip_white(const char *text)
{
    while (is_white(*text))
        ++text;
    return text;
}

enum class answer { complete, silent, failed };

// Reads until a final response. `*err` receives the last read's status.
answer read_answer(int device, at_command *command, at_response *response, int *err)
{
    static constexpr char function[] = "at_send_command";
    const auto log = [](int level, int line, const char *text) {
        core_log(level, log_source, function, line, "%s", text);
    };
    constexpr int max_idle_reads = 10; // a port that is ready but delivers nothing must not hold the program
    size_t received = 0;
    int idle_reads = 0;
    for (;;) {
        size_t bytes = 0;
        const size_t room = sizeof response->text - 1 - received;
        *err = core_device_read_timeout(device, response->text + received, room, command->timeout, &bytes);
        log_as(function, CORE_LOG_DBG, "read done err = %d bytes = %u", *err, static_cast<unsigned>(bytes));
        log_as(function, CORE_LOG_DBG, "response:\n%s\n", response->text);
        if (*err == CORE_ETIMEDOUT && received == 0) {
            if (command->retries > 0)
                --command->retries;
            log_as(function, CORE_LOG_DBG, "command timeout, remaining %u retries", command->retries);
            return answer::silent;
        }
        if (*err == CORE_ETIMEDOUT) {
            log(CORE_LOG_ERR, __LINE__, "response without final response");
            return answer::failed;
        }
        if (*err != CORE_OK) {
            log(CORE_LOG_ERR, __LINE__, "read failed");
            return answer::failed;
        }
        command->retries = 0; // a command that got any answer is never sent again
        received += bytes;
        if (at_classify_response(response))
            return answer::complete;
        idle_reads = bytes == 0 ? idle_reads + 1 : 0;
        if (room == 0 || idle_reads == max_idle_reads) {
            log(CORE_LOG_ERR, __LINE__, room == 0 ? "response too long" : "read failed");
            *err = CORE_EPROTO;
            return answer::failed;
        }
    }
}

int finish_text(const at_command *command, at_response *response)
{
    switch (command->type) {
    case AT_NO_INFORMATION:
        memset(response->text, 0, sizeof response->text);
        return CORE_OK;
    case AT_SINGLE_LINE:
    case AT_SEVERAL_LINES:
        return clean_command_response(response);
    default:
        return CORE_OK;
    }
}

} // namespace

void flush_port(int device)
{
    constexpr int max_reads = 1024; // what still comes after 64 KiB never ends
    char scratch[64];
    size_t bytes = 0;
    int err = CORE_OK;
    for (int i = 0; i < max_reads && err == CORE_OK && (i == 0 || bytes > 0); ++i)
        err = core_device_read(device, scratch, sizeof scratch, &bytes);
    log_dbg("err %d bytes %u", err, static_cast<unsigned>(bytes));
}

bool at_classify_response(at_response *response)
{
    for (const final_response &row : final_responses) {
        char *const found = strstr(response->text, row.text);
        if (found == nullptr)
            continue;
        strlcpy(response->final, row.text, sizeof response->final);
        response->ok = row.ok;
        *found = '\0';
        return true;
    }
    return false;
}

int at_send_command(int device, at_command *command, at_response *response)
{
    const owned_text frame = format_text("%s\r", command->command);
    if (frame == nullptr) {
        log_err("not enough memory");
        return CORE_ENOMEM;
    }
    const auto write_some = [device](const void *data, size_t size, size_t *written) {
        return core_device_write(device, data, size, written);
    };
    int err = CORE_OK;
    do {
        flush_port(device);
        err = write_all(frame.get(), strlen(frame.get()), back_pressure::fail, write_some);
        if (err != CORE_OK) {
            log_err("write failed");
            return err;
        }
        if (read_answer(device, command, response, &err) == answer::failed)
            return err;
    } while (command->retries != 0 && sigint_detected == 0);
    if (response->ok == 0)
        return err;
    return finish_text(command, response);
}

int clean_command_response(at_response *response)
{
    log_dbg("%s", response->text);
    static constexpr size_t longest = sizeof response->text - sizeof "\r\n";
    const char *const begin = skip_white(response->text);
    size_t length = strnlen(begin, longest); // cut first, so that the cut text is trimmed as well
    while (length > 0 && is_white(begin[length - 1]))
        --length;
    const owned_text clean =
        length > 0 ? format_text("%.*s\r\n", static_cast<int>(length), begin) : format_text("%s", "");
    if (clean == nullptr)
        return CORE_ENOMEM;
    memset(response->text, 0, sizeof response->text);
    strlcpy(response->text, clean.get(), sizeof response->text);
    log_dbg("%s", response->text);
    return CORE_OK;
}

int at_get_line(const at_command *command, at_response *response, char *line, size_t line_size)
{
    memset(line, 0, line_size);
    if (response->text[0] == '\0') {
        log_dbg("no more lines");
        return CORE_EINVAL;
    }
    const char *begin = response->text;
    if (command->prefix[0] != '\0') {
        if (const char *const prefix = strstr(begin, command->prefix))
            begin = prefix + strlen(command->prefix);
    }
    begin = skip_white(begin);
    if (*begin == '\0') {
        log_dbg("no more lines");
        return CORE_EINVAL;
    }
    const char *const end = strstr(begin, "\r\n");
    if (end == nullptr)
        return CORE_EPROTO;
    const auto length = static_cast<size_t>(end - begin);
    if (line_size == 0 || length > line_size - 1)
        return CORE_ENOMEM;
    const int formatted = snprintf(line, line_size, "%.*s", static_cast<int>(length), begin);
    if (formatted < 0) {
        log_err("snprtinf() error: %d", formatted);
        return CORE_ENOMEM;
    }
    if (static_cast<size_t>(formatted) >= line_size) {
        log_err("truncation appened: %d >= %d ", formatted, static_cast<int>(line_size));
        return CORE_EINVAL;
    }
    const char *const rest = skip_white(end + 1);
    const owned_text remainder(strdup(rest));
    if (remainder == nullptr)
        return CORE_ENOMEM;
    memset(response->text, 0, sizeof response->text);
    strlcpy(response->text, remainder.get(), sizeof response->text);
    log_dbg("%s", line);
    return CORE_OK;
}
