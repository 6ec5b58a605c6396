#include "route.hpp"

#include "core.hpp"
#include "modem-table.hpp"

namespace {

// A modem that was found with the programmer's port is spoken to over that port, as if --pcie had been given.
bool has_firehose_port(const modem *m)
{
    return m->probing_mode == PROBING_USB && text_contains(m->modem_port[0].port_name, "firehose");
}

} // namespace

bool is_in_download_mode(const modem *m)
{
    return has_firehose_port(m) || is_download_mode_modem(&m->usb_id);
}

route plan_route(const program_options &wanted, const modem *m, bool already_in_qdl)
{
    const bool goes_over_port = already_in_qdl ? wanted.pcie || has_firehose_port(m) : m->is_pcie;
    const bool stops = wanted.enter_qdl && !(already_in_qdl && goes_over_port);
    return {!already_in_qdl, stops, !stops && !goes_over_port};
}
