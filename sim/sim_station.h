// One modem on the network: its address, its CoAP server and what it sends from there.

#ifndef SIM_STATION_H
#define SIM_STATION_H

#include "sim_answers.h"
#include "sim_modem.h"
#include "sim_reports.h"

#include <coap3/coap.h>
#include <memory>
#include <optional>

namespace sim
{

class Station
{
public:
    // Opens the modem's address. Throws std::runtime_error when that fails.
    Station(const Options &options, in_addr address, uint32_t serial,
            const std::vector<Bytes> &frames, Collector &collector, Recorder &recorder,
            Totals &totals);
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;
    ~Station();

    // A descriptor that is readable when turn has something to do.
    int descriptor() const;

    void restart() { m_modem.restart(); }

    // Receives and sends what is due, without waiting.
    void turn();

    // When turn is to be called even if nothing arrives.
    std::optional<Time> next_due();

private:
    struct ContextRelease {
        void operator()(coap_context_t *context) const { coap_free_context(context); }
    };

    static Station &of(const coap_session_t *session);
    static void on_request(coap_resource_t *resource, coap_session_t *session,
                           const coap_pdu_t *request, const coap_string_t *query,
                           coap_pdu_t *response);
    static coap_response_t on_response(coap_session_t *session, const coap_pdu_t *sent,
                                       const coap_pdu_t *received, coap_mid_t id);
    static void on_nack(coap_session_t *session, const coap_pdu_t *sent, coap_nack_reason_t reason,
                        coap_mid_t id);

    void open_endpoint(in_addr address);
    void serve();

    // In the order in which they depend on each other: sessions must be gone before the context.
    Descriptor m_claim;
    Modem m_modem;
    std::unique_ptr<coap_context_t, ContextRelease> m_context;
    Answers m_answers;
    std::unique_ptr<Reports> m_reports;
};

} // namespace sim

#endif
