#include "core-usb-id.hpp"
#include "core-usb-wait.hpp"

#include "core.hpp"
#include "fake_discovery.hpp"
#include "log_capture.hpp"
#include "virtual-time.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

using strings = std::vector<std::string>;

struct id_row {
    const char *name;
    const char *vid;
    const char *pid;
    uint32_t vid_value;
    uint32_t pid_value;
};

static void PrintTo(const id_row &row, std::ostream *out)
{
    *out << row.vid << ":" << row.pid;
}

class ParsedId : public testing::TestWithParam<id_row> {};

TEST_P(ParsedId, HasTheValues)
{
    const log_capture log;
    core_usb_id id{};
    EXPECT_TRUE(core_usb_id_from_str(&id, GetParam().vid, GetParam().pid));
    EXPECT_EQ(id.vid, GetParam().vid_value);
    EXPECT_EQ(id.pid, GetParam().pid_value);
    EXPECT_TRUE(log.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Table, ParsedId,
                         testing::Values(id_row{"lower_case", "05c6", "9008", 0x05C6, 0x9008},
                                         id_row{"upper_case", "05C6", "9008", 0x05C6, 0x9008},
                                         id_row{"prefix", "0x05c6", "0X9008", 0x05C6, 0x9008},
                                         id_row{"smallest", "1", "0001", 1, 1},
                                         id_row{"largest", "FFFF", "0xffff", 0xFFFF, 0xFFFF},
                                         id_row{"leading_zeroes", "0000000005c6", "009008", 0x05C6, 0x9008}),
                         [](const auto &row) { return std::string(row.param.name); });

struct refused_id_row {
    const char *name;
    const char *vid;
    const char *pid;
    const char *message;
};

static void PrintTo(const refused_id_row &row, std::ostream *out)
{
    *out << row.name;
}

class RefusedId : public testing::TestWithParam<refused_id_row> {};

TEST_P(RefusedId, HasItsMessage)
{
    const log_capture log;
    core_usb_id id{};
    EXPECT_FALSE(core_usb_id_from_str(&id, GetParam().vid, GetParam().pid));
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_ERR);
    EXPECT_EQ(log.messages()[0].text, GetParam().message);
    EXPECT_EQ(log.messages()[0].file, "core-usb-id.c");
    EXPECT_EQ(log.messages()[0].function, "core_usb_id_from_str");
}

#define VID_RANGE(text) "could not convert vendor id " text ", value is out of range (1, 0xFFFF)\n"
#define PID_RANGE(text) "could not convert product id " text ", value is out of range (1, 0xFFFF)\n"

