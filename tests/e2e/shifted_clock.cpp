// Preloaded, it has a program begin at SHIFTED_CLOCK, in seconds since 1970: for a 32-bit machine
// past 2038. A call that tells the time in 32 bits fails then, as the C library's own does.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>

namespace
{
template<typename Call> Call real(const char *name)
{
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

#if __TIMESIZE == 32
#define WIDE(name) "__" name "64"
#else
#define WIDE(name) name
#endif
#define REPLACES(name) __asm__(name) __attribute__((used, visibility("default")))

// How far the program is from today.
const time_t offset = [] {
    const char *begin = getenv("SHIFTED_CLOCK");
    timeval now{};
    real<int (*)(timeval *, void *)>(WIDE("gettimeofday"))(&now, nullptr);
    return begin != nullptr ? static_cast<time_t>(strtoll(begin, nullptr, 10)) - now.tv_sec : 0;
}();
} // namespace

extern "C" {
time_t shifted_time(time_t *out) REPLACES(WIDE("time"));
int shifted_gettimeofday(timeval *out, void *zone) REPLACES(WIDE("gettimeofday"));
int shifted_clock_gettime(clockid_t clock, timespec *out) REPLACES(WIDE("clock_gettime"));
int shifted_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex, const timespec *end)
    REPLACES(WIDE("pthread_cond_timedwait"));

time_t shifted_time(time_t *out)
{
    const time_t now = real<time_t (*)(time_t *)>(WIDE("time"))(nullptr) + offset;
    return out != nullptr ? *out = now : now;
}

int shifted_gettimeofday(timeval *out, void *zone)
{
    const int result = real<int (*)(timeval *, void *)>(WIDE("gettimeofday"))(out, zone);
    out->tv_sec += offset;
    return result;
}

int shifted_clock_gettime(clockid_t clock, timespec *out)
{
    const auto call = real<int (*)(clockid_t, timespec *)>(WIDE("clock_gettime"));
    const int result = call(clock, out);
    out->tv_sec += clock == CLOCK_REALTIME ? offset : 0;
    return result;
}

// The C library waits by the system's own clock. A deadline of few seconds is one since the start.
int shifted_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex, const timespec *end)
{
    const auto call = real<int (*)(pthread_cond_t *, pthread_mutex_t *, const timespec *)>(
        WIDE("pthread_cond_timedwait"));
    constexpr time_t FIRST_DATE = 1'000'000'000;
    const timespec shifted = {end->tv_sec - (end->tv_sec < FIRST_DATE ? 0 : offset), end->tv_nsec};
    return call(condition, mutex, &shifted);
}

#if __TIMESIZE == 32
int shifted_narrow_clock(clockid_t clock, int32_t (*out)[2]) REPLACES("clock_gettime");

int shifted_narrow_clock(clockid_t clock, int32_t (*out)[2])
{
    timespec now{};
    const int result = shifted_clock_gettime(clock, &now);
    if (now.tv_sec > INT32_MAX) {
        errno = EOVERFLOW;
        return -1;
    }
    (*out)[0] = static_cast<int32_t>(now.tv_sec);
    (*out)[1] = static_cast<int32_t>(now.tv_nsec);
    return result;
}
#endif
}
