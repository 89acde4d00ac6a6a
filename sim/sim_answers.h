// Answers the gateway's requests: each request is carried out once, however often it arrives, and
// meets the faults that were asked for.

#ifndef SIM_ANSWERS_H
#define SIM_ANSWERS_H

#include "sim_modem.h"

#include <coap3/coap.h>
#include <deque>
#include <memory>
#include <optional>

namespace sim
{

// What the summary at the end tells.
struct Totals {
    uint64_t sent = 0;
    uint64_t acknowledged = 0;
    uint64_t refused = 0;
    uint64_t lost = 0;
    uint64_t requests = 0;
    uint64_t answered = 0;
};

// A CoAP session kept from being closed.
struct SessionRelease {
    void operator()(coap_session_t *session) const { coap_session_release(session); }
};
using SessionPtr = std::unique_ptr<coap_session_t, SessionRelease>;

class Answers
{
public:
    Answers(Modem &modem, const FaultPlan &faults, Totals &totals)
        : m_modem(modem), m_faults(faults), m_totals(totals)
    {
    }

    // Carries out a request and fills its response. Called from the library's request handler.
    void handle(coap_session_t *session, const coap_pdu_t *request, const Modem::Resource &resource,
                coap_pdu_t *response);

    // To be called when the library has sent what the handler left to it.
    void stop_swallowing();

    // Sends the delayed answers that are due.
    void tick(Time now);

    // When tick has something to do next.
    std::optional<Time> next_due() const;

private:
    // A request that was carried out, kept as long as it may arrive again.
    struct Exchange {
        Bytes identity;
        Time expires;
        Fault fault = Fault::none;
        Answer answer{};
        std::optional<Time> due; // set while its delayed answer waits
        SessionPtr session;      // the same
        coap_pdu_type_t type{};
        coap_mid_t id{};
        Bytes token;
    };

    Exchange *find(const Bytes &identity);
    Exchange &remember(Bytes identity);
    void carry_out(Exchange &exchange, const Modem::Resource &resource, ByteView payload);
    void deliver(Exchange &exchange, coap_session_t *session, const coap_pdu_t *request,
                 coap_pdu_t *response);
    void repeat(const Exchange &exchange, coap_session_t *session, const coap_pdu_t *request,
                coap_pdu_t *response);
    void postpone(Exchange &exchange, coap_session_t *session, const coap_pdu_t *request);
    void swallow(coap_pdu_t *response);
    void send_delayed(Exchange &exchange);

    Modem &m_modem;
    FaultCounter m_faults;
    Totals &m_totals;
    std::deque<Exchange> m_exchanges;
    unsigned m_spoiled = 0;
    bool m_swallowing = false;
};

} // namespace sim

#endif
