#include "sim_sockets.h"

#include "sim_log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

namespace sim
{

namespace
{

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

} // namespace

std::string address_text(in_addr address)
{
    char text[INET_ADDRSTRLEN];
    const char *result = inet_ntop(AF_INET, &address, text, sizeof text);
    return result != nullptr ? result : "?";
}

sockaddr_in socket_address(in_addr address, uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr = address;
    result.sin_port = htons(port);
    return result;
}

bool is_multicast(in_addr address)
{
    return IN_MULTICAST(ntohl(address.s_addr));
}

Descriptor claim_address(in_addr address)
{
    // An abstract name: it belongs to the network namespace, as the address does, and goes away
    // with the process.
    const std::string name = "wmbusctl-sim:" + address_text(address);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    std::memcpy(local.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    Descriptor lock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!lock) {
        fail("socket");
    }
    if (bind(lock.get(), reinterpret_cast<const sockaddr *>(&local), size) != 0) {
        if (errno == EADDRINUSE) {
            throw std::runtime_error(address_text(address) +
                                     " is already in use by another wmbusctl-sim");
        }
        fail("claiming " + address_text(address));
    }
    return lock;
}

Descriptor open_group_sender(in_addr own, in_addr group)
{
    Descriptor sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sender) {
        fail("socket");
    }
    const int yes = 1;
    if (setsockopt(sender.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0) {
        fail("SO_REUSEADDR");
    }
    if (setsockopt(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own) != 0) {
        fail("multicast from " + address_text(own));
    }
    const sockaddr_in local = socket_address(own, COAP_PORT);
    if (bind(sender.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
        fail("binding " + address_text(own) + " port " + std::to_string(COAP_PORT));
    }
    // Connected to the group it takes no datagram away from the endpoint on the same address:
    // nothing ever comes from a group.
    const sockaddr_in remote = socket_address(group, COAP_PORT);
    if (connect(sender.get(), reinterpret_cast<const sockaddr *>(&remote), sizeof remote) != 0) {
        fail("announcing from " + address_text(own) + " to " + address_text(group));
    }
    return sender;
}

} // namespace sim
