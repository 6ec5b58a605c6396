#include "android-utils.hpp"

#include "core.hpp"
#include "log_capture.hpp"
#include "private_mounts.hpp"
#include "temp_dir.hpp"
#include "virtual-time.hpp"

#include <gtest/gtest.h>

using texts = std::vector<std::string>;

namespace {

class Uevent : public ::testing::Test {
  protected:
    bool parse(const std::string &content)
    {
        return get_sysinfo_by_uevent(dir.write("uevent", content).c_str(), &info);
    }

    temp_dir dir;
    log_capture log;
    system_information info{};
};

} // namespace

TEST_F(Uevent, TellsAllThatIsKnownOfADevice)
{
    EXPECT_TRUE(parse("MAJOR=189\nMINOR=4\nDEVNAME=bus/usb/001/005\nDEVTYPE=usb_device\nDRIVER=usb\n"
                      "PRODUCT=5c6/9008/0\nTYPE=0/0/0\nBUSNUM=001\nDEVNUM=005\n"));
    EXPECT_EQ(info.MAJOR, 189);
    EXPECT_EQ(info.MINOR, 4);
    EXPECT_STREQ(info.DEVNAME, "bus/usb/001/005");
    EXPECT_STREQ(info.DEVTYPE, "usb_device");
    EXPECT_STREQ(info.PRODUCT, "5c6/9008/0");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Uevent, FillsNothingFromTheDriverLine)
{
    EXPECT_TRUE(parse("DRIVER=usb\n"));
    EXPECT_STREQ(info.driver, "");
}

TEST_F(Uevent, StartsWithAZeroedRecord)
{
    memset(&info, 0x55, sizeof info);
    EXPECT_TRUE(parse(""));
    EXPECT_TRUE(core_is_zero(&info, sizeof info));
}

TEST_F(Uevent, ZeroesTheRecordBeforeItOpensTheFile)
{
    memset(&info, 0x55, sizeof info);
    EXPECT_FALSE(get_sysinfo_by_uevent(dir.at("missing").c_str(), &info));
    EXPECT_TRUE(core_is_zero(&info, sizeof info));
}

TEST_F(Uevent, ReportsAFileThatCannotBeOpened)
{
    const std::string path = dir.at("missing");
    EXPECT_FALSE(get_sysinfo_by_uevent(path.c_str(), &info));
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"fail to fopen " + path + ", errno: 2 (No such file or directory)\n"});
    EXPECT_EQ(log.messages().back().file, "../android-utils.c");
    EXPECT_EQ(log.messages().back().function, "get_sysinfo_by_uevent");
}

TEST_F(Uevent, NeedsNoLineEndAtTheEnd)
{
    EXPECT_TRUE(parse("DEVTYPE=usb_device"));
    EXPECT_STREQ(info.DEVTYPE, "usb_device");
}

TEST_F(Uevent, RemovesACarriageReturn)
{
    EXPECT_TRUE(parse("DEVTYPE=usb_device\r"));
    EXPECT_STREQ(info.DEVTYPE, "usb_device");
}

TEST_F(Uevent, RemovesOneLineEndCharacterOnly)
{
    EXPECT_TRUE(parse("DEVTYPE=usb_device\r\n"));
    EXPECT_STREQ(info.DEVTYPE, "usb_device\r");
}

TEST_F(Uevent, KeepsThirtyOneCharacters)
{
    EXPECT_TRUE(parse("PRODUCT=" + std::string(31, 'p') + "\n"));
    EXPECT_EQ(std::string(info.PRODUCT), std::string(31, 'p'));
}

TEST_F(Uevent, KeepsThirtyTwoCharactersAndEndsThem)
{
    EXPECT_TRUE(parse("DEVNAME=" + std::string(32, 'n') + "\nDEVTYPE=" + std::string(32, 't') +
                      "\nPRODUCT=" + std::string(32, 'p') + "\n"));
    EXPECT_EQ(std::string(info.DEVNAME), std::string(32, 'n'));
    EXPECT_EQ(std::string(info.DEVTYPE), std::string(32, 't'));
    EXPECT_EQ(std::string(info.PRODUCT), std::string(32, 'p'));
}

