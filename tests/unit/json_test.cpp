#include "json.hpp"

#include "core.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "zepho-json.hpp"

#include <gtest/gtest.h>
#include <regex>

namespace {

// What follows the time stamp of an event; empty when the line does not begin with one.
std::string after_timestamp(const std::string &line)
{
    static const std::regex stamp("^\\{\"timestamp\": \"[0-9]{10,}\\.[0-9]{9}\", ([^]*)$");
    std::smatch match;
    return std::regex_match(line, match, stamp) ? match[1].str() : "";
}

modem described(const char *model)
{
    modem m{};
    m.probing_mode = PROBING_USB;
    m.usb_id = {0xFFF0, 0x1001};
    strlcpy(m.usb_serial, "0123", sizeof m.usb_serial);
    strlcpy(m.dev_path, "/sys/1-2", sizeof m.dev_path);
    strlcpy(m.model_name, model, sizeof m.model_name);
    return m;
}

void add_port(modem *m, const char *name, uint32_t type)
{
    strlcpy(m->modem_port[m->modem_port_size].port_name, name, sizeof m->modem_port[0].port_name);
    m->modem_port[m->modem_port_size].port_type = type;
    ++m->modem_port_size;
}

class ModemDescription : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(setup_json_output());
        json_set_event(false);
    }
    void TearDown() override { core_log_set_pprint(CORE_LOG_PPRINT_PLAIN); }

    // The one event that describes the modems, without its time stamp.
    std::string describe(const std::vector<modem> &modems)
    {
        json_print_modems(modems.data(), static_cast<uint8_t>(modems.size()));
        EXPECT_EQ(print.lines().size(), 1U);
        return print.lines().empty() ? "" : after_timestamp(print.lines().back().text);
    }

    print_capture print;
};

} // namespace

TEST(SetupJsonOutput, SelectsTheJsonPrinter)
{
    EXPECT_FALSE(core_log_is_json());
    EXPECT_TRUE(setup_json_output());
    EXPECT_TRUE(core_log_is_json());
}

TEST(SetupJsonOutput, TurnsLogMessagesIntoObjects)
{
    const print_capture print;
    static_cast<void>(setup_json_output());
    core_log(CORE_LOG_INF, "../main.c", "main", 7, "ready\n");
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_EQ(after_timestamp(print.lines()[0].text),
              "\"type\": \"LOG\", \"severity\":\"INF\", \"file\": \"../main.c\", \"function\": \"main\", "
              "\"line\": 7, \"msg\": \"ready\"}\n");
}

// Nobody unsets it: it is empty in a process of its own, in which nobody has set it yet.
TEST(ModemEventDeathTest, IsEmptyBeforeItIsSet)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto print_to_standard_error = [] {
        static_cast<void>(core_log_set_output("/dev/stderr", true));
        const bool is_set_up = setup_json_output();
        const modem m = described("KA100");
        json_print_modems(&m, 1);
        core_deinit();
        exit(is_set_up ? 0 : 1);
    };
    EXPECT_EXIT(print_to_standard_error(), testing::ExitedWithCode(0),
                "^\\{\"timestamp\": \"[0-9.]*\", \"type\": \"\", \"modem\": \\[[^\n]*\n$");
}

TEST_F(ModemDescription, HoldsEveryField)
{
    modem m = described("KA100");
    strlcpy(m.imei, "356938035643809", sizeof m.imei);
    strlcpy(m.cfun, "1", sizeof m.cfun);
    strlcpy(m.versions, "49.01.102-P0F.010102;M0F;P0F;A0F", sizeof m.versions);
    add_port(&m, "/dev/ttyUSB0", PORT_DIAGNOSTIC);
    add_port(&m, "/dev/ttyUSB1", PORT_AT);
    EXPECT_EQ(
        describe({m}),
        "\"type\": \"ADD\", \"modem\": [{\"probing_mode\": \"usb\", \"vid\": \"0xFFF0\", \"pid\": \"0x1001\", "
        "\"dev_path\": \"/sys/1-2\", \"usb_serial\": \"0123\", \"model_name\": \"KA100\", "
        "\"imei\": \"356938035643809\", \"cfun\": \"1\", "
        "\"versions\": \"49.01.102-P0F.010102;M0F;P0F;A0F\", "
        "\"modem_port\": [{\"port_type\": \"diagnostic\", \"port_name\": \"/dev/ttyUSB0\"},"
        "{\"port_type\": \"AT\", \"port_name\": \"/dev/ttyUSB1\"}], \"modem_port_size\": 2}], "
        "\"modem_size\": 1}\n");
}

