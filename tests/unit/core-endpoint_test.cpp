#include "core-endpoint.hpp"

#include "core-device.hpp"
#include "core.hpp"
#include "fake_libusb.hpp"
#include "log-output.hpp"
#include "log_capture.hpp"
#include "pty.hpp"
#include "temp_dir.hpp"

#include <climits>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libusb.h>
#include <poll.h>
#include <unistd.h>

using texts = std::vector<std::string>;

namespace {

core_device_info device_info(const char *vid, const char *pid, const char *name = "")
{
    core_device_info info{};
    strlcpy(info.vid, vid, sizeof info.vid);
    strlcpy(info.pid, pid, sizeof info.pid);
    strlcpy(info.name, name, sizeof info.name);
    return info;
}

const core_device_info qdl = device_info("05c6", "9008");

fake_device bulk_device(uint16_t packet_size = 512)
{
    return {.vid = 0x05C6,
            .pid = 0x9008,
            .bus = 1,
            .ports = {2, 3},
            .interfaces = {{.number = 0, .settings = {{{0x81, 2, packet_size}, {0x01, 2, packet_size}}}}}};
}

class Endpoint : public ::testing::Test {
  protected:
    void SetUp() override { fake.reset(); }
    void TearDown() override
    {
        if (ep.handle != nullptr || ep.context != nullptr)
            endpoint_close(&ep);
        fake.verify();
    }

    void open(const fake_device &device)
    {
        fake.devices = {device};
        ASSERT_EQ(endpoint_open(&qdl, &ep), 0);
        fake.calls.clear();
    }

    // A record as left behind by something else.
    static core_endpoint garbage()
    {
        core_endpoint record{};
        record.interface = 7;
        record.in_endpoint = 0x8F;
        record.out_endpoint = 0x0F;
        record.max_packet_size = 9;
        return record;
    }

    void expect_closed() const
    {
        EXPECT_EQ(ep.handle, nullptr);
        EXPECT_EQ(ep.context, nullptr);
        EXPECT_EQ(fake.open_handles, 0);
        EXPECT_EQ(fake.open_contexts, 0);
    }

    fake_libusb &fake = fake_libusb::instance();
    log_capture log;
    core_endpoint ep = garbage();
    int moved = -1;
};

// One name for each function's tests.
class EndpointOpen : public Endpoint {};
class InterfaceOpen : public Endpoint {};
class EndpointClose : public Endpoint {};
class EndpointTransfer : public Endpoint {};

class EndpointTake : public Endpoint {
  protected:
    int take(unsigned timeout_ms = 25)
    {
        return core_usb_endpoint_take(&ep, answer, sizeof answer, timeout_ms, &moved);
    }

    char answer[16] = {};
};

class SystemName : public Endpoint {
  protected:
    // The name of a device on `bus` behind `ports`, in a buffer of `size` bytes.
    std::string name_of(uint8_t bus, const std::vector<uint8_t> &ports, size_t size = 64,
                        bool overflow = false)
    {
        fake.devices = {
            {.vid = 1, .pid = 1, .bus = bus, .ports = ports, .interfaces = {}, .port_overflow = overflow}};
        libusb_device **list = nullptr;
        libusb_get_device_list(nullptr, &list);
        std::vector<char> buffer(size, 'x');
        length = get_sys_name(buffer.data(), size, list[0]);
        libusb_free_device_list(list, 1);
        return std::string(buffer.data(), static_cast<size_t>(length));
    }

    int length = -1;
};

} // namespace

TEST_F(SystemName, HasBusAndPorts)
{
    EXPECT_EQ(name_of(1, {2, 3}), "1-2.3");
    EXPECT_EQ(length, 5);
}

TEST_F(SystemName, HasOnePortBehindTheRootHub)
{
    EXPECT_EQ(name_of(12, {4}), "12-4");
}

