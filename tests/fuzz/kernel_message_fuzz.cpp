// A message of the kernel about a device: which of them are about a modem.
#include "core-uevent.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // A line each in the input, so that it can be read; a terminator each in the message.
    std::vector<char> message(data, data + size);
    for (char &c : message)
        c = c == '\n' ? '\0' : c;
    if (!core_uevent_concerns_modems(message.data(), message.size()))
        return 0;
    // The kernel's way: a head that names action and device, then lines, the subsystem once among them.
    const std::string lines(message.begin(), message.end());
    const std::string key("\0SUBSYSTEM=", 11);
    const size_t found = lines.find(key);
    fuzz_check(contains(lines.substr(0, lines.find('\0')), "@") && lines.back() == '\0');
    fuzz_check(found != std::string::npos && lines.find(key, found + 1) == std::string::npos);
    const std::string name = lines.c_str() + found + key.size();
    fuzz_check(name == "usb" || name == "mhi" || name == "wwan");
    return 0;
}
