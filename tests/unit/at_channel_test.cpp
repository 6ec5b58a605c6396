#include "at_channel.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "log_capture.hpp"
#include "scripted-port.hpp"
#include "scripted_modem.hpp"
#include "virtual-time.hpp"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

// One thing that happens while the code waits for bytes.
struct event {
    std::function<void(scripted_port *)> play;
    bool is_silence = false;
};
event comes(const std::string &data)
{
    return {[data](scripted_port *port) { port->sends(data); }};
}
const event silence = {[](scripted_port *port) { port->lets_a_wait_pass(); }, true};
const event hang_up = {[](scripted_port *port) { port->hangs_up(); }};
const event device_error = {[](scripted_port *port) { port->breaks(); }};
const event read_error = {[](scripted_port *port) { port->fails_a_read(EIO); }};
const event nothing_to_read = comes("");

// One command on a scripted port, with what happens after it.
class exchange {
  public:
    explicit exchange(std::deque<event> events, uint32_t type = AT_RAW)
        : command{"AT#CGSN", "#CGSN:", type, 500, 3}, events_(std::move(events))
    {
    }
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;
    ~exchange() { EXPECT_EQ(port.waits_in_vain(), silences_) << "waits that nobody expects"; }

    int send()
    {
        const int device = port.open();
        play();
        return at_send_command(device, &command, &response);
    }
    std::string text() const { return response.text; }
    std::string final() const { return response.final; }

    scripted_port port;
    at_command command;
    at_response response{};
    // What is written of the command before its answer; all of it, where nothing is said.
    std::optional<std::string> frame;

  private:
    // A silence that is the whole answer has the command sent again.
    void play()
    {
        const std::string awaited = frame.value_or(std::string(command.command) + "\r");
        bool is_answered = false;
        port.takes(awaited);
        for (size_t i = 0; i < events_.size(); ++i) {
            const event &next = events_[i];
            next.play(&port);
            const bool is_silence = next.is_silence;
            silences_ += is_silence ? 1U : 0U;
            is_answered = is_answered || !is_silence;
            if (is_silence && !is_answered && i + 1 < events_.size())
                port.takes(awaited);
        }
    }

    std::deque<event> events_;
    size_t silences_ = 0;
};

at_response response_of(const std::string &text)
{
    at_response response{};
    memcpy(response.text, text.data(), std::min(text.size(), sizeof response.text - 1));
    return response;
}

} // namespace

// ---- final responses

namespace {

struct final_row {
    const char *name;
    const char *text;
    uint32_t ok;
    const char *final;
    const char *rest;
};

void PrintTo(const final_row &row, std::ostream *stream)
{
    *stream << row.name;
}

class FinalResponse : public testing::TestWithParam<final_row> {};

constexpr final_row final_rows[] = {
    {"Ok", "\r\nOK\r\n", 1, "OK", "\r\n"},
    {"Busy", "\r\nBUSY\r\n", 1, "BUSY", "\r\n"},
    {"Connect", "\r\nCONNECT 115200\r\n", 1, "CONNECT", "\r\n"},
    {"Error", "\r\nERROR\r\n", 0, "ERROR", "\r\n"},
    {"CmsError", "\r\n+CMS ERROR: 500\r\n", 0, "ERROR", "\r\n+CMS "},
    {"CmeError", "\r\n+CME ERROR: 10\r\n", 0, "ERROR", "\r\n+CME "},
    {"OkBehindInformation", "\r\n#CGSN: 123\r\n\r\nOK\r\n", 1, "OK", "\r\n#CGSN: 123\r\n\r\n"},
    {"TheFirstOfTwo", "one OK two OK", 1, "OK", "one "},
    {"OkBeforeAnEarlierError", "ERROR then OK", 1, "OK", "ERROR then "},
    {"OkBeforeAnEarlierBusy", "BUSY then OK", 1, "OK", "BUSY then "},
    {"BusyBeforeAnEarlierConnect", "CONNECT then BUSY", 1, "BUSY", "CONNECT then "},
    {"ConnectBeforeAnEarlierError", "ERROR then CONNECT", 1, "CONNECT", "ERROR then "},
    {"OkInsideAWord", "\r\nTOKEN\r\n", 1, "OK", "\r\nT"},
    {"OkAlone", "OK", 1, "OK", ""},
};

} // namespace

