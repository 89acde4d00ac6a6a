#include "coap_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "app_lan.h"
#include "coap_release.h"
#include "coap_server.h"
#include "vos_mem.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "coap_client";
constexpr size_t URI_PATH_ROOM = 40;
constexpr size_t MESSAGE_HEADER_SIZE = 4; // not counted in the size of a PDU
constexpr int64_t WAIT_S = 20;
constexpr int64_t TURN_MS = 2000;
constexpr uint32_t CODE_CONTENT = 69; // 2.05
constexpr uint32_t FIRST_ERROR_CLASS = 4;
constexpr uint32_t TCP_CLASS = 7;

bool takes_separate_answers = false;
int64_t wait_s = WAIT_S;

// What became of a request so far.
struct Exchange {
    const LanRequest *request;
    uint32_t code; // the last that came; 0: none
    bool rejected;
};

// One option of the request under construction.
struct CoapOption {
    CoapOption *next;
    uint16_t number;
    uint32_t length;
    uint8_t *value; // behind the record, in the same block
};

unsigned code_class(uint32_t code)
{
    return code >> 5;
}

unsigned code_detail(uint32_t code)
{
    return code & 0x1F;
}

CoapOption *coap_client_new_option_node(uint16_t number, uint32_t length, const uint8_t *value)
{
    CoapOption *option = nullptr;
    if (length <= COAP_MAX_MESSAGE_SIZE) {
        vos_mem_alloc(&option, static_cast<uint32_t>(sizeof *option) + length);
    }
    if (option == nullptr) {
        perror("new_option_node: malloc");
        return nullptr;
    }
    *option = {nullptr, number, length, reinterpret_cast<uint8_t *>(option + 1)};
    if (length != 0) {
        memcpy(option->value, value, length);
    }
    return option;
}

// Over 0: a new option a goes behind b; a missing record has no number to compare.
int coap_client_order_options(const CoapOption *a, const CoapOption *b)
{
    if (a == nullptr || b == nullptr) {
        return a < b ? -1 : 1;
    }
    if (a->number == b->number) {
        return 1;
    }
    return a->number < b->number ? -1 : 0;
}

bool insert_option(CoapOption **list, CoapOption *option)
{
    if (option == nullptr) {
        return false;
    }
    while (*list != nullptr && coap_client_order_options(option, *list) >= 0) {
        list = &(*list)->next;
    }
    option->next = *list;
    *list = option;
    return true;
}

void free_options(CoapOption **list)
{
    while (*list != nullptr) {
        CoapOption *option = *list;
        *list = option->next;
        vos_mem_free(&option);
    }
}

bool insert_port_option(CoapOption **list, uint16_t port)
{
    uint8_t value[sizeof port];
    const unsigned length = coap_encode_var_safe(value, sizeof value, port);
    return insert_option(list, coap_client_new_option_node(COAP_OPTION_URI_PORT, length, value));
}

bool insert_path_options(CoapOption **list, const LanRequest &request)
{
    uint8_t segments[URI_PATH_ROOM];
    size_t size = sizeof segments;
    const int count = coap_split_path(reinterpret_cast<const uint8_t *>(request.name),
                                      request.name_length, segments, &size);
    if (count < 0) {
        return false;
    }
    const uint8_t *segment = segments;
    for (int i = 0; i < count; ++i) {
        if (!insert_option(list, coap_client_new_option_node(COAP_OPTION_URI_PATH,
                                                             coap_opt_length(segment),
                                                             coap_opt_value(segment)))) {
            return false;
        }
        segment += coap_opt_size(segment);
    }
    return true;
}

// Null when memory is out. A payload that does not fit is left out; the library says so.
coap_pdu_t *build_pdu(coap_session_t *session, uint16_t port, const LanRequest &request,
                      const uint8_t *payload, uint16_t payload_length)
{
    CoapOption *options = nullptr;
    bool complete = (port == COAP_DEFAULT_PORT || insert_port_option(&options, port)) &&
                    (request.name_length == 0 || insert_path_options(&options, request));
    const auto type = static_cast<coap_pdu_type_t>(request.method >> 8 & 3);
    const auto code = static_cast<coap_pdu_code_t>(request.method & 0xFF);
    coap_pdu_t *pdu = coap_pdu_init(type, code, coap_new_message_id(session),
                                    COAP_MAX_MESSAGE_SIZE - MESSAGE_HEADER_SIZE);
    for (const CoapOption *option = options; pdu != nullptr && option != nullptr;
         option = option->next) {
        complete =
            coap_add_option(pdu, option->number, option->length, option->value) != 0 && complete;
    }
    free_options(&options);
    if (!complete) {
        coap_delete_pdu(pdu);
        return nullptr;
    }
    if (pdu != nullptr && payload_length != 0 && payload != nullptr) {
        coap_add_data(pdu, payload_length, payload);
    }
    return pdu;
}