TEST_F(SystemName, HasSevenLevelsAtMost)
{
    EXPECT_EQ(name_of(1, {1, 2, 3, 4, 5, 6, 255}), "1-1.2.3.4.5.6.255");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(SystemName, OfARootHubIsItsBus)
{
    EXPECT_EQ(name_of(2, {}), "usb2");
    EXPECT_EQ(length, 4);
}

TEST_F(SystemName, IsEmptyBeyondSevenLevels)
{
    EXPECT_EQ(name_of(1, {1}, 64, true), "");
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"libusb_get_port_numbers error: Array is too small (7)\n"});
}

TEST_F(SystemName, IsEmptyInABufferTooSmallForTheBus)
{
    EXPECT_EQ(name_of(100, {2}, 4), "");
}

TEST_F(SystemName, IsEmptyInABufferTooSmallForThePorts)
{
    EXPECT_EQ(name_of(1, {2, 3}, 5), ""); // "1-2.3" needs six bytes
}

TEST_F(SystemName, FitsABufferOfExactlyItsSize)
{
    EXPECT_EQ(name_of(1, {2, 3}, 6), "1-2.3");
}

TEST_F(EndpointOpen, RefusesAnEmptyProductIdWithoutTouchingLibusb)
{
    const core_device_info info = device_info("05c6", "");
    EXPECT_EQ(endpoint_open(&info, &ep), -22);
    EXPECT_EQ(fake.calls, texts{});
    expect_closed();
}

TEST_F(EndpointOpen, RefusesAnEmptyVendorIdWithoutTouchingLibusb)
{
    const core_device_info info = device_info("", "9008");
    EXPECT_EQ(endpoint_open(&info, &ep), -22);
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(EndpointOpen, LeavesAClosedRecordBehindEvenWhenTheIdentifierIsEmpty)
{
    ep.handle = reinterpret_cast<libusb_device_handle *>(&ep); // stale, never to be closed
    ep.context = reinterpret_cast<libusb_context *>(&ep);
    const core_device_info info = device_info("05c6", "");
    EXPECT_EQ(endpoint_open(&info, &ep), -22);
    const bool closed = ep.handle == nullptr && ep.context == nullptr;
    EXPECT_TRUE(closed);
    ep.handle = nullptr;
    ep.context = nullptr;
}

TEST_F(EndpointOpen, RefusesAnIdentifierThatDoesNotParse)
{
    const core_device_info info = device_info("05c6", "9o08");
    EXPECT_EQ(endpoint_open(&info, &ep), -102);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "could not convert 05c6:9o08\n"));
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(EndpointOpen, LogsAsItsSourceFile)
{
    const core_device_info info = device_info("05c6", "9o08");
    static_cast<void>(endpoint_open(&info, &ep));
    EXPECT_EQ(log.messages().back().file, "core-endpoint.c");
    EXPECT_EQ(log.messages().back().function, "endpoint_open");
}

TEST_F(EndpointOpen, StartsLibusbWithLogLevelThreeAndOpensByIdentifier)
{
    fake.devices = {bulk_device()};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "open 05c6:9008"}));
}

TEST_F(EndpointOpen, KeepsLibusbSilentWhereEveryLineIsJson)
{
    core_log_set_pprint(CORE_LOG_PPRINT_JSON);
    fake.devices = {bulk_device()};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(fake.calls[1], "option 0");
}

TEST_F(EndpointOpen, TakesTheEndpointsOfBothDirections)
{
    fake.devices = {bulk_device(1024)};
    fake.devices[0].interfaces[0].number = 4;
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(ep.interface, 4);
    EXPECT_EQ(ep.in_endpoint, 0x81);
    EXPECT_EQ(ep.out_endpoint, 0x01);
    EXPECT_EQ(ep.max_packet_size, 1024);
    EXPECT_NE(ep.handle, nullptr);
    EXPECT_NE(ep.context, nullptr);
}

TEST_F(EndpointOpen, PassesOnThatLibusbDoesNotStart)
{
    fake.init_result = LIBUSB_ERROR_OTHER;
    EXPECT_EQ(endpoint_open(&qdl, &ep), -99);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).size(), 1U);
    expect_closed();
}

