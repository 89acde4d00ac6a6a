#include "coap_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <linux/filter.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app_lan.h"
#include "coap_release.h"
#include "coap_report.h"
#include "vos_fs.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "coap_server";
constexpr char LISTEN_HOST[] = "0.0.0.0";
constexpr char LISTEN_SERVICE[] = "5683";
constexpr int MAX_DESCRIPTORS = 65536; // far more than this process has
constexpr char MULTICAST_GROUP[] = "224.1.2.3";
constexpr char MULTICAST_INTERFACE[] = "eth0";
constexpr int TURN_MS = 2000;
constexpr int MAX_EVENTS = 8;
constexpr size_t MAX_ADDRESS_SIZE = 128;

// A sender without an exchange under way keeps a session for some minutes; more of them than this
// push out the oldest, so that a sweep over source ports costs no memory.
constexpr unsigned MAX_IDLE_SESSIONS = 64;

std::atomic<uint32_t> quit_flag{0};

void post_request(uint32_t type, const coap_session_t *session, const coap_pdu_t *request,
                  coap_pdu_t *response)
{
    size_t length = 0;
    const uint8_t *data = nullptr;
    if (coap_get_data(request, &length, &data) == 0) {
        length = 0;
    }
    const int posted = lan_post_msg(type, coap_session_get_addr_remote(session), data,
                                    static_cast<uint32_t>(length));
    coap_pdu_set_code(response, posted == 1 ? COAP_RESPONSE_CODE_VALID
                                            : COAP_RESPONSE_CODE_SERVICE_UNAVAILABLE);
}

void coap_server_rx_msg_handler(coap_resource_t * /*resource*/, coap_session_t *session,
                                const coap_pdu_t *request, const coap_string_t * /*query*/,
                                coap_pdu_t *response)
{
    post_request(LAN_MSG_RX_FRAME, session, request, response);
}

void coap_server_info_handler(coap_resource_t * /*resource*/, coap_session_t *session,
                              const coap_pdu_t *request, const coap_string_t * /*query*/,
                              coap_pdu_t *response)
{
    post_request(LAN_MSG_INFO, session, request, response);
}

void coap_server_fw_install_handler(coap_resource_t * /*resource*/, coap_session_t *session,
                                    const coap_pdu_t *request, const coap_string_t * /*query*/,
                                    coap_pdu_t *response)
{
    post_request(LAN_MSG_FW_INSTALL, session, request, response);
}

struct ServedResource {
    const char *name;
    coap_request_t method;
    coap_method_handler_t handler;
};

constexpr ServedResource SERVED_RESOURCES[] = {
    {"rx_msg_req", COAP_REQUEST_PUT, coap_server_rx_msg_handler},
    {"info_ind", COAP_REQUEST_POST, coap_server_info_handler},
    {"firmware_install_ind", COAP_REQUEST_POST, coap_server_fw_install_handler},
};

// The library copies what it is given without a look at whether there was memory, so it gets copies
// to keep.
coap_str_const_t *new_text(const char *text)
{
    coap_str_const_t *copy =
        coap_new_str_const(reinterpret_cast<const uint8_t *>(text), strlen(text));
    if (copy == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "No memory for the text %s", text);
    }
    return copy;
}

// The library would hold the answer to a report to the group back for up to five seconds, and the
// sender's session with it. That is for groups with many members; here the gateway is the only one.
constexpr int RESOURCE_FLAGS = COAP_RESOURCE_FLAGS_RELEASE_URI |
                               COAP_RESOURCE_FLAGS_HAS_MCAST_SUPPORT |
                               COAP_RESOURCE_FLAGS_LIB_DIS_MCAST_DELAYS;

