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

extern "C" ssize_t __real_write(int descriptor, const void *bytes, size_t size);
extern "C" ssize_t __wrap_write(int descriptor, const void *bytes, size_t size)
{
    if (descriptor == STDOUT_FILENO) {
        const std::string line(static_cast<const char *>(bytes), size);
        assert(line.find('-') == 8 && line.find(':') == 15 && line.ends_with('\n') && size <= 1024);
        traced += line;
    }
    return __real_write(descriptor, bytes, size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static VosTask task{nullptr, 0, {}, {}, {}, vos_queue_create(0, nullptr), 0};
    static const uint32_t blocks = vos_mem_get_nbpools();
    lan_state = {nullptr, nullptr, nullptr, {}, {}, &task, &task, nullptr};
    traced.clear();
    fuzz(FuzzedDataProvider(data, size));
    assert(vos_mem_get_nbpools() == blocks);
    return 0;
}
