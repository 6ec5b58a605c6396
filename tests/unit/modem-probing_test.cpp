#include "modem-probing.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "libc-hooks.hpp"
#include "log_capture.hpp"
#include "port.hpp"
#include "scripted-port.hpp"
#include "virtual-time.hpp"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

using texts = std::vector<std::string>;

// What the modem sends when a command has come: the pieces one after the other, each when the one before has
// been read. A modem may also leave, or say nothing at all.
struct modem_answer {
    std::vector<std::string> pieces;
    bool hang_up = false;
};

const modem_answer ok = {{"\r\nOK\r\n"}};
const modem_answer error = {{"\r\nERROR\r\n"}};
const modem_answer extended_error = {{"\r\n+CME ERROR: 10\r\n"}};
const modem_answer mute = {{}};
const modem_answer leaves = {{}, true};

modem_answer answers(const std::string &information)
{
    return {{"\r\n" + information + "\r\n\r\nOK\r\n"}};
}

const modem_answer model = answers("#CGMM: KA100");
const modem_answer imei = answers("#CGSN: 351234567890123");
const modem_answer versions = answers("49.01.102-P0F.1\r\nM0F\r\nP0F.2\r\nA0F");

void answer_by(const std::vector<modem_answer> &script, scripted_port *port)
{
    for (const modem_answer &answer : script) {
        port->takes_up_to('\r');
        for (const std::string &piece : answer.pieces)
            port->sends(piece);
        if (answer.hang_up)
            port->hangs_up();
    }
}

texts split(const std::string &written)
{
    texts commands;
    std::istringstream stream(written);
    for (std::string command; std::getline(stream, command, '\r');)
        commands.push_back(command);
    return commands;
}

// A modem that answers by a script, with the record that describes it.
class ProbedModem : public testing::Test {
  protected:
    ~ProbedModem() override
    {
        if (device >= 0)
            static_cast<void>(close_port(device));
    }

    // Answers the commands in the order in which they come; a command behind the script fails the test.
    void plug_in(const std::vector<modem_answer> &script, uint32_t mode = PROBING_USB)
    {
        answer_by(script, &port);
        record.probing_mode = mode;
        record.modem_port_size = 1;
        record.modem_port[0].port_type = PORT_AT;
        strlcpy(record.modem_port[0].port_name, port.path().c_str(), sizeof record.modem_port[0].port_name);
    }
    // The open device of the modem, for a single query.
    int open_device()
    {
        EXPECT_EQ(core_device_open(port.path().c_str(), &device), 0);
        return device;
    }

    // The commands that came, without their carriage returns.
    texts commands() const { return split(port.written()); }

    scripted_port port;
    modem record{};
    int device = -1;
    const std::vector<unsigned> &pauses = virtual_time::instance().slept;
};

using EchoOff = ProbedModem;
using GetModel = ProbedModem;
using GetImei = ProbedModem;
using GetVersions = ProbedModem;
using AtHandshake = ProbedModem;
using CollectBasicInformation = ProbedModem;

constexpr unsigned half_a_second = 500;

} // namespace

// ---- echo off

TEST_F(EchoOff, SendsItsCommandOnce)
{
    plug_in({ok});
    EXPECT_EQ(turn_off_echo(open_device()), 0);
    EXPECT_EQ(commands(), texts{"ATE0"});
    EXPECT_TRUE(pauses.empty());
}

TEST_F(EchoOff, TakesItsOwnEcho)
{
    plug_in({{{"ATE0\r", "\r\nOK\r\n"}}});
    EXPECT_EQ(turn_off_echo(open_device()), 0);
    EXPECT_EQ(commands(), texts{"ATE0"});
}

TEST_F(EchoOff, WaitsTwoSecondsForAnAnswer)
{
    plug_in({ok});
    static_cast<void>(turn_off_echo(open_device()));
    ASSERT_FALSE(port.waits().empty());
    EXPECT_EQ(port.waits()[0], 2000);
}