TEST_F(Uevent, CutsALongerValueToThirtyTwoCharacters)
{
    EXPECT_TRUE(parse("PRODUCT=" + std::string(33, 'p') + "\n"));
    EXPECT_EQ(std::string(info.PRODUCT), std::string(32, 'p'));
}

TEST_F(Uevent, TakesTheLaterOfTwoLines)
{
    EXPECT_TRUE(parse("PRODUCT=1d6b/2/515\nMAJOR=1\nPRODUCT=5c6/9008/0\nMAJOR=2\n"));
    EXPECT_STREQ(info.PRODUCT, "5c6/9008/0");
    EXPECT_EQ(info.MAJOR, 2);
}

TEST_F(Uevent, LeavesNothingOfAnEarlierLongerLine)
{
    EXPECT_TRUE(parse("PRODUCT=1d6b/2/515\nPRODUCT=\n"));
    EXPECT_STREQ(info.PRODUCT, "");
}

TEST_F(Uevent, TakesWhatIsNoNumberAsZero)
{
    EXPECT_TRUE(parse("MAJOR=17\nMAJOR=x\nMINOR=3x\n"));
    EXPECT_EQ(info.MAJOR, 0);
    EXPECT_EQ(info.MINOR, 3);
}

TEST_F(Uevent, TakesANegativeNumber)
{
    EXPECT_TRUE(parse("MINOR=-5\n"));
    EXPECT_EQ(info.MINOR, -5);
}

TEST_F(Uevent, MindsTheCaseOfAKey)
{
    EXPECT_TRUE(parse("product=5c6/9008/0\n"));
    EXPECT_STREQ(info.PRODUCT, "");
}

TEST_F(Uevent, TakesAKeyAtTheStartOfALineOnly)
{
    EXPECT_TRUE(parse(" PRODUCT=5c6/9008/0\nXPRODUCT=5c6/9008/0\nPRODUCT 5c6\n"));
    EXPECT_STREQ(info.PRODUCT, "");
}

TEST_F(Uevent, ReadsAtMost255CharactersAtATime)
{
    // The 256th character begins what is taken for the next line.
    EXPECT_TRUE(parse(std::string(255, 'x') + "PRODUCT=5c6/9008/0\n"));
    EXPECT_STREQ(info.PRODUCT, "5c6/9008/0");
    EXPECT_TRUE(parse(std::string(254, 'x') + "PRODUCT=5c6/9008/0\n"));
    EXPECT_STREQ(info.PRODUCT, "");
}

TEST_F(Uevent, OfADirectoryIsEmpty)
{
    EXPECT_TRUE(get_sysinfo_by_uevent(dir.path().c_str(), &info));
    EXPECT_TRUE(core_is_zero(&info, sizeof info));
}

namespace {

const char download_device[] = "DEVTYPE=usb_device\nPRODUCT=5c6/9008/0\n";

class UsbDevices : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string reason;
        if (!private_mounts::empty_sys(&reason))
            GTEST_SKIP() << reason;
        sigint_detected = 0;
    }

    // An entry of the directory, with what its uevent file says.
    static void add(const std::string &entry, const std::string &uevent)
    {
        private_mounts::write("/sys/bus/usb/devices/" + entry + "/uevent", uevent);
    }
    static bool find() { return find_usb_device_by_product("5c6", "9008"); }

    log_capture log;
};

} // namespace

