#include "vos_task_linux.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vos_mem.h"
#include "vos_trace.h"
#include "vos_util_linux.h"

namespace
{

constexpr char MODULE[] = "vos_task_linux";
constexpr int MIN_STACK_SIZE = 16384;

std::atomic<uint32_t> running_threads{1}; // the main thread

void destroy_task(VosTask *task)
{
    pthread_mutex_destroy(&task->mutex);
    pthread_cond_destroy(&task->condition);
    vos_queue_destroy(&task->messages);
    vos_mem_free(&task);
}

void *run_task(void *handle)
{
    auto *task = static_cast<VosTask *>(handle);
    ++running_threads;
    // The creator holds the mutex until it has stored the thread's id.
    pthread_mutex_lock(&task->mutex);
    pthread_mutex_unlock(&task->mutex);

    task->entry(task, task->argument);

    vos_trace_info("End of thread=%p", handle);
    destroy_task(task);
    --running_threads;
    return nullptr;
}

VosTask *new_task(VosTaskEntry entry, uintptr_t argument)
{
    VosTask *task = nullptr;
    VosQueue *messages = vos_queue_create(0, nullptr);
    if (messages != nullptr) {
        vos_mem_alloc(&task, sizeof *task);
    }
    if (task == nullptr) {
        vos_queue_destroy(&messages);
        return nullptr;
    }
    task->entry = entry;
    task->argument = argument;
    pthread_mutex_init(&task->mutex, nullptr);
    pthread_cond_init(&task->condition, nullptr);
    task->messages = messages;
    task->limit = 0;
    return task;
}

// Detached, with default policy and priority of its own; returns the stack size that is in effect.
size_t prepare_attributes(pthread_attr_t *attributes, uint32_t stack_size)
{
    pthread_attr_init(attributes);
    pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setinheritsched(attributes, PTHREAD_EXPLICIT_SCHED);
    const int refused = pthread_attr_setstacksize(attributes, stack_size);
    if (refused != 0) {
        vos_trace_error(MODULE, __LINE__, "Can't set stack size=%d errno=%d errstr:%s", stack_size,
                        refused, strerror(refused));
    }
    size_t effective = 0;
    pthread_attr_getstacksize(attributes, &effective);
    return effective;
}

int append_and_wake(VosTask *task, void *message)
{
    if (vos_queue_append(task->messages, message) < 0) {
        return 0;
    }
    pthread_cond_signal(&task->condition);
    return 1;
}

// Waits with the mailbox's mutex held until a message is there; false when the time has passed.
// deadline_of turns the time-out, counted in its own unit, into a time of day; without one the wait
// has no end.
bool wait_for_message(VosTask *task, timespec (*deadline_of)(uint32_t), uint32_t timeout)
{
    while (vos_queue_count(task->messages) == 0) {
        int error = 0;
        if (deadline_of == nullptr || timeout == 0) {
            pthread_cond_wait(&task->condition, &task->mutex);
        } else {
            const timespec deadline = deadline_of(timeout);
            error = pthread_cond_timedwait(&task->condition, &task->mutex, &deadline);
        }
        if (error == ETIMEDOUT) {
            return false;
        }
        if (vos_queue_count(task->messages) == 0) {
            // A trace may wait for its reader; senders must not wait with it.
            pthread_mutex_unlock(&task->mutex);
            if (deadline_of == nullptr) {
                vos_trace_error(MODULE, __LINE__, "pthread_cond_wait");
            } else {
                vos_trace_error(MODULE, __LINE__, "cond_timedwait:%d", error);
            }
            pthread_mutex_lock(&task->mutex);
        }
    }
    return true;
}

int receive(VosTask *task, void **message, timespec (*deadline_of)(uint32_t), uint32_t timeout)
{
    pthread_mutex_lock(&task->mutex);
    const bool received = wait_for_message(task, deadline_of, timeout);
    if (received) {
        *message = vos_queue_take(task->messages, 0);
    }
    pthread_mutex_unlock(&task->mutex);
    return received ? 1 : 0;
}

// Starts the task's thread; false with a line on standard output when that can't be done.
bool start_thread(VosTask *task, const pthread_attr_t *attributes)
{
    pthread_mutex_lock(&task->mutex);
    const int error = pthread_create(&task->thread, attributes, run_task, task);
    if (error != 0) {
        printf("Can't create thread %d, %s\n", error, strerror(error));
        fflush(stdout);
    }
    pthread_mutex_unlock(&task->mutex);
    return error == 0;
}

bool run(VosTask *task, const char *name, uint32_t stack_size, bool tell_always)
{
    pthread_attr_t attributes;
    const size_t effective = prepare_attributes(&attributes, stack_size);
    const bool started = start_thread(task, &attributes);
    pthread_attr_destroy(&attributes);
    if (started || tell_always) {
        vos_trace_info("Thread \"%s\" created, id=%p, stack_size=%ld min_stack_size=%d", name,
                       static_cast<void *>(task), static_cast<long>(effective), MIN_STACK_SIZE);
    }
    return started;
}

} // namespace

