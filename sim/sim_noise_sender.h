// Sends noise to the gateway at a rate, from other ports than those of modems.

#ifndef SIM_NOISE_SENDER_H
#define SIM_NOISE_SENDER_H

#include "sim_noise.h"
#include "sim_options.h"
#include "sim_sockets.h"

#include <optional>

namespace sim
{

class NoiseSender
{
public:
    // Logs the seed. Without --noise it opens nothing and is never due. Throws std::runtime_error.
    explicit NoiseSender(const Options &options);

    // Sends what is due, without waiting. Throws std::runtime_error when a port can't be had.
    void tick(Time now);

    // When tick has something to do next.
    std::optional<Time> next_due() const { return m_next; }

    uint64_t sent() const { return m_sent; }

private:
    const in_addr m_own;
    const sockaddr_in m_gateway;
    const std::optional<std::chrono::microseconds> m_interval;
    Noise m_noise;
    std::vector<Descriptor> m_sockets;
    std::optional<Time> m_next;
    uint64_t m_turn = 0;
    uint64_t m_sent = 0;
};

} // namespace sim

#endif
