// What the kernel alone costs: every datagram is answered as an acknowledgement, nothing else.

#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <sys/socket.h>

int main()
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1; // the load has the port on another address
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5683);
    if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        abort();
    }
    for (;;) {
        uint8_t datagram[1472];
        sockaddr_in from{};
        socklen_t from_size = sizeof from;
        const ssize_t size = recvfrom(descriptor, datagram, sizeof datagram, 0,
                                      reinterpret_cast<sockaddr *>(&from), &from_size);
        const size_t answer_size = 4 + (datagram[0] & 0x0FU); // the header and the token
        if (size >= static_cast<ssize_t>(answer_size)) {
            datagram[0] = static_cast<uint8_t>(0x60U | (datagram[0] & 0x0FU));
            datagram[1] = 0x43;
            sendto(descriptor, datagram, answer_size, 0, reinterpret_cast<sockaddr *>(&from),
                   from_size);
        }
    }
}