INSTANTIATE_TEST_SUITE_P(
    Table, RefusedId,
    testing::Values(refused_id_row{"vid_blank_behind", "05c6 ", "9008", "Invalid vid string\n"},
                    refused_id_row{"vid_line_end", "05c6\n", "9008", "Invalid vid string\n"},
                    refused_id_row{"vid_no_number", "modem", "9008", "Invalid vid string\n"},
                    refused_id_row{"vid_prefix_only", "0x", "9008", "Invalid vid string\n"},
                    refused_id_row{"vid_zero", "0", "9008", VID_RANGE("0")},
                    refused_id_row{"vid_empty", "", "9008", VID_RANGE("")},
                    refused_id_row{"vid_too_large", "10000", "9008", VID_RANGE("10000")},
                    refused_id_row{"vid_negative", "-1", "9008", VID_RANGE("-1")},
                    refused_id_row{"vid_beyond_a_long", "fffffffffffffffff", "9008",
                                   VID_RANGE("fffffffffffffffff")},
                    refused_id_row{"pid_blank_behind", "05c6", "9008 ", "Invalid pid string\n"},
                    refused_id_row{"pid_no_number", "05c6", "90g8", "Invalid pid string\n"},
                    refused_id_row{"pid_zero", "05c6", "0000", PID_RANGE("0000")},
                    refused_id_row{"pid_empty", "05c6", "", PID_RANGE("")},
                    refused_id_row{"pid_too_large", "05c6", "10000", PID_RANGE("10000")},
                    refused_id_row{"vid_before_pid", "x", "y", "Invalid vid string\n"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST(IdFromText, RefusesANullVendorSilently)
{
    const log_capture log;
    core_usb_id id{7, 8};
    EXPECT_FALSE(core_usb_id_from_str(&id, nullptr, "9008"));
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(id.vid, 7U);
}

TEST(IdFromText, RefusesANullProductSilently)
{
    const log_capture log;
    core_usb_id id{7, 8};
    EXPECT_FALSE(core_usb_id_from_str(&id, "05c6", nullptr));
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(id.vid, 7U);
}

TEST(IdFromText, LeavesTheProductWhenItFails)
{
    core_usb_id id{7, 8};
    EXPECT_FALSE(core_usb_id_from_str(&id, "05c6", "0"));
    EXPECT_EQ(id.pid, 8U);
}

TEST(IdFromText, LeavesBothWhenTheVendorFails)
{
    core_usb_id id{7, 8};
    EXPECT_FALSE(core_usb_id_from_str(&id, "0", "9008"));
    EXPECT_EQ(id.vid, 7U);
    EXPECT_EQ(id.pid, 8U);
}

TEST(IdIsEmpty, WithAZeroOnEitherSide)
{
    const core_usb_id full{1, 1};
    const core_usb_id no_vid{0, 1};
    const core_usb_id no_pid{1, 0};
    const core_usb_id nothing{0, 0};
    EXPECT_FALSE(core_usb_id_is_empty(&full));
    EXPECT_TRUE(core_usb_id_is_empty(&no_vid));
    EXPECT_TRUE(core_usb_id_is_empty(&no_pid));
    EXPECT_TRUE(core_usb_id_is_empty(&nothing));
}

TEST(IdEquals, ComparesBothValues)
{
    const core_usb_id id{1, 2};
    const core_usb_id same{1, 2};
    const core_usb_id other_vid{2, 2};
    const core_usb_id other_pid{1, 1};
    EXPECT_TRUE(core_usb_id_equals(&id, &same));
    EXPECT_FALSE(core_usb_id_equals(&id, &other_vid));
    EXPECT_FALSE(core_usb_id_equals(&id, &other_pid));
}

static constexpr core_usb_id download{0x05C6, 0x9008};
static constexpr core_usb_id diagnostic{0x05C6, 0x900E};

TEST(FindMatch, FindsTheFirstEntry)
{
    const core_usb_id ids[] = {download, diagnostic};
    const core_usb_id_list list{2, ids};
    const core_device_info info = make_device("05c6", "9008", {});
    EXPECT_TRUE(core_usb_id_find_match(&info, &list));
}

TEST(FindMatch, FindsTheLastEntry)
{
    const core_usb_id ids[] = {diagnostic, download};
    const core_usb_id_list list{2, ids};
    const core_device_info info = make_device("05C6", "9008", {});
    EXPECT_TRUE(core_usb_id_find_match(&info, &list));
}

TEST(FindMatch, WantsBothValues)
{
    const core_usb_id ids[] = {diagnostic, {0x1BC7, 0x9008}};
    const core_usb_id_list list{2, ids};
    const core_device_info info = make_device("05c6", "9008", {});
    EXPECT_FALSE(core_usb_id_find_match(&info, &list));
}

TEST(FindMatch, FindsNothingInAnEmptyList)
{
    const core_usb_id ids[] = {download};
    const core_usb_id_list list{0, ids};
    const core_device_info info = make_device("05c6", "9008", {});
    EXPECT_FALSE(core_usb_id_find_match(&info, &list));
}

TEST(FindMatch, LooksThroughAListOf255)
{
    std::vector<core_usb_id> ids(255, diagnostic);
    ids[254] = download;
    const core_usb_id_list list{255, ids.data()};
    const core_device_info info = make_device("05c6", "9008", {});
    EXPECT_TRUE(core_usb_id_find_match(&info, &list));
}

TEST(FindMatch, ReportsTextsThatDoNotParse)
{
    const log_capture log;
    const core_usb_id_list list{1, &download};
    const core_device_info info = make_device("05c6", "", {});
    EXPECT_FALSE(core_usb_id_find_match(&info, &list));
    EXPECT_EQ(log.texts(CORE_LOG_ERR), (strings{PID_RANGE(""), "could not get vid/pid from devinfo\n"}));
    EXPECT_EQ(log.messages().back().function, "core_usb_id_find_match");
}

namespace {

class ConnectedDevice : public testing::Test {
  protected:
    ConnectedDevice() { fake_discovery::instance().reset(); }

    // The platform answers a question with this result, and on success with this device.
    static void answer(int result, const char *vid = "05c6", const char *pid = "9008")
    {
        enumerate_answer next{result, {}};
        if (result == 0)
            next.devices.push_back(make_device(vid, pid, {}));
        fake_discovery::instance().enumerations.push_back(next);
    }

    static const std::vector<std::vector<core_usb_id>> &questions()
    {
        return fake_discovery::instance().enumerated;
    }

    const core_usb_id ids[2] = {download, diagnostic};
    const core_usb_id_list list{2, ids};
    core_device_info info{};
    log_capture log;
};

} // namespace

TEST_F(ConnectedDevice, OfAnEmptyListIsMissing)
{
    const core_usb_id_list empty{0, nullptr};
    EXPECT_EQ(core_usb_id_get_device_if_connected(&empty, &info), -19);
    EXPECT_TRUE(questions().empty());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConnectedDevice, IsTheFirstInListOrder)
{
    answer(0);
    EXPECT_EQ(core_usb_id_get_device_if_connected(&list, &info), 0);
    EXPECT_STREQ(info.pid, "9008");
    ASSERT_EQ(questions().size(), 1U);
    ASSERT_EQ(questions()[0].size(), 1U);
    EXPECT_EQ(questions()[0][0].pid, 0x9008U);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"looking for device 1/2: 0x05C6:0x9008\n"});
}

TEST_F(ConnectedDevice, MayBeALaterOne)
{
    answer(-19);
    answer(0, "05c6", "900e");
    EXPECT_EQ(core_usb_id_get_device_if_connected(&list, &info), 0);
    EXPECT_STREQ(info.pid, "900e");
    EXPECT_EQ(log.texts(CORE_LOG_DBG),
              (strings{"looking for device 1/2: 0x05C6:0x9008\n", "device not found\n",
                       "looking for device 2/2: 0x05C6:0x900E\n"}));
}

TEST_F(ConnectedDevice, GivesTheLastResultWhenNoneIsThere)
{
    answer(-5);
    answer(-19);
    EXPECT_EQ(core_usb_id_get_device_if_connected(&list, &info), -19);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "device not found\n"), 2);
}