TEST_F(EchoOff, IsTriedAgainAfterARefusalAndAPause)
{
    plug_in({error, extended_error, ok});
    EXPECT_EQ(turn_off_echo(open_device()), 0);
    EXPECT_EQ(commands(), (texts{"ATE0", "ATE0", "ATE0"}));
    EXPECT_EQ(pauses, (std::vector<unsigned>{half_a_second, half_a_second}));
}

TEST_F(EchoOff, SucceedsAtTheEleventhTry)
{
    std::vector<modem_answer> script(10, error);
    script.push_back(ok);
    plug_in(script);
    EXPECT_EQ(turn_off_echo(open_device()), 0);
    EXPECT_EQ(commands().size(), 11U);
}

TEST_F(EchoOff, IsTriedElevenTimes)
{
    plug_in(std::vector<modem_answer>(11, error));
    EXPECT_EQ(turn_off_echo(open_device()), -71);
    EXPECT_EQ(commands(), texts(11, "ATE0"));
    EXPECT_EQ(pauses, std::vector<unsigned>(11, half_a_second));
}

TEST_F(EchoOff, IsTriedAgainAfterAnAnswerThatStopsShort)
{
    plug_in({{{"\r\nO"}}, ok});
    const log_capture log;
    EXPECT_EQ(turn_off_echo(open_device()), 0);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "response without final response"));
    EXPECT_EQ(pauses, std::vector<unsigned>{half_a_second});
}

TEST_F(EchoOff, AsksAMuteModemSixtyTimesElevenTimesOver)
{
    plug_in(std::vector<modem_answer>(660, mute));
    EXPECT_EQ(turn_off_echo(open_device()), -71);
    EXPECT_EQ(port.waits(), std::vector<int>(660, 2000));
    EXPECT_EQ(commands(), texts(660, "ATE0"));
    EXPECT_EQ(pauses, std::vector<unsigned>(11, half_a_second));
}

TEST_F(EchoOff, IsGivenUpAfterAnInterruption)
{
    plug_in({error});
    sigint_detected = 1;
    EXPECT_EQ(turn_off_echo(open_device()), -125);
    EXPECT_EQ(commands(), texts{"ATE0"});
    EXPECT_TRUE(pauses.empty());
}

TEST_F(EchoOff, GoesOnToTryWhenTheModemHasLeft)
{
    const log_capture log;
    plug_in({leaves});
    EXPECT_EQ(turn_off_echo(open_device()), -71);
    EXPECT_EQ(pauses.size(), 11U);
}

// ---- model

TEST_F(GetModel, TakesTheLineBehindThePrefix)
{
    plug_in({model});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KA100");
    EXPECT_EQ(commands(), texts{"AT#CGMM"});
}

TEST_F(GetModel, WaitsHalfASecondForAnAnswer)
{
    plug_in({model});
    static_cast<void>(get_model(open_device(), &record));
    ASSERT_FALSE(port.waits().empty());
    EXPECT_EQ(port.waits()[0], 500);
}

TEST_F(GetModel, TakesALineWithoutPrefix)
{
    plug_in({answers("KA100")});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KA100");
}

TEST_F(GetModel, SkipsAnEcho)
{
    plug_in({{{"AT#CGMM\r\r\n#CGMM: KA100\r\n\r\nOK\r\n"}}});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KA100");
}

TEST_F(GetModel, TakesAnAnswerInPieces)
{
    plug_in({{{"\r\n#CG", "MM: KA", "100\r", "\n\r\nO", "K\r\n"}}});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KA100");
}

TEST_F(GetModel, FallsBackAfterARefusal)
{
    plug_in({error, answers("KB200")});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KB200");
    EXPECT_EQ(commands(), (texts{"AT#CGMM", "AT+GMM"}));
}

TEST_F(GetModel, FallsBackAfterAnExtendedError)
{
    plug_in({extended_error, answers("KB200")});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KB200");
}

