// Sahara: answers the boot loader's HELLO on the firmware-update port, serves its read requests from the
// flash programmer and ends the transfer with DONE.
//
// In: a modem record with a firmware-update port, and the package (programmer path, platform). Out: 0 once
// the programmer runs. The port is opened and closed here; on a failure other than CORE_EAGAIN the modem is
// told to reset first.
// Waits: 3 s for a HELLO, 5 s for the rest of a HELLO and for the DONE response, 0.5 s for each read request.
#pragma once

#include "image-list.hpp"
#include "modem.hpp"

// 0; CORE_EAGAIN when the modem was asked to restart into download mode, or its port took nothing for too
// long (call again); CORE_ENODEV without a firmware-update port; CORE_EINVAL or CORE_EBUSY when it is none,
// or another program has it; CORE_EGENERIC; CORE_EPROTO; CORE_ETIMEDOUT; or the error of a read, write or
// file.
[[nodiscard]] int sahara_send_programmer(const modem *m, const image_list *package);

// The steps, each on an open port.
namespace sahara {

// Waits for HELLO and answers it; one state reset is allowed. CORE_EAGAIN when the modem restarts.
[[nodiscard]] int hello_handshake(int port, uint32_t platform);
[[nodiscard]] int send_hello_response(int port, uint32_t version, uint32_t compatible_version);
// The maker's private request to restart into download mode: CORE_EAGAIN once acknowledged, CORE_EPROTO when
// ten packets bring no acknowledgement.
[[nodiscard]] int send_zepho_qdl_cmd(int port);
// Serves the programmer until DONE. 0 also after a packet or a file that was too short: `*missing`, unless
// null, counts the bytes that were asked for and are not in the file. CORE_EINVAL when the file changes
// meanwhile; CORE_EPROTO when the requests have not come to an end after ten minutes.
[[nodiscard]] int send_programmer(int port, const image_list *package, uint64_t *missing = nullptr);
[[nodiscard]] int state_reset(int port);
[[nodiscard]] int reset_modem(int port);
// Reads until the port is silent, for half a minute at most: 0, CORE_ETIMEDOUT (the usual end) or an error.
[[nodiscard]] int flush_port(int port);

} // namespace sahara
