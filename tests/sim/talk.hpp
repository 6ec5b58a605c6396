// A conversation with a device in one process, without a line: what the host says goes in, the write units
// the device answers with come out.
#pragma once

#include "device.hpp"

#include <cstdlib>
#include <string>
#include <vector>

namespace sim {

class talk {
  public:
    explicit talk(settings wanted)
        : modem((log.set_sink([this](const std::string &line) { lines.push_back(line); }), std::move(wanted)),
                log)
    {
        started = modem.start();
    }

    // Everything that waits to be sent; a hang-up is noted in hung_up.
    std::vector<octets> heard(unsigned channel = 0)
    {
        std::vector<octets> units;
        while (!modem.idle(channel)) {
            last_delay_ms = modem.delay_ms(channel);
            const write_unit unit = modem.take(channel);
            if (unit.hang_up)
                hung_up = true;
            else
                units.push_back(unit.bytes);
        }
        return units;
    }

    std::vector<octets> say(const octets &bytes)
    {
        modem.receive(bytes);
        return heard();
    }
    std::vector<std::string> say(const std::string &text, unsigned channel = 0)
    {
        modem.receive(to_octets(text), channel);
        return heard_text(channel);
    }
    std::vector<std::string> heard_text(unsigned channel = 0)
    {
        std::vector<std::string> texts;
        for (const octets &unit : heard(channel))
            texts.emplace_back(as_text(unit));
        return texts;
    }

    bool logged(const std::string &part) const
    {
        for (const std::string &line : lines)
            if (line.find(part) != std::string::npos)
                return true;
        return false;
    }

    transcript log;
    std::vector<std::string> lines;
    device modem;
    bool started = false;
    bool hung_up = false;
    uint32_t last_delay_ms = 0;
};

using texts = std::vector<std::string>;
using units = std::vector<octets>;

inline fault planned(const char *text)
{
    fault out;
    if (!parse_fault(text, out).empty())
        std::abort();
    return out;
}

// A new empty folder, removed with what is in it.
class scratch_folder {
  public:
    scratch_folder()
    {
        char name[] = "/tmp/kestrel-sim-test-XXXXXX";
        if (mkdtemp(name) == nullptr)
            std::abort();
        path = name;
    }
    ~scratch_folder()
    {
        const std::string command = "rm -rf '" + path + "'";
        if (std::system(command.c_str()) != 0)
            std::abort();
    }
    scratch_folder(const scratch_folder &) = delete;
    scratch_folder &operator=(const scratch_folder &) = delete;

    // The content of a file; "(no file)" when it is missing.
    std::string content(const std::string &name) const
    {
        std::FILE *file = std::fopen((path + "/" + name).c_str(), "rb");
        if (file == nullptr)
            return "(no file)";
        std::string out;
        char room[4096];
        for (size_t got; (got = std::fread(room, 1, sizeof room, file)) > 0;)
            out.append(room, got);
        std::fclose(file);
        return out;
    }

    std::string path;
};

} // namespace sim