TEST_F(EndpointOpen, ReportsADeviceThatIsNotThere)
{
    EXPECT_EQ(endpoint_open(&qdl, &ep), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not open device 0x05C6:0x9008\n"});
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "open 05c6:9008", "exit"}));
    expect_closed();
}

TEST_F(EndpointOpen, FindsADeviceByTheEndOfItsPath)
{
    fake.devices = {{.vid = 0x1D6B, .pid = 2, .bus = 1, .ports = {}, .interfaces = {}}, bulk_device()};
    const core_device_info info = device_info("05c6", "9008", "/sys/bus/usb/devices/1-2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), 0);
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "list", "open 05c6:9008", "free list 1"}));
    EXPECT_EQ(ep.in_endpoint, 0x81);
}

TEST_F(EndpointOpen, TakesTheFirstDeviceInListOrderThatTheWholePathEndsIn)
{
    fake_device first = bulk_device();
    first.pid = 0x1111;
    fake_device second = bulk_device();
    second.pid = 0x2222;
    fake.devices = {first, second};
    const core_device_info info = device_info("05c6", "9008", "1-2.3"); // the name alone, nothing before it
    EXPECT_EQ(endpoint_open(&info, &ep), 0);
    EXPECT_EQ(fake.calls[3], "open 05c6:1111");
}

TEST_F(EndpointOpen, ComparesThePathAsPlainText)
{
    fake.devices = {bulk_device()};
    const core_device_info info = device_info("05c6", "9008", "/sys/bus/usb/devices/11-2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), 0);
}

TEST_F(EndpointOpen, NeverMatchesAPathShorterThanTheName)
{
    fake.devices = {bulk_device()};
    const core_device_info info = device_info("05c6", "9008", "2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"Device not found\n"});
    expect_closed();
}

TEST_F(EndpointOpen, SkipsADeviceWithoutASystemName)
{
    fake_device deep = bulk_device();
    deep.port_overflow = true;
    fake.devices = {deep};
    const core_device_info info = device_info("05c6", "9008", "/sys/bus/usb/devices/1-2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).back(), "Device not found\n");
}

TEST_F(EndpointOpen, ReportsADeviceListThatFails)
{
    fake.device_list_result = LIBUSB_ERROR_NO_MEM;
    const core_device_info info = device_info("05c6", "9008", "1-2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not find any flashing devices\n"});
    expect_closed();
}

TEST_F(EndpointOpen, FreesTheListOfAListedDeviceThatDoesNotOpen)
{
    fake.devices = {bulk_device()};
    fake.devices[0].open_result = LIBUSB_ERROR_ACCESS;
    const core_device_info info = device_info("05c6", "9008", "1-2.3");
    EXPECT_EQ(endpoint_open(&info, &ep), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not open device 0x05C6:0x9008\n"});
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "list", "open 05c6:9008", "free list 1", "exit"}));
    expect_closed();
}

TEST_F(EndpointOpen, ReportsAHandleWithoutADevice)
{
    fake.devices = {bulk_device()};
    fake.no_device_of_handle = true;
    EXPECT_EQ(endpoint_open(&qdl, &ep), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not get device handle\n"});
    expect_closed();
}

TEST_F(EndpointOpen, PassesOnThatThereIsNoConfiguration)
{
    fake.devices = {bulk_device()};
    fake.devices[0].config_result = LIBUSB_ERROR_NOT_FOUND;
    EXPECT_EQ(endpoint_open(&qdl, &ep), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not get active configuration descriptor: error -5\n"});
    expect_closed();
}

TEST_F(EndpointOpen, TakesTheLastEndpointOfEachDirectionOverAllInterfaces)
{
    fake_device device = bulk_device();
    device.interfaces = {
        {.number = 0, .settings = {{{0x81, 2, 64}, {0x02, 2, 64}}, {{0x83, 2, 64}, {0x04, 2, 128}}}},
        {.number = 1, .settings = {{{0x05, 2, 256}}}},
        {.number = 2, .settings = {{{0x86, 3, 16}}}}, // interrupt
    };
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(ep.interface, 2);
    EXPECT_EQ(ep.in_endpoint, 0x86);
    EXPECT_EQ(ep.out_endpoint, 0x05);
    EXPECT_EQ(ep.max_packet_size, 256);
}

TEST_F(EndpointOpen, PassesOverControlEndpoints)
{
    fake_device device = bulk_device();
    device.interfaces.push_back(
        {.number = 1, .driver_active = true, .settings = {{{0x85, 0, 8}, {0x05, 0xF0, 8}}}}); // low bits only
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "open 05c6:9008"})); // nothing detached
    EXPECT_EQ(ep.interface, 0);
    EXPECT_EQ(ep.in_endpoint, 0x81);
    EXPECT_EQ(ep.out_endpoint, 0x01);
}

