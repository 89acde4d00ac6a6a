// Datagrams that no modem sends: valid ones with bytes changed, put in or cut off, and plain noise.

#ifndef SIM_NOISE_H
#define SIM_NOISE_H

#include "sim_wire.h"

#include <random>

namespace sim
{

class Noise
{
public:
    // The announcements among the datagrams claim this serial number and the eight after it. The
    // same seed makes the same datagrams.
    Noise(uint32_t serial, uint32_t seed) : m_serial(serial), m_random(seed) {}

    // At most some 120 bytes; may be empty.
    Bytes next();

private:
    uint32_t below(size_t bound) { return static_cast<uint32_t>(m_random() % bound); }
    Bytes random_bytes(size_t size);
    Bytes valid_datagram();
    void mutate(Bytes &datagram);

    const uint32_t m_serial;
    std::mt19937 m_random;
};

} // namespace sim

#endif
