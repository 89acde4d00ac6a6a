// What the CoAP library asks of the system, answered by the tool. The calls that are defined here
// have the names of the C library's own and take their place for everything in the program, be the
// CoAP library linked statically or found at run time. So its releases, which see these things
// differently, behave alike, and none of them has to be changed.
//
//   recvmsg     The library drops a confirmable message to a group, and would answer one to a
//               broadcast address from that address, which the system refuses. A modem may send
//               either to a gateway that it does not know yet. Such a message seems to have come
//               to the gateway's own address, from which it is then answered.
//   getifaddrs  From 4.3.4 on the library asks for broadcast addresses, and takes an interface's
//               own address for one when it was given none. It is told of no interface.

#include <arpa/inet.h>
#include <cstring>
#include <ifaddrs.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

bool is_confirmable(const msghdr *message)
{
    constexpr unsigned TYPE_BITS = 0x30; // 0: confirmable
    return message->msg_iovlen != 0 &&
           (*static_cast<const uint8_t *>(message->msg_iov->iov_base) & TYPE_BITS) == 0;
}

// The system tells beside where a datagram went the address that it would answer from: the same
// but for a group and a broadcast address. Other messages to the group stay what they are, as the
// library answers these by rules of their own.
void correct_destination(msghdr *message)
{
    for (cmsghdr *item = CMSG_FIRSTHDR(message); item != nullptr;
         item = CMSG_NXTHDR(message, item)) {
        if (item->cmsg_level != IPPROTO_IP || item->cmsg_type != IP_PKTINFO) {
            continue;
        }
        in_pktinfo info{};
        memcpy(&info, CMSG_DATA(item), sizeof info);
        if (!IN_MULTICAST(ntohl(info.ipi_addr.s_addr)) || is_confirmable(message)) {
            info.ipi_addr = info.ipi_spec_dst;
            memcpy(CMSG_DATA(item), &info, sizeof info);
        }
    }
}

} // namespace

// The names that the library's calls are linked to.
extern "C" {

#define REPLACES(name) __asm__(name) __attribute__((used, visibility("default")))

ssize_t coap_system_recvmsg(int descriptor, msghdr *message, int flags) REPLACES("recvmsg");
int coap_system_getifaddrs(ifaddrs **list) REPLACES("getifaddrs");

ssize_t coap_system_recvmsg(int descriptor, msghdr *message, int flags)
{
    const ssize_t size = syscall(SYS_recvmsg, descriptor, message, flags);
    if (size > 0) {
        correct_destination(message);
    }
    return size;
}

int coap_system_getifaddrs(ifaddrs **list)
{
    *list = nullptr;
    return 0;
}

#if __TIMESIZE == 32 // the name of the call for a time_t of 64 bits
ssize_t coap_system_recvmsg64(int descriptor, msghdr *message, int flags) REPLACES("__recvmsg64");

ssize_t coap_system_recvmsg64(int descriptor, msghdr *message, int flags)
{
    return coap_system_recvmsg(descriptor, message, flags);
}
#endif

} // extern "C"
