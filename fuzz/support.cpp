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
extern "C" size_t __wrap_fwrite_unlocked(const char *text, size_t, size_t size, FILE *)
{
    const std::string line(text, size);
    assert(line.find('-') == 8 && line.find(':') == 15 && line.ends_with('\n') && size <= 1024);
    traced += line;
    return size;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Nothing of a line then goes another way.
    [[maybe_unused]] static const int unbuffered = setvbuf(stdout, nullptr, _IONBF, 0);
    static VosTask task{nullptr, 0, {}, {}, {}, vos_queue_create(0, nullptr), 0};
    static const uint32_t blocks = vos_mem_get_nbpools();
    lan_state = {};
    lan_state.itf_task = lan_state.modem_task = &task;
    traced.clear();
    fuzz(FuzzedDataProvider(data, size));
    assert(vos_mem_get_nbpools() == blocks);
    return 0;
}
