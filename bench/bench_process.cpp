#include "bench_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bench
{

namespace
{

[[noreturn]] void refuse(const std::string &what)
{
    throw std::runtime_error(what + ": " + strerror(errno));
}

// The number behind a name in a file of "Name: number" lines.
uint64_t field(const std::string &path, const std::string &name)
{
    std::ifstream file(path);
    std::string word;
    uint64_t value = 0;
    while (file >> word) {
        if (word == name && file >> value) {
            return value;
        }
    }
    throw std::runtime_error("no " + name + " in " + path);
}

} // namespace

Process::Process(const std::vector<std::string> &command, Output output)
{
    std::array<int, 2> ends{-1, -1};
    if (output == Output::pipe) {
        if (pipe2(ends.data(), O_CLOEXEC) != 0 || fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) {
            refuse("pipe");
        }
    } else if ((ends[1] = open("/dev/null", O_WRONLY | O_CLOEXEC)) < 0) {
        refuse("/dev/null");
    }
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command) {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    m_pid = fork();
    if (m_pid < 0) {
        refuse("fork");
    }
    if (m_pid == 0) {
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && dup2(ends[1], STDOUT_FILENO) >= 0) {
            execvp(arguments[0], arguments.data());
        }
        perror(arguments[0]);
        _exit(EXIT_FAILURE);
    }
    close(ends[1]);
    m_output = ends[0];
}

Process::~Process()
{
    kill(m_pid, SIGTERM);
    waitpid(m_pid, nullptr, 0);
    if (m_output >= 0) {
        close(m_output);
    }
}

size_t Process::read_output()
{
    static std::array<char, 65536> buffer;
    size_t total = 0;
    ssize_t size = 0;
    while (m_output >= 0 && (size = read(m_output, buffer.data(), buffer.size())) > 0) {
        total += static_cast<size_t>(size);
    }
    m_output_bytes += total;
    return total;
}

void Process::must_run() const
{
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        ended.si_pid != 0) {
        throw std::runtime_error("the program has ended");
    }
}

std::vector<std::string> Process::threads() const
{
    std::vector<std::string> paths;
    const std::string tasks = "/proc/" + std::to_string(m_pid) + "/task";
    for (const auto &entry : std::filesystem::directory_iterator(tasks)) {
        paths.push_back(entry.path());
    }
    return paths;
}

uint64_t Process::cpu_ns() const
{
    uint64_t total = 0;
    for (const std::string &thread : threads()) {
        uint64_t ran = 0;
        if (std::ifstream(thread + "/schedstat") >> ran) {
            total += ran;
        }
    }
    return total;
}

uint64_t Process::wait_until_quiet()
{
    uint64_t before = 0;
    uint64_t now = cpu_ns();
    do {
        before = now;
        const auto end = Clock::now() + std::chrono::milliseconds(30);
        while (Clock::now() < end) {
            read_output();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        now = cpu_ns();
    } while (now != before);
    return now;
}

uint64_t Process::context_switches() const
{
    uint64_t total = 0;
    for (const std::string &thread : threads()) {
        total += field(thread + "/status", "voluntary_ctxt_switches:");
    }
    return total;
}

uint64_t Process::peak_kb() const
{
    return field("/proc/" + std::to_string(m_pid) + "/status", "VmHWM:");
}

void Process::wait_for_line(const std::string &text)
{
    std::string held;
    while (held.find(text) == std::string::npos) {
        pollfd ready{m_output, POLLIN, 0};
        std::array<char, 4096> buffer;
        ssize_t size = 0;
        if (poll(&ready, 1, 10'000) != 1 ||
            (size = read(m_output, buffer.data(), buffer.size())) <= 0) {
            throw std::runtime_error("the program did not write '" + text + "'");
        }
        held.append(buffer.data(), static_cast<size_t>(size));
    }
}

} // namespace bench
