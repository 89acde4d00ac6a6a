#include "bench_wire.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>

namespace bench
{

namespace
{

constexpr size_t TOKEN_SIZE = 4;
constexpr size_t HEADER_SIZE = 4;
constexpr size_t RX_HEADER_SIZE = 17;
constexpr int RECEIVE_BUFFER =
    4 * 1024 * 1024; // an answer lost here would be held against the tool

sockaddr_in address_of(const char *host, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

} // namespace

std::string number(uint32_t value, unsigned width)
{
    std::string bytes;
    for (unsigned i = 0; i < width; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    }
    return bytes;
}

std::string request(Type type, Method method, uint32_t token, std::string_view resource,
                    std::string_view payload)
{
    std::string message;
    message.push_back(static_cast<char>(0x40U | static_cast<unsigned>(type) << 4U | TOKEN_SIZE));
    message.push_back(static_cast<char>(method));
    message += number(token, 2); // every request another id, until they come round
    message += number(token, TOKEN_SIZE);
    message.push_back(static_cast<char>(0xB0U | resource.size())); // Uri-Path, below 13 characters
    message += resource;
    message.push_back('\xFF');
    message += payload;
    return message;
}

std::string information(uint32_t serial)
{
    return number(1, 4) + number(serial, 4) + number(0, 4) + number(0x0102, 2) + number(0x0304, 2) +
           std::string("\1\1\1\0\1\3", 6);
}

std::string frame(uint32_t index, size_t payload_size)
{
    const size_t data_size = payload_size - RX_HEADER_SIZE;
    std::string data = number(static_cast<uint32_t>(data_size - 1), 1) + "\x44\x2D\x2C" +
                       number(index, 4) + "\x01\x07";
    data.resize(data_size, '\x5A');
    return number(868'950'000, 4) + number(1'700'000'000 + index / 1000, 4) +
           number(index % 1000, 2) + number(0xFFFB, 2) +
           number(static_cast<uint32_t>(data_size), 2) + std::string("\x50\x10\x01", 3) + data;
}

bool read_token(std::string_view message, uint32_t *token)
{
    if (message.size() < HEADER_SIZE + TOKEN_SIZE ||
        (static_cast<uint8_t>(message[0]) & 0x0FU) != TOKEN_SIZE) {
        return false;
    }
    *token = 0;
    for (size_t i = 0; i < TOKEN_SIZE; ++i) {
        *token |= static_cast<uint32_t>(static_cast<uint8_t>(message[HEADER_SIZE + i])) << (8 * i);
    }
    return true;
}

int open_socket(uint16_t port)
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    const sockaddr_in own = address_of(MODEM_HOST, port);
    if (descriptor < 0 || setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) !=
            0 ||
        bind(descriptor, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0) {
        throw std::runtime_error(std::string("socket: ") + strerror(errno));
    }
    return descriptor;
}

sockaddr_in tool_address()
{
    return address_of(TOOL_HOST, COAP_PORT);
}

} // namespace bench
