#include "fake_discovery.hpp"

#include "core.hpp"
#include "restored-state.hpp"

#include <gtest/gtest.h>

namespace {

const restored_state restored([] { fake_discovery::instance().reset(); },
                              [] {
                                  EXPECT_TRUE(fake_discovery::instance().enumerations.empty())
                                      << "fewer scans than expected";
                                  EXPECT_TRUE(fake_discovery::instance().events.empty())
                                      << "fewer waits for an event than expected";
                              });

} // namespace

fake_discovery &fake_discovery::instance()
{
    static fake_discovery only;
    return only;
}

void fake_discovery::reset()
{
    *this = {};
}

core_device_info make_device(const char *vid, const char *pid,
                             const std::vector<std::pair<std::string, std::string>> &ports)
{
    core_device_info info{};
    strlcpy(info.vid, vid, sizeof info.vid);
    strlcpy(info.pid, pid, sizeof info.pid);
    for (const auto &[name, interface] : ports) {
        strlcpy(info.port_names[info.port_count], name.c_str(), sizeof info.port_names[0]);
        strlcpy(info.interface_numbers[info.port_count], interface.c_str(), sizeof info.interface_numbers[0]);
        ++info.port_count;
    }
    return info;
}

int core_device_enumerate(const core_usb_id *identifiers, size_t count, core_device_info *devices,
                          size_t *size)
{
    fake_discovery &fake = fake_discovery::instance();
    fake.enumerated.emplace_back(identifiers, identifiers + count);
    if (fake.enumerations.empty()) {
        ADD_FAILURE() << "unexpected enumeration";
        return CORE_ENOTSUPPORTED;
    }
    const enumerate_answer answer = fake.enumerations.front();
    fake.enumerations.pop_front();
    EXPECT_LE(answer.devices.size(), *size);
    for (size_t i = 0; i < answer.devices.size() && i < *size; ++i)
        devices[i] = answer.devices[i];
    *size = answer.devices.size();
    return answer.result;
}

int core_device_usb_id_event_listener(core_usb_id_matcher match, const core_usb_id_list *list,
                                      core_usb_event *event, int timeout_ms)
{
    fake_discovery &fake = fake_discovery::instance();
    EXPECT_NE(match, nullptr);
    EXPECT_NE(list, nullptr);
    fake.listened.push_back(timeout_ms);
    if (fake.events.empty()) {
        ADD_FAILURE() << "unexpected wait for an event";
        return CORE_ENOTSUPPORTED;
    }
    const listen_answer answer = fake.events.front();
    fake.events.pop_front();
    if (answer.before)
        answer.before();
    *event = answer.event;
    return answer.result;
}