TEST_F(GetModel, TakesTheFirstLineOfTheFallback)
{
    plug_in({error, answers("KB200\r\nsecond")});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_STREQ(record.model_name, "KB200");
}

TEST_F(GetModel, FailsWhenBothAreRefused)
{
    plug_in({error, error});
    EXPECT_EQ(get_model(open_device(), &record), -71);
    EXPECT_STREQ(record.model_name, "");
}

TEST_F(GetModel, DoesNotFallBackAfterSilence)
{
    plug_in({mute, mute, mute});
    EXPECT_EQ(get_model(open_device(), &record), -110);
    EXPECT_EQ(commands(), texts(3, "AT#CGMM"));
    EXPECT_EQ(port.waits(), (std::vector<int>{500, 500, 500}));
}

TEST_F(GetModel, DoesNotFallBackAfterAnAnswerThatIsTooLong)
{
    const log_capture log;
    plug_in({{{std::string(1100, 'x')}}});
    EXPECT_EQ(get_model(open_device(), &record), -71);
    EXPECT_EQ(commands(), texts{"AT#CGMM"});
    EXPECT_EQ(port.unread(), std::string(77, 'x'));
}

TEST_F(GetModel, FailsWhenTheFallbackGetsNoAnswer)
{
    plug_in({error, leaves});
    const log_capture log;
    EXPECT_EQ(get_model(open_device(), &record), -125);
}

TEST_F(GetModel, FailsWithoutAnInformationLine)
{
    plug_in({ok});
    EXPECT_EQ(get_model(open_device(), &record), -22);
    EXPECT_STREQ(record.model_name, "");
}

TEST_F(GetModel, TakesANameOf127Characters)
{
    const std::string name(127, 'm');
    plug_in({answers("#CGMM: " + name)});
    EXPECT_EQ(get_model(open_device(), &record), 0);
    EXPECT_EQ(record.model_name, name);
}

TEST_F(GetModel, RefusesANameOf128Characters)
{
    plug_in({answers("#CGMM: " + std::string(128, 'm'))});
    EXPECT_EQ(get_model(open_device(), &record), -12);
    EXPECT_STREQ(record.model_name, "");
}

// ---- IMEI

TEST_F(GetImei, TakesTheLineBehindThePrefix)
{
    plug_in({imei});
    EXPECT_EQ(get_imei(open_device(), &record), 0);
    EXPECT_STREQ(record.imei, "351234567890123");
    EXPECT_EQ(commands(), texts{"AT#CGSN"});
}

TEST_F(GetImei, WaitsHalfASecondForAnAnswer)
{
    plug_in({imei});
    static_cast<void>(get_imei(open_device(), &record));
    ASSERT_FALSE(port.waits().empty());
    EXPECT_EQ(port.waits()[0], 500);
}

TEST_F(GetImei, TakesALineWithoutPrefix)
{
    plug_in({answers("351234567890123")});
    EXPECT_EQ(get_imei(open_device(), &record), 0);
    EXPECT_STREQ(record.imei, "351234567890123");
}

TEST_F(GetImei, FailsWhenItIsRefused)
{
    plug_in({extended_error});
    EXPECT_EQ(get_imei(open_device(), &record), -71);
    EXPECT_STREQ(record.imei, "");
}

TEST_F(GetImei, IsAskedThreeTimesOfAMuteModem)
{
    plug_in({mute, mute, mute});
    EXPECT_EQ(get_imei(open_device(), &record), -110);
    EXPECT_EQ(commands(), texts(3, "AT#CGSN"));
    EXPECT_EQ(port.waits(), (std::vector<int>{500, 500, 500}));
}

TEST_F(GetImei, FailsWithoutAnInformationLine)
{
    plug_in({ok});
    EXPECT_EQ(get_imei(open_device(), &record), -22);
}

