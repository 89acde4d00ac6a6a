// Descriptors and the few sockets that the CoAP library does not open.

#ifndef SIM_SOCKETS_H
#define SIM_SOCKETS_H

#include "sim_wire.h"

#include <netinet/in.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace sim
{

// A file descriptor that closes itself.
class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

private:
    int m_fd;
};

constexpr uint16_t COAP_PORT = 5683;

std::string address_text(in_addr address);
sockaddr_in socket_address(in_addr address, uint16_t port);
bool is_multicast(in_addr address);

// Takes the address for this process, for as long as the descriptor is open. The kernel itself
// would let two simulators share one address, and hand each datagram to one of them at random.
// Throws std::runtime_error when another simulator has it.
Descriptor claim_address(in_addr address);

// A socket that sends from own's CoAP port to a group, out of own's interface, and receives
// nothing. Throws std::runtime_error when the system refuses.
Descriptor open_group_sender(in_addr own, in_addr group);

} // namespace sim

#endif
