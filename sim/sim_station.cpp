#include "sim_station.h"

#include "sim_log.h"

#include <exception>
#include <stdexcept>

namespace sim
{

namespace
{

// Each request of the gateway comes from a port of its own and leaves a session behind.
constexpr unsigned IDLE_SESSIONS_MAX = 64;
constexpr unsigned SESSION_LIFETIME = 60;

} // namespace

Station::Station(const Options &options, in_addr address, uint32_t serial,
                 const std::vector<Bytes> &frames, Collector &collector, Recorder &recorder,
                 Totals &totals)
    : m_claim(claim_address(address)), m_modem(options, serial, collector),
      m_context(coap_new_context(nullptr)), m_answers(m_modem, options.faults, totals)
{
    if (!m_context || coap_context_get_coap_fd(m_context.get()) < 0) {
        throw std::runtime_error("the CoAP library gives no context that can be waited for");
    }
    coap_set_app_data(m_context.get(), this);
    coap_context_set_max_idle_sessions(m_context.get(), IDLE_SESSIONS_MAX);
    coap_context_set_session_timeout(m_context.get(), SESSION_LIFETIME);
    open_endpoint(address);
    serve();
    log_event(m_modem.name(), "modem on %s port %u", address_text(address).c_str(), COAP_PORT);
    m_reports = std::make_unique<Reports>(m_context.get(), address, options, frames, recorder,
                                          m_modem, totals);
}

void Station::open_endpoint(in_addr address)
{
    coap_address_t listen;
    coap_address_init(&listen);
    listen.addr.sin = socket_address(address, COAP_PORT);
    listen.size = sizeof listen.addr.sin;
    coap_endpoint_t *endpoint = coap_new_endpoint(m_context.get(), &listen, COAP_PROTO_UDP);
    if (endpoint == nullptr) {
        throw std::runtime_error(make_text("cannot open %s port %u: is it an address of this host?",
                                           address_text(address).c_str(), COAP_PORT));
    }
    // Whatever fits in an Ethernet frame: the library's own limit is below the gateway's 1400
    // bytes.
    coap_endpoint_set_default_mtu(endpoint, COAP_RXBUFFER_SIZE);
}

void Station::serve()
{
    for (const Modem::Resource &entry : Modem::RESOURCES) {
        coap_resource_t *resource = coap_resource_init(coap_make_str_const(entry.name), 0);
        if (resource == nullptr) {
            throw std::bad_alloc();
        }
        coap_resource_set_userdata(resource, const_cast<Modem::Resource *>(&entry));
        coap_register_request_handler(resource, entry.method, on_request);
        coap_add_resource(m_context.get(), resource);
    }
    coap_register_response_handler(m_context.get(), on_response);
    coap_register_nack_handler(m_context.get(), on_nack);
}

Station::~Station()
{
    // The library reports what it still has to send as undeliverable when its context goes, and by
    // then there is nobody to report to.
    coap_register_nack_handler(m_context.get(), nullptr);
}

Station &Station::of(const coap_session_t *session)
{
    return *static_cast<Station *>(coap_get_app_data(coap_session_get_context(session)));
}

void Station::on_request(coap_resource_t *resource, coap_session_t *session,
                         const coap_pdu_t *request, const coap_string_t * /*query*/,
                         coap_pdu_t *response)
{
    Station &station = of(session);
    const auto *entry = static_cast<const Modem::Resource *>(coap_resource_get_userdata(resource));
    try { // nothing may be thrown through the library
        station.m_reports->request_came_from(
            coap_session_get_addr_remote(session)->addr.sin.sin_addr);
        station.m_answers.handle(session, request, *entry, response);
    } catch (const std::exception &error) {
        log_event(station.m_modem.name(), "%s failed: %s", entry->name, error.what());
        coap_pdu_set_code(response, COAP_RESPONSE_CODE_INTERNAL_ERROR);
    }
}

coap_response_t Station::on_response(coap_session_t *session, const coap_pdu_t * /*sent*/,
                                     const coap_pdu_t *received, coap_mid_t /*id*/)
{
    of(session).m_reports->answer_came(coap_session_get_addr_remote(session)->addr.sin.sin_addr,
                                       received);
    return COAP_RESPONSE_OK;
}

void Station::on_nack(coap_session_t *session, const coap_pdu_t * /*sent*/,
                      coap_nack_reason_t reason, coap_mid_t id)
{
    Station &station = of(session);
    if (coap_session_get_type(session) == COAP_SESSION_TYPE_CLIENT) {
        station.m_reports->delivery_failed(id, reason);
    } else {
        log_event(station.m_modem.name(), "nobody acknowledged a separate answer");
    }
}

int Station::descriptor() const
{
    return coap_context_get_coap_fd(m_context.get());
}

void Station::turn()
{
    if (coap_io_process(m_context.get(), COAP_IO_NO_WAIT) < 0) {
        throw std::runtime_error("the CoAP library failed");
    }
    m_answers.stop_swallowing();
    const Time now = Clock::now();
    m_answers.tick(now);
    m_reports->tick(now);
}

std::optional<Time> Station::next_due()
{
    const std::optional<Time> answer = m_answers.next_due();
    const std::optional<Time> report = m_reports->next_due();
    if (!answer || !report) {
        return answer ? answer : report;
    }
    return std::min(*answer, *report);
}

} // namespace sim