TEST_F(GetImei, RefusesATextOf128Characters)
{
    plug_in({answers("#CGSN: " + std::string(128, '3'))});
    EXPECT_EQ(get_imei(open_device(), &record), -12);
}

// ---- versions

TEST_F(GetVersions, JoinsFourLines)
{
    plug_in({versions});
    EXPECT_EQ(get_swpkgv(open_device(), &record), 0);
    EXPECT_STREQ(record.versions, "49.01.102-P0F.1;M0F;P0F.2;A0F");
    EXPECT_EQ(commands(), texts{"AT#SWPKGV"});
}

TEST_F(GetVersions, WaitsHalfASecondForAnAnswer)
{
    plug_in({versions});
    static_cast<void>(get_swpkgv(open_device(), &record));
    ASSERT_FALSE(port.waits().empty());
    EXPECT_EQ(port.waits()[0], 500);
}

TEST_F(GetVersions, LogsThemTogether)
{
    log_capture log;
    plug_in({versions});
    static_cast<void>(get_swpkgv(open_device(), &record));
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(), "at#swpkgv: 49.01.102-P0F.1;M0F;P0F.2;A0F");
    EXPECT_EQ(log.messages().back().file, "../at_channel.c");
    EXPECT_EQ(log.messages().back().function, "get_swpkgv");
}

TEST_F(GetVersions, IgnoreAFifthLine)
{
    plug_in({answers("1\r\n2\r\n3\r\n4\r\n5")});
    EXPECT_EQ(get_swpkgv(open_device(), &record), 0);
    EXPECT_STREQ(record.versions, "1;2;3;4");
}

TEST_F(GetVersions, KeepTwoLinesOfAShortAnswer)
{
    plug_in({answers("49.01.102-P0F.1\r\nM0F")});
    EXPECT_EQ(get_swpkgv(open_device(), &record), -22);
    EXPECT_STREQ(record.versions, "49.01.102-P0F.1;M0F;");
}

TEST_F(GetVersions, AreNotLoggedForAShortAnswer)
{
    log_capture log;
    plug_in({answers("49.01.102-P0F.1\r\nM0F")});
    static_cast<void>(get_swpkgv(open_device(), &record));
    for (const std::string &text : log.texts(CORE_LOG_DBG))
        EXPECT_NE(text.substr(0, 10), "at#swpkgv:");
}

TEST_F(GetVersions, FailWithoutAnInformationLine)
{
    plug_in({ok});
    EXPECT_EQ(get_swpkgv(open_device(), &record), -22);
    EXPECT_STREQ(record.versions, "");
}

TEST_F(GetVersions, AreAppendedToWhatIsThere)
{
    plug_in({versions});
    strlcpy(record.versions, "old;", sizeof record.versions);
    EXPECT_EQ(get_swpkgv(open_device(), &record), 0);
    EXPECT_STREQ(record.versions, "old;49.01.102-P0F.1;M0F;P0F.2;A0F");
}

TEST_F(GetVersions, NeverExceedTheirField)
{
    plug_in({versions});
    const std::string old(1020, 'o');
    strlcpy(record.versions, old.c_str(), sizeof record.versions);
    EXPECT_EQ(get_swpkgv(open_device(), &record), 0);
    EXPECT_EQ(record.versions, old + "49.");
}

TEST_F(GetVersions, TakeALongLine)
{
    const std::string line(900, 'v');
    plug_in({answers(line + "\r\n2\r\n3\r\n4")});
    EXPECT_EQ(get_swpkgv(open_device(), &record), 0);
    EXPECT_EQ(record.versions, line + ";2;3;4");
}

TEST_F(GetVersions, FailWhenTheyAreRefused)
{
    plug_in({error});
    EXPECT_EQ(get_swpkgv(open_device(), &record), -71);
    EXPECT_STREQ(record.versions, "");
}

