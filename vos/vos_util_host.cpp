// The part of vos_util_linux that deals with the machine around the process: commands, text files,
// the reach of other hosts.

#include "vos_util_linux.h"

#include <arpa/inet.h>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vos_fs.h"
#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_util_linux";

constexpr int POLLS_MAX = 1200;
constexpr uint32_t POLL_PAUSE = 5; // ticks
constexpr uint32_t ABORTED_MAX = 10;
constexpr int FIRST_CLOSED = 3;
constexpr int LAST_CLOSED = 99;

constexpr uint8_t ECHO_REQUEST[] = {8, 0, 0xF7, 0xFF, 0, 0, 0, 0};
constexpr size_t IP_HEADER_SIZE = 20;
constexpr size_t REPLY_SIZE = IP_HEADER_SIZE + sizeof ECHO_REQUEST;

std::atomic<uint32_t> aborted_commands{0};

// Children whose end nobody watches any more; the next command's caller collects those that ended.
struct GivenUp {
    GivenUp *next;
    pid_t child;
};

pthread_mutex_t given_up_mutex = PTHREAD_MUTEX_INITIALIZER;
GivenUp *given_up = nullptr;

// Without memory the child stays a zombie until the process ends.
void give_up(pid_t child)
{
    GivenUp *entry = nullptr;
    vos_mem_alloc(&entry, sizeof *entry);
    if (entry != nullptr) {
        const VosMutexGuard guard(&given_up_mutex);
        *entry = {given_up, child};
        given_up = entry;
    }
}

void collect_given_up()
{
    const VosMutexGuard guard(&given_up_mutex);
    for (GivenUp **link = &given_up; *link != nullptr;) {
        GivenUp *entry = *link;
        if (waitpid(entry->child, nullptr, WNOHANG) == 0) {
            link = &entry->next;
        } else {
            *link = entry->next;
            vos_mem_free(&entry);
        }
    }
}

// The child of a command: runs the command in a shell of its own, waits for it as `system` does,
// and ends with 0. The process it comes from may have other threads, any of which may have held a
// lock of the C library: only what a signal handler may call, too, is called here. So neither
// `system` nor `fork`, which takes such locks.
[[noreturn]] void run_command(const char *command)
{
    for (const int number : {SIGINT, SIGHUP, SIGQUIT, SIGABRT, SIGTERM, SIGTSTP}) {
        signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int descriptor = FIRST_CLOSED; descriptor <= LAST_CLOSED; ++descriptor) {
        close(descriptor);
    }
    const pid_t shell = _Fork();
    if (shell == 0) {
        execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
        _exit(127);
    }
    signal(SIGINT, SIG_IGN); // the keyboard's signals are for the command
    signal(SIGQUIT, SIG_IGN);
    while (shell > 0 && waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
}

enum class Child { gone, just_ended, running };

// Polls until the child is gone, or it has been polled often enough.
Child watch(pid_t child)
{
    for (int poll = 1;; ++poll) {
        const pid_t found = waitpid(child, nullptr, WNOHANG);
        if (found < 0) {
            return Child::gone;
        }
        if (poll == POLLS_MAX) {
            return found == 0 ? Child::running : Child::just_ended;
        }
        vos_util_sleep(POLL_PAUSE);
        if (found > 0) {
            return Child::gone; // another poll could only find a stranger's process
        }
    }
}

int judge_reply(const uint8_t *reply, ssize_t size, const char *address)
{
    if (size < 0) {
        vos_trace_error(MODULE, __LINE__, "recv");
        return VOS_PING_FAILED;
    }
    const bool whole = static_cast<size_t>(size) >= IP_HEADER_SIZE + 2;
    if (!whole || reply[IP_HEADER_SIZE] != 0 || reply[IP_HEADER_SIZE + 1] != 0) {
        vos_trace_debug(MODULE, __LINE__, "Ping error on %s", address);
        return VOS_PING_FAILED;
    }
    return VOS_PING_ANSWERED;
}

int exchange_echo(int descriptor, const uint8_t *request, uint8_t *reply, const char *address,
                  uint32_t timeout)
{
    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = inet_addr(address);
    sendto(descriptor, request, sizeof ECHO_REQUEST, 0,
           std::bit_cast<const sockaddr *>(&destination), sizeof destination);

    pollfd events = {descriptor, POLLIN | POLLPRI, 0};
    const timespec limit = {timeout, 0};
    if (ppoll(&events, 1, &limit, nullptr) <= 0) {
        vos_trace_debug(MODULE, __LINE__, "Ping timeout on %s", address);
        return VOS_PING_TIMEOUT;
    }
    if ((events.revents & POLLPRI) != 0 || (events.revents & (POLLIN | POLLERR)) == 0) {
        return VOS_PING_FAILED;
    }
    const ssize_t size = recvfrom(descriptor, reply, REPLY_SIZE, 0, nullptr, nullptr);
    return judge_reply(reply, size, address);
}

} // namespace

void vos_util_system(const char *command)
{
    if (command == nullptr) {
        return;
    }
    collect_given_up();
    const pid_t child = fork();
    if (child == 0) {
        run_command(command);
    }
    vos_trace_info("wait end of system call(%d):\"%s\"", child, command);
    const Child state = child < 0 ? Child::gone : watch(child);
    if (state == Child::gone) {
        return;
    }
    vos_trace_error(MODULE, __LINE__, "abort system call:%s", command);
    if (++aborted_commands == ABORTED_MAX) {
        vos_trace_error(MODULE, __LINE__, "too much system call failure, reset");
    }
    if (state == Child::running) {
        give_up(child);
    }
}

char *vos_util_find_in_file(const char *path, const char *text)
{
    FILE *file = text != nullptr ? vos_fs_fopen(path, "r") : nullptr;
    if (file == nullptr) {
        return nullptr;
    }
    char *line = nullptr;
    size_t room = 100;
    ssize_t length = getline(&line, &room, file);
    while (length >= 0 && strstr(line, text) == nullptr) {
        length = getline(&line, &room, file);
    }
    vos_fs_fclose(&file);
    if (length < 0) {
        free(line);
        return nullptr;
    }
    // The block has grown with the longest line so far.
    auto *fitted = static_cast<char *>(realloc(line, static_cast<size_t>(length) + 1));
    return fitted != nullptr ? fitted : line;
}

int vos_util_ping(const char *address, uint32_t timeout)
{
    if (address == nullptr) {
        return VOS_PING_FAILED;
    }
    const int descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (descriptor < 0) {
        vos_trace_error(MODULE, __LINE__, "ping: Can't create socket");
        return VOS_PING_FAILED;
    }
    uint8_t *request = nullptr;
    uint8_t *reply = nullptr;
    vos_mem_calloc(&request, sizeof ECHO_REQUEST);
    vos_mem_calloc(&reply, REPLY_SIZE);
    int result = VOS_PING_FAILED;
    if (request != nullptr && reply != nullptr) {
        memcpy(request, ECHO_REQUEST, sizeof ECHO_REQUEST);
        result = exchange_echo(descriptor, request, reply, address, timeout);
    }
    vos_mem_free(&request);
    vos_mem_free(&reply);
    close(descriptor);
    return result;
}
