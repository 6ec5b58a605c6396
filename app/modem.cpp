#include "modem.hpp"

#include "core.hpp"

#include <iterator>

const char *port_type_name(uint32_t type)
{
    static constexpr const char *names[] = {"unknown", "diagnostic", "AT", "firmware update"};
    return names[type < std::size(names) ? type : 0];
}

const char *probing_mode_name(uint32_t mode)
{
    static constexpr const char *names[] = {"unknown", "port", "usb"};
    return names[mode < std::size(names) ? mode : 0];
}

const modem_port_record *find_port(const modem *m, uint32_t type)
{
    for (uint8_t i = 0; i < m->modem_port_size && i < MAX_MODEM_PORTS; ++i) {
        if (m->modem_port[i].port_type == type)
            return &m->modem_port[i];
    }
    return nullptr;
}

bool is_modem_present(const modem *m)
{
    return !core_is_zero(m, sizeof *m);
}

modem *find_free_modem_slot(modem *modems, uint8_t count)
{
    for (uint8_t i = 0; i < count; ++i) {
        if (!is_modem_present(&modems[i]))
            return &modems[i];
    }
    return nullptr;
}