TEST_F(GetVersions, AreAskedThreeTimesOfAMuteModem)
{
    plug_in({mute, mute, mute});
    EXPECT_EQ(get_swpkgv(open_device(), &record), -110);
    EXPECT_EQ(commands(), texts(3, "AT#SWPKGV"));
    EXPECT_EQ(port.waits(), (std::vector<int>{500, 500, 500}));
}

// ---- handshake

TEST_F(AtHandshake, TurnsTheEchoOffAndReadsTheModel)
{
    plug_in({ok, model});
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_STREQ(record.model_name, "KA100");
    EXPECT_EQ(commands(), (texts{"ATE0", "AT#CGMM"}));
}

TEST_F(AtHandshake, LeavesTheDeviceOpen)
{
    plug_in({ok, model});
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_GE(device, 0);
    EXPECT_EQ(port.open_descriptors(), 1U);
}

TEST_F(AtHandshake, LogsThePath)
{
    log_capture log;
    plug_in({ok, model});
    static_cast<void>(at_handshake(port.path().c_str(), &device, &record));
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
    EXPECT_EQ(log.messages()[0].text, "device path: " + port.path());
    EXPECT_EQ(log.messages()[0].file, "../at_channel.c");
    EXPECT_EQ(log.messages()[0].function, "at_handshake");
}

namespace {

// Settings of the port as a terminal has them; the modem is not disturbed by these.
void unsettle(const std::string &path)
{
    const int port = open(path.c_str(), O_RDWR | O_NOCTTY);
    termios attributes{};
    ASSERT_EQ(tcgetattr(port, &attributes), 0);
    attributes.c_iflag |= IXON;
    attributes.c_cflag |= CRTSCTS;
    ASSERT_EQ(cfsetspeed(&attributes, B38400), 0);
    ASSERT_EQ(tcsetattr(port, TCSANOW, &attributes), 0);
    close(port);
}

termios settings_of(int device)
{
    termios attributes{};
    EXPECT_EQ(tcgetattr(device, &attributes), 0);
    return attributes;
}

} // namespace

TEST_F(AtHandshake, MakesThePortRawWithoutFlowControl)
{
    plug_in({ok, model});
    unsettle(port.path());
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_EQ(settings_of(device).c_iflag & IXON, 0U);
    EXPECT_EQ(settings_of(device).c_cflag & CRTSCTS, 0U);
}

TEST_F(AtHandshake, LeavesThePortOfAPcieModemAsItIs)
{
    plug_in({ok, model});
    record.is_pcie = true;
    unsettle(port.path());
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_NE(settings_of(device).c_iflag & IXON, 0U);
    EXPECT_NE(settings_of(device).c_cflag & CRTSCTS, 0U);
}

TEST_F(AtHandshake, RaisesDtrAndRts)
{
    port.modem_lines = TIOCM_CTS;
    plug_in({ok, model});
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_EQ(port.modem_lines_set, std::vector<int>{TIOCM_CTS | TIOCM_DTR | TIOCM_RTS});
}

TEST_F(AtHandshake, LeavesTheLinesOfAPcieModem)
{
    port.modem_lines = TIOCM_CTS;
    plug_in({ok, model});
    record.is_pcie = true;
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_TRUE(port.modem_lines_set.empty());
}

TEST_F(AtHandshake, SetsTheSpeedOfAPortOfTheCommandLine)
{
    plug_in({ok, model}, PROBING_PORT);
    unsettle(port.path());
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    const termios attributes = settings_of(device);
    EXPECT_EQ(cfgetispeed(&attributes), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetospeed(&attributes), static_cast<speed_t>(B115200));
}

TEST_F(AtHandshake, LeavesTheSpeedOfAPortOfTheBus)
{
    plug_in({ok, model}, PROBING_USB);
    unsettle(port.path());
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    const termios attributes = settings_of(device);
    EXPECT_EQ(cfgetospeed(&attributes), static_cast<speed_t>(B38400));
}

