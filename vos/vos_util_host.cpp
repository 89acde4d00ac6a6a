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
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vos_fs.h"
#include "vos_mem.h"
#include "vos_task_linux.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_util_linux";

constexpr int POLLS_MAX = 1200;
constexpr uint32_t POLL_PAUSE = 5; // ticks
constexpr uint32_t ABORTED_MAX = 10;
constexpr uint32_t PRIORITY = 6;
constexpr int FIRST_CLOSED = 3;
constexpr int LAST_CLOSED = 99;

constexpr uint8_t ECHO_REQUEST[] = {8, 0, 0xF7, 0xFF, 0, 0, 0, 0};
constexpr size_t IP_HEADER_SIZE = 20;
constexpr size_t REPLY_SIZE = IP_HEADER_SIZE + sizeof ECHO_REQUEST;

std::atomic<uint32_t> aborted_commands{0};

// In the child of a process that may have other threads: nothing but system calls.
[[noreturn]] void run_shell(const char *command)
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
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
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

// Entry of a task that waits for a command nobody waits for any more, so that no zombie stays.
uint32_t collect(VosTask * /*task*/, uintptr_t child)
{
    while (waitpid(static_cast<pid_t>(child), nullptr, 0) < 0 && errno == EINTR) {
    }
    return 0;
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
    const pid_t child = fork();
    if (child == 0) {
        run_shell(command);
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
        vos_task_start(collect, PRIORITY, "command", static_cast<uintptr_t>(child),
                       VOS_THREAD_STACK_SIZE);
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
    while (getline(&line, &room, file) >= 0) {
        if (strstr(line, text) != nullptr) {
            vos_fs_fclose(&file);
            return line;
        }
    }
    free(line);
    vos_fs_fclose(&file);
    return nullptr;
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