void add_resource(coap_context_t *context, const ServedResource &served)
{
    coap_resource_t *resource = coap_resource_init(new_text(served.name), RESOURCE_FLAGS);
    coap_attr_t *attribute = nullptr;
    if (resource != nullptr) {
        coap_register_request_handler(resource, served.method, served.handler);
        attribute = coap_add_attr(resource, new_text("ct"), new_text("0"),
                                  COAP_ATTR_FLAGS_RELEASE_NAME | COAP_ATTR_FLAGS_RELEASE_VALUE);
    }
    if (attribute == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "No memory for resource %s", served.name);
    }
    coap_add_resource(context, resource);
}

// Has the kernel drop datagrams with a code of class 7. Those belong to CoAP over TCP, but the
// library answers them over UDP too, and keeps every sender's session until its answer is
// acknowledged. The socket works without.
void filter_socket(int descriptor)
{
    constexpr uint32_t CODE_OFFSET = 8 + 1; // behind the UDP header
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, CODE_OFFSET), BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 0xE0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xE0, 0, 1), BPF_STMT(BPF_RET | BPF_K, 0),
        BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
    };
    const sock_fprog filter{std::size(program), program};
    if (setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0) {
        vos_trace_warning(MODULE, __LINE__, "Can't filter socket : %s", strerror(errno));
    }
}

// The membership is asked for on the interface's own address: the kernel takes the interface that
// carries it and no other.
void join_multicast_group(int descriptor)
{
    char interface_address[COAP_SERVER_IPV4_TEXT_SIZE] = "0.0.0.0";
    coap_server_get_ipv4_addr(MULTICAST_INTERFACE, interface_address);

    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = inet_addr(MULTICAST_GROUP);
    membership.imr_interface.s_addr = inet_addr(interface_address);
    if (setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) !=
        0) {
        vos_trace_error(MODULE, __LINE__, "cannot join multicast group");
    }
}

// Whether the system's table of sockets has one on the server's port of that address.
bool has_listener(const char *table, const char *address)
{
    char wanted[48];
    snprintf(wanted, sizeof wanted, ": %s:%04X ", address, unsigned{LAN_COAP_PORT});
    FILE *sockets = vos_fs_fopen(table, "r");
    char line[256];
    bool found = false;
    while (sockets != nullptr && !found && fgets(line, sizeof line, sockets) != nullptr) {
        found = strstr(line, wanted) != nullptr;
    }
    vos_fs_fclose(&sockets);
    return found;
}

bool is_bound_to(int descriptor, uint16_t port)
{
    sockaddr_in address{};
    socklen_t address_size = sizeof address;
    int type = 0;
    socklen_t type_size = sizeof type;
    return getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &address_size) == 0 &&
           address.sin_family == AF_INET && ntohs(address.sin_port) == port &&
           getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &type_size) == 0 &&
           type == SOCK_DGRAM;
}

// Whether the descriptor is one of the epoll instance: it can't be added once more then.
bool is_watched(int watcher, int descriptor)
{
    epoll_event nothing{};
    if (epoll_ctl(watcher, EPOLL_CTL_ADD, descriptor, &nothing) != 0) {
        return errno == EEXIST;
    }
    epoll_ctl(watcher, EPOLL_CTL_DEL, descriptor, &nothing);
    return false;
}

// Hands what waits at the context's sockets to the library, after at most that time; false when
// nothing did.
bool read_sockets(coap_context_t *context, int timeout_ms)
{
    epoll_event events[MAX_EVENTS];
    const int count = epoll_wait(coap_context_get_coap_fd(context), events, MAX_EVENTS, timeout_ms);
    if (count > 0) {
        coap_io_do_epoll(context, events, static_cast<size_t>(count));
    } else if (count < 0 && errno != EINTR) {
        perror("select");
        vos_util_sleep(1); // an error that stays must not spin
    }
    return count > 0;
}

// The library's timer wakes a turn when it has something to send or a session to forget.
void serve(coap_context_t *context)
{
    while (quit_flag.load(std::memory_order_relaxed) == 0) {
        if (!read_sockets(context, TURN_MS)) {
            coap_tick_t now = 0;
            coap_ticks(&now);
            coap_io_prepare_epoll(context, now);
        }
    }
}