TEST_F(AtHandshake, GoesOnWithoutTheSpeed)
{
    log_capture log;
    plug_in({ok, model}, PROBING_PORT);
    libc::tcsetattr = libc::fails_in_call(2, EIO, tcsetattr);
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), 0);
    EXPECT_EQ(log.texts(CORE_LOG_WRN), texts{"unable to set baudrate"});
    EXPECT_STREQ(record.model_name, "KA100");
}

TEST_F(AtHandshake, ReportsAPortThatCannotBeOpened)
{
    log_capture log;
    EXPECT_EQ(at_handshake("/nonexistent/port", &device, &record), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to open device path /nonexistent/port");
    EXPECT_EQ(log.messages().back().function, "at_handshake");
}

TEST_F(AtHandshake, ReportsAPortThatCannotBeConfigured)
{
    log_capture log;
    plug_in({});
    libc::tcsetattr = libc::fails_in_call(1, EIO, tcsetattr);
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "unable to configure device");
    EXPECT_EQ(log.messages().back().function, "at_handshake");
    EXPECT_EQ(port.open_descriptors(), 0U);
}

TEST_F(AtHandshake, ReportsAnEchoThatStaysOn)
{
    log_capture log;
    plug_in(std::vector<modem_answer>(11, error));
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to turn off echo"});
    EXPECT_EQ(log.messages().back().function, "at_handshake");
}

TEST_F(AtHandshake, ClosesThePortAfterAnEchoThatStaysOn)
{
    const log_capture log;
    plug_in(std::vector<modem_answer>(11, error));
    static_cast<void>(at_handshake(port.path().c_str(), &device, &record));
    EXPECT_EQ(port.open_descriptors(), 0U);
}

TEST_F(AtHandshake, ReportsAMissingModel)
{
    log_capture log;
    plug_in({ok, error, error});
    EXPECT_EQ(at_handshake(port.path().c_str(), &device, &record), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"unable to get model name"});
}

TEST_F(AtHandshake, ClosesThePortAfterAMissingModel)
{
    const log_capture log;
    plug_in({ok, error, error});
    static_cast<void>(at_handshake(port.path().c_str(), &device, &record));
    EXPECT_EQ(port.open_descriptors(), 0U);
}

// ---- one modem

TEST_F(CollectBasicInformation, FillsTheRecordOfAModemOfTheBus)
{
    plug_in({ok, model, imei, versions});
    EXPECT_EQ(collect_modem_basic_information(&record, false), 0);
    EXPECT_STREQ(record.model_name, "KA100");
    EXPECT_STREQ(record.imei, "351234567890123");
    EXPECT_STREQ(record.versions, "49.01.102-P0F.1;M0F;P0F.2;A0F");
    EXPECT_STREQ(record.cfun, "");
}

TEST_F(CollectBasicInformation, AsksInOrder)
{
    plug_in({ok, model, imei, versions});
    static_cast<void>(collect_modem_basic_information(&record, false));
    EXPECT_EQ(commands(), (texts{"ATE0", "AT#CGMM", "AT#CGSN", "AT#SWPKGV"}));
}

TEST_F(CollectBasicInformation, AsksAModemOfTheCommandLineForItsModelOnly)
{
    plug_in({ok, model}, PROBING_PORT);
    EXPECT_EQ(collect_modem_basic_information(&record, false), 0);
    EXPECT_EQ(commands(), (texts{"ATE0", "AT#CGMM"}));
    EXPECT_STREQ(record.model_name, "KA100");
    EXPECT_STREQ(record.imei, "");
    EXPECT_STREQ(record.versions, "");
}

TEST_F(CollectBasicInformation, ClosesThePort)
{
    plug_in({ok, model, imei, versions});
    static_cast<void>(collect_modem_basic_information(&record, false));
    EXPECT_EQ(port.open_descriptors(), 0U);
}

