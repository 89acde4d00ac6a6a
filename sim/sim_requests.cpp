// What each request of the gateway does to the modem.

#include "sim_log.h"
#include "sim_modem.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace sim
{

namespace
{

constexpr uint8_t COMMAND_STOP = 1;
constexpr uint8_t COMMAND_START = 2;
constexpr uint8_t MODE_N2_2400 = 16;
constexpr size_t TX_HEADER_SIZE = 12;
constexpr size_t TX_EXT_HEADER_SIZE = 32;
constexpr size_t FIRMWARE_HEADER_SIZE = 6;
constexpr size_t PARAMETERS_MAX = 256;
constexpr size_t STATISTICS_SIZE_LEAST = 54;

// What a handler throws to answer an error code with a text.
struct Refusal {
    coap_pdu_code_t code;
    std::string why;
};

[[noreturn]] void bad_request(const std::string &why)
{
    throw Refusal{COAP_RESPONSE_CODE_BAD_REQUEST, why};
}

void expect_size(ByteView payload, size_t size)
{
    if (payload.size() != size) {
        bad_request(make_text("payload has %zu bytes instead of %zu", payload.size(), size));
    }
}

void expect_header(ByteView payload, size_t size)
{
    if (payload.size() < size) {
        bad_request(make_text("payload has %zu bytes, less than %zu", payload.size(), size));
    }
}

void expect_rest(const char *what, size_t announced, size_t found)
{
    if (announced != found) {
        bad_request(
            make_text("%s of %zu bytes announced, %zu bytes follow", what, announced, found));
    }
}

Answer changed()
{
    return {COAP_RESPONSE_CODE_CHANGED, {}};
}

std::string hex_text(ByteView bytes)
{
    constexpr size_t SHOWN_MAX = 32;
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), SHOWN_MAX))) {
        text += make_text("%02x", byte);
    }
    return bytes.size() > SHOWN_MAX ? text + "..." : text;
}

std::string mode_text(uint8_t mode)
{
    return mode == MODE_N2_2400 ? "16 (N2_2400)" : std::to_string(mode);
}

// A name that stays within its directory.
bool is_bare_name(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

} // namespace

const std::array<Modem::Resource, 11> Modem::RESOURCES{{
    {"command_req", COAP_REQUEST_POST, &Modem::command},
    {"tx_msg_ext_req", COAP_REQUEST_PUT, &Modem::tx_msg_ext},
    {"config_set_param_req", COAP_REQUEST_POST, &Modem::set_parameter},
    {"rx_ext_config_req", COAP_REQUEST_POST, &Modem::rx_ext_config},
    {"statistics_req", COAP_REQUEST_GET, &Modem::statistics},
    {"info_req", COAP_REQUEST_GET, &Modem::info_answer},
    {"rx_mode_config_req", COAP_REQUEST_POST, &Modem::rx_mode_config},
    {"log_req", COAP_REQUEST_GET, &Modem::log_text},
    {"config_get_param_req", COAP_REQUEST_GET, &Modem::get_parameter},
    {"firmware_upgrade_req", COAP_REQUEST_POST, &Modem::firmware_upgrade},
    {"tx_msg_req", COAP_REQUEST_PUT, &Modem::tx_msg},
}};

Answer Modem::act(const Resource &resource, ByteView payload)
{
    try {
        return (this->*resource.act)(payload);
    } catch (const Refusal &refusal) {
        log_event(m_name, "%s refused (%s): %s", resource.name, code_text(refusal.code).c_str(),
                  refusal.why.c_str());
        return text_answer(refusal.code, refusal.why);
    }
}

Answer Modem::command(ByteView payload)
{
    expect_size(payload, 1);
    const uint8_t command = payload[0];
    log_event(m_name, "command_req %u", command);
    if (command == COMMAND_STOP) {
        enter(State::ready);
    } else if (command == COMMAND_START) {
        enter(State::running);
        if (!any_active_receiver()) {
            log_event(m_name, "no receiver is on: nothing will be received");
        }
    }
    return changed();
}

