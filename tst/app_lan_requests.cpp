#include "app_lan_state.h"

#include "coap_client.h"
#include "lan_cursor.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "app_lan";
constexpr uint32_t TX_TIME_SIZE = 6;

constexpr uint32_t SUCCESS_CLASS = 2;

uint32_t send_request(const ModemEntry *modem, const LanRequest &request, const uint8_t *payload,
                      uint32_t length)
{
    return lan_send_request(&modem->address, request, payload, length);
}

void count_tx_request()
{
    const VosMutexGuard guard(lan_state.stats);
    ++lan_state.counters[LAN_COUNTER_TX_REQUESTS];
}

void write_tx_time(LanWriter *writer, uint32_t sec, uint16_t msec)
{
    lan_write_u32(writer, sec);
    lan_write_u16(writer, msec);
}

void write_tx_ext_header(LanWriter *writer, const LanTxExt *args, uint16_t length_b,
                         uint8_t length_a)
{
    lan_write_u32(writer, args->arg3);
    lan_write_u32(writer, args->arg7);
    lan_write_u32(writer, args->arg1);
    lan_write_u32(writer, args->arg4);
    lan_write_u16(writer, args->arg2);
    lan_write_u16(writer, args->arg12);
    lan_write_u16(writer, length_b);
    lan_write_u16(writer, args->arg10);
    lan_write_u8(writer, args->arg8);
    lan_write_u8(writer, args->arg9);
    lan_write_u8(writer, args->arg6);
    lan_write_u8(writer, args->arg14);
    lan_write_u8(writer, args->arg5);
    lan_write_u8(writer, args->arg11);
    lan_write_u8(writer, args->arg13);
    lan_write_u8(writer, length_a);
}

// A zeroed block for header and string together; null, with a trace, when there is none.
uint8_t *new_payload(uint32_t header_size, uint32_t length)
{
    uint8_t *payload = nullptr;
    if (length <= UINT32_MAX - header_size) {
        vos_mem_calloc(&payload, header_size + length);
    }
    if (payload == nullptr) {
        ++lan_state.outcome.requests;
        vos_trace_error(MODULE, __LINE__, "No memory for a request of %u bytes", length);
    }
    return payload;
}

} // namespace

void lan_begin_action(bool stop_at_failure)
{
    lan_state.outcome = {0, 0};
    lan_state.stop_at_failure = stop_at_failure;
}

LanOutcome lan_get_outcome()
{
    return lan_state.outcome;
}

bool lan_is_action_over()
{
    return lan_state.stop_at_failure && lan_state.outcome.answered != lan_state.outcome.requests;
}

uint32_t lan_send_request(const coap_address_t *address, const LanRequest &request,
                          const uint8_t *payload, uint32_t length)
{
    if (lan_is_action_over()) {
        return 0;
    }
    const uint32_t code = coap_client_send_request(address, LAN_COAP_PORT, request, payload,
                                                   static_cast<uint16_t>(length));
    ++lan_state.outcome.requests;
    lan_state.outcome.answered += code >> 5 == SUCCESS_CLASS ? 1 : 0;
    return code;
}

uint32_t lan_request_info(const coap_address_t *address)
{
    return lan_send_request(address, LAN_INFO_REQ, nullptr, 0);
}

uint32_t lan_send_command(const ModemEntry *modem, uint32_t command)
{
    const auto payload = static_cast<uint8_t>(command);
    return send_request(modem, LAN_COMMAND_REQ, &payload, sizeof payload);
}

int lan_command(uint32_t serial, uint32_t command)
{
    ModemEntry modem;
    if (!lan_copy_modem(serial, &modem)) {
        return -1;
    }
    lan_send_command(&modem, command);
    return 1;
}

int lan_rx_mode_config(uint32_t serial, const uint8_t *configuration, uint32_t length)
{
    ModemEntry modem;
    if (!lan_copy_modem(serial, &modem)) {
        return -1;
    }
    send_request(&modem, LAN_RX_MODE_CONFIG_REQ, configuration, length);
    return 1;
}

uint32_t lan_rx_mode_off(const ModemEntry *modem)
{
    static constexpr uint8_t ALL_OFF[LAN_RX_MODE_CONFIG_SIZE] = {};
    return send_request(modem, LAN_RX_MODE_CONFIG_REQ, ALL_OFF, sizeof ALL_OFF);
}

