// Linked into the tool where coverage is counted, and nowhere else: SIGTERM, which is how the tool
// ends, would leave the counts unwritten. A thread that does nothing else waits for it; a handler
// could come in the middle of anything.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

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
    const int error = pthread_create(&thread, nullptr, wait_for_termination, nullptr);
    if (error != 0) { // nothing but SIGKILL could end the tool
        fprintf(stderr, "No thread to write the coverage at the end : %s\n", strerror(error));
        _exit(EXIT_FAILURE);
    }
}

} // namespace
