#include "core-discovery.hpp"

#include "core.hpp"

int core_device_enumerate(const core_usb_id *, size_t, core_device_info *, size_t *)
{
    return CORE_ENOTSUPPORTED;
}

int core_device_usb_id_event_listener(core_usb_id_matcher, const core_usb_id_list *, core_usb_event *, int)
{
    return CORE_ENOTSUPPORTED;
}
