// The CoAP server that hears the modems' indications, and what it shares with the client.

#ifndef COAP_SERVER_H
#define COAP_SERVER_H

#include <coap3/coap.h>
#include <cstdint>

// Bytes of a whole CoAP message that is sent or taken: header, options, marker and payload.
constexpr unsigned COAP_MAX_MESSAGE_SIZE = 1400;

constexpr uint32_t COAP_SERVER_IPV4_TEXT_SIZE = 16;

// Serves rx_msg_req, info_ind and firmware_install_ind on UDP port 5683 of all IPv4 addresses and
// of the group 224.1.2.3 until coap_server_stop; every payload goes to lan_post_msg. Runs on the
// thread lan_itf_rx_thread, which alone touches the server's context, and never waits for standard
// output once it serves. 0 after a stop, -1 when the port could not be had.
int coap_server_run();

// Whether a socket listens on port 5683 of all addresses already; the server can be started all the
// same, but the two would take each other's datagrams. One on an address of its own does not count.
bool coap_server_is_port_taken();

// Ends the loop at the end of its current turn, within 2 seconds. Any thread. Always 0.
int coap_server_stop();

// A new context that listens on the numeric host and the service (port); with service "0" one that
// listens nowhere, for a client, whose session binds a free port of its own. Null, with a line on
// standard error, when there is none. The caller frees it with coap_free_context.
coap_context_t *coap_server_get_context(const char *host, const char *service);

// Writes the interface's IPv4 address as a dotted text of at most COAP_SERVER_IPV4_TEXT_SIZE
// characters. 1, or -1 (text untouched) when it has none.
int coap_server_get_ipv4_addr(const char *interface, char *text);

// Descriptor of the context's UDP socket that is bound to the local IPv4 port, -1 when it has none;
// the CoAP library keeps its descriptors to itself. Not that of another socket on the same port.
int coap_server_find_socket(coap_context_t *context, uint16_t port);

#endif
