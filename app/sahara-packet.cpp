#include "sahara-packet.hpp"

#include "core.hpp"

namespace sahara {

uint64_t packet::get(field f) const
{
    if (f.size == sizeof(uint64_t)) {
        uint64_t value = 0;
        core_letoh(&value, sizeof value, bytes.data() + f.offset, f.size);
        return value;
    }
    uint32_t value = 0;
    core_letoh(&value, sizeof value, bytes.data() + f.offset, f.size);
    return value;
}

void packet::put(field f, uint32_t value)
{
    core_htole(bytes.data() + f.offset, f.size, &value, sizeof value);
}

packet make_packet(command_id command, size_t length)
{
    packet made;
    made.put(COMMAND, command);
    made.put(LENGTH, static_cast<uint32_t>(length));
    return made;
}

} // namespace sahara