TEST_F(ModemDescription, WritesEmptyTextsAsNullAndNoPortsAsAnEmptyArray)
{
    modem m{};
    strlcpy(m.model_name, "QDL", sizeof m.model_name);
    EXPECT_EQ(
        describe({m}),
        "\"type\": \"ADD\", \"modem\": [{\"probing_mode\": \"unknown\", \"vid\": \"0x0000\", "
        "\"pid\": \"0x0000\", \"dev_path\": null, \"usb_serial\": null, \"model_name\": \"QDL\", "
        "\"imei\": null, \"cfun\": null, \"versions\": null, \"modem_port\": [], \"modem_port_size\": 0}], "
        "\"modem_size\": 1}\n");
}

TEST_F(ModemDescription, GoesOutAsInformation)
{
    describe({described("KA100")});
    EXPECT_EQ(print.lines()[0].level, CORE_LOG_INF);
}

TEST_F(ModemDescription, WritesIdentifiersWithFourDigits)
{
    modem m = described("QDL");
    m.usb_id = {0x05C6, 0x011A};
    EXPECT_NE(describe({m}).find("\"vid\": \"0x05C6\", \"pid\": \"0x011A\", "), std::string::npos);
}

TEST_F(ModemDescription, NamesAPortOfTheCommandLine)
{
    modem m = described("KA100");
    m.probing_mode = PROBING_PORT;
    EXPECT_NE(describe({m}).find("[{\"probing_mode\": \"port\", "), std::string::npos);
}

TEST_F(ModemDescription, NamesTheOtherPortTypes)
{
    modem m = described("QDL");
    add_port(&m, "/dev/wwan0firehose0", PORT_FIRMWARE_UPDATE);
    add_port(&m, "/dev/wwan0mbim0", PORT_UNKNOWN);
    EXPECT_NE(describe({m}).find("\"modem_port\": [{\"port_type\": \"firmware update\", \"port_name\": "
                                 "\"/dev/wwan0firehose0\"},{\"port_type\": \"unknown\", \"port_name\": "
                                 "\"/dev/wwan0mbim0\"}], \"modem_port_size\": 2}"),
              std::string::npos);
}

TEST_F(ModemDescription, WritesAPortWithoutANameAsNull)
{
    modem m = described("KA100");
    add_port(&m, "", PORT_UNKNOWN);
    EXPECT_NE(describe({m}).find("\"modem_port\": [{\"port_type\": \"unknown\", \"port_name\": null}], "
                                 "\"modem_port_size\": 1}"),
              std::string::npos);
}

TEST_F(ModemDescription, TellsOfARemoval)
{
    json_set_event(true);
    EXPECT_EQ(describe({described("KA100")}).substr(0, 28), "\"type\": \"REMOVE\", \"modem\": [");
}

TEST_F(ModemDescription, TellsOfTheLatestEvent)
{
    json_set_event(true);
    json_set_event(false);
    EXPECT_EQ(describe({described("KA100")}).substr(0, 25), "\"type\": \"ADD\", \"modem\": [");
}

TEST_F(ModemDescription, ListsEveryModem)
{
    const std::string text = describe({described("KA100"), described("KB200")});
    const std::string first = "{\"probing_mode\": \"usb\", \"vid\": \"0xFFF0\", \"pid\": \"0x1001\", "
                              "\"dev_path\": \"/sys/1-2\", \"usb_serial\": \"0123\", \"model_name\": \"";
    const std::string rest = "\", \"imei\": null, \"cfun\": null, \"versions\": null, \"modem_port\": [], "
                             "\"modem_port_size\": 0}";
    EXPECT_EQ(text, "\"type\": \"ADD\", \"modem\": [" + first + "KA100" + rest + "," + first + "KB200" +
                        rest + "], \"modem_size\": 2}\n");
}

