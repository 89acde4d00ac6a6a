// Makes calls of the real tool fail as FAULT="NAME FIRST COUNT NUMBER TEXT" tells: COUNT calls of
// that name from the FIRST one on give the error NUMBER, in the thread that has printed TEXT; in
// all without a text. The tool sleeps ten times as fast, and says when it is at rest.

#include <atomic>
#include <bit>
#include <csignal>
#include <sstream>
#include <sys/time.h>

namespace
{
struct Plan {
    std::string name, text;
    int first = 0, count = 0, number = 0;
    sigset_t end{};
    Plan()
    {
        const char *fault = getenv("FAULT");
        std::istringstream words(fault != nullptr ? fault : "");
        std::getline(words >> name >> first >> count >> number >> std::ws, text);
        sigaddset(&end, SIGTERM);
        sigprocmask(SIG_BLOCK, &end, nullptr);
    }
};

const Plan &plan = *new Plan; // threads outlive the end of the process
std::atomic<int> calls = 0;
std::atomic<bool> waiting = false; // for an answer
thread_local bool due = plan.text.empty();

bool fails(std::string_view name)
{
    waiting = waiting || (due && name == "epoll_wait");
    const int call = due && name.ends_with(plan.name) ? ++calls : 0;
    const bool failed = call >= plan.first && call < plan.first + plan.count;
    errno = failed ? plan.number : errno;
    return failed;
}

void tell(const char *what) // and no call fails any more
{
    printf("%s, %s\n", what, calls.exchange(1 << 30) < plan.first ? "unharmed" : "harmed");
}
} // namespace

extern "C" {
[[gnu::weak]] int __lsan_do_recoverable_leak_check();
[[gnu::weak]] void __gcov_dump();
const char *__lsan_default_options()
{
    return "leak_check_at_exit=0";
} // not behind FATAL

// Whatever the arguments are, all of them are in registers and go on as they came.
#define FAULTY(name, failure)                                                                      \
    long __real_##name(long, long, long, long, long);                                              \
    long __wrap_##name(long a, long b, long c, long d, long e)                                     \
    {                                                                                              \
        return fails(#name) ? (failure) : __real_##name(a, b, c, d, e);                            \
    }
FAULTY(malloc, 0)
FAULTY(calloc, 0)
FAULTY(realloc, 0)
FAULTY(send, -1)
FAULTY(sendmsg, -1)
FAULTY(recv, -1)
FAULTY(socket, -1)
FAULTY(bind, -1)
FAULTY(ioctl, -1)
FAULTY(getsockname, -1)
FAULTY(setsockopt, -1)
FAULTY(epoll_wait, -1)
FAULTY(pthread_create, plan.number)
FAULTY(signal, -1)
FAULTY(getcwd, 0)
FAULTY(fopen64, 0)
FAULTY(openat64, -1)
FAULTY(fdopen, 0)
FAULTY(fsync, -1)
FAULTY(rename, -1)
FAULTY(linkat, -1)
// With its descriptor gone the stream itself meets the error.
FAULTY(fread, (close(fileno(std::bit_cast<FILE *>(d))), __real_fread(a, b, c, d, e)))

// The lines of the trace, the only calls of this kind.
size_t __real_fwrite_unlocked(const void *data, size_t size, size_t count, FILE *stream);
size_t __wrap_fwrite_unlocked(const void *data, size_t size, size_t count, FILE *stream)
{
    if (fails("write")) {
        stream->_flags |= _IO_ERR_SEEN;
        return 0;
    }
    const std::string_view text(static_cast<const char *>(data), size * count);
    const size_t written = __real_fwrite_unlocked(data, size, count, stream);
    due = due || text.find(plan.text) != std::string_view::npos;
    if (text.find("End of thread") != std::string_view::npos) {
        tell("At rest"); // without the server nothing will come
    }
    return written;
}

// What the tool answers the library's question for the time with. A time of day stands still.
int (*real_clock)(clockid_t clock, timespec *now);
int stopped_clock(clockid_t clock, timespec *now)
{
    const int result = real_clock(clock, now);
    thread_local const timespec first = *now;
    if (waiting && fails("clock") && clock == CLOCK_REALTIME) {
        *now = first;
    }
    return result;
}

void *__real_dlsym(void *library, const char *name);
void *__wrap_dlsym(void *library, const char *name)
{
    void *found = __real_dlsym(library, name);
    real_clock = std::bit_cast<decltype(real_clock)>(found);
    return name == std::string_view("clock_gettime") ? std::bit_cast<void *>(&stopped_clock)
                                                     : found;
}

int __wrap_select(int, fd_set *, fd_set *, fd_set *, const timeval *limit)
{
    if (fails("select")) {
        return -1;
    }
    const timespec pause = {0, limit != nullptr ? limit->tv_usec * 1000 / 10 : 0};
    limit == nullptr ? tell("At rest") : void();
    if (sigtimedwait(&plan.end, nullptr, limit != nullptr ? &pause : nullptr) == SIGTERM) {
        __lsan_do_recoverable_leak_check != nullptr ? __lsan_do_recoverable_leak_check() : 0;
        __gcov_dump != nullptr ? __gcov_dump() : void();
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);
        sigprocmask(SIG_UNBLOCK, &plan.end, nullptr);
    }
    return 0;
}

[[gnu::destructor]] void end()
{
    tell("Ended");
}
}
