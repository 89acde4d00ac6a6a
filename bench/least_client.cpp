// The least program that could send a file in packets: a context and a session of the CoAP library
// for each, and three constant lines.
//
//   bench-least-client ADDRESS PACKETS SIZE

#include <arpa/inet.h>
#include <coap3/coap.h>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr char PATH[] = "tx_msg_req";

void write_lines()
{
    static constexpr char LINE[] =
        "20261123-120000:DEBUG:a_module:123:Some text of the usual length\n";
    for (int i = 0; i < 3; ++i) {
        if (write(STDOUT_FILENO, LINE, sizeof LINE - 1) < 0) {
            abort();
        }
    }
}

coap_response_t handle_response(coap_session_t *session, const coap_pdu_t * /*sent*/,
                                const coap_pdu_t * /*received*/, coap_mid_t /*id*/)
{
    auto *answered = static_cast<bool *>(coap_get_app_data(coap_session_get_context(session)));
    *answered = true;
    return COAP_RESPONSE_OK;
}

void send_packet(const coap_address_t *remote, const uint8_t *payload, size_t size)
{
    bool answered = false;
    coap_context_t *context = coap_new_context(nullptr);
    coap_set_app_data(context, &answered);
    coap_register_response_handler(context, handle_response);
    coap_session_t *session = coap_new_client_session(context, nullptr, remote, COAP_PROTO_UDP);
    coap_pdu_t *pdu =
        coap_pdu_init(COAP_MESSAGE_CON, COAP_REQUEST_CODE_PUT, coap_new_message_id(session),
                      coap_session_max_pdu_size(session));
    coap_add_option(pdu, COAP_OPTION_URI_PATH, sizeof PATH - 1,
                    reinterpret_cast<const uint8_t *>(PATH));
    coap_add_data(pdu, size, payload);
    if (coap_send(session, pdu) == COAP_INVALID_MID) {
        abort();
    }
    while (!answered && coap_io_process(context, COAP_IO_WAIT) >= 0) {
    }
    coap_free_context(context);
}

} // namespace

int main(int argc, char **argv)
{
    static uint8_t payload[1024];
    if (argc != 4) {
        return EXIT_FAILURE;
    }
    coap_address_t remote;
    coap_address_init(&remote);
    remote.size = sizeof remote.addr.sin;
    remote.addr.sin.sin_family = AF_INET;
    coap_address_set_port(&remote, COAP_DEFAULT_PORT);
    const unsigned long packets = strtoul(argv[2], nullptr, 10);
    const unsigned long size = strtoul(argv[3], nullptr, 10);
    if (inet_pton(AF_INET, argv[1], &remote.addr.sin.sin_addr) != 1 || size > sizeof payload) {
        return EXIT_FAILURE;
    }
    for (unsigned long i = 0; i < packets; ++i) {
        send_packet(&remote, payload, size);
        write_lines();
    }
    return EXIT_SUCCESS;
}
