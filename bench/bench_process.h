// The process under measurement: started with its standard output in a pipe or in /dev/null, looked
// at through /proc, ended with this program at the latest. Everything here throws
// std::runtime_error when the system refuses, or when the program has ended by itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace bench
{

using Clock = std::chrono::steady_clock;

enum class Output { null, pipe };

class Process
{
public:
    Process(const std::vector<std::string> &command, Output output);
    ~Process(); // ends it
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    int output() const { return m_output; } // reading end, does not block; -1 without a pipe
    size_t read_output();                   // takes what is there; number of bytes
    uint64_t output_bytes() const { return m_output_bytes; } // taken so far
    void must_run() const;

    uint64_t cpu_ns() const;                     // of all its threads so far
    uint64_t wait_until_quiet();                 // ... once they have done what they were given
    uint64_t context_switches() const;           // voluntary, of all its threads
    uint64_t peak_kb() const;                    // largest resident memory so far
    void wait_for_line(const std::string &text); // on its output

private:
    std::vector<std::string> threads() const;

    pid_t m_pid;
    int m_output = -1;
    uint64_t m_output_bytes = 0;
};

} // namespace bench