struct DataAnswer {
    std::string_view resource;
    LanMsgType type;
};

constexpr DataAnswer DATA_ANSWERS[] = {
    {LAN_INFO_REQ.name, LAN_MSG_INFO},
    {LAN_STATISTICS_REQ.name, LAN_MSG_STATS},
    {LAN_CONFIG_GET_PARAM_REQ.name, LAN_MSG_PARAM},
};

void post_content(const coap_session_t *session, const LanRequest &request,
                  const coap_pdu_t *received)
{
    for (const DataAnswer &answer : DATA_ANSWERS) {
        if (request.name != answer.resource) {
            continue;
        }
        if (answer.type == LAN_MSG_INFO) {
            vos_trace_debug(MODULE, __LINE__, "info_req data received");
        }
        size_t length = 0;
        const uint8_t *data = nullptr;
        if (coap_get_data(received, &length, &data) != 0 &&
            lan_post_msg(answer.type, coap_session_get_addr_remote(session), data,
                         static_cast<uint32_t>(length)) != 1) {
            vos_trace_error(MODULE, __LINE__, "No room for the answer to %s",
                            answer.resource.data());
        }
    }
}

// In one write: the code and, after a blank, what the modem says about it.
void report_error_answer(uint32_t code, const coap_pdu_t *received)
{
    char line[COAP_MAX_MESSAGE_SIZE + 16];
    const int printed = snprintf(line, sizeof line, "%u.%02u", code_class(code), code_detail(code));
    auto size = static_cast<size_t>(printed);
    size_t length = 0;
    const uint8_t *data = nullptr;
    if (coap_get_data(received, &length, &data) != 0 && length != 0) {
        length = std::min(length, sizeof line - size - 2);
        line[size++] = ' ';
        memcpy(line + size, data, length);
        size += length;
    }
    line[size++] = '\n';
    fwrite(line, 1, size, stderr);
}

Exchange *exchange_of(const coap_session_t *session)
{
    return static_cast<Exchange *>(coap_get_app_data(coap_session_get_context(session)));
}

// The library acknowledges a confirmable response by itself once this has returned, or rejects it.
// It knows the request (sent) only by the message id, which a separate answer has not.
coap_response_t coap_client_response_handler(coap_session_t *session, const coap_pdu_t *sent,
                                             const coap_pdu_t *received, coap_mid_t /*id*/)
{
    const uint32_t code = coap_pdu_get_code(received);
    if (coap_get_log_level() >= COAP_LOG_DEBUG) {
        coap_log(COAP_LOG_DEBUG, "** process incoming %u.%02u response:\n", code_class(code),
                 code_detail(code));
        coap_show_pdu(COAP_LOG_DEBUG, received);
    }
    const bool acknowledgement = coap_pdu_get_type(received) == COAP_MESSAGE_ACK;
    if (code == 0 || (acknowledgement && sent == nullptr)) {
        return COAP_RESPONSE_OK; // acknowledges another message than ours
    }
    const bool separate = sent == nullptr && takes_separate_answers;
    if (separate && coap_pdu_get_token(received).length != 0) {
        return COAP_RESPONSE_FAIL; // our requests have no token
    }
    Exchange *exchange = exchange_of(session);
    exchange->code = code;
    if (code == CODE_CONTENT && (sent != nullptr || separate)) {
        post_content(session, *exchange->request, received);
    } else if (code_class(code) >= FIRST_ERROR_CLASS) {
        report_error_answer(code, received);
    }
    return COAP_RESPONSE_OK;
}

void coap_client_nack_handler(coap_session_t *session, const coap_pdu_t *sent,
                              coap_nack_reason_t reason, coap_mid_t /*id*/)
{
    if (sent != nullptr && reason != COAP_NACK_ICMP_ISSUE) {
        exchange_of(session)->rejected = true;
    }
}

// Milliseconds that no setting of the gateway's clock moves.
int64_t monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

// An ICMP error waits in the socket and would fail the next send or receive, on which the library
// gives the exchange up. A modem that is just restarting answers a later retransmission, so the
// error is taken off first.
void discard_socket_error(int descriptor)
{
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        perror("getsockopt");
    }
}

// Whether the library may read the socket. Looking takes an error off; a message with a code of
// class 7, which belongs to CoAP over TCP but which the library would answer all the same, is
// dropped.
bool has_message(int descriptor)
{
    uint8_t head[2];
    const ssize_t size = recv(descriptor, head, sizeof head, MSG_PEEK | MSG_DONTWAIT);
    if (size == sizeof head && code_class(head[1]) == TCP_CLASS) {
        recv(descriptor, head, sizeof head, MSG_DONTWAIT);
        return false;
    }
    return size >= 0;
}

