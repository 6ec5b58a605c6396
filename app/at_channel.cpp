#include "at_channel.hpp"

#include "core-device.hpp"
#include "core-owners.hpp"
#include "core.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"
#include "write-all.hpp"
#include "zepho-log.hpp"

namespace {

constexpr char log_source[] = "../at_channel.c";
constexpr char in_at_send_command[] = "at_send_command";

struct final_response {
    const char *text;
    uint32_t ok;
};

// The order is the order of the search. "ERROR" in front of the extended errors means that those match as
// "ERROR", with "+CME " left in the text.
constexpr final_response final_responses[] = {
    {"OK", 1}, {"BUSY", 1}, {"CONNECT", 1}, {"ERROR", 0}, {"+CMS ERROR:", 0}, {"+CME ERROR:", 0},
};

constexpr std::string_view white_space = " \t\n\v\f\r";

std::string_view skip_white(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(white_space), text.size()));
    return text;
}

// Tells once of an answer that is long in coming.
class patience {
  public:
    explicit patience(const char *command) : command_(command) {}
    void look()
    {
        if (told_ || !limit_.passed())
            return;
        told_ = true;
        log_as(in_at_send_command, CORE_LOG_INF, "waiting for the modem to answer %s", command_);
    }

  private:
    const char *command_;
    time_limit limit_{timeouts::at_announced};
    bool told_ = false;
};

// Reads until a final response; goes on when the modem has stayed silent.
ending read_answer(int device, at_command *command, at_response *response, patience *waiting)
{
    constexpr int max_idle_reads = 10; // a port that is ready but delivers nothing must not hold the program
    const auto fail = [](int line, const char *text, int result) -> ending {
        core_log(CORE_LOG_ERR, log_source, in_at_send_command, line, "%s", text);
        return result;
    };
    const time_limit limit(timeouts::at_answer_in_all);
    size_t received = 0;
    int idle_reads = 0;
    for (;; waiting->look()) {
        size_t bytes = 0;
        const size_t room = sizeof response->text - 1 - received;
        const int err =
            core_device_read_timeout(device, response->text + received, room, command->timeout, &bytes);
        log_as(in_at_send_command, CORE_LOG_DBG, "read done err = %d bytes = %u", err,
               static_cast<unsigned>(bytes));
        log_as(in_at_send_command, CORE_LOG_DBG, "response:\n%s\n", response->text);
        if (err == CORE_ETIMEDOUT && received == 0) {
            if (command->retries > 0)
                --command->retries;
            log_as(in_at_send_command, CORE_LOG_DBG, "command timeout, remaining %u retries",
                   command->retries);
            waiting->look();
            return go_on;
        }
        if (err != CORE_OK)
            return fail(__LINE__, err == CORE_ETIMEDOUT ? "response without final response" : "read failed",
                        err);
        command->retries = 0; // a command that got any answer is never sent again
        received += bytes;
        if (at_classify_response(response))
            return CORE_OK;
        idle_reads = bytes == 0 ? idle_reads + 1 : 0;
        if (room == 0 || idle_reads == max_idle_reads)
            return fail(__LINE__, room == 0 ? "response too long" : "read failed", CORE_EPROTO);
        if (limit.passed()) // a byte now and then would keep the command for half an hour
            return fail(__LINE__, "response without final response", CORE_EPROTO);
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
    patience waiting(command->command);
    ending end = go_on;
    do {
        flush_port(device);
        const int err = write_all(frame.get(), strlen(frame.get()), back_pressure::fail, write_some);
        if (err != CORE_OK) {
            log_err("write failed");
            return err;
        }
        end = read_answer(device, command, response, &waiting);
    } while (!end && command->retries != 0 && sigint_detected == 0);
    if (!end)
        return CORE_ETIMEDOUT;
    return *end == CORE_OK && response->ok != 0 ? finish_text(command, response) : *end;
}

int clean_command_response(at_response *response)
{
    log_dbg("%s", response->text);
    static constexpr size_t longest = sizeof response->text - sizeof "\r\n";
    std::string_view text = skip_white(response->text);
    text = {text.data(),
            std::min(text.size(), longest)}; // cut first, so that the cut text is trimmed as well
    text = {text.data(), text.find_last_not_of(white_space) + 1};
    const owned_text clean = !text.empty()
                                 ? format_text("%.*s\r\n", static_cast<int>(text.size()), text.data())
                                 : format_text("%s", "");
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
    const std::string_view text = response->text;
    const std::string_view prefix = command->prefix;
    const std::string_view rest =
        skip_white(prefix.empty() ? text : text_behind(text, prefix).value_or(text));
    if (rest.empty()) {
        log_dbg("no more lines");
        return CORE_EINVAL;
    }
    const size_t length = rest.find("\r\n");
    if (length == rest.npos)
        return CORE_EPROTO;
    if (line_size == 0 || length > line_size - 1)
        return CORE_ENOMEM;
    const int formatted = snprintf(line, line_size, "%.*s", static_cast<int>(length), rest.data());
    if (formatted < 0) {
        log_err("snprtinf() error: %d", formatted);
        return CORE_ENOMEM;
    }
    if (static_cast<size_t>(formatted) >= line_size) {
        log_err("truncation appened: %d >= %d ", formatted, static_cast<int>(line_size));
        return CORE_EINVAL;
    }
    const owned_text remainder(strdup(skip_white(rest.data() + length).data()));
    if (remainder == nullptr)
        return CORE_ENOMEM;
    memset(response->text, 0, sizeof response->text);
    strlcpy(response->text, remainder.get(), sizeof response->text);
    log_dbg("%s", line);
    return CORE_OK;
}