TEST_F(EndpointOpen, OpensADeviceWithAnInEndpointOnly)
{
    fake_device device = bulk_device();
    device.interfaces[0].settings = {{{0x81, 2, 512}}};
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(ep.out_endpoint, 0xFF);
    EXPECT_EQ(ep.max_packet_size, 0);
    EXPECT_NE(ep.handle, nullptr);
}

TEST_F(EndpointOpen, DetachesTheKernelDriverOnce)
{
    fake.devices = {bulk_device()};
    fake.devices[0].interfaces[0].driver_active = true;
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "open 05c6:9008", "detach 0"}));
    EXPECT_EQ(ep.out_endpoint, 0x01);
}

TEST_F(EndpointOpen, EndsTheScanOfASettingWhoseDriverStays)
{
    fake.devices = {bulk_device()};
    fake.devices[0].interfaces[0].driver_active = true;
    fake.devices[0].interfaces[0].detach_result = LIBUSB_ERROR_NOT_SUPPORTED;
    EXPECT_EQ(endpoint_open(&qdl, &ep), -12);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"could not detach kernel driver: error -12\n", "could not find endpoints\n"}));
    expect_closed();
}

TEST_F(EndpointOpen, KeepsTheOtherInterfacesOpenAfterADriverThatStays)
{
    fake_device device = bulk_device();
    device.interfaces.insert(device.interfaces.begin(), {.number = 3,
                                                         .driver_active = true,
                                                         .detach_result = LIBUSB_ERROR_NO_DEVICE,
                                                         .settings = {{{0x82, 2, 64}}}});
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), -4); // the detach error stays the result
    EXPECT_NE(ep.handle, nullptr);
    EXPECT_EQ(ep.interface, 0);
    EXPECT_EQ(ep.in_endpoint, 0x81);
}

TEST_F(EndpointOpen, ReturnsTheLastOfSeveralDetachErrors)
{
    fake_device device = bulk_device();
    const auto blocked = [](uint8_t number, int result) {
        return fake_interface{
            .number = number, .driver_active = true, .detach_result = result, .settings = {{{0x82, 2, 64}}}};
    };
    device.interfaces = {blocked(0, LIBUSB_ERROR_NO_DEVICE), blocked(1, LIBUSB_ERROR_IO)};
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), -1);
}

TEST_F(EndpointOpen, ReportsADeviceWithoutEndpoints)
{
    fake_device device = bulk_device();
    device.interfaces[0].settings = {{}};
    fake.devices = {device};
    EXPECT_EQ(endpoint_open(&qdl, &ep), 0); // the result as it stands; the record tells that nothing is open
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not find endpoints\n"});
    expect_closed();
}

TEST_F(EndpointOpen, ReleasesEverythingAgain)
{
    fake.devices = {bulk_device()};
    ASSERT_EQ(core_usb_endpoint_open(&qdl, &ep), 0);
    EXPECT_EQ(fake.open_descriptors, 0);
    EXPECT_EQ(core_usb_endpoint_close(&ep), 0);
    ep = {};
    EXPECT_EQ(fake.open_handles, 0);
    EXPECT_EQ(fake.open_contexts, 0);
}