VosTask *vos_task_create(VosTaskEntry entry, uint32_t /*priority*/, const char *name,
                         uintptr_t argument, uint32_t stack_size)
{
    VosTask *task = vos_task_prepare(entry, name, argument);
    if (task != nullptr) {
        run(task, name, stack_size, true);
    }
    return task;
}

VosTask *vos_task_start(VosTaskEntry entry, uint32_t /*priority*/, const char *name,
                        uintptr_t argument, uint32_t stack_size)
{
    VosTask *task = vos_task_prepare(entry, name, argument);
    if (task != nullptr && vos_task_run(task, name, stack_size) == 0) {
        vos_task_discard(&task);
    }
    return task;
}

VosTask *vos_task_prepare(VosTaskEntry entry, const char *name, uintptr_t argument)
{
    VosTask *task = new_task(entry, argument);
    if (task == nullptr) {
        vos_trace_error(MODULE, __LINE__, "No memory for thread \"%s\"", name);
    }
    return task;
}

int vos_task_run(VosTask *task, const char *name, uint32_t stack_size)
{
    return run(task, name, stack_size, false) ? 1 : 0;
}

void vos_task_discard(VosTask **task)
{
    if (*task != nullptr) {
        destroy_task(*task);
        *task = nullptr;
    }
}

VosTask *vos_thread_create(VosTaskEntry entry, uint32_t priority, const char *name,
                           uintptr_t argument)
{
    return vos_task_create(entry, priority, name, argument, VOS_THREAD_STACK_SIZE);
}

uint32_t vos_task_count()
{
    return running_threads;
}

int vos_mbx_send(VosTask *task, void *const *message)
{
    if (task == nullptr) {
        return 0;
    }
    pthread_mutex_lock(&task->mutex);
    const int sent = append_and_wake(task, *message);
    pthread_mutex_unlock(&task->mutex);
    return sent;
}

int vos_mbx_send_limited(VosTask *task, void *const *message)
{
    if (task == nullptr) {
        return 0;
    }
    pthread_mutex_lock(&task->mutex);
    const auto waiting = static_cast<uint32_t>(vos_queue_count(task->messages));
    const int sent = waiting < task->limit ? append_and_wake(task, *message) : 0;
    pthread_mutex_unlock(&task->mutex);
    return sent;
}

void vos_mbx_set_limit(VosTask *task, uint32_t limit)
{
    if (task != nullptr) {
        pthread_mutex_lock(&task->mutex);
        task->limit = limit;
        pthread_mutex_unlock(&task->mutex);
    }
}

int vos_mbx_receive(VosTask *task, void **message, uint32_t ticks)
{
    return receive(task, message, vos_util_deadline, ticks);
}

int vos_mbx_receive_ms(VosTask *task, void **message, uint32_t milliseconds)
{
    return receive(task, message, vos_util_deadline_ms, milliseconds);
}

int vos_mbx_receive_blocking(VosTask *task, void **message)
{
    return receive(task, message, nullptr, 0);
}

bool vos_mbx_pending(VosTask *task)
{
    pthread_mutex_lock(&task->mutex);
    const bool pending = vos_queue_count(task->messages) != 0;
    pthread_mutex_unlock(&task->mutex);
    return pending;
}
