#include "bench_load.h"
#include "bench_wire.h"

#include <array>
#include <cstdio>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace bench
{

namespace
{

constexpr uint32_t WARM_UP = 50; // packets before those that are measured
constexpr std::string_view PACKET_RESOURCE = "tx_msg_req";
constexpr char CHANGED = 0x44;

// Answers a request; false when it was something else.
bool answer(int descriptor, std::array<char, 2048> &message, size_t size, const sockaddr_in &from)
{
    if (size < 4 || (static_cast<uint8_t>(message[0]) & 0x30U) != 0) {
        return false;
    }
    const size_t answer_size = 4 + (static_cast<uint8_t>(message[0]) & 0x0FU);
    message[0] = static_cast<char>(static_cast<uint8_t>(message[0]) | 0x20U);
    message[1] = CHANGED;
    return sendto(descriptor, message.data(), answer_size, 0,
                  reinterpret_cast<const sockaddr *>(&from), sizeof from) > 0;
}

} // namespace

void measure_packets(const Options &options)
{
    const int descriptor = open_socket(COAP_PORT);
    Process process(options.program, options.output);
    const sockaddr_in tool = tool_address();
    const std::string announcement =
        request(Type::non_confirmable, POST, 0, "info_ind", information(0xA1B2C3));
    uint32_t packets = 0;
    uint64_t cpu_before = 0;
    int silent = 0;
    while (packets < options.count) {
        pollfd ready{descriptor, POLLIN, 0};
        process.read_output();
        if (poll(&ready, 1, 10) == 0) {
            process.must_run();
            if (++silent == 1000) {
                throw std::runtime_error("the program sends no packets");
            }
            if (packets == 0) {
                sendto(descriptor, announcement.data(), announcement.size(), 0,
                       reinterpret_cast<const sockaddr *>(&tool), sizeof tool);
            }
            continue;
        }
        std::array<char, 2048> message;
        sockaddr_in from{};
        socklen_t from_size = sizeof from;
        const ssize_t size = recvfrom(descriptor, message.data(), message.size(), 0,
                                      reinterpret_cast<sockaddr *>(&from), &from_size);
        const std::string_view text(message.data(), size < 0 ? 0 : static_cast<size_t>(size));
        if (text.find(PACKET_RESOURCE) != std::string_view::npos) {
            silent = 0;
            if (++packets == WARM_UP) {
                cpu_before = process.cpu_ns();
            }
        }
        if (packets == options.count) {
            const auto cpu = static_cast<double>(process.cpu_ns() - cpu_before);
            printf("cpu_us %.3f\n", cpu / 1000 / (options.count - WARM_UP));
        }
        answer(descriptor, message, text.size(), from);
    }
    close(descriptor);
}

} // namespace bench
