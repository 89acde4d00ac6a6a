// The few CoAP messages that a modem sends, on plain sockets.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace bench
{

constexpr uint16_t COAP_PORT = 5683;
constexpr const char *TOOL_HOST = "127.0.0.1";
constexpr const char *MODEM_HOST = "127.0.0.2";

enum class Type : uint8_t { confirmable, non_confirmable, acknowledgement, reset };
enum Method : uint8_t { POST = 2, PUT = 3 };

std::string number(uint32_t value, unsigned width); // little-endian
std::string request(Type type, Method method, uint32_t token, std::string_view resource,
                    std::string_view payload);
std::string information(uint32_t serial);               // a modem's announcement, as a payload
std::string frame(uint32_t index, size_t payload_size); // a radio frame's report, as a payload

// The token of a message with four bytes of it; false for any other message.
bool read_token(std::string_view message, uint32_t *token);

// A socket of the modem's host that does not block; port 0: any. Throws std::runtime_error.
int open_socket(uint16_t port);
sockaddr_in tool_address();

} // namespace bench