Answer Modem::rx_mode_config(ByteView payload)
{
    expect_size(payload, m_receivers.size() * 2);
    log_event(m_name, "rx_mode_config_req");
    for (size_t i = 0; i < m_receivers.size(); ++i) {
        Receiver &receiver = m_receivers[i];
        const bool exists = i < m_options.receivers;
        const uint8_t mode = payload[2 * i];
        const uint8_t channel = payload[2 * i + 1];
        receiver.mode = exists ? mode : uint8_t{0};
        receiver.channel = exists ? channel : uint8_t{0};
        if (receiver.active()) {
            log_event(m_name, "receiver %zu: mode %s, channel %u", i, mode_text(mode).c_str(),
                      channel);
        } else if (mode != 0 || channel != 0) {
            log_event(m_name, "receiver %zu does not exist, its configuration is dropped", i);
        }
    }
    if (std::all_of(payload.begin(), payload.end(), [](uint8_t byte) { return byte == 0; })) {
        log_event(m_name, "all receivers off");
        enter(State::ready);
    }
    return changed();
}

Answer Modem::rx_ext_config(ByteView payload)
{
    log_event(m_name, "rx_ext_config_req: %zu bytes %s", payload.size(), hex_text(payload).c_str());
    return changed();
}

Answer Modem::tx_msg(ByteView payload)
{
    expect_header(payload, TX_HEADER_SIZE);
    Reader reader(payload);
    const uint32_t seconds = reader.u32();
    const uint16_t milliseconds = reader.u16();
    const uint16_t length = reader.u16();
    const uint8_t mode = reader.u8();
    const uint8_t channel = reader.u8();
    const uint8_t type = reader.u8();
    const uint8_t power = reader.u8();
    const ByteView frame = reader.rest();
    expect_rest("a frame", length, frame.size());
    if (!m_collector.append(frame)) {
        throw Refusal{COAP_RESPONSE_CODE_INTERNAL_ERROR, "the frame cannot be collected"};
    }
    ++m_transmitted;
    log_event(m_name,
              "tx_msg_req %u: at %u.%03u s, mode %s, channel %u, type %u, power %u, %zu bytes %s",
              m_transmitted, seconds, milliseconds, mode_text(mode).c_str(), channel, type, power,
              frame.size(), hex_text(frame).c_str());
    return changed();
}

Answer Modem::tx_msg_ext(ByteView payload)
{
    constexpr size_t LENGTH_B_OFFSET = 20;
    constexpr size_t LENGTH_A_OFFSET = 31;
    expect_header(payload, TX_EXT_HEADER_SIZE);
    const size_t length_b = Reader(payload.subspan(LENGTH_B_OFFSET)).u16();
    const size_t length_a = payload[LENGTH_A_OFFSET];
    const ByteView rest = payload.subspan(TX_EXT_HEADER_SIZE);
    expect_rest("two strings", length_a + length_b, rest.size());
    ++m_transmitted;
    log_event(m_name, "tx_msg_ext_req %u: A of %zu bytes %s, B of %zu bytes %s", m_transmitted,
              length_a, hex_text(rest.first(length_a)).c_str(), length_b,
              hex_text(rest.subspan(length_a)).c_str());
    return changed();
}

Answer Modem::set_parameter(ByteView payload)
{
    expect_header(payload, 3);
    Reader reader(payload);
    const uint16_t id = reader.u16();
    const uint8_t length = reader.u8();
    expect_rest("a value", length, reader.rest().size());
    if (m_parameters.size() == PARAMETERS_MAX && !m_parameters.contains(id)) {
        throw Refusal{COAP_RESPONSE_CODE_INTERNAL_ERROR, "no room for another parameter"};
    }
    m_parameters[id] = Bytes(reader.rest().begin(), reader.rest().end());
    log_event(m_name, "config_set_param_req 0x%x: %u bytes %s", id, length,
              hex_text(reader.rest()).c_str());
    return changed();
}