TEST_F(CollectBasicInformation, ReportsNoErrorWhenAllIsWell)
{
    log_capture log;
    plug_in({ok, model, imei, versions});
    static_cast<void>(collect_modem_basic_information(&record, false));
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(CollectBasicInformation, DoesNothingWhenSkipped)
{
    log_capture log;
    plug_in({});
    EXPECT_EQ(collect_modem_basic_information(&record, true), 0);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(commands().empty());
}

TEST_F(CollectBasicInformation, NeedsNoAtPortWhenSkipped)
{
    EXPECT_EQ(collect_modem_basic_information(&record, true), 0);
}

TEST_F(CollectBasicInformation, NeedsAnAtPort)
{
    log_capture log;
    plug_in({});
    record.modem_port[0].port_type = PORT_DIAGNOSTIC;
    EXPECT_EQ(collect_modem_basic_information(&record, false), -19);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, "no AT port");
    EXPECT_EQ(log.messages()[0].function, "collect_modem_basic_information");
}

TEST_F(CollectBasicInformation, IgnoresAnAtPortBehindTheCount)
{
    plug_in({});
    record.modem_port_size = 0;
    EXPECT_EQ(collect_modem_basic_information(&record, false), -19);
}

TEST_F(CollectBasicInformation, TakesTheFirstAtPort)
{
    plug_in({ok, model}, PROBING_PORT);
    record.modem_port[2] = record.modem_port[0];
    record.modem_port[1] = record.modem_port[0];
    strlcpy(record.modem_port[2].port_name, "/nonexistent/second", sizeof record.modem_port[2].port_name);
    record.modem_port[0].port_type = PORT_DIAGNOSTIC;
    strlcpy(record.modem_port[0].port_name, "/nonexistent/diag", sizeof record.modem_port[0].port_name);
    record.modem_port_size = 3;
    EXPECT_EQ(collect_modem_basic_information(&record, false), 0);
    EXPECT_STREQ(record.model_name, "KA100");
}

TEST_F(CollectBasicInformation, ReportsAFailedHandshake)
{
    log_capture log;
    plug_in({});
    strlcpy(record.modem_port[0].port_name, "/nonexistent/port", sizeof record.modem_port[0].port_name);
    EXPECT_EQ(collect_modem_basic_information(&record, false), -2);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "fail to get AT command answer on port /nonexistent/port");
    EXPECT_EQ(log.messages().back().function, "collect_modem_basic_information");
}

TEST_F(CollectBasicInformation, StopsAtTheFirstFailedQuery)
{
    log_capture log;
    plug_in({ok, model, error});
    EXPECT_EQ(collect_modem_basic_information(&record, false), -71);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed command at index 0"});
    EXPECT_EQ(commands(), (texts{"ATE0", "AT#CGMM", "AT#CGSN"}));
}

TEST_F(CollectBasicInformation, CountsTheFailedQueryFromZero)
{
    log_capture log;
    plug_in({ok, model, imei, answers("49.01.102-P0F.1\r\nM0F")});
    EXPECT_EQ(collect_modem_basic_information(&record, false), -22);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"failed command at index 1"});
    EXPECT_EQ(log.messages().back().function, "collect_modem_basic_information");
}

TEST_F(CollectBasicInformation, KeepsWhatSucceededBeforeAFailure)
{
    plug_in({ok, model, imei, error});
    EXPECT_EQ(collect_modem_basic_information(&record, false), -71);
    EXPECT_STREQ(record.model_name, "KA100");
    EXPECT_STREQ(record.imei, "351234567890123");
    EXPECT_STREQ(record.versions, "");
}

TEST_F(CollectBasicInformation, ClosesThePortAfterAFailedQuery)
{
    plug_in({ok, model, error});
    static_cast<void>(collect_modem_basic_information(&record, false));
    EXPECT_EQ(port.open_descriptors(), 0U);
}

TEST_F(CollectBasicInformation, StopsWhenTheModemLeaves)
{
    log_capture log;
    plug_in({ok, model, leaves});
    EXPECT_EQ(collect_modem_basic_information(&record, false), -125);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "failed command at index 0");
    EXPECT_STREQ(record.model_name, "KA100");
}

