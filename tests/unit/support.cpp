#include "support.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <fstream>
#include <thread>

#include "app_lan_state.h"
#include "vos_mem.h"
#include "vos_trace.h"
#include "vos_util.h"

std::atomic<int> fail_allocation{(vos_mem_init(), 0)};
timeval fake_clock{};
std::atomic<bool> refuse_threads{false};
bool short_sleeps = false;
uint64_t slept = 0;
int raw_socket = -1;
void (*on_allocation)() = nullptr;

static uint32_t blocks_before = 0;

// The next test begins as the first one did.
class FreshStart : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo & /*test*/) override
    {
        blocks_before = vos_mem_get_nbpools();
    }
    void OnTestEnd(const testing::TestInfo & /*test*/) override
    {
        fail_allocation = 0;
        fake_clock = {};
        refuse_threads = short_sleeps = false;
        slept = 0;
        std::ranges::fill(lan_state.table, ModemEntry{});
        std::ranges::fill(lan_state.counters, 0U);
        setenv("PATH", path.c_str(), 1);
        raw_socket = -1;
        on_allocation = nullptr;
        vos_trace_set_level(3);
        vos_trace_set_file_count(10);
        vos_trace_set_file_size(100'000);
        vos_trace_init("/", "", "traceagent");
        vos_trace_close();
    }
    const std::string path = getenv("PATH");
};
const bool fresh_starts =
    (testing::UnitTest::GetInstance()->listeners().Append(new FreshStart), true);

#if __TIMESIZE == 32
#define TIME_CALL(prefix, name) prefix##__##name##64
#else
#define TIME_CALL(prefix, name) prefix##name
#endif

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __real_socket(int domain, int type, int protocol);
pid_t __real_waitpid(pid_t child, int *status, int options);
time_t TIME_CALL(__real_, time)(time_t *out);
int TIME_CALL(__real_, gettimeofday)(timeval *out, void *zone);
int TIME_CALL(__real_, select)(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit);

void *__wrap_malloc(size_t size)
{
    return fail_allocation > 0 && --fail_allocation == 0 ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    if (on_allocation != nullptr) {
        std::exchange(on_allocation, nullptr)();
    }
    return fail_allocation > 0 && --fail_allocation == 0 ? nullptr : __real_calloc(count, size);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument)
{
    *thread = pthread_self(); // the value is undefined after a failure
    return refuse_threads ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_socket(int domain, int type, int protocol)
{
    return protocol == IPPROTO_ICMP ? raw_socket : __real_socket(domain, type, protocol);
}

pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    static std::atomic<unsigned> waits{0}; // a signal comes into every other one
    errno = EINTR;
    return options == 0 && waits++ % 2 == 0 ? -1 : __real_waitpid(child, status, options);
}

time_t TIME_CALL(__wrap_, time)(time_t *out)
{
    return fake_clock.tv_sec != 0 ? fake_clock.tv_sec : TIME_CALL(__real_, time)(out);
}

int TIME_CALL(__wrap_, gettimeofday)(timeval *out, void *zone)
{
    return fake_clock.tv_sec != 0 ? (*out = fake_clock, 0)
                                  : TIME_CALL(__real_, gettimeofday)(out, zone);
}

int TIME_CALL(__wrap_, select)(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit)
{
    timeval shortest{0, 10};
    if (short_sleeps) {
        slept += static_cast<uint64_t>(limit->tv_sec) * 1'000'000 +
                 static_cast<uint64_t>(limit->tv_usec);
        limit = &shortest;
    }
    return TIME_CALL(__real_, select)(count, in, out, except, limit);
}
}

uint32_t new_blocks()
{
    return vos_mem_get_nbpools() - blocks_before;
}

Bytes unhex(const std::string &digits)
{
    Bytes bytes(digits.size() / 2);
    vos_util_hexstr_to_bytes(bytes.data(), static_cast<uint32_t>(bytes.size()), digits.c_str());
    return bytes;
}

coap_address_t ipv4(const std::string &host, uint16_t port)
{
    coap_address_t address;
    coap_address_init(&address);
    address.size = sizeof address.addr.sin;
    address.addr.sin = {AF_INET, htons(port), {inet_addr(host.c_str())}, {}};
    return address;
}

bool wait_until(const std::function<bool()> &condition)
{
    for (int i = 0; i < 10'000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "-";
}

std::string output_of(const std::function<void()> &call)
{
    testing::internal::CaptureStdout();
    call();
    std::string output = testing::internal::GetCapturedStdout();
    std::cerr << (testing::Test::HasFailure() ? output : ""); // failures were captured with it
    return output;
}

std::string lines_of(const std::function<void()> &call)
{
    std::istringstream stream(output_of(call));
    std::string lines;
    for (std::string line; std::getline(stream, line); lines += line + '|') {
        if (line.size() > 15 && line[8] == '-' && line[15] == ':') {
            line.erase(0, 16);
            const size_t number = line.find(':', line.find(':') + 1) + 1;
            line.erase(number, line[0] == 'I' ? 0 : line.find(':', number) + 1 - number);
        }
    }
    return lines;
}

BodyTask::BodyTask(std::function<void(VosTask *)> f, uint32_t stack) : body(std::move(f))
{
    const VosTaskEntry run = [](VosTask *task, uintptr_t argument) -> uint32_t {
        auto *self = std::bit_cast<BodyTask *>(argument);
        self->body(task);
        self->done = true;
        return 0;
    };
    handle = vos_task_create(run, 6, "body", std::bit_cast<uintptr_t>(this), stack);
}