TEST_P(FinalResponse, IsFoundWithItsVerdict)
{
    at_response response = response_of(GetParam().text);
    EXPECT_TRUE(at_classify_response(&response));
    EXPECT_EQ(response.ok, GetParam().ok);
    EXPECT_STREQ(response.final, GetParam().final);
}

TEST_P(FinalResponse, IsCutOffTheText)
{
    at_response response = response_of(GetParam().text);
    EXPECT_TRUE(at_classify_response(&response));
    EXPECT_STREQ(response.text, GetParam().rest);
}

INSTANTIATE_TEST_SUITE_P(Row, FinalResponse, testing::ValuesIn(final_rows),
                         [](const auto &row) { return row.param.name; });

namespace {

class NoFinalResponse : public testing::TestWithParam<const char *> {};

} // namespace

TEST_P(NoFinalResponse, LeavesTheResponseAsItIs)
{
    at_response response = response_of(GetParam());
    EXPECT_FALSE(at_classify_response(&response));
    EXPECT_STREQ(response.text, GetParam());
    EXPECT_STREQ(response.final, "");
    EXPECT_EQ(response.ok, 0U);
}

INSTANTIATE_TEST_SUITE_P(Text, NoFinalResponse,
                         testing::Values("", "\r\n", "O", "\r\nO\r\nK", "ok", "error", "+CME ERRO",
                                         "NO CARRIER"));

// ---- sending

