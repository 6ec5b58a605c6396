#include "core-discovery.hpp"

#include <gtest/gtest.h>

TEST(Discovery, EnumerationIsNotSupported)
{
    const core_usb_id id{0x05C6, 0x9008};
    core_device_info info{};
    size_t size = 1;
    EXPECT_EQ(core_device_enumerate(&id, 1, &info, &size), -100);
}

TEST(Discovery, ListeningIsNotSupportedAndAnswersAtOnce)
{
    const core_usb_id id{0x05C6, 0x9008};
    const core_usb_id_list list{1, &id};
    core_usb_event event{};
    EXPECT_EQ(core_device_usb_id_event_listener(core_usb_id_find_match, &list, &event, CORE_LISTEN_FOREVER),
              -100);
}
