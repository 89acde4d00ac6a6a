// The LAN protocol between the gateway and the modems: resources, methods and fixed values.
//
// Both sides listen on UDP port LAN_COAP_PORT. Payloads are packed byte strings, every multi-byte
// integer little-endian.

#ifndef LAN_PROTOCOL_H
#define LAN_PROTOCOL_H

#include <cstdint>
#include <string_view>

constexpr uint16_t LAN_COAP_PORT = 5683;
constexpr uint32_t LAN_PROTOCOL_VERSION = 1;
constexpr uint32_t LAN_MAX_RF_RECEIVERS = 7;

constexpr uint8_t MODEM_STATE_READY = 1;
constexpr uint8_t MODEM_STATE_RUNNING = 2;

constexpr uint8_t LAN_COMMAND_RUN = 2; // sent before a transmission and after a configuration

// Sizes in bytes of the fixed parts of the payloads.
constexpr uint32_t LAN_RX_HEADER_SIZE = 17;
constexpr uint32_t LAN_TX_HEADER_SIZE = 12;
constexpr uint32_t LAN_TX_EXT_HEADER_SIZE = 32;
constexpr uint32_t LAN_RX_MODE_CONFIG_SIZE = 2 * LAN_MAX_RF_RECEIVERS;
constexpr uint32_t LAN_PARAM_HEADER_SIZE = 3;
constexpr uint32_t LAN_PARAM_MAX_SIZE = 256; // parameter set: id, value length and value

// A resource of a modem and how it is requested.
struct LanRequest {
    uint32_t name_length;
    const char *name;
    uint32_t method; // bits 0 to 7: CoAP request code; bits 8 and 9: message type (0 confirmable)
};

constexpr uint32_t LAN_GET = 1;
constexpr uint32_t LAN_POST = 2;
constexpr uint32_t LAN_PUT = 3;

constexpr LanRequest lan_request(std::string_view name, uint32_t method)
{
    return {static_cast<uint32_t>(name.size()), name.data(), method};
}

constexpr LanRequest LAN_COMMAND_REQ = lan_request("command_req", LAN_POST);
constexpr LanRequest LAN_TX_MSG_EXT_REQ = lan_request("tx_msg_ext_req", LAN_PUT);
constexpr LanRequest LAN_CONFIG_SET_PARAM_REQ = lan_request("config_set_param_req", LAN_POST);
constexpr LanRequest LAN_RX_EXT_CONFIG_REQ = lan_request("rx_ext_config_req", LAN_POST);
constexpr LanRequest LAN_STATISTICS_REQ = lan_request("statistics_req", LAN_GET);
constexpr LanRequest LAN_INFO_REQ = lan_request("info_req", LAN_GET);
constexpr LanRequest LAN_RX_MODE_CONFIG_REQ = lan_request("rx_mode_config_req", LAN_POST);
constexpr LanRequest LAN_LOG_REQ = lan_request("log_req", LAN_GET);
constexpr LanRequest LAN_CONFIG_GET_PARAM_REQ = lan_request("config_get_param_req", LAN_GET);
constexpr LanRequest LAN_FIRMWARE_UPGRADE_REQ = lan_request("firmware_upgrade_req", LAN_POST);
constexpr LanRequest LAN_TX_MSG_REQ = lan_request("tx_msg_req", LAN_PUT);

#endif