TEST(SendCommand, SendsTheCommandAndACarriageReturn)
{
    exchange at({comes("\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

TEST(SendCommand, SendsACommandOf127Characters)
{
    exchange at({comes("\r\nOK\r\n")});
    const std::string longest(127, 'x');
    strlcpy(at.command.command, longest.c_str(), sizeof at.command.command);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.port.written(), longest + "\r");
}

TEST(SendCommand, SendsTheRestAfterAShortWrite)
{
    exchange at({comes("\r\nOK\r\n")});
    at.port.takes_at_most(3).takes_at_most(1).takes_at_most(4);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

TEST(SendCommand, EndsWithTheErrorOfAWrite)
{
    log_capture log;
    exchange at({});
    at.frame = "AT#";
    at.port.takes_at_most(3).refuses_a_write(EIO);
    EXPECT_EQ(at.send(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "write failed");
    EXPECT_EQ(log.messages().back().file, "../at_channel.c");
    EXPECT_EQ(log.messages().back().function, "at_send_command");
}

TEST(SendCommand, DoesNotRepeatAFailedWrite)
{
    exchange at({});
    at.frame = "AT#";
    at.port.takes_at_most(3).refuses_a_write(EAGAIN);
    EXPECT_EQ(at.send(), -11);
    EXPECT_EQ(at.port.written(), "AT#");
    EXPECT_EQ(at.command.retries, 3);
}

TEST(SendCommand, GivesUpOnAPortThatTakesNothing)
{
    log_capture log;
    exchange at({});
    at.frame = "";
    for (int i = 0; i < 10; ++i)
        at.port.takes_at_most(0);
    EXPECT_EQ(at.send(), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"write failed"});
}

TEST(SendCommand, DiscardsWhatCameBeforeTheCommand)
{
    exchange at({comes("\r\n123\r\nOK\r\n")});
    at.port.sends("\r\nRING\r\nOK\r\n" + std::string(200, 'x'));
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n123\r\n");
}

// ---- the answer

TEST(SendCommand, FillsTheResponse)
{
    exchange at({comes("\r\n#CGSN: 123\r\n\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.response.ok, 1U);
    EXPECT_EQ(at.final(), "OK");
}

TEST(SendCommand, LogsEveryRead)
{
    log_capture log;
    exchange at({comes("\r\n1"), comes("\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (texts{"err -11 bytes 0", "read done err = 0 bytes = 3", "response:\n\r\n1\n",
                     "read done err = 0 bytes = 6", "response:\n\r\n1\r\nOK\r\n\n"}));
    EXPECT_EQ(log.messages()[0].function, "flush_port");
    EXPECT_EQ(log.messages()[1].file, "../at_channel.c");
    EXPECT_EQ(log.messages()[1].function, "at_send_command");
}

TEST(SendCommand, EmptiesATextThatIsNotExpected)
{
    exchange at({comes("\r\n#CGSN: 123\r\n\r\nOK\r\n")}, AT_NO_INFORMATION);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "");
    EXPECT_EQ(at.response.ok, 1U);
}

TEST(SendCommand, LeavesARawTextAsReceived)
{
    exchange at({comes("\r\n#CGSN: 123\r\n\r\nOK\r\n")}, AT_RAW);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n#CGSN: 123\r\n\r\n");
}

TEST(SendCommand, TrimsASingleLine)
{
    exchange at({comes("\r\n#CGSN: 123\r\n\r\nOK\r\n")}, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "#CGSN: 123\r\n");
}

TEST(SendCommand, TrimsSeveralLines)
{
    exchange at({comes("\r\none\r\ntwo\r\n\r\nOK\r\n")}, AT_SEVERAL_LINES);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "one\r\ntwo\r\n");
}

TEST(SendCommand, LeavesTheTextOfAnUnknownType)
{
    exchange at({comes("\r\n1\r\nOK\r\n")}, 4);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n1\r\n");
}

TEST(SendCommand, TakesARefusalForNoFailure)
{
    log_capture log;
    exchange at({comes("\r\n+CME ERROR: 10\r\n")}, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.response.ok, 0U);
    EXPECT_EQ(at.final(), "ERROR");
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST(SendCommand, KeepsTheTextBeforeARefusalUntrimmed)
{
    exchange at({comes("\r\n+CME ERROR: 10\r\n")}, AT_SINGLE_LINE);
    at.send();
    EXPECT_EQ(at.text(), "\r\n+CME ");
}

TEST(SendCommand, DoesNotSendARefusedCommandAgain)
{
    exchange at({comes("\r\nERROR\r\n")});
    at.send();
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
    EXPECT_EQ(at.command.retries, 0);
}

TEST(SendCommand, KeepsTheEchoInTheText)
{
    exchange at({comes("AT#CGSN\r\r\n#CGSN: 123\r\n\r\nOK\r\n")}, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "AT#CGSN\r\r\n#CGSN: 123\r\n");
}

TEST(SendCommand, TakesAnEmptyInformation)
{
    exchange at({comes("\r\nOK\r\n")}, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "");
}

// ---- answers in pieces

TEST(SendCommand, CollectsAnAnswerThatComesByteByByte)
{
    std::deque<event> events;
    for (const char byte : std::string("\r\n#CGSN: 123\r\n\r\nOK"))
        events.push_back(comes(std::string(1, byte)));
    exchange at(events, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "#CGSN: 123\r\n");
}

TEST(SendCommand, WaitsForTheWholeFinalResponse)
{
    exchange at({comes("\r\n123\r\n\r\nO"), comes("K\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n123\r\n\r\n");
}

TEST(SendCommand, GivesEveryReadTheWholeTimeOut)
{
    exchange at({comes("\r\n1"), comes("2"), comes("3\r\nOK\r\n")});
    at.command.timeout = 1234;
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.port.waits(), (std::vector<int>{1234, 1234, 1234}));
}

TEST(SendCommand, EndsAnAnswerThatDripsForFifteenSeconds)
{
    const log_capture log;
    exchange at({});
    at.port.takes("AT#CGSN\r");
    for (int i = 0; i < 38; ++i) // a byte each 0.4 s: the last one after 15.2 s
        at.port.pauses(400).sends("x");
    EXPECT_EQ(at_send_command(at.port.open(), &at.command, &at.response), -71);
    EXPECT_EQ(at.response.ok, 0U);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), std::vector<std::string>{"response without final response"});
    EXPECT_EQ(log.count(CORE_LOG_INF, "waiting for the modem to answer AT#CGSN"), 1);
}

TEST(SendCommand, TellsOfNoAnswerThatComesWithinFiveSeconds)
{
    const log_capture log;
    exchange at({});
    at.command.timeout = 4900;
    at.port.takes("AT#CGSN\r").pauses(4800).sends("\r\nOK\r\n");
    EXPECT_EQ(at_send_command(at.port.open(), &at.command, &at.response), 0);
    EXPECT_TRUE(log.texts(CORE_LOG_INF).empty());
}

TEST(SendCommand, TellsOnceOfASilenceOfMoreThanFiveSeconds)
{
    const log_capture log;
    exchange at(std::deque<event>(8, silence));
    at.command.timeout = 2000;
    at.command.retries = 8;
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_INF), std::vector<std::string>{"waiting for the modem to answer AT#CGSN"});
}

TEST(SendCommand, DropsWhatIsGluedToTheFinalResponse)
{
    exchange at({comes("\r\n123\r\nOK\r\n\r\nRING\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n123\r\n");
}

TEST(SendCommand, EndsAtTheFirstOfTwoAnswers)
{
    exchange at({comes("\r\n1\r\nOK\r\n\r\n2\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n1\r\n");
}

TEST(SendCommand, EndsAtASuccessWordInsideAnInformationLine)
{
    exchange at({comes("\r\nBROKEN\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\nBR");
}

TEST(SendCommand, FailsWhenAnAnswerStopsShort)
{
    log_capture log;
    exchange at({comes("\r\n#CGSN: 1"), silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"response without final response"});
    EXPECT_EQ(log.messages().back().function, "at_send_command");
}

TEST(SendCommand, TakesASingleByteForAnAnswerThatStopsShort)
{
    exchange at({comes("\r"), silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

TEST(SendCommand, DoesNotSendAgainWhenAnAnswerStopsShort)
{
    exchange at({comes("\r\n#CGSN: 1"), silence});
    at.send();
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
    EXPECT_EQ(at.command.retries, 0);
    EXPECT_EQ(at.response.ok, 0U);
}

TEST(SendCommand, FindsNoFinalResponseBehindAZeroByte)
{
    log_capture log;
    exchange at({comes(std::string("\r\n1\0\r\nOK\r\n", 10)), silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"response without final response"});
}

TEST(SendCommand, TakesAnAnswerThatFillsTheBuffer)
{
    exchange at({comes(std::string(1021, 'x') + "OK")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), std::string(1021, 'x'));
}

TEST(SendCommand, TrimsAnAnswerThatFillsTheBuffer)
{
    exchange at({comes(std::string(1021, 'x') + "OK")}, AT_SINGLE_LINE);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), std::string(1021, 'x') + "\r\n");
}

TEST(SendCommand, RefusesAnAnswerLongerThanTheBuffer)
{
    log_capture log;
    exchange at({comes(std::string(1023, 'x') + "\r\nOK\r\n")});
    EXPECT_EQ(at.send(), -71);
    EXPECT_EQ(at.port.unread(), "\r\nOK\r\n");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"response too long"});
    EXPECT_EQ(at.response.ok, 0U);
}

TEST(SendCommand, TimesOutBehindAFullBuffer)
{
    log_capture log;
    exchange at({comes(std::string(1023, 'x')), silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"response without final response"});
}

TEST(SendCommand, KeepsALongAnswerTerminated)
{
    exchange at({comes(std::string(1000, 'x')), comes(std::string(100, 'y'))});
    EXPECT_EQ(at.send(), -71);
    EXPECT_EQ(at.port.unread(), std::string(77, 'y'));
    EXPECT_EQ(at.text(), std::string(1000, 'x') + std::string(23, 'y'));
}

TEST(SendCommand, GoesOnAfterAnEmptyRead)
{
    exchange at({comes("\r\n12"), nothing_to_read, comes("3\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n123\r\n");
}

TEST(SendCommand, GoesOnAfterNineEmptyReads)
{
    std::deque<event> events(9, nothing_to_read);
    events.push_back(comes("\r\nOK\r\n"));
    exchange at(events);
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.response.ok, 1U);
}

TEST(SendCommand, GivesUpAfterTenEmptyReads)
{
    log_capture log;
    exchange at(std::deque<event>(10, nothing_to_read));
    EXPECT_EQ(at.send(), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"read failed"});
}

TEST(SendCommand, CountsEmptyReadsAnewAfterAByte)
{
    std::deque<event> events(9, nothing_to_read);
    events.push_back(comes("\r\n"));
    events.insert(events.end(), 9, nothing_to_read);
    events.push_back(comes("OK"));
    exchange at(events);
    EXPECT_EQ(at.send(), 0);
}

// ---- failed reads

TEST(SendCommand, EndsWithAHangUp)
{
    log_capture log;
    exchange at({hang_up});
    EXPECT_EQ(at.send(), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"read failed"});
    EXPECT_EQ(log.messages().back().function, "at_send_command");
}

TEST(SendCommand, EndsWithAHangUpInsideAnAnswer)
{
    log_capture log;
    exchange at({comes("\r\n#CG"), hang_up});
    EXPECT_EQ(at.send(), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"read failed"});
}

TEST(SendCommand, EndsWithADeviceError)
{
    log_capture log;
    exchange at({device_error});
    EXPECT_EQ(at.send(), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "read failed");
}

TEST(SendCommand, EndsWithTheErrorOfARead)
{
    log_capture log;
    exchange at({read_error});
    EXPECT_EQ(at.send(), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "read failed");
}

TEST(SendCommand, DoesNotSendAgainAfterAFailedRead)
{
    exchange at({read_error});
    at.send();
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
    EXPECT_EQ(at.response.ok, 0U);
}

// ---- silence

TEST(SendCommand, IsSentAsOftenAsItsRetriesSay)
{
    exchange at({silence, silence, silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\rAT#CGSN\rAT#CGSN\r");
    EXPECT_EQ(at.response.ok, 0U);
}

TEST(SendCommand, CountsItsRetriesDown)
{
    log_capture log;
    exchange at({silence, silence, silence});
    at.send();
    EXPECT_EQ(at.command.retries, 0);
    texts counted;
    for (const std::string &text : log.texts(CORE_LOG_DBG)) {
        if (text.substr(0, 7) == "command")
            counted.push_back(text);
    }
    EXPECT_EQ(counted, (texts{"command timeout, remaining 2 retries", "command timeout, remaining 1 retries",
                              "command timeout, remaining 0 retries"}));
}

TEST(SendCommand, TakesSilenceForNoError)
{
    log_capture log;
    exchange at({silence, silence, silence});
    at.send();
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST(SendCommand, WaitsTheTimeOutForEveryAttempt)
{
    exchange at({silence, silence, silence});
    at.send();
    EXPECT_EQ(at.port.waits(), (std::vector<int>{500, 500, 500}));
}

TEST(SendCommand, IsSentOnceWithoutRetries)
{
    log_capture log;
    exchange at({silence});
    at.command.retries = 0;
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "command timeout, remaining 0 retries");
}

TEST(SendCommand, IsSentOnceWithOneRetry)
{
    exchange at({silence});
    at.command.retries = 1;
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

TEST(SendCommand, IsNotSentAgainAfterAnInterruption)
{
    exchange at({silence});
    sigint_detected = 1;
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

TEST(SendCommand, TakesTheAnswerToALaterAttempt)
{
    exchange at({silence, silence, comes("\r\n123\r\nOK\r\n")});
    EXPECT_EQ(at.send(), 0);
    EXPECT_EQ(at.text(), "\r\n123\r\n");
    EXPECT_EQ(at.command.retries, 0);
}

TEST(SendCommand, FailsWhenALaterAnswerStopsShort)
{
    exchange at({silence, comes("\r\n12"), silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\rAT#CGSN\r");
}

TEST(SendCommand, IsNotSentAgainAfterAnEmptyReadAndSilence)
{
    exchange at({nothing_to_read, silence});
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.port.written(), "AT#CGSN\r");
}

// ---- on a terminal

namespace {

// An open terminal with a modem behind it: what it is like where the kernel hands bytes on in its own time.
class terminal {
  public:
    explicit terminal(std::vector<modem_answer> script) : modem(std::move(script))
    {
        EXPECT_EQ(core_device_open(modem.path().c_str(), &device), 0);
    }
    terminal(const terminal &) = delete;
    terminal &operator=(const terminal &) = delete;
    ~terminal() { core_device_close(device); }

    int send() { return at_send_command(device, &command, &response); }

    real_time here;
    scripted_modem modem;
    int device = -1;
    at_command command{"AT+GMM", "", AT_SINGLE_LINE, 10000, 3};
    at_response response{};
};

} // namespace

TEST(SendCommandOnATerminal, GetsItsAnswer)
{
    terminal at({{{"\r\nKA100\r\n\r\nOK\r\n"}}});
    EXPECT_EQ(at.send(), 0);
    EXPECT_STREQ(at.response.text, "KA100\r\n");
    EXPECT_EQ(at.modem.commands(), texts{"AT+GMM"});
}

TEST(SendCommandOnATerminal, GetsAnAnswerInPieces)
{
    terminal at({{{"AT+G", "MM\r", "\r\nKA1", "00\r", "\n\r\nO", "K\r\n"}}});
    EXPECT_EQ(at.send(), 0);
    EXPECT_STREQ(at.response.text, "AT+GMM\r\r\nKA100\r\n");
}

TEST(SendCommandOnATerminal, EndsWithATimeOutOfASilentModem)
{
    terminal at({{{}}, {{}}});
    at.command.timeout = 50;
    at.command.retries = 2;
    EXPECT_EQ(at.send(), -110);
    EXPECT_EQ(at.modem.commands(), (texts{"AT+GMM", "AT+GMM"}));
}

TEST(SendCommandOnATerminal, NoticesThatTheModemLeaves)
{
    log_capture log;
    terminal at({{{"\r\nKA"}, true}});
    EXPECT_EQ(at.send(), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "read failed");
}

TEST(SendCommandOnATerminal, NoticesThatTheModemHasLeft)
{
    const real_time here;
    log_capture log;
    pty left;
    int device = -1;
    ASSERT_EQ(core_device_open(left.path().c_str(), &device), 0);
    left.hang_up();
    at_command command{"AT+GMM", "", AT_SINGLE_LINE, 10000, 3};
    at_response response{};
    EXPECT_EQ(at_send_command(device, &command, &response), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "write failed");
    core_device_close(device);
}

// ---- flushing

TEST(FlushPort, DiscardsEverythingThatWaits)
{
    scripted_port port;
    port.sends(std::string(1000, 'x')).sends("and more");
    flush_port(port.open());
    EXPECT_EQ(port.unread(), "");
}

TEST(FlushPort, DoesNotWait)
{
    scripted_port port;
    flush_port(port.open());
    EXPECT_TRUE(port.waits().empty());
}

TEST(FlushPort, LogsItsLastRead)
{
    log_capture log;
    scripted_port port;
    port.sends("stale");
    flush_port(port.open());
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "err -11 bytes 0");
    EXPECT_EQ(log.messages()[0].file, "../at_channel.c");
    EXPECT_EQ(log.messages()[0].function, "flush_port");
}

TEST(FlushPort, EndsWhereNothingIsReadWithoutAnError)
{
    log_capture log;
    const int device = open("/dev/null", O_RDWR);
    flush_port(device);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"err 0 bytes 0"});
    close(device);
}

TEST(FlushPort, EndsAfter64KiBOfWhatNeverEnds)
{
    log_capture log;
    const int device = open("/dev/zero", O_RDWR);
    flush_port(device);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"err 0 bytes 64"});
    close(device);
}

TEST(FlushPort, EndsWithAnyError)
{
    log_capture log;
    flush_port(-1);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"err -102 bytes 0"});
}

// ---- trimming

namespace {

struct trim_row {
    const char *name;
    const char *text;
    const char *trimmed;
};

void PrintTo(const trim_row &row, std::ostream *stream)
{
    *stream << row.name;
}

class CleanResponse : public testing::TestWithParam<trim_row> {};

constexpr trim_row trim_rows[] = {
    {"LinesAround", "\r\n#CGSN: 123\r\n\r\n", "#CGSN: 123\r\n"},
    {"NothingAround", "123", "123\r\n"},
    {"OneLineEnd", "123\r\n", "123\r\n"},
    {"EveryKindOfWhiteSpace", " \t\n\v\f\r123 \t\n\v\f\r", "123\r\n"},
    {"WhiteSpaceInside", "\r\none\r\n\r\n two\r\n", "one\r\n\r\n two\r\n"},
    {"OtherControlCharacters", "\x08\x0E\x7F", "\x08\x0E\x7F\r\n"},
    {"HighBytes", "\xA0\xFF", "\xA0\xFF\r\n"},
    {"WhiteSpaceOnly", "\r\n \r\n", ""},
    {"NothingAtAll", "", ""},
};

} // namespace

TEST_P(CleanResponse, LeavesOneLineEnd)
{
    at_response response = response_of(GetParam().text);
    EXPECT_EQ(clean_command_response(&response), 0);
    EXPECT_STREQ(response.text, GetParam().trimmed);
}

INSTANTIATE_TEST_SUITE_P(Row, CleanResponse, testing::ValuesIn(trim_rows),
                         [](const auto &row) { return row.param.name; });

TEST(CleanResponseText, IsZeroBehindItsEnd)
{
    at_response response = response_of("\r\n123\r\nleft behind");
    response.text[7] = '\0';
    EXPECT_EQ(clean_command_response(&response), 0);
    EXPECT_EQ(std::string(response.text, sizeof response.text), "123\r\n" + std::string(1019, '\0'));
}

TEST(CleanResponseText, IsCutToMakeRoomForTheLineEnd)
{
    at_response response = response_of(std::string(1023, 'x'));
    EXPECT_EQ(clean_command_response(&response), 0);
    EXPECT_EQ(response.text, std::string(1021, 'x') + "\r\n");
}

TEST(CleanResponseText, IsTrimmedWhereItIsCut)
{
    at_response response = response_of(std::string(1018, 'x') + " \r\nyy");
    EXPECT_EQ(clean_command_response(&response), 0);
    EXPECT_EQ(response.text, std::string(1018, 'x') + "\r\n");
}

TEST(CleanResponseText, IsLoggedBeforeAndAfter)
{
    log_capture log;
    at_response response = response_of("\r\n123\r\n\r\n");
    static_cast<void>(clean_command_response(&response));
    EXPECT_EQ(log.texts(CORE_LOG_DBG), (texts{"\r\n123\r\n\r\n", "123\r\n"}));
    EXPECT_EQ(log.messages()[0].file, "../at_channel.c");
    EXPECT_EQ(log.messages()[0].function, "clean_command_response");
}

// ---- information lines

namespace {

// Takes lines out of a text.
class lines {
  public:
    explicit lines(const std::string &text, const char *prefix = "") : response(response_of(text))
    {
        strlcpy(command.prefix, prefix, sizeof command.prefix);
    }

    int next(size_t size = 128) { return at_get_line(&command, &response, line, size); }

    at_command command{};
    at_response response;
    char line[128] = {'o', 'l', 'd'};
};

} // namespace

TEST(GetLine, TakesALine)
{
    lines text("KA100\r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "KA100");
}

TEST(GetLine, RemovesTheLineFromTheText)
{
    lines text("one\r\ntwo\r\n");
    text.next();
    EXPECT_STREQ(text.response.text, "two\r\n");
}

TEST(GetLine, ClearsTheTextWithTheLastLine)
{
    lines text("one\r\n\r\n \r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_EQ(std::string(text.response.text, sizeof text.response.text), std::string(1024, '\0'));
}

TEST(GetLine, TakesOneLineAfterTheOther)
{
    lines text("one\r\n\r\ntwo\r\nthree\r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "one");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "two");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "three");
    EXPECT_EQ(text.next(), -22);
}

TEST(GetLine, SkipsThePrefix)
{
    lines text("#CGSN: 123\r\n", "#CGSN:");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "123");
}

TEST(GetLine, SkipsAnEchoBeforeThePrefix)
{
    lines text("AT#CGSN\r\r\n#CGSN: 123\r\n", "#CGSN:");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "123");
}

TEST(GetLine, DoesNotNeedThePrefix)
{
    lines text("KA100\r\n", "#CGMM:");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "KA100");
}

TEST(GetLine, TakesTheFirstPrefix)
{
    lines text("#A: one\r\n#A: two\r\n", "#A:");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "one");
}

TEST(GetLine, KeepsAPrefixThatIsNotAskedFor)
{
    lines text("#CGSN: 123\r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "#CGSN: 123");
}

TEST(GetLine, SkipsWhiteSpaceBeforeALine)
{
    lines text(" \t\v\f\r\nKA100\r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "KA100");
}

TEST(GetLine, KeepsWhiteSpaceInsideAndBehindALine)
{
    lines text("a b\tc \r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "a b\tc ");
}

TEST(GetLine, KeepsALoneLineFeedInALine)
{
    lines text("one\ntwo\r\n");
    EXPECT_EQ(text.next(), 0);
    EXPECT_STREQ(text.line, "one\ntwo");
}

TEST(GetLine, LogsTheLine)
{
    log_capture log;
    lines text("KA100\r\n");
    text.next();
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "KA100");
    EXPECT_EQ(log.messages()[0].file, "../at_channel.c");
    EXPECT_EQ(log.messages()[0].function, "at_get_line");
}

TEST(GetLine, FindsNoneInAnEmptyText)
{
    log_capture log;
    lines text("");
    EXPECT_EQ(text.next(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"no more lines"});
}

TEST(GetLine, FindsNoneInWhiteSpace)
{
    log_capture log;
    lines text("\r\n \r\n");
    EXPECT_EQ(text.next(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"no more lines"});
}

TEST(GetLine, FindsNoneBehindAPrefixAlone)
{
    log_capture log;
    lines text("#CGSN: \r\n", "#CGSN:");
    EXPECT_EQ(text.next(), -22);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"no more lines"});
}

TEST(GetLine, ClearsTheBufferOnFailure)
{
    lines text("");
    text.next();
    EXPECT_EQ(std::string(text.line, sizeof text.line), std::string(128, '\0'));
}

TEST(GetLine, RefusesALineWithoutItsEnd)
{
    log_capture log;
    lines text("KA100");
    EXPECT_EQ(text.next(), -71);
    EXPECT_TRUE(log.messages().empty());
}

TEST(GetLine, RefusesALineThatEndsInALineFeedAlone)
{
    lines text("KA100\n");
    EXPECT_EQ(text.next(), -71);
}

TEST(GetLine, FillsTheBufferButItsTerminator)
{
    lines text("1234567\r\n");
    EXPECT_EQ(text.next(8), 0);
    EXPECT_STREQ(text.line, "1234567");
}

TEST(GetLine, RefusesALineAsLongAsTheBuffer)
{
    log_capture log;
    lines text("12345678\r\n");
    EXPECT_EQ(text.next(8), -12);
    EXPECT_TRUE(log.messages().empty());
}

TEST(GetLine, KeepsTheTextOfARefusedLine)
{
    lines text("12345678\r\n");
    text.next(8);
    EXPECT_STREQ(text.response.text, "12345678\r\n");
}

TEST(GetLine, RefusesABufferWithoutSize)
{
    lines text("1\r\n");
    EXPECT_EQ(text.next(0), -12);
    EXPECT_STREQ(text.line, "old");
}

TEST(GetLine, ReadsWhatSendingLeft)
{
    exchange at({comes("\r\n#CGSN: 123\r\n\r\nOK\r\n")}, AT_SINGLE_LINE);
    ASSERT_EQ(at.send(), 0);
    char line[128];
    EXPECT_EQ(at_get_line(&at.command, &at.response, line, sizeof line), 0);
    EXPECT_STREQ(line, "123");
    EXPECT_EQ(at_get_line(&at.command, &at.response, line, sizeof line), -22);
}