TEST_F(InterfaceOpen, TakesTheEndpointsOfThatInterfaceOnly)
{
    fake_device device = bulk_device();
    device.interfaces.push_back({.number = 1, .settings = {{{0x82, 2, 64}, {0x02, 2, 64}}}});
    device.interfaces.push_back({.number = 2, .settings = {{{0x83, 2, 128}, {0x03, 2, 128}}}});
    fake.devices = {device};
    EXPECT_EQ(interface_open(&qdl, &ep, 1), 0);
    EXPECT_EQ(ep.interface, 1);
    EXPECT_EQ(ep.in_endpoint, 0x82);
    EXPECT_EQ(ep.out_endpoint, 0x02);
    EXPECT_EQ(ep.max_packet_size, 64);
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"opening edpoint from interface 1\n"});
}

TEST_F(InterfaceOpen, GoesByIdentifierEvenWithAPath)
{
    fake.devices = {bulk_device()};
    const core_device_info info = device_info("05c6", "9008", "/sys/bus/usb/devices/9-9");
    EXPECT_EQ(interface_open(&info, &ep, 0), 0);
    EXPECT_EQ(fake.calls, (texts{"init", "option 3", "open 05c6:9008"}));
}

TEST_F(InterfaceOpen, RefusesAnInterfaceThatTheDeviceDoesNotHave)
{
    fake_device device = bulk_device();
    device.interfaces.push_back({.number = 1, .settings = {{}}});
    device.interfaces.push_back({.number = 2, .settings = {{}}});
    fake.devices = {device};
    EXPECT_EQ(interface_open(&qdl, &ep, 5), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"Interface 5 is out of device capability (3)\n"});
    EXPECT_EQ(ep.interface, 5);
    expect_closed();
}

TEST_F(InterfaceOpen, RefusesTheFirstInterfaceBeyondTheLast)
{
    fake.devices = {bulk_device()};
    EXPECT_EQ(interface_open(&qdl, &ep, 1), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"Interface 1 is out of device capability (1)\n"});
}

TEST_F(InterfaceOpen, RefusesAnEmptyIdentifierWithoutTouchingLibusb)
{
    const core_device_info info = device_info("05c6", "");
    EXPECT_EQ(interface_open(&info, &ep, 0), -22);
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(InterfaceOpen, RefusesAnIdentifierThatDoesNotParse)
{
    const core_device_info info = device_info("zzzz", "9008");
    EXPECT_EQ(interface_open(&info, &ep, 0), -102);
    EXPECT_TRUE(log.has(CORE_LOG_ERR, "could not convert zzzz:9008\n"));
    EXPECT_EQ(log.messages().back().function, "interface_open");
}

TEST_F(InterfaceOpen, ReportsADeviceThatIsNotThere)
{
    EXPECT_EQ(interface_open(&qdl, &ep, 0), -19);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not open device 0x05C6:0x9008\n"});
    expect_closed();
}

TEST_F(InterfaceOpen, ReportsAHandleWithoutADevice)
{
    fake.devices = {bulk_device()};
    fake.no_device_of_handle = true;
    EXPECT_EQ(interface_open(&qdl, &ep, 0), -102);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not get device handle\n"});
    expect_closed();
}

TEST_F(InterfaceOpen, PassesOnThatThereIsNoConfiguration)
{
    fake.devices = {bulk_device()};
    fake.devices[0].config_result = LIBUSB_ERROR_IO;
    EXPECT_EQ(interface_open(&qdl, &ep, 0), -1);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not get active configuration descriptor: error -1\n"});
    expect_closed();
}

TEST_F(InterfaceOpen, PassesOnThatTheDriverStays)
{
    fake.devices = {bulk_device()};
    fake.devices[0].interfaces[0].driver_active = true;
    fake.devices[0].interfaces[0].detach_result = LIBUSB_ERROR_NOT_FOUND;
    EXPECT_EQ(interface_open(&qdl, &ep, 0), -5);
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              (texts{"could not detach kernel driver: error -5\n", "could not find endpoints\n"}));
    expect_closed();
}

TEST_F(InterfaceOpen, TakesEightBitsOfTheApplicationsNumber)
{
    fake.devices = {bulk_device()};
    EXPECT_EQ(core_usb_interface_open(&qdl, &ep, 0x100), 0);
    EXPECT_EQ(ep.interface, 0);
}