bool lan_try_tx_msg(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint32_t mode,
                    uint8_t channel, uint32_t type, uint8_t power, const uint8_t *frame,
                    uint32_t length)
{
    count_tx_request();
    uint8_t *payload = new_payload(LAN_TX_HEADER_SIZE, length);
    if (payload == nullptr) {
        return false;
    }
    const uint32_t size = LAN_TX_HEADER_SIZE + length;
    LanWriter writer{payload, size, false};
    write_tx_time(&writer, sec, msec);
    lan_write_u16(&writer, static_cast<uint16_t>(length));
    lan_write_u8(&writer, static_cast<uint8_t>(mode));
    lan_write_u8(&writer, channel);
    lan_write_u8(&writer, static_cast<uint8_t>(type));
    lan_write_u8(&writer, power);
    lan_write_bytes(&writer, frame, length);
    send_request(modem, LAN_TX_MSG_REQ, payload, size);
    vos_mem_free(&payload);
    return true;
}

void lan_send_tx_msg(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint32_t mode,
                     uint8_t channel, uint32_t type, uint8_t power, const uint8_t *frame,
                     uint32_t length)
{
    lan_try_tx_msg(modem, sec, msec, mode, channel, type, power, frame, length);
}

void lan_tx_frame(uint32_t serial, uint32_t sec, uint16_t msec, uint32_t mode, uint8_t channel,
                  uint32_t type, uint8_t power, const uint8_t *frame, uint32_t length)
{
    ModemEntry modem;
    if (lan_copy_modem(serial, &modem)) {
        lan_send_tx_msg(&modem, sec, msec, mode, channel, type, power, frame, length);
    }
}

uint32_t lan_send_tx_prepared(const ModemEntry *modem, uint32_t sec, uint16_t msec, uint8_t *buffer,
                              uint32_t length)
{
    count_tx_request();
    if (length < TX_TIME_SIZE) {
        vos_trace_error(MODULE, __LINE__, "No room for the time in a tx frame of %u bytes", length);
        return 0;
    }
    LanWriter writer{buffer, length, false};
    write_tx_time(&writer, sec, msec);
    return send_request(modem, LAN_TX_MSG_REQ, buffer, length);
}

void lan_send_tx_msg_ext(const ModemEntry *modem, const LanTxExt *args, const uint8_t *string_b,
                         uint16_t length_b, const uint8_t *string_a, uint8_t length_a)
{
    const uint32_t length = static_cast<uint32_t>(length_a) + length_b;
    uint8_t *payload = new_payload(LAN_TX_EXT_HEADER_SIZE, length);
    if (payload == nullptr) {
        return;
    }
    const uint32_t size = LAN_TX_EXT_HEADER_SIZE + length;
    LanWriter writer{payload, size, false};
    write_tx_ext_header(&writer, args, length_b, length_a);
    lan_write_bytes(&writer, string_a, length_a);
    lan_write_bytes(&writer, string_b, length_b);
    send_request(modem, LAN_TX_MSG_EXT_REQ, payload, size);
    vos_mem_free(&payload);
}

int lan_set_param(uint32_t serial, uint16_t id, const uint8_t *value, uint32_t length)
{
    uint8_t payload[LAN_PARAM_MAX_SIZE];
    LanWriter writer{payload, sizeof payload, false};
    lan_write_u16(&writer, id);
    lan_write_u8(&writer, static_cast<uint8_t>(length));
    lan_write_bytes(&writer, value, length);
    if (writer.overrun) {
        vos_trace_error(MODULE, __LINE__, "Value of %u bytes too long for parameter 0x%x", length,
                        id);
        return -1;
    }
    ModemEntry modem;
    if (lan_copy_modem(serial, &modem)) {
        send_request(&modem, LAN_CONFIG_SET_PARAM_REQ, payload, sizeof payload - writer.room);
    }
    return 1;
}

int lan_get_param(uint32_t serial, uint16_t id)
{
    uint8_t payload[sizeof id];
    LanWriter writer{payload, sizeof payload, false};
    lan_write_u16(&writer, id);
    ModemEntry modem;
    if (lan_copy_modem(serial, &modem)) {
        send_request(&modem, LAN_CONFIG_GET_PARAM_REQ, payload, sizeof payload);
    }
    return 1;
}

int lan_request_statistics(uint8_t value)
{
    const VosMutexGuard guard(lan_state.lan_modem);
    for (const ModemEntry &slot : lan_state.table) {
        if (slot.present == 1) {
            send_request(&slot, LAN_STATISTICS_REQ, &value, sizeof value);
        }
    }
    return 1;
}

uint32_t lan_request_log(const ModemEntry *modem)
{
    return send_request(modem, LAN_LOG_REQ, nullptr, 0);
}

uint32_t lan_get_tx_count()
{
    const VosMutexGuard guard(lan_state.stats);
    return lan_state.counters[LAN_COUNTER_TX_REQUESTS];
}