TEST_F(ModemDescription, LeavesOutAModemWithoutAModelName)
{
    const std::string text = describe({described(""), described("KB200"), modem{}});
    EXPECT_NE(text.find("\"model_name\": \"KB200\""), std::string::npos);
    EXPECT_NE(text.find("], \"modem_size\": 1}\n"), std::string::npos);
}

TEST_F(ModemDescription, IsNotPrintedWithoutAModel)
{
    const std::vector<modem> modems = {described(""), modem{}};
    json_print_modems(modems.data(), 2);
    EXPECT_TRUE(print.lines().empty());
}

TEST_F(ModemDescription, LooksAtTheGivenCountOnly)
{
    const std::vector<modem> modems = {described(""), described("KB200")};
    json_print_modems(modems.data(), 1);
    EXPECT_TRUE(print.lines().empty());
}

TEST_F(ModemDescription, KeepsNothingOfTheOneBefore)
{
    modem m = described("KA100");
    add_port(&m, "/dev/ttyUSB0", PORT_DIAGNOSTIC);
    describe({m, m});
    print.clear();
    const std::string text = describe({described("KB200")});
    EXPECT_EQ(text.find("KA100"), std::string::npos);
    EXPECT_NE(text.find("\"modem_port\": [], \"modem_port_size\": 0}], \"modem_size\": 1}\n"),
              std::string::npos);
}

TEST_F(ModemDescription, EscapesItsTexts)
{
    modem m = described("K\"A\\1\x01\xFF");
    EXPECT_NE(describe({m}).find("\"model_name\": \"K\\\"A\\\\1\\u0001\xEF\xBF\xBD\", "), std::string::npos);
}

TEST_F(ModemDescription, HoldsEightModemsWithShortTexts)
{
    std::vector<modem> modems(8);
    for (modem &m : modems)
        m = described("KA100");
    const std::string text = describe(modems);
    EXPECT_NE(text.find("], \"modem_size\": 8}\n"), std::string::npos);
}

TEST_F(ModemDescription, DescribesEightModemsAtMost)
{
    std::vector<modem> modems(9);
    for (modem &m : modems)
        m = described("KA100");
    EXPECT_NE(describe(modems).find("], \"modem_size\": 8}\n"), std::string::npos);
}

TEST_F(ModemDescription, DropsATextThatIsTooLongAndWhatFollowsIt)
{
    modem m = described("KA100");
    memset(m.versions, 'v', 600); // a key and its value take 546 bytes at most
    json_print_modems(&m, 1);
    ASSERT_EQ(print.lines().size(), 2U);
    EXPECT_NE(print.lines()[0].text.find("\"severity\":\"ERR\""), std::string::npos);
    EXPECT_NE(print.lines()[0].text.find("\"msg\": \"truncated message\"}\n"), std::string::npos);
    EXPECT_EQ(
        after_timestamp(print.lines()[1].text),
        "\"type\": \"ADD\", \"modem\": [{\"probing_mode\": \"usb\", \"vid\": \"0xFFF0\", \"pid\": \"0x1001\", "
        "\"dev_path\": \"/sys/1-2\", \"usb_serial\": \"0123\", \"model_name\": \"KA100\", \"imei\": null, "
        "\"cfun\": null}], \"modem_size\": 1}\n");
}

TEST_F(ModemDescription, IsDroppedWhenTheModemsDoNotFit)
{
    std::vector<modem> modems(8);
    for (modem &m : modems) {
        m = described("KA100");
        for (int i = 0; i < 7; ++i)
            add_port(&m, "/dev/serial/by/path/port0", PORT_FIRMWARE_UPDATE);
    }
    json_print_modems(modems.data(), 8);
    ASSERT_EQ(print.lines().size(), 1U);
    EXPECT_NE(print.lines()[0].text.find("\"msg\": \"unable to compose array entry 0\"}\n"),
              std::string::npos);
}
