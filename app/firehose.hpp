// Firehose: the conversation with the running flash programmer, XML requests answered by XML chunks whose
// response element is "ACK" or "NAK".
//
// Connection, requests and their answers; firehose-session.hpp strings them together. Waits: 5 s for an
// acknowledgement, 0.5 s for the answers to configure, reset and OTP on a serial device, 30 s for a USB
// transfer.
#pragma once

#include "core-endpoint.hpp"
#include "core-owners.hpp"
#include "modem.hpp"
#include "time-limit.hpp"
#include "timeouts.hpp"

// The connection; zeroed before use.
struct firehose_device {
    int32_t serial_handle; // zero: all traffic goes over the endpoint, since descriptor 0 is never a port's
    core_endpoint endpoint;
};

// Opens the download device 05C6:9008, or the modem's download port when it is a PCIe modem. 0; CORE_EINVAL
// or CORE_EBUSY (logged) when the port is none, or another run has it or the device; or the error of the
// opening.
[[nodiscard]] int firehose_open(const modem *m, firehose_device *device);
void firehose_close(firehose_device *device);
// Writes all `len` bytes. 0, CORE_EAGAIN after five back-pressures, or the error of the write.
[[nodiscard]] int firehose_write(firehose_device *device, const void *buf, size_t len);

// One chunk of the programmer, as text. A chunk is examined by itself; nothing is carried over to the next.
struct firehose_chunk {
    char text[1024 + 1];
    size_t size; // bytes received, at most 1024
};
// Reads one chunk; `timeout_ms` counts on a serial device only. 0 or the error of the read.
[[nodiscard]] int firehose_read(firehose_device *device, unsigned timeout_ms, firehose_chunk *chunk);
[[nodiscard]] bool firehose_has_ack(const firehose_chunk *chunk);
[[nodiscard]] bool firehose_has_nak(const firehose_chunk *chunk);

// What an ACK says of itself: that raw data is to follow it (rawmode="true"), or not (rawmode="false").
// Programmers that say neither exist.
enum class raw_mode { off, on };
// True for an ACK that is none of the other kind: that one answers something else.
[[nodiscard]] bool firehose_has_ack_of(const firehose_chunk *chunk, raw_mode awaited);

// Reads away what still waits for nobody, before a request or an image goes out: an answer too many would be
// taken for the next one, and a refusal among it would never be seen. 0, also when reading fails;
// CORE_EGENERIC after a NAK.
[[nodiscard]] int drain_answers(firehose_device *device);

// Watches over one wait for an answer, so that neither a connection that delivers nothing at once nor a
// programmer that talks about other things can hold the program for ever.
class answer_guard {
  public:
    // CORE_EPROTO (logged) when this is the tenth empty chunk in a row, or when the whole wait has taken five
    // minutes; else 0.
    int check(const firehose_chunk *chunk);

  private:
    int empty_chunks_ = 0;
    time_limit limit_{timeouts::answer_in_all};
};

// Waits for the ACK that was awaited: 0; CORE_EGENERIC after NAK, silence or a failed read; CORE_EPROTO when
// five minutes brought everything but an answer.
[[nodiscard]] int read_ack_nack(firehose_device *device, raw_mode awaited = raw_mode::off);
// Sends a request and waits for its ACK.
[[nodiscard]] int generic_ack_nack_request(firehose_device *device, const char *xml,
                                           raw_mode awaited = raw_mode::off);
[[nodiscard]] int send_nop(firehose_device *device);
// Formats the configure request; its length, -1 on failure.
[[nodiscard]] int get_config_xml(owned_text *out, uint32_t payload, const char *memory_name);
// Proposes `*payload`; a NAK that tells what the programmer supports is taken as a counter-offer and stored
// in `*payload`. 0, CORE_EGENERIC, CORE_ENOMEM, CORE_EPROTO (a counter-offer of 0 or above 1 GiB, or no
// answer among whatever else comes) or a write's error.
[[nodiscard]] int send_config(firehose_device *device, uint32_t *payload);
// Sends the power reset and waits for its answer. 0, whatever that is, or the write's error.
[[nodiscard]] int send_reset(firehose_device *device, bool wait_for_bsp_target_reset);
// 0; CORE_EGENERIC after NAK; or the error that ended the reading.
[[nodiscard]] int wait_reset_response(firehose_device *device, bool wait_for_bsp_target_reset);
