// What a modem sends by itself: announcements, received frames, the end of an installation.

#ifndef SIM_REPORTS_H
#define SIM_REPORTS_H

#include "sim_answers.h"
#include "sim_modem.h"
#include "sim_recorder.h"

#include <coap3/coap.h>
#include <list>
#include <optional>

namespace sim
{

class Reports
{
public:
    // The context is the one whose endpoint has the address own. Throws std::runtime_error when
    // announcements cannot be sent.
    Reports(coap_context_t *context, in_addr own, const Options &options,
            const std::vector<Bytes> &frames, Recorder &recorder, Modem &modem, Totals &totals);

    // A request came from this host: it is the gateway, unless one is known already.
    void request_came_from(in_addr host);

    // An answer arrived. Called from the library's response handler.
    void answer_came(in_addr host, const coap_pdu_t *answer);

    // A message found no receiver. Called from the library's nack handler.
    void delivery_failed(coap_mid_t id, coap_nack_reason_t reason);

    // Sends what is due.
    void tick(Time now);

    // When tick has something to do next.
    std::optional<Time> next_due();

private:
    enum class Kind { announcement, frame, installation };
    enum class Outcome { none, acknowledged, refused, lost };

    // A report that waits for its answer.
    struct Open {
        uint32_t token;
        coap_mid_t id;
        Kind kind;
        Bytes frame;                  // to be recorded, unless it is empty
        std::optional<Time> deadline; // the library watches over confirmable messages
    };

    bool open_session(in_addr gateway);
    coap_pdu_t *build(Kind kind, bool confirmable, const Bytes &payload);
    bool send(Kind kind, bool confirmable, const Bytes &payload, const Bytes &frame = {});
    void announce();
    bool announce_to_group(const Bytes &info);
    Bytes next_frame();
    void send_frame(Time now);
    void send_install_result();
    std::list<Open>::iterator first_timed();
    void expire(Time now);
    bool frame_may_go() const;
    void settle(std::list<Open>::iterator open, Outcome outcome, const std::string &detail);
    void count_frame(Outcome outcome, const std::string &detail);
    void record(const Bytes &frame);
    bool report_goes_wrong();

    coap_context_t *m_context;
    const in_addr m_own;
    const Options &m_options;
    const std::vector<Bytes> &m_frames;
    Recorder &m_recorder;
    Modem &m_modem;
    Totals &m_totals;

    Descriptor m_group_sender;
    uint16_t m_group_message_id;
    std::optional<in_addr> m_gateway;
    bool m_gateway_is_certain;
    SessionPtr m_session;

    std::list<Open> m_open;
    uint32_t m_last_token = 0;
    std::optional<Time> m_next_announcement;
    Time m_next_frame{};
    size_t m_frame_index = 0;
    uint32_t m_frames_sent = 0;
    unsigned m_reports = 0;
    unsigned m_spoiled = 0;
    Outcome m_last_outcome = Outcome::none;
    bool m_announcing_failed = false;
};

} // namespace sim

#endif