TEST_F(EndpointClose, ClosesTheHandleBeforeTheContext)
{
    open(bulk_device());
    EXPECT_EQ(endpoint_close(&ep), 0);
    EXPECT_EQ(fake.calls, (texts{"close", "exit"}));
    ep = {};
}

TEST_F(EndpointClose, LeavesTheFieldsAsTheyAre)
{
    open(bulk_device());
    const core_endpoint before = ep;
    endpoint_close(&ep);
    EXPECT_EQ(ep.handle, before.handle);
    EXPECT_EQ(ep.context, before.context);
    EXPECT_EQ(ep.in_endpoint, 0x81);
    ep = {};
}

TEST_F(EndpointClose, TouchesNothingOfARecordThatIsNotOpen)
{
    EXPECT_EQ(endpoint_close(&ep), 0);
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(EndpointClose, AssertsARecord)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(endpoint_close(nullptr), "assertion failed: ep");
}

TEST_F(EndpointTransfer, ClaimsTheInterfaceForEachTransfer)
{
    open(bulk_device());
    fake.transfers = {{0x01, "ping"}, {0x81, "pong"}};
    char answer[16] = {};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "ping", 4, &moved), 0);
    EXPECT_EQ(moved, 4);
    EXPECT_EQ(core_usb_endpoint_read(&ep, answer, sizeof answer, &moved), 0);
    EXPECT_EQ(moved, 4);
    EXPECT_STREQ(answer, "pong");
    EXPECT_EQ(fake.calls, (texts{"claim 0", "out 01 4", "release 0", "claim 0", "in 81 16", "release 0"}));
}

TEST_F(EndpointTransfer, WaitsThirtySeconds)
{
    open(bulk_device());
    fake.transfers = {{0x01, "ping"}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "ping", 4, &moved), 0);
    EXPECT_EQ(fake.timeouts, std::vector<unsigned>{30000});
}

TEST_F(EndpointTransfer, PassesOnThatTheInterfaceIsNotClaimed)
{
    open(bulk_device());
    fake.claim_result = LIBUSB_ERROR_BUSY;
    EXPECT_EQ(core_usb_endpoint_write(&ep, "ping", 4, &moved), -6);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"could not claim interface 0: error -6"});
    EXPECT_EQ(fake.calls, texts{"claim 0"});
    EXPECT_EQ(moved, 0);
}

TEST_F(EndpointTransfer, ReportsAReadThatTimesOut)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x81, .data = "", .result = LIBUSB_ERROR_TIMEOUT}};
    char answer[16];
    EXPECT_EQ(core_usb_endpoint_read(&ep, answer, sizeof answer, &moved), -110);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bulk transfer error -7\n"});
    EXPECT_EQ(fake.calls.back(), "release 0");
}

TEST_F(EndpointTransfer, TellsWhatMovedBeforeTheTimeOut)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x01, .data = "12345678", .result = LIBUSB_ERROR_TIMEOUT, .moved = 5}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "12345678", 8, &moved), -110);
    EXPECT_EQ(moved, 5);
}

TEST_F(EndpointTransfer, LogsAnyOtherErrorAndGoesOn)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x01, .data = "1234", .result = LIBUSB_ERROR_PIPE, .moved = 0}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), 0);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bulk transfer error -9\n"});
    EXPECT_EQ(fake.calls.back(), "release 0");
}

TEST_F(EndpointTransfer, TellsOfAShortWrite)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x01, .data = "1234", .moved = 1}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), 0);
    EXPECT_EQ(moved, 1);
}

TEST_F(EndpointTransfer, SendsNothingToARecordThatIsNotOpen)
{
    ep.handle = nullptr;
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), -22);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR).size(), 1U);
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(EndpointTransfer, RefusesALengthThatLibusbCannotExpress)
{
    open(bulk_device());
    char byte = 0;
    EXPECT_EQ(endpoint_transfer(&ep, true, &byte, static_cast<size_t>(INT_MAX) + 1, &moved), -22);
    EXPECT_EQ(fake.calls, texts{});
}

