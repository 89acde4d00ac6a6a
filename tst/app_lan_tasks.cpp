#include "app_lan_state.h"

#include <atomic>
#include <cstring>
#include <malloc.h>

#include "coap_server.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "app_lan";
constexpr uint32_t TASK_PRIORITY = 6;
constexpr uint32_t ITF_TASK_WAIT = 100; // ticks
constexpr uint32_t MODEM_TASK_WAIT = 500;

// What may wait for tasks that print slowly, in bytes: a full mailbox of long frames would take
// more than a small gateway has to spare.
constexpr uint32_t MAX_MEMORY = 16U * 1024 * 1024;

// Once so much has waited, and little of it is left, the memory goes back to the system: the heap
// would keep all of it for ever, for the sake of a few blocks at its end.
constexpr uint32_t BACKLOG_MEMORY = 256U * 1024;
constexpr uint32_t REST_MEMORY = 8U * 1024;

std::atomic<bool> had_backlog{false};

bool requires_server = false;

// A message behind the others in a task's mailbox, which tells lan_drain that they are digested.
constexpr uint32_t MSG_MARK = 100;
constexpr uint32_t ITF_DRAINED = 1; // bits of drained
constexpr uint32_t MODEM_DRAINED = 2;
VosEventFlags *drained = nullptr; // made by lan_drain before it sends a mark

std::atomic<bool> is_closed{false};
std::atomic<uint32_t> posting{0}; // calls of lan_post_msg that are under way

void free_msg(LanMsg *msg)
{
    vos_mem_free(&msg->payload);
    vos_mem_free(&msg);
}

// Null when memory is out.
LanMsg *new_msg(uint32_t type, const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    LanMsg *msg = nullptr;
    vos_mem_calloc(&msg, sizeof *msg);
    if (msg == nullptr) {
        return nullptr;
    }
    msg->type = type;
    msg->from = *from;
    if (length != 0) {
        vos_mem_calloc(&msg->payload, length);
        if (msg->payload == nullptr) {
            vos_mem_free(&msg);
            return nullptr;
        }
        memcpy(msg->payload, payload, length);
    }
    msg->length = length;
    return msg;
}

void give_back_memory()
{
    if (vos_mem_get_memsize() < REST_MEMORY && had_backlog.exchange(false)) {
        malloc_trim(0);
    }
}

void dispatch_modem_msg(const LanMsg *msg)
{
    switch (msg->type) {
    case LAN_MSG_INFO:
        lan_handle_info(&msg->from, msg->payload, msg->length);
        break;
    case LAN_MSG_FW_INSTALL:
        lan_handle_fw_install(&msg->from, msg->payload, msg->length);
        break;
    case LAN_MSG_STATS:
        lan_handle_stats(&msg->from, msg->payload, msg->length);
        break;
    case LAN_MSG_PARAM:
        lan_handle_param(&msg->from, msg->payload, msg->length);
        break;
    case MSG_MARK:
        vos_event_set(drained, MODEM_DRAINED);
        break;
    default:
        break;
    }
}

void dispatch_itf_msg(const LanMsg *msg)
{
    if (msg->type == LAN_MSG_RX_FRAME) {
        lan_handle_rx_msg(&msg->from, msg->payload, msg->length);
    } else if (msg->type == MSG_MARK) {
        vos_event_set(drained, ITF_DRAINED);
    }
}

uint32_t run_lan_task(VosTask *task, uint32_t wait, void (*dispatch)(const LanMsg *))
{
    for (;;) {
        void *received = nullptr;
        if (vos_mbx_receive(task, &received, wait) != 1 || received == nullptr) {
            continue;
        }
        auto *msg = static_cast<LanMsg *>(received);
        if (msg->type == LAN_MSG_STOP) {
            return 0; // a stop message stays its sender's
        }
        dispatch(msg);
        free_msg(msg);
        if (had_backlog.load(std::memory_order_relaxed)) {
            give_back_memory();
        }
    }
}

