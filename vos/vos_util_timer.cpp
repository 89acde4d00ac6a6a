// The part of vos_util that runs timers.

#include "vos_util_timer.h"

#include <bit>
#include <cstring>
#include <pthread.h>

#include "vos_mem.h"
#include "vos_task_linux.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "vos_util";

enum class State { armed, idle, ended };

// Held by the calls from their look at a VosTimer until their message is in the mailbox, and by the
// task to clear the VosTimer: a task that a call has found lives until the call is done with it.
// A start sets the VosTimer before its task runs, so the first callback finds it set. Nothing is
// traced with it held: whom a line makes wait for its reader must not keep the others waiting.
pthread_mutex_t timers_mutex = PTHREAD_MUTEX_INITIALIZER;

VosTimerMsg *new_message(uint32_t kind)
{
    void *block = nullptr;
    const size_t size = kind == VOS_TIMER_CHANGE ? sizeof(VosTimerMsg) : sizeof kind;
    vos_mem_calloc(&block, static_cast<uint32_t>(size));
    auto *message = static_cast<VosTimerMsg *>(block);
    if (message != nullptr) {
        message->kind = kind;
    }
    return message;
}

// Sends the message, or frees it. refusal is traced when the timer is not running.
int send(VosTimer *timer, VosTimerMsg *message, const char *refusal)
{
    VosTask *task = nullptr;
    int sent = 0;
    {
        const VosMutexGuard guard(&timers_mutex);
        task = *timer;
        if (task != nullptr && message != nullptr) {
            void *block = message;
            sent = vos_mbx_send(task, &block);
        }
    }
    if (sent == 0) {
        vos_mem_free(&message);
        if (task == nullptr) {
            vos_trace_debug(MODULE, __LINE__, "%s", refusal);
        } else {
            vos_trace_error(MODULE, __LINE__, "Can't send a message to the timer");
        }
    }
    return sent;
}

// What a timer does now, and on expiry.
struct TimerState {
    VosTimerParams params;
    State state;
};

void stop(VosTimer *timer)
{
    const VosMutexGuard guard(&timers_mutex);
    *timer = nullptr;
}

void change(VosTimerParams *params, const VosTimerParams *wanted)
{
    VosTimer *timer = params->timer;
    *params = *wanted;
    params->timer = timer;
}

// Acts on a message and frees it.
void obey(TimerState *timer, VosTimerMsg *message)
{
    const uint32_t kind = message->kind;
    if (kind == VOS_TIMER_CHANGE) {
        change(&timer->params, &message->params);
    }
    vos_mem_free(&message);
    switch (kind) {
    case VOS_TIMER_STOP:
        timer->state = State::ended;
        break;
    case VOS_TIMER_RESTART:
    case VOS_TIMER_CHANGE:
        timer->state = State::armed;
        break;
    case VOS_TIMER_SUSPEND:
        timer->state = State::idle;
        break;
    default:
        vos_trace_error(MODULE, __LINE__, "timer rec unknown msg %d", static_cast<int>(kind));
        timer->state = State::idle;
    }
}

// A null message changes nothing but ends the wait.
void take(TimerState *timer, void *message)
{
    if (message == nullptr) {
        vos_trace_error(MODULE, __LINE__, "Mailbox bug\n");
    } else {
        obey(timer, static_cast<VosTimerMsg *>(message));
    }
}

void take_next(TimerState *timer, VosTask *task)
{
    void *message = nullptr;
    vos_mbx_receive_blocking(task, &message);
    take(timer, message);
}

void expire(TimerState *timer, VosTask *task)
{
    if (timer->params.callback != nullptr) {
        timer->params.callback(timer->params.argument);
    }
    if (vos_mbx_pending(task)) {
        take_next(timer, task);
    } else if (timer->params.periodic == 0) {
        timer->state = State::idle;
    }
}

void wait_armed(TimerState *timer, VosTask *task)
{
    void *message = nullptr;
    if (vos_mbx_receive(task, &message, timer->params.period) == 1) {
        take(timer, message);
    } else {
        expire(timer, task);
    }
}

bool take_over(VosTimer *timer, VosTask *task)
{
    const VosMutexGuard guard(&timers_mutex);
    if (*timer != nullptr) {
        return false;
    }
    *timer = task;
    return true;
}

// The task frees the parameters once it runs; until then they are the caller's.
bool start(VosTimer *timer, VosTimerParams *params)
{
    VosTask *task =
        vos_task_prepare(vos_util_timer_task, "timer", std::bit_cast<uintptr_t>(params));
    if (task != nullptr && take_over(timer, task)) {
        if (vos_task_run(task, "timer", VOS_THREAD_STACK_SIZE) == 1) {
            return true;
        }
        stop(timer); // what it was sent meanwhile goes with it
    }
    vos_task_discard(&task);
    return false;
}

} // namespace

uint32_t vos_util_timer_task(VosTask *task, uintptr_t argument)
{
    auto *params = std::bit_cast<VosTimerParams *>(argument);
    TimerState timer = {*params, State::armed};
    vos_mem_free(&params);
    while (timer.state != State::ended) {
        if (timer.state == State::armed) {
            wait_armed(&timer, task);
        } else {
            take_next(&timer, task);
        }
    }
    stop(timer.params.timer);
    return 0;
}

int vos_util_start_timer(VosTimer *timer, uint8_t periodic, uint32_t period,
                         VosTimerCallback callback, uintptr_t argument)
{
    VosTimerParams *params = nullptr;
    if (timer != nullptr && *timer == nullptr) {
        vos_mem_calloc(&params, sizeof *params);
    }
    if (params != nullptr) {
        *params = {timer, periodic, period, callback, argument};
        if (start(timer, params)) {
            return 1;
        }
    }
    vos_mem_free(&params);
    vos_trace_debug(MODULE, __LINE__, "vos_util_start_timer refused");
    return 0;
}

int vos_util_suspend_timer(VosTimer *timer)
{
    return send(timer, new_message(VOS_TIMER_SUSPEND), "vos_util_suspend_timer is not started");
}

int vos_util_restart_timer(VosTimer *timer)
{
    return send(timer, new_message(VOS_TIMER_RESTART), "vos_util_restart_timer is not started");
}

int vos_util_change_timer(VosTimer *timer, uint8_t periodic, uint32_t period,
                          VosTimerCallback callback, uintptr_t argument)
{
    VosTimerMsg *message = new_message(VOS_TIMER_CHANGE);
    if (message != nullptr) {
        message->params = {nullptr, periodic, period, callback, argument};
    }
    return send(timer, message, "vos_util_restart_timer is not started");
}

int vos_util_stop_timer(VosTimer *timer)
{
    return send(timer, new_message(VOS_TIMER_STOP), "vos_util_stop_timer already stopped");
}