TEST_F(ConnectedDevice, StopsAtOnceWhereThePlatformCannotEnumerate)
{
    answer(-100);
    EXPECT_EQ(core_usb_id_get_device_if_connected(&list, &info), -100);
    EXPECT_EQ(questions().size(), 1U);
    ASSERT_EQ(log.messages().size(), 1U);
    EXPECT_EQ(log.messages()[0].text, "looking for device 1/2: 0x05C6:0x9008\n");
    EXPECT_EQ(log.messages()[0].level, CORE_LOG_DBG);
}

TEST_F(ConnectedDevice, ClearsTheRecordBeforeEachQuestion)
{
    strlcpy(info.serial, "old", sizeof info.serial);
    answer(-19);
    answer(-19);
    static_cast<void>(core_usb_id_get_device_if_connected(&list, &info));
    EXPECT_STREQ(info.serial, "");
}

namespace {

class WaitForDevices : public ConnectedDevice {
  protected:
    static void event(int result, core_usb_id id = download, bool removed = false)
    {
        listen_answer next;
        next.result = result;
        next.event.id = id;
        next.event.removed = removed;
        fake_discovery::instance().events.push_back(next);
    }

    static size_t waits() { return fake_discovery::instance().listened.size(); }
};

} // namespace

TEST_F(WaitForDevices, EndsAtOnceWhenOneIsConnected)
{
    answer(0);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), 0);
    EXPECT_EQ(waits(), 0U);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(WaitForDevices, AsksForAllIdentifiersAtOnce)
{
    answer(0);
    static_cast<void>(core_usb_id_wait_for_devices(&list));
    ASSERT_EQ(questions().size(), 1U);
    ASSERT_EQ(questions()[0].size(), 2U);
    EXPECT_EQ(questions()[0][0].pid, 0x9008U);
    EXPECT_EQ(questions()[0][1].pid, 0x900EU);
}