Answer Modem::get_parameter(ByteView payload)
{
    expect_size(payload, 2);
    const uint16_t id = Reader(payload).u16();
    const auto found = m_parameters.find(id);
    if (found == m_parameters.end()) {
        throw Refusal{COAP_RESPONSE_CODE_NOT_FOUND, make_text("no parameter 0x%x", id)};
    }
    const Bytes &value = found->second;
    log_event(m_name, "config_get_param_req 0x%x: %zu bytes %s", id, value.size(),
              hex_text(value).c_str());
    Bytes answer;
    put(answer, id, 2);
    put(answer, static_cast<uint32_t>(value.size()), 1);
    append(answer, value);
    return {COAP_RESPONSE_CODE_CONTENT, answer};
}

Answer Modem::statistics(ByteView payload)
{
    expect_size(payload, 1);
    log_event(m_name, "statistics_req %u", payload[0]);
    const auto receivers = std::span(m_receivers).first(m_options.receivers);
    Bytes statistics{0, m_options.receivers};
    for (const Receiver &receiver : receivers) {
        put(statistics, receiver.frames, 2);
    }
    statistics.resize(statistics.size() + receivers.size() * 2); // frames with errors: none
    for (const Receiver &receiver : receivers) {
        append(statistics, Bytes{receiver.mode, receiver.channel, receiver.active()});
    }
    for (const Receiver &receiver : receivers) {
        statistics.push_back(receiver.signal);
    }
    statistics.resize(std::max(statistics.size(), STATISTICS_SIZE_LEAST));
    return {COAP_RESPONSE_CODE_CONTENT, statistics};
}

Answer Modem::info_answer(ByteView payload)
{
    expect_size(payload, 0);
    log_event(m_name, "info_req");
    return {COAP_RESPONSE_CODE_CONTENT, info()};
}

Answer Modem::log_text(ByteView payload)
{
    expect_size(payload, 0);
    log_event(m_name, "log_req");
    const auto up = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_started);
    return text_answer(COAP_RESPONSE_CODE_CONTENT,
                       make_text("modem %s %s, up %lld s, %u frames received, %u transmitted\n",
                                 m_name.c_str(), state_name(), static_cast<long long>(up.count()),
                                 m_received, m_transmitted));
}

Answer Modem::firmware_upgrade(ByteView payload)
{
    expect_header(payload, FIRMWARE_HEADER_SIZE + 1);
    Reader reader(payload);
    const uint32_t size = reader.u32();
    const uint16_t length = reader.u16();
    expect_rest("a name and its zero byte", length + size_t{1}, reader.rest().size());
    if (reader.rest().back() != 0) {
        bad_request("the name does not end in a zero byte");
    }
    const ByteView letters = reader.rest().first(length);
    const std::string name(letters.begin(), letters.end());
    if (!is_bare_name(name)) {
        bad_request("the name is not a bare file name");
    }
    check_firmware_file(name, size);
    log_event(m_name, "firmware_upgrade_req %s: %u bytes, installing", name.c_str(), size);
    m_firmware = name;
    m_install_end = Clock::now() + m_options.install_delay;
    return changed();
}

void Modem::check_firmware_file(const std::string &name, uint32_t size) const
{
    const std::filesystem::path path = std::filesystem::path(m_options.firmware_dir) / name;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw Refusal{COAP_RESPONSE_CODE_NOT_FOUND,
                      "no file " + name + " in " + m_options.firmware_dir};
    }
    const uintmax_t found = std::filesystem::file_size(path, error);
    if (error) {
        throw Refusal{COAP_RESPONSE_CODE_NOT_FOUND, name + ": " + error.message()};
    }
    if (found != size) {
        bad_request(make_text("%s has %ju bytes, not %u", name.c_str(), found, size));
    }
}

} // namespace sim