// lan_post_msg, closed or not.
int post_msg(uint32_t type, const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    const uint32_t waiting = vos_mem_get_memsize();
    if (waiting > MAX_MEMORY) {
        return 0;
    }
    if (waiting > BACKLOG_MEMORY) {
        had_backlog = true;
    }
    LanMsg *msg = new_msg(type, from, payload, length);
    if (msg == nullptr) {
        return 0;
    }
    VosTask *task = type == LAN_MSG_RX_FRAME ? lan_state.itf_task : lan_state.modem_task;
    void *sent = msg;
    if (vos_mbx_send(task, &sent) != 1) {
        free_msg(msg);
        return 0;
    }
    return 1;
}

// False when the mailbox is full, or memory is out.
bool send_mark(VosTask *task)
{
    const coap_address_t nobody{};
    LanMsg *mark = new_msg(MSG_MARK, &nobody, nullptr, 0);
    void *sent = mark;
    if (mark != nullptr && vos_mbx_send(task, &sent) != 1) {
        free_msg(mark);
        return false;
    }
    return mark != nullptr;
}

uint32_t run_server(VosTask * /*task*/, uintptr_t /*argument*/)
{
    if (coap_server_run() != 0 && requires_server) {
        vos_trace_fatal(MODULE, __LINE__, "Can't listen on port %d", LAN_COAP_PORT);
    }
    return 0;
}

} // namespace

uint32_t _lan_itf_task(VosTask *task, uintptr_t /*argument*/)
{
    return run_lan_task(task, ITF_TASK_WAIT, dispatch_itf_msg);
}

uint32_t _lan_modem_task(VosTask *task, uintptr_t /*argument*/)
{
    return run_lan_task(task, MODEM_TASK_WAIT, dispatch_modem_msg);
}

int lan_post_msg(uint32_t type, const coap_address_t *from, const uint8_t *payload, uint32_t length)
{
    ++posting;
    const int posted = is_closed ? 0 : post_msg(type, from, payload, length);
    --posting;
    return posted;
}

void lan_close()
{
    is_closed = true;
    while (posting != 0) {
        vos_util_sleep(1);
    }
}

void lan_drain()
{
    if (drained == nullptr) {
        drained = vos_event_create("drained");
    }
    if (drained == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "No memory to wait for the LAN tasks");
    }
    for (VosTask *task : {lan_state.itf_task, lan_state.modem_task}) {
        while (!send_mark(task)) {
            vos_util_sleep(1);
        }
    }
    uint32_t bits = 0;
    vos_event_wait(drained, 0, ITF_DRAINED | MODEM_DRAINED, &bits);
}

void lan_set_watcher(const LanWatcher *watcher)
{
    lan_state.watcher = watcher;
}

int lan_start_tasks()
{
    lan_state.lan = vos_mutex_create("lan");
    lan_state.lan_modem = vos_mutex_create("lan_modem");
    lan_state.stats = vos_mutex_create("stats");
    if (lan_state.lan == nullptr || lan_state.lan_modem == nullptr || lan_state.stats == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "No memory for the LAN locks");
    }

    const VosMutexGuard guard(lan_state.lan);
    memset(lan_state.table, 0, sizeof lan_state.table);
    memset(lan_state.counters, 0, sizeof lan_state.counters);
    if (lan_state.itf_task == nullptr) {
        lan_state.itf_task =
            vos_task_start(_lan_itf_task, TASK_PRIORITY, "_lan_itf_task", 0, VOS_THREAD_STACK_SIZE);
    }
    if (lan_state.modem_task == nullptr) {
        lan_state.modem_task = vos_task_start(_lan_modem_task, TASK_PRIORITY, "_lan_modem_task", 0,
                                              VOS_THREAD_STACK_SIZE);
    }
    if (lan_state.itf_task == nullptr || lan_state.modem_task == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "Can't start all of the LAN tasks");
    }
    return 1;
}

void lan_require_server()
{
    requires_server = true;
}

int lan_start()
{
    lan_start_tasks();
    const VosMutexGuard guard(lan_state.lan);
    if (lan_state.rx_thread == nullptr) {
        lan_state.rx_thread = vos_task_start(run_server, TASK_PRIORITY, "lan_itf_rx_thread", 0,
                                             VOS_THREAD_STACK_SIZE);
    }
    if (lan_state.rx_thread == nullptr) {
        vos_trace_fatal(MODULE, __LINE__, "Can't start all of the LAN tasks");
    }
    return 1;
}

int lan_stop()
{
    coap_server_stop();
    return 1;
}
