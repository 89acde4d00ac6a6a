// Linked into the tool where coverage is counted, and nowhere else: SIGTERM, which is how the tool
// ends, would leave the counts unwritten. A thread that does nothing else waits for it; a handler
// could come in the middle of anything.

#include <csignal>
#include <pthread.h>

extern "C" void __gcov_dump();

namespace
{

sigset_t termination()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    return set;
}

void *wait_for_termination(void * /*unused*/)
{
    const sigset_t set = termination();
    int received = 0;
    sigwait(&set, &received);
    __gcov_dump();
    signal(received, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(received);
    return nullptr;
}

[[gnu::constructor]] void start()
{
    const sigset_t set = termination();
    pthread_sigmask(SIG_BLOCK, &set, nullptr); // in every thread: they inherit it
    pthread_t thread{};
    pthread_create(&thread, nullptr, wait_for_termination, nullptr);
}

} // namespace