coap_context_t *new_context(const addrinfo *result)
{
    coap_address_t address;
    coap_address_init(&address);
    address.size = result->ai_addrlen;
    memcpy(&address.addr, result->ai_addr, result->ai_addrlen);
    coap_context_t *context = coap_new_context(nullptr);
    if (context == nullptr || coap_address_get_port(&address) == 0) {
        return context;
    }
    coap_endpoint_t *endpoint = coap_new_endpoint(context, &address, COAP_PROTO_UDP);
    if (endpoint == nullptr) {
        coap_free_context(context);
        return nullptr;
    }
    coap_endpoint_set_default_mtu(endpoint, COAP_MAX_MESSAGE_SIZE);
    return context;
}

} // namespace

coap_context_t *coap_server_get_context(const char *host, const char *service)
{
    coap_startup();
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *results = nullptr;
    const int error = getaddrinfo(host, service, &hints, &results);
    if (error != 0) {
        fprintf(stderr, "getaddrinfo: %s\n", gai_strerror(error));
        return nullptr;
    }
    coap_context_t *context = nullptr;
    for (const addrinfo *result = results; result != nullptr && context == nullptr;
         result = result->ai_next) {
        if (result->ai_addrlen <= std::min(MAX_ADDRESS_SIZE, sizeof coap_address_t::addr)) {
            context = new_context(result);
        }
    }
    if (context == nullptr) {
        fprintf(stderr, "no context available for interface '%s'\n", host);
    }
    freeaddrinfo(results);
    return context;
}

int coap_server_get_ipv4_addr(const char *interface, char *text)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return -1;
    }
    ifreq request{};
    strncpy(request.ifr_name, interface, sizeof request.ifr_name - 1);
    int result = -1;
    if (ioctl(descriptor, SIOCGIFADDR, &request) == 0) {
        sockaddr_in address{};
        memcpy(&address, &request.ifr_addr, sizeof address);
        const uint32_t host_order = ntohl(address.sin_addr.s_addr);
        snprintf(text, COAP_SERVER_IPV4_TEXT_SIZE, "%u.%u.%u.%u", host_order >> 24,
                 host_order >> 16 & 0xFF, host_order >> 8 & 0xFF, host_order & 0xFF);
        result = 1;
    }
    close(descriptor);
    return result;
}

// Nothing is bound to find out: another tool that starts in that moment would not get its port.
bool coap_server_is_port_taken()
{
    return has_listener("/proc/self/net/udp", "00000000") ||
           has_listener("/proc/self/net/udp6", "00000000000000000000000000000000");
}

int coap_server_find_socket(coap_context_t *context, uint16_t port)
{
    // The library opens its own descriptor and a timer before a socket.
    const int watcher = coap_context_get_coap_fd(context);
    for (int i = 2; i < MAX_DESCRIPTORS; ++i) {
        const int descriptor = (watcher + i) % MAX_DESCRIPTORS;
        if (is_bound_to(descriptor, port) && is_watched(watcher, descriptor)) {
            return descriptor;
        }
    }
    return -1;
}

int coap_server_run()
{
    coap_report_start();
    coap_context_t *context = coap_server_get_context(LISTEN_HOST, LISTEN_SERVICE);
    vos_trace_info("Start CoAP server on %s:%s", LISTEN_HOST, LISTEN_SERVICE);
    if (context == nullptr) {
        return -1;
    }
    coap_context_set_max_idle_sessions(context, MAX_IDLE_SESSIONS);
    coap_mcast_per_resource(context);
    for (const ServedResource &served : SERVED_RESOURCES) {
        add_resource(context, served);
    }
    const int descriptor = coap_server_find_socket(context, LAN_COAP_PORT);
    filter_socket(descriptor);
    join_multicast_group(descriptor);
    serve(context);
    coap_free_context(context);
    return 0;
}

int coap_server_stop()
{
    quit_flag.store(1, std::memory_order_relaxed);
    return 0;
}
