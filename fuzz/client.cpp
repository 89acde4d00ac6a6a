// A modem's answers to one request, whose exchange ends with a valid one at the latest.
#include <sys/epoll.h>
#include <unistd.h>

#include "coap_client.h"
#include "support.h"

namespace
{
FuzzedDataProvider *answers;
int modem;
} // namespace

extern "C" int __real_epoll_wait(int library, epoll_event *events, int room, int timeout);
extern "C" int __wrap_epoll_wait(int library, epoll_event *events, int room, int timeout)
{
    // The client waits, again when it has dropped what came.
    while (__real_epoll_wait(library, events, room, 0) == 0) {
        char request[4];
        coap_address_t client = modem_address(0);
        recvfrom(modem, request, sizeof request, MSG_PEEK, &client.addr.sa, &client.size);
        std::string datagram =
            answers->remaining_bytes() != 0 ? answers->ConsumeRandomLengthString() : "\x60\x43id";
        if (!answers->ConsumeBool() && datagram.size() >= sizeof request) {
            datagram.replace(2, 2, request + 2, 2); // the message id
        }
        sendto(modem, datagram.data(), datagram.size(), 0, &client.addr.sa, client.size);
    }
    return __real_epoll_wait(library, events, room, timeout);
}

void fuzz(FuzzedDataProvider &&input)
{
    const LanRequest request =
        input.PickValueInArray({LAN_INFO_REQ, LAN_STATISTICS_REQ, LAN_CONFIG_GET_PARAM_REQ});
    const coap_address_t address = modem_address(0);
    answers = &input;
    modem = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    assert(bind(modem, &address.addr.sa, address.size) == 0);
    const uint32_t code = coap_client_send_request(&address, LAN_COAP_PORT, request, nullptr, 0);
    assert(code == 0 || (code >= 64 && code < 224));
    close(modem);
    run_task(_lan_modem_task);
}
