// Tasks: a thread together with its mailbox.
//
// A task runs its entry on a detached thread of its own and ends when the entry returns; its
// thread then frees the task and the messages still queued. Nothing stops a task from outside: send
// it a message that its entry understands as the end. A handle is valid until the entry returns.

#ifndef VOS_TASK_LINUX_H
#define VOS_TASK_LINUX_H

#include <cstdint>
#include <pthread.h>

#include "vos_queue.h"

struct VosTask;
using VosTaskEntry = uint32_t (*)(VosTask *task, uintptr_t argument);

constexpr uint32_t VOS_THREAD_STACK_SIZE = 262144; // bytes

struct VosTask {
    VosTaskEntry entry;
    uintptr_t argument;
    pthread_t thread;      // means nothing when it could not be started
    pthread_mutex_t mutex; // guards the mailbox; holds the new thread back until it is stored
    pthread_cond_t condition;
    VosQueue *messages; // oldest first
    uint32_t limit;     // most messages that vos_mbx_send_limited lets wait
};

// Starts entry(task, argument) on a new thread; its result is ignored. priority has no effect, the
// name appears in the trace line of the creation. A stack size (bytes) that the system refuses is
// reported and replaced by the default. The handle comes back also when the thread could not be
// started (reported on standard output): such a task never runs, its mailbox only fills. Null
// without memory. Any thread.
VosTask *vos_task_create(VosTaskEntry entry, uint32_t priority, const char *name,
                         uintptr_t argument, uint32_t stack_size);

// The same for a caller that can do without the task: null, with nothing left behind, when the
// thread could not be started. The thread may have ended, and the handle be dead, on return.
VosTask *vos_task_start(VosTaskEntry entry, uint32_t priority, const char *name, uintptr_t argument,
                        uint32_t stack_size);

// Its three steps, for a caller that makes the handle known before the thread runs. Makes the task,
// whose mailbox takes messages from then on; null without memory, with an ERROR line.
VosTask *vos_task_prepare(VosTaskEntry entry, const char *name, uintptr_t argument);

// Starts the thread of a prepared task: 1, and the handle may be dead on return; or 0, and the task
// is still to be run or discarded.
int vos_task_run(VosTask *task, const char *name, uint32_t stack_size);

// Frees a task that was never run, with the messages it was sent, and sets *task to null; nothing
// when it is null already.
void vos_task_discard(VosTask **task);

// vos_task_create with a stack of VOS_THREAD_STACK_SIZE.
VosTask *vos_thread_create(VosTaskEntry entry, uint32_t priority, const char *name,
                           uintptr_t argument);

// Number of running threads, the main thread included. A task counts from the moment its thread
// begins, which may be after its creation has returned, until it has been freed.
uint32_t vos_task_count();

// Mailboxes. A message is a block of vos_mem_alloc, or null; only its address is passed. Any thread
// sends; only the task's own thread receives, oldest first. A message that was sent belongs to the
// mailbox, one that was received to the receiver, who frees it. The send calls read the message
// through the address they get and leave the variable as it is; they never wait for the receiver,
// nor for a trace line.

// 1 when the message is in the mailbox. 0 when the mailbox takes no more (VOS_QUEUE_MAX messages
// wait, memory is out, or the task is null): the message stays the caller's.
int vos_mbx_send(VosTask *task, void *const *message);

// The same, and 0 also when limit messages or more wait. The limit is 0 until it is set.
int vos_mbx_send_limited(VosTask *task, void *const *message);

void vos_mbx_set_limit(VosTask *task, uint32_t limit); // nothing for a null task

// Blocks until a message is there, at most so many ticks of 20 ms, or milliseconds (0: no limit).
// 1 with the message stored in *message; 0 when the time passed, *message untouched.
int vos_mbx_receive(VosTask *task, void **message, uint32_t ticks);
int vos_mbx_receive_ms(VosTask *task, void **message, uint32_t milliseconds);

// Blocks until a message is there. Always 1.
int vos_mbx_receive_blocking(VosTask *task, void **message);

bool vos_mbx_pending(VosTask *task); // at least one message waits

#endif
