#include "sim_reports.h"

#include "sim_log.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace sim
{

namespace
{

constexpr std::chrono::seconds ANSWER_WAIT{2}; // of a report that is not confirmable
constexpr std::chrono::seconds FAILURE_PAUSE{1};
constexpr Milliseconds CATCH_UP_MAX{100};
constexpr uint16_t RETRANSMISSIONS = 2; // a lost frame is given up after 14 to 21 seconds
constexpr size_t OPEN_MAX = 4096;
constexpr unsigned SPOILED_EVERY = 4;
constexpr size_t TOKEN_SIZE = 4;
constexpr size_t PDU_ROOM = 64; // options and payload marker

constexpr std::string_view ANNOUNCEMENT_NAME = "info_ind";

struct Target {
    const char *name;
    coap_pdu_code_t method;
};

// By kind of report.
constexpr Target TARGETS[] = {
    {"info_ind", COAP_REQUEST_CODE_POST},
    {"rx_msg_req", COAP_REQUEST_CODE_PUT},
    {"firmware_install_ind", COAP_REQUEST_CODE_POST},
};

coap_address_t coap_address(in_addr address)
{
    coap_address_t result;
    coap_address_init(&result);
    result.addr.sin = socket_address(address, COAP_PORT);
    result.size = sizeof result.addr.sin;
    return result;
}

std::optional<uint32_t> token_number(const coap_pdu_t *pdu)
{
    const coap_bin_const_t token = coap_pdu_get_token(pdu);
    if (token.length != TOKEN_SIZE) {
        return std::nullopt;
    }
    return Reader({token.s, token.length}).u32();
}

} // namespace

Reports::Reports(coap_context_t *context, in_addr own, const Options &options,
                 const std::vector<Bytes> &frames, Recorder &recorder, Modem &modem, Totals &totals)
    : m_context(context), m_own(own), m_options(options), m_frames(frames), m_recorder(recorder),
      m_modem(modem), m_totals(totals),
      m_group_message_id(static_cast<uint16_t>(std::random_device{}())),
      m_gateway_is_certain(!is_multicast(options.announce_to)), m_next_announcement(Clock::now())
{
    if (!m_gateway_is_certain) {
        m_group_sender = open_group_sender(own, options.announce_to);
    } else if (!open_session(options.announce_to)) {
        throw std::runtime_error("no way from " + address_text(own) + " to " +
                                 address_text(options.announce_to));
    }
}

bool Reports::open_session(in_addr gateway)
{
    // Bound to the endpoint's own address and port, because the gateway tells modems apart by them;
    // connected to the gateway's port, so that all other datagrams still reach the endpoint.
    const coap_address_t local = coap_address(m_own);
    const coap_address_t remote = coap_address(gateway);
    m_session.reset(coap_new_client_session(m_context, &local, &remote, COAP_PROTO_UDP));
    if (!m_session) {
        log_event(m_modem.name(), "no way to %s", address_text(gateway).c_str());
        return false;
    }
    coap_session_set_max_retransmit(m_session.get(), RETRANSMISSIONS);
    m_gateway = gateway;
    log_event(m_modem.name(), "reports to %s", address_text(gateway).c_str());
    return true;
}

void Reports::request_came_from(in_addr host)
{
    if (m_gateway_is_certain) {
        return;
    }
    // The host waits for its answer now: this is the moment to open a socket on the endpoint's
    // address without a datagram going to it before it is connected.
    const bool known = m_session && m_gateway && m_gateway->s_addr == host.s_addr;
    m_gateway_is_certain = known || open_session(host);
}

void Reports::answer_came(in_addr host, const coap_pdu_t *answer)
{
    const unsigned code = coap_pdu_get_code(answer);
    const std::optional<uint32_t> token = token_number(answer);
    const auto open = std::find_if(m_open.begin(), m_open.end(),
                                   [&](const Open &entry) { return token == entry.token; });
    if (open != m_open.end()) {
        const bool success = COAP_RESPONSE_CLASS(code) == 2;
        settle(open, success ? Outcome::acknowledged : Outcome::refused, code_text(code));
        return;
    }
    if (COAP_RESPONSE_CLASS(code) != 2) {
        return; // some other host of the group
    }
    log_detail(m_modem.name(), "announcement answered by %s (%s)", address_text(host).c_str(),
               code_text(code).c_str());
    // Most gateways send a request next, and then is the better moment to open the session.
    if (!m_session && m_options.always) {
        open_session(host);
    }
}

void Reports::delivery_failed(coap_mid_t id, coap_nack_reason_t reason)
{
    const auto open = std::find_if(m_open.begin(), m_open.end(),
                                   [&](const Open &entry) { return entry.id == id; });
    if (open == m_open.end()) {
        return;
    }
    switch (reason) {
    case COAP_NACK_ICMP_ISSUE: // not the end: the library goes on repeating the message
        log_detail(m_modem.name(), "gateway unreachable, the report will be repeated");
        break;
    case COAP_NACK_RST:
        settle(open, Outcome::refused, "reset");
        break;
    default:
        settle(open, Outcome::lost, "no answer");
        break;
    }
}

void Reports::settle(std::list<Open>::iterator open, Outcome outcome, const std::string &detail)
{
    const Kind kind = open->kind;
    const Bytes frame = std::move(open->frame);
    m_open.erase(open);
    if (kind == Kind::frame) {
        count_frame(outcome, detail);
        if (outcome == Outcome::acknowledged && !frame.empty()) {
            record(frame);
        }
    } else if (kind == Kind::installation) {
        log_event(m_modem.name(), "firmware_install_ind: %s", detail.c_str());
    }
}

void Reports::count_frame(Outcome outcome, const std::string &detail)
{
    const char *result = "acknowledged";
    switch (outcome) {
    case Outcome::refused:
        ++m_totals.refused;
        result = "refused";
        break;
    case Outcome::lost:
        ++m_totals.lost;
        result = "lost";
        break;
    default:
        ++m_totals.acknowledged;
        break;
    }
    if (outcome != m_last_outcome) {
        m_last_outcome = outcome;
        log_event(m_modem.name(), "frames are %s now (%s)", result, detail.c_str());
    } else {
        log_detail(m_modem.name(), "frame %s (%s)", result, detail.c_str());
    }
}

void Reports::record(const Bytes &frame)
{
    if (!m_recorder.append(frame)) {
        log_event(m_modem.name(), "a frame could not be recorded");
    }
}

bool Reports::report_goes_wrong()
{
    return m_options.malformed_reports && ++m_reports % SPOILED_EVERY == 0;
}

coap_pdu_t *Reports::build(Kind kind, bool confirmable, const Bytes &payload)
{
    const Target &target = TARGETS[static_cast<size_t>(kind)];
    const std::string_view name = target.name;
    coap_pdu_t *pdu =
        coap_pdu_init(confirmable ? COAP_MESSAGE_CON : COAP_MESSAGE_NON, target.method,
                      coap_new_message_id(m_session.get()), payload.size() + PDU_ROOM);
    if (pdu == nullptr) {
        return nullptr;
    }
    Bytes token;
    put(token, ++m_last_token, TOKEN_SIZE);
    const bool complete =
        coap_add_token(pdu, token.size(), token.data()) != 0 &&
        coap_add_option(pdu, COAP_OPTION_URI_PATH, name.size(),
                        reinterpret_cast<const uint8_t *>(name.data())) != 0 &&
        (payload.empty() || coap_add_data(pdu, payload.size(), payload.data()) != 0);
    if (!complete) {
        coap_delete_pdu(pdu);
        return nullptr;
    }
    return pdu;
}

bool Reports::send(Kind kind, bool confirmable, const Bytes &payload, const Bytes &frame)
{
    // A gateway's refusal of an earlier datagram may come out at the next one, which then does not
    // leave; so only the second failure is this report's own.
    coap_mid_t id = COAP_INVALID_MID;
    for (int attempt = 0; attempt < 2 && id == COAP_INVALID_MID; ++attempt) {
        coap_pdu_t *pdu = build(kind, confirmable, payload);
        id = pdu != nullptr ? coap_send(m_session.get(), pdu) : COAP_INVALID_MID;
    }
    if (id == COAP_INVALID_MID) {
        return false;
    }
    // Announcements need no watching: the next one comes anyway.
    if (kind != Kind::announcement) {
        std::optional<Time> deadline;
        if (!confirmable) {
            deadline = Clock::now() + ANSWER_WAIT;
        }
        m_open.push_back({m_last_token, id, kind, frame, deadline});
    }
    return true;
}

bool Reports::announce_to_group(const Bytes &info)
{
    constexpr uint8_t VERSION_1_NON = 0x50;
    constexpr uint8_t URI_PATH_OF_8 = 0xB8;
    constexpr uint8_t PAYLOAD_MARKER = 0xFF;
    static_assert(ANNOUNCEMENT_NAME.size() == 8);
    const uint16_t id = ++m_group_message_id;
    Bytes message{VERSION_1_NON, COAP_REQUEST_CODE_POST, static_cast<uint8_t>(id >> 8),
                  static_cast<uint8_t>(id & 0xFF), URI_PATH_OF_8};
    append(message, Bytes(ANNOUNCEMENT_NAME.begin(), ANNOUNCEMENT_NAME.end()));
    if (!info.empty()) {
        message.push_back(PAYLOAD_MARKER);
        append(message, info);
    }
    return ::send(m_group_sender.get(), message.data(), message.size(), 0) >= 0;
}

void Reports::announce()
{
    Bytes info = m_modem.info();
    if (report_goes_wrong()) {
        info = spoil_info(info, m_spoiled++);
    }
    const bool sent =
        m_group_sender ? announce_to_group(info) : send(Kind::announcement, false, info);
    const std::string why = m_group_sender ? std::generic_category().message(errno) : "not sent";
    const std::string to = address_text(m_options.announce_to);
    if (!sent && !m_announcing_failed) {
        log_event(m_modem.name(), "cannot announce to %s: %s", to.c_str(), why.c_str());
    } else if (sent && m_announcing_failed) {
        log_event(m_modem.name(), "announces to %s again", to.c_str());
    } else if (sent) {
        log_detail(m_modem.name(), "announced to %s", to.c_str());
    }
    m_announcing_failed = !sent;
}

bool Reports::frame_may_go() const
{
    const bool finished = m_options.frame_count != 0 && m_frames_sent == m_options.frame_count;
    if (!m_options.frame_interval || finished || !m_session || !m_modem.hears()) {
        return false;
    }
    // A confirmable frame, and one sent at full speed, waits for the answer to the last.
    const bool one_at_a_time = m_options.confirmable || m_options.frame_interval->count() == 0;
    return one_at_a_time ? m_open.empty() : m_open.size() < OPEN_MAX;
}

Bytes Reports::next_frame()
{
    if (m_recorder.wanted()) {
        return m_recorder.frame(m_modem.serial(), m_frames_sent);
    }
    return m_frames[std::exchange(m_frame_index, (m_frame_index + 1) % m_frames.size())];
}

void Reports::send_frame(Time now)
{
    const Bytes frame = next_frame();
    Bytes report = m_modem.receive(frame);
    if (report_goes_wrong()) {
        report = spoil_frame_report(report, m_spoiled++);
    }
    ++m_frames_sent;
    ++m_totals.sent;
    // Small delays are made up for, so that the rate is kept; long ones (a slow answer, a stopped
    // modem) are not.
    if (now > m_next_frame + *m_options.frame_interval + CATCH_UP_MAX) {
        m_next_frame = now;
    }
    m_next_frame += *m_options.frame_interval;
    const Bytes recorded = m_recorder.wanted() ? frame : Bytes{};
    if (!send(Kind::frame, m_options.confirmable, report, recorded)) {
        m_next_frame = now + FAILURE_PAUSE;
        count_frame(Outcome::lost, "not sent");
    }
    if (m_frames_sent == m_options.frame_count) {
        log_event(m_modem.name(), "has reported all of its %u frames", m_frames_sent);
    }
}

void Reports::send_install_result()
{
    Bytes result = m_modem.finish_install();
    if (report_goes_wrong()) {
        result.clear();
    }
    if (!m_session || !send(Kind::installation, true, result)) {
        log_event(m_modem.name(), "firmware_install_ind could not be sent");
    }
}

std::list<Reports::Open>::iterator Reports::first_timed()
{
    return std::find_if(m_open.begin(), m_open.end(),
                        [](const Open &entry) { return entry.deadline.has_value(); });
}

void Reports::expire(Time now)
{
    for (auto oldest = first_timed(); oldest != m_open.end() && *oldest->deadline <= now;
         oldest = first_timed()) {
        settle(oldest, Outcome::lost, "no answer");
    }
}

void Reports::tick(Time now)
{
    expire(now);
    const bool announcement_due = m_next_announcement && *m_next_announcement <= now;
    if (m_modem.take_announcement_wish() || announcement_due) {
        m_next_announcement.reset();
        if (m_options.announce_every.count() > 0) {
            m_next_announcement = now + m_options.announce_every;
        }
        announce();
    }
    if (m_modem.install_end() && *m_modem.install_end() <= now) {
        send_install_result();
    }
    if (frame_may_go() && m_next_frame <= now) {
        send_frame(now);
    }
}

std::optional<Time> Reports::next_due()
{
    std::optional<Time> next = m_next_announcement;
    const auto consider = [&next](const std::optional<Time> &time) {
        if (time && (!next || *time < *next)) {
            next = time;
        }
    };
    consider(m_modem.install_end());
    if (frame_may_go()) {
        consider(m_next_frame);
    }
    if (const auto oldest = first_timed(); oldest != m_open.end()) {
        consider(oldest->deadline);
    }
    return next;
}

} // namespace sim