TEST_F(EndpointTransfer, EndsWholePacketsWithAnEmptyOne)
{
    open(bulk_device(512));
    ep.send_zero_length_packet = true;
    const std::string data(1024, 'd');
    fake.transfers = {{0x01, data}, {0x01, ""}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, data.data(), data.size(), &moved), 0);
    EXPECT_EQ(moved, 1024);
    EXPECT_EQ(fake.calls, (texts{"claim 0", "out 01 1024", "out 01 0", "release 0"}));
    EXPECT_EQ(fake.timeouts, (std::vector<unsigned>{30000, 30000}));
    EXPECT_EQ(log.texts(CORE_LOG_DBG), texts{"sending zero-length packet\n"});
}

TEST_F(EndpointTransfer, AddsNothingToAShortLastPacket)
{
    open(bulk_device(512));
    ep.send_zero_length_packet = true;
    const std::string data(1000, 'd');
    fake.transfers = {{0x01, data}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, data.data(), data.size(), &moved), 0);
    EXPECT_EQ(fake.calls, (texts{"claim 0", "out 01 1000", "release 0"}));
}

TEST_F(EndpointTransfer, AddsNothingWithoutTheFlag)
{
    open(bulk_device(512));
    ep.send_zero_length_packet = false;
    const std::string data(512, 'd');
    fake.transfers = {{0x01, data}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, data.data(), data.size(), &moved), 0);
    EXPECT_EQ(fake.calls.size(), 3U);
}

TEST_F(EndpointTransfer, AddsNothingToARead)
{
    open(bulk_device(512));
    ep.send_zero_length_packet = true;
    fake.transfers = {{0x81, "answer"}};
    char answer[512];
    EXPECT_EQ(core_usb_endpoint_read(&ep, answer, sizeof answer, &moved), 0);
    EXPECT_EQ(fake.calls.size(), 3U);
}

TEST_F(EndpointTransfer, AddsNothingWhereThePacketSizeIsZero)
{
    open(bulk_device(0));
    ep.send_zero_length_packet = true;
    fake.transfers = {{0x01, "1234"}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), 0);
    EXPECT_EQ(fake.calls.size(), 3U);
}

TEST_F(EndpointTransfer, ReportsAnEmptyPacketThatTimesOut)
{
    open(bulk_device(4));
    ep.send_zero_length_packet = true;
    fake.transfers = {{0x01, "1234"}, {.endpoint = 0x01, .data = "", .result = LIBUSB_ERROR_TIMEOUT}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), -110);
    EXPECT_EQ(moved, 4);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bulk zlp transfer error -7\n"});
    EXPECT_EQ(fake.calls.back(), "release 0");
}

TEST_F(EndpointTransfer, LogsAnyOtherErrorOfTheEmptyPacketAndGoesOn)
{
    open(bulk_device(4));
    ep.send_zero_length_packet = true;
    fake.transfers = {{0x01, "1234"}, {.endpoint = 0x01, .data = "", .result = LIBUSB_ERROR_IO}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), 0);
    EXPECT_EQ(log.texts(CORE_LOG_ERR), texts{"bulk zlp transfer error -1\n"});
}

TEST_F(EndpointTransfer, KeepsTheTimeOutOfTheDataWhenTheEmptyPacketGoesThrough)
{
    open(bulk_device(4));
    ep.send_zero_length_packet = true;
    fake.transfers = {{.endpoint = 0x01, .data = "1234", .result = LIBUSB_ERROR_TIMEOUT, .moved = 0},
                      {0x01, ""}};
    EXPECT_EQ(core_usb_endpoint_write(&ep, "1234", 4, &moved), -110);
    EXPECT_EQ(moved, 0);
}

