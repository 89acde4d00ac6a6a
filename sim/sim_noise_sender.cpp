#include "sim_noise_sender.h"

#include "sim_log.h"

#include <cerrno>
#include <cinttypes>
#include <random>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>

namespace sim
{

namespace
{

constexpr size_t PORTS = 16;
// One port in four is another each time: in minutes, far more than a gateway keeps sessions for.
constexpr size_t RENEWED_PORT = 4;
constexpr Milliseconds CATCH_UP_MAX{100};

Descriptor open_port(in_addr own)
{
    Descriptor port(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_in local = socket_address(own, 0);
    if (!port || bind(port.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
        throw std::runtime_error("noise from " + address_text(own) + ": " +
                                 std::generic_category().message(errno));
    }
    return port;
}

} // namespace

NoiseSender::NoiseSender(const Options &options)
    : m_own(options.addresses.front()), m_gateway(socket_address(options.announce_to, COAP_PORT)),
      m_interval(options.noise_interval), m_noise(options.serial, options.noise_seed)
{
    if (!m_interval) {
        return;
    }
    for (size_t i = 0; i < PORTS; ++i) {
        m_sockets.push_back(open_port(m_own));
    }
    m_next = Clock::now();
    log_event("sim", "noise to %s, seed %" PRIu32, address_text(options.announce_to).c_str(),
              options.noise_seed);
}

void NoiseSender::tick(Time now)
{
    if (m_next && now > *m_next + CATCH_UP_MAX) {
        m_next = now;
    }
    while (m_next && *m_next <= now) {
        *m_next += *m_interval;
        const Bytes datagram = m_noise.next();
        const auto turn = static_cast<size_t>(m_turn++ % PORTS);
        const ssize_t sent =
            sendto(m_sockets[turn].get(), datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr *>(&m_gateway), sizeof m_gateway);
        m_sent += sent >= 0 ? 1 : 0; // the others are missed by nobody
        if (turn % RENEWED_PORT == 0) {
            m_sockets[turn] = open_port(m_own);
        }
    }
}

} // namespace sim