// Waits at most that long, and a turn, for the library's timer or for the socket, and has the
// library do what is due. After a turn without either it looks by itself: a datagram that is read
// in the moment in which a repetition falls due has it switch its timer off.
void wait_for_event(coap_context_t *context, int descriptor, int64_t timeout_ms)
{
    const auto turn_ms = static_cast<int>(std::min(timeout_ms, TURN_MS));
    epoll_event event{};
    const int ready = epoll_wait(coap_context_get_coap_fd(context), &event, 1, turn_ms);
    if (ready < 0) {
        if (errno != EINTR) {
            perror("select");
            vos_util_sleep(1); // an error that stays must not spin
        }
        return;
    }
    const bool is_socket = ready > 0 && event.data.ptr != nullptr;
    if (!is_socket) {
        discard_socket_error(descriptor);
    }
    if (ready == 0) {
        coap_tick_t now = 0;
        coap_ticks(&now);
        coap_io_prepare_epoll(context, now);
    } else if (!is_socket || has_message(descriptor)) {
        coap_io_do_epoll(context, &event, 1);
    }
}

// An empty acknowledgement leaves nothing pending, and no answer.
bool is_over(coap_context_t *context)
{
    const auto *exchange = static_cast<const Exchange *>(coap_get_app_data(context));
    const bool ended = !takes_separate_answers || exchange->code != 0 || exchange->rejected;
    return ended && coap_can_exit(context) != 0;
}

// Runs the exchange until it is over or its time is.
void wait_for_exchange(coap_context_t *context, int descriptor)
{
    const int64_t deadline = monotonic_ms() + wait_s * 1000;
    coap_log(COAP_LOG_DEBUG, "timeout is set to %d seconds\n", static_cast<int>(wait_s));
    while (!is_over(context)) {
        const int64_t now = monotonic_ms();
        if (now >= deadline) {
            coap_log(COAP_LOG_INFO, "timeout\n");
            return;
        }
        wait_for_event(context, descriptor, deadline - now);
    }
}

// Takes the PDU over. When it can't be sent nothing is pending, and there is nothing to wait for.
void send_and_wait(coap_context_t *context, coap_session_t *session, coap_pdu_t *pdu)
{
    if (coap_get_log_level() >= COAP_LOG_DEBUG) {
        coap_log(COAP_LOG_DEBUG, "sending CoAP request:\n");
        coap_show_pdu(COAP_LOG_DEBUG, pdu);
    }
    const uint16_t port = coap_address_get_port(coap_session_get_addr_local(session));
    const int descriptor = coap_server_find_socket(context, port);
    if (descriptor < 0) {
        vos_trace_error(MODULE, __LINE__, "Can't find the socket on port %d", port);
        coap_delete_pdu(pdu);
        return;
    }
    if (coap_send(session, pdu) != COAP_INVALID_MID) {
        wait_for_exchange(context, descriptor);
    }
}

// False when memory is out and nothing was tried. Without a session there is no way to the modem's
// address: the exchange has ended before it began.
bool run_exchange(coap_context_t *context, const coap_address_t *remote, uint16_t port,
                  const LanRequest &request, const uint8_t *payload, uint16_t payload_length)
{
    coap_session_t *session = coap_new_client_session(context, nullptr, remote, COAP_PROTO_UDP);
    if (session == nullptr) {
        return true;
    }
    coap_session_set_mtu(session, COAP_MAX_MESSAGE_SIZE);
    coap_pdu_t *pdu = build_pdu(session, port, request, payload, payload_length);
    if (pdu == nullptr) {
        vos_trace_error(MODULE, __LINE__, "No memory for the request %s", request.name);
        return false;
    }
    send_and_wait(context, session, pdu);
    return true;
}

} // namespace

uint32_t coap_client_send_request(const coap_address_t *destination, uint16_t port,
                                  LanRequest request, const uint8_t *payload,
                                  uint16_t payload_length)
{
    coap_address_t remote = *destination;
    coap_address_set_port(&remote, port);
    coap_context_t *context = coap_server_get_context("0.0.0.0", "0");
    if (context == nullptr) {
        coap_log(COAP_LOG_EMERG, "cannot create context\n");
        return 0;
    }
    Exchange exchange{&request, 0, false};
    coap_set_app_data(context, &exchange);
    coap_register_response_handler(context, coap_client_response_handler);
    if (takes_separate_answers) {
        coap_register_nack_handler(context, coap_client_nack_handler);
    }
    if (run_exchange(context, &remote, port, request, payload, payload_length)) {
        vos_trace_debug(MODULE, __LINE__, "COAP RES:%d.%02d", code_class(exchange.code),
                        code_detail(exchange.code));
    }
    coap_free_context(context);
    return exchange.code;
}

void coap_client_take_separate_answers()
{
    takes_separate_answers = true;
}

void coap_client_limit_wait(uint32_t seconds)
{
    wait_s = std::min<int64_t>(WAIT_S, seconds);
}