TEST(DeviceFlush, DiscardsWhatWaits)
{
    pty port;
    const int handle = open(port.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(handle, 0);
    port.send("stale");
    pollfd watched{handle, POLLIN, 0};
    ASSERT_EQ(poll(&watched, 1, 2000), 1);
    int waiting = 0;
    EXPECT_EQ(core_device_flush(handle), 0);
    ASSERT_EQ(core_device_get_bytes_available(handle, &waiting), 0);
    EXPECT_EQ(waiting, 0);
    close(handle);
}

TEST(DeviceFlush, FailsWhereThereIsNoTerminal)
{
    const int handle = open("/dev/null", O_RDWR);
    EXPECT_EQ(core_device_flush(handle), -5);
    close(handle);
}

TEST(DeviceFlush, FailsWithoutADevice)
{
    EXPECT_EQ(core_device_flush(-1), -5);
}

TEST(RealPath, FollowsALink)
{
    const temp_dir dir;
    const std::string target = dir.write("ttyUSB7", "");
    ASSERT_EQ(symlink(target.c_str(), dir.at("by-id").c_str()), 0);
    char expected[PATH_MAX];
    ASSERT_NE(realpath(dir.path().c_str(), expected), nullptr);
    char out[PATH_MAX] = {};
    EXPECT_EQ(core_get_real_path(dir.at("by-id").c_str(), out), 0);
    EXPECT_EQ(std::string(out), std::string(expected) + "/ttyUSB7");
}

TEST(RealPath, RefusesANullPath)
{
    char out[PATH_MAX];
    EXPECT_EQ(core_get_real_path(nullptr, out), -22);
}

TEST(RealPath, RefusesAnEmptyPath)
{
    char out[PATH_MAX];
    EXPECT_EQ(core_get_real_path("", out), -22);
}

TEST(RealPath, RefusesANullBuffer)
{
    EXPECT_EQ(core_get_real_path("/dev", nullptr), -22);
}

TEST(RealPath, MapsWhyItFailed)
{
    char out[PATH_MAX];
    EXPECT_EQ(core_get_real_path("/nonexistent/node", out), -2);
}

TEST(RealPath, MapsAnErrorWithoutACodeOfItsOwn)
{
    const temp_dir dir;
    ASSERT_EQ(symlink("loop", dir.at("loop").c_str()), 0);
    char out[PATH_MAX];
    EXPECT_EQ(core_get_real_path(dir.at("loop").c_str(), out), -102); // ELOOP
}

// --- core_usb_endpoint_take

TEST_F(EndpointTake, TakesWhatThereIs)
{
    open(bulk_device());
    fake.transfers = {{0x81, "pong"}};
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(moved, 4);
    EXPECT_STREQ(answer, "pong");
    EXPECT_EQ(fake.calls, (texts{"claim 0", "in 81 16", "release 0"}));
    EXPECT_EQ(fake.timeouts, std::vector<unsigned>{25});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(EndpointTake, FindsNothingInSilence)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x81, .data = "", .result = LIBUSB_ERROR_TIMEOUT}};
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(fake.calls.back(), "release 0");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(EndpointTake, KeepsWhatMovedBeforeTheTimeOut)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x81, .data = "po", .result = LIBUSB_ERROR_TIMEOUT}};
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(moved, 2);
    EXPECT_STREQ(answer, "po");
}

TEST_F(EndpointTake, FailsInSilenceWithAnyOtherError)
{
    open(bulk_device());
    fake.transfers = {{.endpoint = 0x81, .data = "", .result = LIBUSB_ERROR_NO_DEVICE}};
    EXPECT_EQ(take(), -102);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(fake.calls.back(), "release 0");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(EndpointTake, PassesOnThatTheInterfaceIsNotClaimed)
{
    open(bulk_device());
    fake.claim_result = LIBUSB_ERROR_BUSY;
    EXPECT_EQ(take(), -6);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(fake.calls, texts{"claim 0"});
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(EndpointTake, NeedsAnOpenDevice)
{
    ep = {};
    EXPECT_EQ(take(), -22);
    EXPECT_EQ(moved, 0);
    EXPECT_TRUE(fake.calls.empty());
}

TEST_F(EndpointTake, RefusesMoreThanATransferMoves)
{
    open(bulk_device());
    EXPECT_EQ(core_usb_endpoint_take(&ep, answer, 2147483648, 25, &moved), -22);
    EXPECT_EQ(moved, 0);
    EXPECT_TRUE(fake.calls.empty());
}
