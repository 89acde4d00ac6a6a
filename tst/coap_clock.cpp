// The CoAP library times its repetitions by the time of day. In the tool it is given the time since
// the system started instead, which nobody sets, and which has room for 68 years where the
// library's seconds have 32 bits: defined here, clock_gettime takes the place of the C library's
// own for everything in the program, be the CoAP library linked statically or found at run time.
//
// The tool itself asks only for CLOCK_MONOTONIC, which stays what it is, or calls time and
// gettimeofday. A program that wants the time of day from elsewhere (the C++ library's clocks, say)
// must not have this file.

#include <atomic>
#include <cstdint>
#include <ctime>
#include <dlfcn.h>

namespace
{

using ClockCall = int (*)(clockid_t clock, timespec *now);

#if __TIMESIZE == 32
constexpr char REAL_CLOCK_CALL[] = "__clock_gettime64"; // as a time_t of 64 bits has it
#else
constexpr char REAL_CLOCK_CALL[] = "clock_gettime";
#endif

std::atomic<ClockCall> real_clock_call{nullptr};

int read_clock(clockid_t clock, timespec *now)
{
    ClockCall call = real_clock_call.load(std::memory_order_relaxed);
    if (call == nullptr) {
        call = reinterpret_cast<ClockCall>(dlsym(RTLD_NEXT, REAL_CLOCK_CALL));
        real_clock_call.store(call, std::memory_order_relaxed);
    }
    return call(clock == CLOCK_REALTIME ? CLOCK_MONOTONIC : clock, now);
}

} // namespace

extern "C" {

#define REPLACES(name) __asm__(name) __attribute__((used, visibility("default")))

#if __TIMESIZE == 32 // the library may have been built with a time_t of either width

struct CoapClockTime {
    int32_t tv_sec;
    int32_t tv_nsec;
};

int coap_clock_gettime(clockid_t clock, CoapClockTime *now) REPLACES("clock_gettime");
int coap_clock_gettime64(clockid_t clock, timespec *now) REPLACES("__clock_gettime64");

int coap_clock_gettime(clockid_t clock, CoapClockTime *now)
{
    timespec wide{};
    const int result = read_clock(clock, &wide);
    *now = {static_cast<int32_t>(wide.tv_sec), static_cast<int32_t>(wide.tv_nsec)};
    return result;
}

int coap_clock_gettime64(clockid_t clock, timespec *now)
{
    return read_clock(clock, now);
}

#else

int coap_clock_gettime(clockid_t clock, timespec *now) REPLACES("clock_gettime");

int coap_clock_gettime(clockid_t clock, timespec *now)
{
    return read_clock(clock, now);
}

#endif

} // extern "C"
