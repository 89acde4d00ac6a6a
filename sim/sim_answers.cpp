#include "sim_answers.h"

#include "sim_log.h"

#include <algorithm>

namespace sim
{

namespace
{

// How long a message id stays in use between two peers, and how many exchanges are remembered.
constexpr std::chrono::seconds EXCHANGE_LIFETIME{247};
constexpr size_t EXCHANGES_MAX = 1024;
// A list of datagrams to drop, counted from now on: the first, or one far beyond any that is sent.
// A percentage, 0% included, would not take back a list.
constexpr const char *NEXT_SENT = "1";
constexpr const char *NEVER_SENT = "2000000000";
constexpr size_t PDU_ROOM = 32; // options and payload marker

ByteView payload_of(const coap_pdu_t *request)
{
    size_t length = 0;
    const uint8_t *data = nullptr;
    if (coap_get_data(request, &length, &data) == 0) {
        return {};
    }
    return {data, length};
}

ByteView token_of(const coap_pdu_t *pdu)
{
    const coap_bin_const_t token = coap_pdu_get_token(pdu);
    return {token.s, token.length};
}

// Two messages with the same identity are one message that was sent twice. The peer and the message
// id alone would do for well-behaved peers; the rest spares a restarted one a stale answer.
Bytes identity_of(const coap_session_t *session, const coap_pdu_t *request, std::string_view name)
{
    const sockaddr_in &peer = coap_session_get_addr_remote(session)->addr.sin;
    Bytes identity;
    put(identity, peer.sin_addr.s_addr, 4);
    put(identity, peer.sin_port, 2);
    put(identity, static_cast<uint32_t>(coap_pdu_get_mid(request)), 2);
    put(identity, static_cast<uint32_t>(coap_pdu_get_type(request)), 1);
    put(identity, static_cast<uint32_t>(coap_pdu_get_code(request)), 1);
    put(identity, static_cast<uint32_t>(coap_pdu_get_token(request).length), 1);
    append(identity, token_of(request));
    append(identity, Bytes(name.begin(), name.end()));
    append(identity, payload_of(request));
    return identity;
}

bool fill(coap_pdu_t *pdu, const Answer &answer)
{
    coap_pdu_set_code(pdu, answer.code);
    return answer.payload.empty() ||
           coap_add_data(pdu, answer.payload.size(), answer.payload.data()) != 0;
}

} // namespace

void Answers::handle(coap_session_t *session, const coap_pdu_t *request,
                     const Modem::Resource &resource, coap_pdu_t *response)
{
    Bytes identity = identity_of(session, request, resource.name);
    if (const Exchange *known = find(identity)) {
        log_detail(m_modem.name(), "%s arrived again", resource.name);
        repeat(*known, session, request, response);
        return;
    }
    ++m_totals.requests;
    Exchange &exchange = remember(std::move(identity));
    carry_out(exchange, resource, payload_of(request));
    deliver(exchange, session, request, response);
    if (exchange.fault != Fault::none) {
        log_event(m_modem.name(), "fault %s for this %s", fault_name(exchange.fault),
                  resource.name);
    }
}

Answers::Exchange *Answers::find(const Bytes &identity)
{
    const auto found =
        std::find_if(m_exchanges.begin(), m_exchanges.end(), [&](const Exchange &exchange) {
            return exchange.identity == identity && exchange.expires > Clock::now();
        });
    return found != m_exchanges.end() ? &*found : nullptr;
}

Answers::Exchange &Answers::remember(Bytes identity)
{
    if (m_exchanges.size() == EXCHANGES_MAX) {
        if (m_exchanges.front().due) {
            log_event(m_modem.name(), "too many answers wait, the oldest is given up");
        }
        m_exchanges.pop_front();
    }
    Exchange &exchange = m_exchanges.emplace_back();
    exchange.identity = std::move(identity);
    exchange.expires = Clock::now() + EXCHANGE_LIFETIME;
    return exchange;
}

void Answers::carry_out(Exchange &exchange, const Modem::Resource &resource, ByteView payload)
{
    exchange.fault = m_faults.next();
    if (exchange.fault == Fault::error || exchange.fault == Fault::reset) {
        exchange.answer = m_faults.plan().error;
        return;
    }
    exchange.answer = m_modem.act(resource, payload);
    if (exchange.fault == Fault::malformed) {
        exchange.answer = spoil_answer(resource.name, exchange.answer, m_spoiled++);
    }
}

void Answers::deliver(Exchange &exchange, coap_session_t *session, const coap_pdu_t *request,
                      coap_pdu_t *response)
{
    switch (exchange.fault) {
    case Fault::none:
    case Fault::error:
    case Fault::malformed:
        if (!fill(response, exchange.answer)) {
            log_event(m_modem.name(), "the answer does not fit in a message, its payload is lost");
        }
        ++m_totals.answered;
        break;
    case Fault::late:
        postpone(exchange, session, request);
        swallow(response);
        break;
    case Fault::separate: // a response without a code goes out as an empty acknowledgement
        postpone(exchange, session, request);
        break;
    case Fault::reset:
        coap_send_rst(session, request);
        swallow(response);
        break;
    case Fault::lost:
        swallow(response);
        break;
    }
}

void Answers::repeat(const Exchange &exchange, coap_session_t *session, const coap_pdu_t *request,
                     coap_pdu_t *response)
{
    switch (exchange.fault) {
    case Fault::separate:
        return;
    case Fault::reset:
        coap_send_rst(session, request);
        swallow(response);
        return;
    case Fault::late:
        if (exchange.due) {
            swallow(response);
            return;
        }
        break;
    default: // an answer that was lost is sent again, and may get lost again
        if (m_faults.plan().fault == Fault::lost && m_faults.next() == Fault::lost) {
            log_event(m_modem.name(), "fault lost for a repeated request");
            swallow(response);
            return;
        }
        break;
    }
    fill(response, exchange.answer);
    m_totals.answered += exchange.fault == Fault::lost ? 1 : 0;
}

void Answers::postpone(Exchange &exchange, coap_session_t *session, const coap_pdu_t *request)
{
    const ByteView token = token_of(request);
    exchange.due = Clock::now() + m_faults.plan().delay;
    exchange.session.reset(coap_session_reference(session));
    exchange.type = coap_pdu_get_type(request);
    exchange.id = coap_pdu_get_mid(request);
    exchange.token.assign(token.begin(), token.end());
}

// Lets the library drop the one datagram that it sends when the request handler returns. The code
// makes sure that it sends one.
void Answers::swallow(coap_pdu_t *response)
{
    coap_pdu_set_code(response, COAP_RESPONSE_CODE_CHANGED);
    coap_debug_set_packet_loss(NEXT_SENT);
    m_swallowing = true;
}

void Answers::stop_swallowing()
{
    if (m_swallowing) {
        coap_debug_set_packet_loss(NEVER_SENT);
        m_swallowing = false;
    }
}

void Answers::tick(Time now)
{
    for (Exchange &exchange : m_exchanges) {
        if (exchange.due && *exchange.due <= now) {
            send_delayed(exchange);
            exchange.due.reset();
            exchange.session.reset();
        }
    }
    while (!m_exchanges.empty() && m_exchanges.front().expires <= now && !m_exchanges.front().due) {
        m_exchanges.pop_front();
    }
}

void Answers::send_delayed(Exchange &exchange)
{
    coap_session_t *session = exchange.session.get();
    const bool confirmed = exchange.type == COAP_MESSAGE_CON;
    const bool acknowledges = confirmed && exchange.fault == Fault::late;
    const coap_pdu_type_t own_type = confirmed ? COAP_MESSAGE_CON : COAP_MESSAGE_NON;
    const coap_pdu_type_t type = acknowledges ? COAP_MESSAGE_ACK : own_type;
    const coap_mid_t id = acknowledges ? exchange.id : coap_new_message_id(session);
    coap_pdu_t *pdu =
        coap_pdu_init(type, exchange.answer.code, id,
                      exchange.token.size() + exchange.answer.payload.size() + PDU_ROOM);
    if (pdu == nullptr) {
        log_event(m_modem.name(), "no memory for a delayed answer");
        return;
    }
    const bool complete = coap_add_token(pdu, exchange.token.size(), exchange.token.data()) != 0 &&
                          fill(pdu, exchange.answer);
    if (!complete) {
        coap_delete_pdu(pdu);
        log_event(m_modem.name(), "a delayed answer could not be built");
        return;
    }
    if (coap_send(session, pdu) == COAP_INVALID_MID) {
        log_event(m_modem.name(), "a delayed answer could not be sent");
        return;
    }
    ++m_totals.answered;
    log_event(m_modem.name(), "sent the delayed answer %s",
              code_text(exchange.answer.code).c_str());
}

std::optional<Time> Answers::next_due() const
{
    std::optional<Time> next;
    for (const Exchange &exchange : m_exchanges) {
        if (exchange.due && (!next || *exchange.due < *next)) {
            next = exchange.due;
        }
    }
    return next;
}

} // namespace sim
