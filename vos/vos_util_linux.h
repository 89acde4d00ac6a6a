// Operating system services of the runtime layer: named mutexes, sleep, two waitable objects, shell
// commands, a search in a file and a ping.
//
// Waiting times are in ticks of 20 ms (50 ticks make a second).

#ifndef VOS_UTIL_LINUX_H
#define VOS_UTIL_LINUX_H

#include <cstdint>
#include <pthread.h>

constexpr uint32_t VOS_TICKS_PER_SECOND = 50;
constexpr uint32_t VOS_MS_PER_TICK = 1000 / VOS_TICKS_PER_SECOND;

// A mutex that is not recursive. A null handle stands for no mutex: every call on it does nothing.
using VosMutex = pthread_mutex_t;

// Makes an unlocked mutex. The name documents the caller and is not stored. Null without memory.
VosMutex *vos_mutex_create(const char *name);
void vos_mutex_lock(VosMutex *mutex); // blocks until the mutex is free
void vos_mutex_unlock(VosMutex *mutex);

// Destroys and frees an unlocked mutex and sets *mutex to null; nothing when it is null already.
void vos_mutex_destroy(VosMutex **mutex);

// Holds a mutex for the life of the guard.
struct VosMutexGuard {
    explicit VosMutexGuard(VosMutex *held) : mutex(held) { vos_mutex_lock(mutex); }
    ~VosMutexGuard() { vos_mutex_unlock(mutex); }
    VosMutexGuard(const VosMutexGuard &) = delete;
    VosMutexGuard &operator=(const VosMutexGuard &) = delete;

    VosMutex *mutex;
};

// Blocks the caller for that many ticks; a signal ends the sleep early. 0 returns at once.
void vos_util_sleep(uint32_t ticks);

// Time of day at which a wait of so many milliseconds or ticks ends, counted from now.
timespec vos_util_deadline_ms(uint32_t milliseconds);
timespec vos_util_deadline(uint32_t ticks);

// Wakes one thread that waits. A post made while nobody waits is lost.
struct VosSignal {
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    uint8_t waiting; // 1 while a thread is inside vos_signal_wait
};

// The name documents the caller. Null when the name is null, or without memory.
VosSignal *vos_signal_create(const char *name);

// Blocks until a post, at most ticks (0: no limit). 1 when woken (rarely also without a post),
// 0 when the time passed, 1 at once for a null handle. One thread at a time.
int vos_signal_wait(VosSignal *signal, uint32_t ticks);

// Wakes the waiting thread, if one waits; any thread; nothing for a null handle.
void vos_signal_post(VosSignal *signal);

// Frees the object and sets *signal to null; nothing when it is null. No thread may be waiting.
void vos_signal_destroy(VosSignal **signal);

// 32 event bits with one thread waiting for some of them.
struct VosEventFlags {
    uint8_t deletion_pending; // not 0: the waiter destroys the object when its wait ends
    uint8_t waiting;          // 1 while a thread is inside vos_event_wait
    uint32_t bits;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
};

// The name documents the caller. Null when the name is null, or without memory.
VosEventFlags *vos_event_create(const char *name);

// Blocks until all bits of the mask are set, at most ticks (0: no limit). 1 when they are, 0 when
// the time passed without, 2 when the object was deleted during the wait (it is gone then), 1 at
// once for a null handle. *bits_out receives the bits as they were (not for a null handle); all
// bits are cleared by every wait, also one that ran out. One thread at a time.
int vos_event_wait(VosEventFlags *flags, uint32_t ticks, uint32_t mask, uint32_t *bits_out);

// Adds the bits and wakes the waiter; any thread; nothing for a null handle.
void vos_event_set(VosEventFlags *flags, uint32_t bits);

// Replaces all bits by value, unless a thread waits: then nothing changes. Any thread.
void vos_event_assign(VosEventFlags *flags, uint32_t value);

// Deletes the object: at once, with *flags set to null, when nobody waits; otherwise the waiter's
// wait returns 2 and destroys it, and the caller must not touch the object again.
void vos_event_delete(VosEventFlags **flags);

// Destroys and frees the object at once and sets *flags to null; no thread may be waiting.
void vos_event_destroy(VosEventFlags **flags);

// Runs the command by the shell and blocks until it has ended, 100 ms at least and about 120
// seconds at most (less when signals interrupt it). The command has the default actions of SIGINT,
// SIGHUP, SIGQUIT, SIGABRT, SIGTERM and SIGTSTP, no signal blocked, and no descriptor from 3 to 99.
// Its shell is the child of a child of this process. Its status is not told. A command that runs
// longer is reported (ERROR "abort system call:...") and goes on by itself; when it ends, its child
// stays a zombie, and a small block in use, until the next call. The tenth in the life of the
// process adds "too much system call failure, reset". A null command does nothing. Any thread.
void vos_util_system(const char *command);

// The first line of the file that contains the text, with its line end, in a block of its size;
// null when there is none, or no such file, or an argument is null. The caller frees it with free,
// not with vos_mem_free.
// Blocks on the file.
char *vos_util_find_in_file(const char *path, const char *text);

constexpr int VOS_PING_ANSWERED = 1;
constexpr int VOS_PING_FAILED = -1;
constexpr int VOS_PING_TIMEOUT = -5;

// Sends one ICMP echo request to a dotted-decimal IPv4 address and blocks until the first ICMP
// message arrives, at most timeout seconds (0: returns at once, hardly ever with an answer).
// VOS_PING_ANSWERED when that is an echo reply (also one to somebody else), VOS_PING_TIMEOUT when
// nothing came, otherwise VOS_PING_FAILED: without the right to raw sockets (root, CAP_NET_RAW),
// without memory, another ICMP message, a null address. Text that is no address is found out by the
// time-out alone. An address of this machine fails: the first message that arrives is the request.
// Any thread.
int vos_util_ping(const char *address, uint32_t timeout);

#endif