TEST_F(UsbDevices, AreNoneWithoutTheDirectory)
{
    EXPECT_FALSE(find());
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(UsbDevices, AreNoneInAnEmptyDirectory)
{
    std::filesystem::create_directories("/sys/bus/usb/devices");
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, HaveTheDownloadDevice)
{
    add("1-2", download_device);
    EXPECT_TRUE(find());
}

TEST_F(UsbDevices, HaveTheDownloadDeviceAmongOthers)
{
    add("1-1", "DEVTYPE=usb_device\nPRODUCT=1d6b/2/515\n");
    add("1-1.4", download_device);
    add("1-1:1.0", "DEVTYPE=usb_interface\nPRODUCT=1d6b/2/515\n");
    EXPECT_TRUE(find());
}

TEST_F(UsbDevices, AreNotFoundByTheirInterfaces)
{
    add("1-2:1.0", "DEVTYPE=usb_interface\nPRODUCT=5c6/9008/0\n");
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, BeginWithADigit)
{
    add("usb1", download_device);
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, NeedBothTexts)
{
    add("1-1", "DEVTYPE=usb_device\nPRODUCT=5c6/9009/0\n");
    add("1-2", "DEVTYPE=usb_device\nPRODUCT=1d6b/9008/0\n");
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, MayHoldTheTwoTextsAnywhere)
{
    add("1-1", "DEVTYPE=usb_device\nPRODUCT=9008/15c61/0\n");
    EXPECT_TRUE(find());
}

TEST_F(UsbDevices, NeedAProduct)
{
    add("1-1", "DEVTYPE=usb_device\n");
    EXPECT_FALSE(find_usb_device_by_product("", ""));
}

TEST_F(UsbDevices, NeedAType)
{
    add("1-1", "PRODUCT=5c6/9008/0\n");
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, NeedExactlyTheirType)
{
    add("1-1", "DEVTYPE=usb_device2\nPRODUCT=5c6/9008/0\n");
    EXPECT_FALSE(find());
}

TEST_F(UsbDevices, AreSkippedWithoutTheirFile)
{
    std::filesystem::create_directories("/sys/bus/usb/devices/1-1");
    add("1-2", download_device);
    EXPECT_TRUE(find());
}

TEST_F(UsbDevices, ReportAMissingFile)
{
    std::filesystem::create_directories("/sys/bus/usb/devices/1-1");
    EXPECT_FALSE(find());
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"fail to fopen /sys/bus/usb/devices/1-1/uevent, errno: 2 (No such file or directory)\n"});
}

TEST_F(UsbDevices, AreOpenedByTheFirstSixteenCharactersOfTheirName)
{
    add("1-1.2.3.4.5.6.77", download_device); // sixteen
    EXPECT_TRUE(find());
}

TEST_F(UsbDevices, AreMissedByALongerName)
{
    add("1-1.2.3.4.5.6.777", download_device);
    EXPECT_FALSE(find());
    EXPECT_EQ(log.texts(CORE_LOG_ERR),
              texts{"fail to fopen /sys/bus/usb/devices/1-1.2.3.4.5.6.77/uevent, errno: 2 "
                    "(No such file or directory)\n"});
}

TEST_F(UsbDevices, AreFoundWithoutWaiting)
{
    add("1-2", download_device);
    EXPECT_TRUE(wait_for_usb_device("5c6", "9008", 20));
    EXPECT_TRUE(virtual_time::instance().slept.empty());
}

TEST_F(UsbDevices, AreWaitedForASecondAfterEachMiss)
{
    EXPECT_FALSE(wait_for_usb_device("5c6", "9008", 3));
    EXPECT_EQ(virtual_time::instance().slept, (std::vector<unsigned>{1000, 1000, 1000}));
}

TEST_F(UsbDevices, AreFoundWhenTheyCome)
{
    virtual_time::instance().when_slept = [] {
        if (virtual_time::instance().slept.size() == 2)
            add("1-2", download_device);
    };
    EXPECT_TRUE(wait_for_usb_device("5c6", "9008", 20));
    EXPECT_EQ(virtual_time::instance().slept.size(), 2U);
}

TEST_F(UsbDevices, AreNotLookedForWithoutATry)
{
    add("1-2", download_device);
    EXPECT_FALSE(wait_for_usb_device("5c6", "9008", 0));
}

TEST_F(UsbDevices, AreNotWaitedForAfterAnInterrupt)
{
    virtual_time::instance().when_slept = [] { core_signal_handler(2); };
    EXPECT_FALSE(wait_for_usb_device("5c6", "9008", 20));
    EXPECT_EQ(virtual_time::instance().slept.size(), 1U);
}
