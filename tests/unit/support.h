// What the unit tests share: neighbours of the code under test, watched or replaced.
#pragma once

#include <atomic>
#include <coap3/coap.h>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/time.h>
#include <vector>

#include "vos_task_linux.h"

using Bytes = std::vector<uint8_t>;
template<typename... Fields> using Table = std::vector<std::tuple<Fields...>>;

extern std::atomic<int> fail_allocation; // n: the nth from here on fails; 0: none will
extern timeval fake_clock;               // what time and gettimeofday tell, unless 0 s
extern std::atomic<bool> refuse_threads; // no thread can be started
extern bool short_sleeps;                // vos_util_sleep hardly takes any time
extern uint64_t slept;                   // microseconds it was asked for then
extern int raw_socket;                   // what opening one for ICMP gives
extern void (*on_allocation)();          // called by the next calloc

Bytes unhex(const std::string &digits);
coap_address_t ipv4(const std::string &host, uint16_t port = 5683);
bool wait_until(const std::function<bool()> &condition); // false when 10 seconds did not help
uint32_t new_blocks();                                   // of vos_mem, since the test began
std::string content_of(const std::string &path);         // "-" when there is no such file

// What the call writes to standard output; without time stamps and line numbers, '|' after a line.
std::string output_of(const std::function<void()> &call);
std::string lines_of(const std::function<void()> &call);

// An empty directory, entered; removed with what is in it.
struct Scratch {
    Scratch() { std::filesystem::current_path(mkdtemp(path.data())); }
    ~Scratch() { std::filesystem::remove_all((std::filesystem::current_path("/"), path)); }
    std::string path = std::filesystem::temp_directory_path() / "wmbusctl-unit-XXXXXX";
};

// A task that runs the body; destroyed after the task has ended.
struct BodyTask {
    explicit BodyTask(std::function<void(VosTask *)> f, uint32_t stack = VOS_THREAD_STACK_SIZE);
    ~BodyTask()
    {
        EXPECT_TRUE(wait_until([this] { return done && vos_task_count() == 1; }));
    }
    std::function<void(VosTask *)> body;
    std::atomic<bool> done{false};
    VosTask *handle;
};
