// Asks a modem for its identity over its AT port, as the updater does before it decides.
//
// usage: at-probe PORT
// Prints a line per query: its name, its result, and what the modem answered.
#include "core-device.hpp"
#include "modem-probing.hpp"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: at-probe PORT\n");
        return 2;
    }
    static modem m;
    m.probing_mode = PROBING_USB;
    int device = -1;
    const int opened = at_handshake(argv[1], &device, &m);
    printf("handshake %d %s\n", opened, m.model_name);
    if (opened != 0)
        return 0;
    const int imei = get_imei(device, &m);
    printf("imei %d %s\n", imei, m.imei);
    const int versions = get_swpkgv(device, &m);
    printf("versions %d %s\n", versions, m.versions);
    core_device_close(device);
    return 0;
}