// ---- all modems

namespace {

class CollectArray : public testing::Test {
  protected:
    // Puts a modem into the slot, on a port that answers by the script.
    void plug_in(size_t slot, const std::vector<modem_answer> &script)
    {
        answer_by(script, &ports[slot]);
        plug_in(slot, ports[slot].path(), PORT_AT);
    }
    void plug_in(size_t slot, const std::string &path, uint32_t type)
    {
        modem &m = modems[slot];
        m.probing_mode = PROBING_PORT;
        m.modem_port_size = 1;
        m.modem_port[0].port_type = type;
        strlcpy(m.modem_port[0].port_name, path.c_str(), sizeof m.modem_port[0].port_name);
    }
    int collect(uint8_t count = 8, bool skip = false)
    {
        return collect_modem_array_basic_information(modems.get(), count, skip);
    }

    std::unique_ptr<modem[]> modems = std::make_unique<modem[]>(8);
    scripted_port ports[8];
    log_capture log;
};

} // namespace

TEST_F(CollectArray, HasNoResultWithoutAModem)
{
    EXPECT_EQ(collect(), -22);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(CollectArray, HasNoResultWithoutAModemEvenWhenSkipped)
{
    EXPECT_EQ(collect(8, true), -22);
}

TEST_F(CollectArray, HasNoResultForNoRecords)
{
    EXPECT_EQ(collect(0), -22);
}

TEST_F(CollectArray, AsksEveryModem)
{
    plug_in(0, {ok, answers("#CGMM: KA100")});
    plug_in(3, {ok, answers("#CGMM: KB200")});
    EXPECT_EQ(collect(), 0);
    EXPECT_STREQ(modems[0].model_name, "KA100");
    EXPECT_STREQ(modems[3].model_name, "KB200");
}

TEST_F(CollectArray, StopsAtTheCount)
{
    plug_in(0, {ok, model});
    plug_in(1, "/nonexistent/port", PORT_AT);
    EXPECT_EQ(collect(1), 0);
}

TEST_F(CollectArray, PassesARecordThatIsNotInUse)
{
    plug_in(0, "/nonexistent/port", PORT_AT);
    modems[0].probing_mode = PROBING_UNKNOWN;
    plug_in(1, {ok, model});
    EXPECT_EQ(collect(), 0);
}

TEST_F(CollectArray, GoesOnBehindAModemWithoutAtPort)
{
    plug_in(0, "/nonexistent/diag", PORT_DIAGNOSTIC);
    plug_in(1, {ok, model});
    EXPECT_EQ(collect(), 0);
    EXPECT_STREQ(modems[1].model_name, "KA100");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"no AT port"});
}

TEST_F(CollectArray, ReportsALastModemWithoutAtPort)
{
    plug_in(0, {ok, model});
    plug_in(1, "/nonexistent/diag", PORT_DIAGNOSTIC);
    EXPECT_EQ(collect(), -19);
}

TEST_F(CollectArray, StopsAtAModemThatFails)
{
    plug_in(0, {ok, model});
    plug_in(2, "/nonexistent/port", PORT_AT);
    plug_in(3, {});
    EXPECT_EQ(collect(), -2);
    EXPECT_EQ(log.texts(CORE_LOG_DBG).back(),
              "unable to properly probe modem at index 2 or no AT ports found");
    EXPECT_EQ(log.messages().back().file, "../at_channel.c");
    EXPECT_EQ(log.messages().back().function, "collect_modem_array_basic_information");
    EXPECT_EQ(ports[3].written(), "");
}

TEST_F(CollectArray, OpensNothingWhenSkipped)
{
    plug_in(0, "/nonexistent/port", PORT_AT);
    plug_in(1, "/nonexistent/diag", PORT_DIAGNOSTIC);
    EXPECT_EQ(collect(8, true), 0);
    EXPECT_TRUE(log.messages().empty());
}
