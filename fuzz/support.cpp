#include "support.h"

#include <arpa/inet.h>
#include <unistd.h>

#include "vos_mem.h"

std::string traced;

void run_task(VosTaskEntry entry)
{
    static LanMsg stop{};
    void *message = &stop;
    vos_mbx_send(lan_state.itf_task, &message);
    entry(lan_state.itf_task, 0);
}

coap_address_t modem_address(uint32_t number)
{
    coap_address_t address{sizeof(sockaddr_in), {}};
    address.addr.sin = {AF_INET, htons(LAN_COAP_PORT), {htonl(INADDR_LOOPBACK + number)}, {}};
    return address;
}

// Only the lines of the trace are written by this call.
extern "C" long __wrap_syscall(long /*number*/, int /*descriptor*/, const char *text, size_t size)
{
    const std::string line(text, size);
    assert(line.find('-') == 8 && line.find(':') == 15 && line.ends_with('\n') && size <= 1024);
    traced += line;
    return static_cast<long>(size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static VosTask task{nullptr, 0, {}, {}, {}, vos_queue_create(0, nullptr), 0};
    static const uint32_t blocks = vos_mem_get_nbpools();
    lan_state = {};
    lan_state.itf_task = lan_state.modem_task = &task;
    traced.clear();
    fuzz(FuzzedDataProvider(data, size));
    assert(vos_mem_get_nbpools() == blocks);
    return 0;
}