TEST_F(WaitForDevices, EndsAtOnceWhereThePlatformCannotEnumerate)
{
    answer(-100);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -100);
    EXPECT_EQ(waits(), 0U);
}

TEST_F(WaitForDevices, WaitsForAnAttachWithoutATimeOut)
{
    answer(-19);
    event(0);
    answer(0);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), 0);
    EXPECT_EQ(fake_discovery::instance().listened, std::vector<int>{-1});
    EXPECT_EQ(log.texts(CORE_LOG_INF),
              strings{"no device connected yet. Waiting for a device to connect...\n"});
    EXPECT_EQ(log.texts(CORE_LOG_DBG), strings{"USB attach from device 05C6:9008\n"});
}

TEST_F(WaitForDevices, AsksForTheAttachedDeviceOnly)
{
    answer(-19);
    event(0, diagnostic);
    answer(0, "05c6", "900e");
    static_cast<void>(core_usb_id_wait_for_devices(&list));
    ASSERT_EQ(questions().size(), 2U);
    ASSERT_EQ(questions()[1].size(), 1U);
    EXPECT_EQ(questions()[1][0].pid, 0x900EU);
}

TEST_F(WaitForDevices, ReportsAListenerThatFails)
{
    answer(-19);
    event(-5);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"event listener error -5\n"});
    EXPECT_EQ(log.messages().back().function, "core_usb_id_wait_for_devices");
}

TEST_F(WaitForDevices, ReportsAPlatformThatCannotListen)
{
    answer(-19);
    event(-100);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -100);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), strings{"event listener error -100\n"});
}

TEST_F(WaitForDevices, TakesATimeOutOfTheListenerSilently)
{
    answer(-19);
    event(-110);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -110);
    EXPECT_TRUE(log.texts(CORE_LOG_ERR).empty());
}

TEST_F(WaitForDevices, TriesAgainUntilTheAttachedDeviceIsReady)
{
    answer(-19);
    event(0);
    answer(-19);
    answer(-19);
    answer(0);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), 0);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "no device found, maybe not ready yet. Retrying after 1000ms...\n"), 2);
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000}));
}

TEST_F(WaitForDevices, GivesUpAfterThreeMoreTries)
{
    answer(-19);
    event(0);
    answer(-19);
    answer(-19);
    answer(-19);
    answer(-16);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -16);
    EXPECT_EQ(questions().size(), 5U);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "no device found, maybe not ready yet. Retrying after 1000ms...\n"), 3);
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000, 1000}));
}

TEST_F(WaitForDevices, LogsItsTriesUnderItsName)
{
    answer(-19);
    event(0);
    answer(-19);
    answer(0);
    static_cast<void>(core_usb_id_wait_for_devices(&list));
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(log.messages().back().text, "no device found, maybe not ready yet. Retrying after 1000ms...\n");
    EXPECT_EQ(log.messages().back().file, "core-usb-id.c");
    EXPECT_EQ(log.messages().back().function, "core_usb_id_wait_for_devices");
}

TEST_F(WaitForDevices, WaitsOnWhenADeviceLeaves)
{
    answer(-19);
    event(0, download, true);
    event(0);
    answer(0);
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), 0);
    EXPECT_EQ(waits(), 2U);
    EXPECT_EQ(log.count(CORE_LOG_DBG, "USB attach from device 05C6:9008\n"), 1);
}

TEST_F(WaitForDevices, EndsWithSigintWhenADeviceLeaves)
{
    answer(-19);
    event(0, download, true);
    fake_discovery::instance().events[0].before = [] { core_signal_handler(SIGINT); };
    EXPECT_EQ(core_usb_id_wait_for_devices(&list), -19);
    EXPECT_EQ(waits(), 1U);
}
