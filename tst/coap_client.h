// One confirmable CoAP request to a modem, and its answer.

#ifndef COAP_CLIENT_H
#define COAP_CLIENT_H

#include <coap3/coap.h>
#include <cstdint>

#include "lan_protocol.h"

// Sends the request to the port of the destination's address (whose own port is not looked at) and
// blocks until the exchange has ended: on the answer, an empty acknowledgement or a reset, at the
// latest after 20 seconds of the monotonic clock; the library retransmits meanwhile. The payload
// may be null with length 0; one that does not fit into a message of 1400 bytes is left out.
//
// The result is the last response code (class * 32 + detail), 0 when none came or nothing could
// be sent; it is also traced. Information, statistics and parameter values that come back are
// posted to _lan_modem_task; error answers are written to standard error. The library's context
// belongs to the call. One thread at a time.
uint32_t coap_client_send_request(const coap_address_t *destination, uint16_t port,
                                  LanRequest request, const uint8_t *payload,
                                  uint16_t payload_length);

// From here on an empty acknowledgement does not end an exchange: it goes on, within its time,
// until a response of its own comes (confirmable ones are acknowledged), whose data is posted as
// well. The thread that makes the requests, as the next.
void coap_client_take_separate_answers();

// Gives the exchanges to come less time: so many seconds, where that is less than 20.
void coap_client_limit_wait(uint32_t seconds);

#endif
