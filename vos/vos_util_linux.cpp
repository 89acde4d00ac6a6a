#include "vos_util_linux.h"

#include <cerrno>
#include <sys/select.h>
#include <sys/time.h>

#include "vos_mem.h"

namespace
{

constexpr long NS_PER_SECOND = 1'000'000'000;

static_assert(sizeof(time_t) == sizeof(int64_t), "no deadline is past its range");

// Waits on the condition, at most ticks (0: no limit); false when the time has passed.
bool wait_on(pthread_cond_t *condition, pthread_mutex_t *mutex, uint32_t ticks)
{
    if (ticks == 0) {
        pthread_cond_wait(condition, mutex);
        return true;
    }
    const timespec deadline = vos_util_deadline(ticks);
    return pthread_cond_timedwait(condition, mutex, &deadline) != ETIMEDOUT;
}

} // namespace

VosMutex *vos_mutex_create(const char * /*name*/)
{
    VosMutex *mutex = nullptr;
    vos_mem_alloc(&mutex, sizeof *mutex);
    if (mutex != nullptr) {
        pthread_mutex_init(mutex, nullptr);
    }
    return mutex;
}

void vos_mutex_lock(VosMutex *mutex)
{
    if (mutex != nullptr) {
        pthread_mutex_lock(mutex);
    }
}

void vos_mutex_unlock(VosMutex *mutex)
{
    if (mutex != nullptr) {
        pthread_mutex_unlock(mutex);
    }
}

void vos_mutex_destroy(VosMutex **mutex)
{
    if (mutex != nullptr && *mutex != nullptr) {
        pthread_mutex_destroy(*mutex);
        vos_mem_free(mutex);
    }
}

void vos_util_sleep(uint32_t ticks)
{
    if (ticks == 0) {
        return;
    }
    timeval time{};
    time.tv_sec = static_cast<time_t>(ticks / VOS_TICKS_PER_SECOND);
    const uint32_t milliseconds = ticks % VOS_TICKS_PER_SECOND * VOS_MS_PER_TICK;
    time.tv_usec = static_cast<suseconds_t>(milliseconds) * 1000;
    select(0, nullptr, nullptr, nullptr, &time);
}

timespec vos_util_deadline_ms(uint32_t milliseconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    time_t seconds = now.tv_sec + milliseconds / 1000;
    long nanoseconds = static_cast<long>(now.tv_usec) * 1000L +
                       static_cast<long>(milliseconds % 1000) * 1'000'000L;
    if (nanoseconds >= NS_PER_SECOND) {
        nanoseconds -= NS_PER_SECOND;
        ++seconds;
    }
    return {seconds, nanoseconds};
}

timespec vos_util_deadline(uint32_t ticks)
{
    timespec deadline = vos_util_deadline_ms(ticks % VOS_TICKS_PER_SECOND * VOS_MS_PER_TICK);
    deadline.tv_sec += ticks / VOS_TICKS_PER_SECOND;
    return deadline;
}

VosSignal *vos_signal_create(const char *name)
{
    VosSignal *signal = nullptr;
    if (name != nullptr) {
        vos_mem_alloc(&signal, sizeof *signal);
    }
    if (signal != nullptr) {
        pthread_mutex_init(&signal->mutex, nullptr);
        pthread_cond_init(&signal->condition, nullptr);
        signal->waiting = 0;
    }
    return signal;
}

int vos_signal_wait(VosSignal *signal, uint32_t ticks)
{
    if (signal == nullptr) {
        return 1;
    }
    pthread_mutex_lock(&signal->mutex);
    signal->waiting = 1;
    const bool woken = wait_on(&signal->condition, &signal->mutex, ticks);
    signal->waiting = 0;
    pthread_mutex_unlock(&signal->mutex);
    return woken ? 1 : 0;
}

void vos_signal_post(VosSignal *signal)
{
    if (signal == nullptr) {
        return;
    }
    pthread_mutex_lock(&signal->mutex);
    if (signal->waiting == 1) {
        pthread_cond_signal(&signal->condition);
    }
    pthread_mutex_unlock(&signal->mutex);
}

void vos_signal_destroy(VosSignal **signal)
{
    if (signal != nullptr && *signal != nullptr) {
        pthread_mutex_destroy(&(*signal)->mutex);
        pthread_cond_destroy(&(*signal)->condition);
        vos_mem_free(signal);
    }
}

VosEventFlags *vos_event_create(const char *name)
{
    VosEventFlags *flags = nullptr;
    if (name != nullptr) {
        vos_mem_alloc(&flags, sizeof *flags);
    }
    if (flags != nullptr) {
        flags->deletion_pending = 0;
        flags->waiting = 0;
        flags->bits = 0;
        pthread_mutex_init(&flags->mutex, nullptr);
        pthread_cond_init(&flags->condition, nullptr);
    }
    return flags;
}

int vos_event_wait(VosEventFlags *flags, uint32_t ticks, uint32_t mask, uint32_t *bits_out)
{
    if (flags == nullptr) {
        return 1;
    }
    pthread_mutex_lock(&flags->mutex);
    flags->waiting = 1;
    bool in_time = true;
    while ((flags->bits & mask) != mask && flags->deletion_pending == 0 && in_time) {
        in_time = wait_on(&flags->condition, &flags->mutex, ticks);
    }
    const int result = (flags->bits & mask) == mask ? 1 : 0;
    if (bits_out != nullptr) {
        *bits_out = flags->bits;
    }
    flags->waiting = 0;
    flags->bits = 0;
    const bool deleted = flags->deletion_pending != 0;
    pthread_mutex_unlock(&flags->mutex);
    if (deleted) {
        vos_event_destroy(&flags);
        return 2;
    }
    return result;
}

void vos_event_set(VosEventFlags *flags, uint32_t bits)
{
    if (flags == nullptr) {
        return;
    }
    pthread_mutex_lock(&flags->mutex);
    if ((flags->bits & bits) != bits) {
        flags->bits |= bits;
        if (flags->waiting == 1) {
            pthread_cond_signal(&flags->condition);
        }
    }
    pthread_mutex_unlock(&flags->mutex);
}

void vos_event_assign(VosEventFlags *flags, uint32_t value)
{
    if (flags == nullptr) {
        return;
    }
    pthread_mutex_lock(&flags->mutex);
    if (flags->waiting == 0) {
        flags->bits = value;
    }
    pthread_mutex_unlock(&flags->mutex);
}

void vos_event_delete(VosEventFlags **flags)
{
    if (flags == nullptr || *flags == nullptr) {
        return;
    }
    VosEventFlags *deleted = *flags;
    pthread_mutex_lock(&deleted->mutex);
    if (deleted->waiting == 1) {
        ++deleted->deletion_pending;
        pthread_cond_signal(&deleted->condition);
        pthread_mutex_unlock(&deleted->mutex);
        return;
    }
    pthread_mutex_unlock(&deleted->mutex);
    vos_event_destroy(flags);
}

void vos_event_destroy(VosEventFlags **flags)
{
    if (flags != nullptr && *flags != nullptr) {
        pthread_mutex_destroy(&(*flags)->mutex);
        pthread_cond_destroy(&(*flags)->condition);
        vos_mem_free(flags);
    }
}
