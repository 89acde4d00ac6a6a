#include "support.h"

#include <arpa/inet.h>
#include <bit>
#include <fstream>
#include <thread>

#include "vos_mem.h"
#include "vos_util.h"

std::atomic<int> fail_allocation{(vos_mem_init(), 0)};
timeval fake_clock{};
std::atomic<bool> short_sleeps{false};
std::atomic<int> raw_socket{-1};

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
time_t __real_time(time_t *out);
int __real_gettimeofday(timeval *out, void *zone);
int __real_select(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit);
int __real_socket(int domain, int type, int protocol);

void *__wrap_malloc(size_t size)
{
    return fail_allocation > 0 && --fail_allocation == 0 ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    return fail_allocation > 0 && --fail_allocation == 0 ? nullptr : __real_calloc(count, size);
}

time_t __wrap_time(time_t *out)
{
    return fake_clock.tv_sec != 0 ? fake_clock.tv_sec : __real_time(out);
}

int __wrap_gettimeofday(timeval *out, void *zone)
{
    return fake_clock.tv_sec != 0 ? (*out = fake_clock, 0) : __real_gettimeofday(out, zone);
}

int __wrap_select(int count, fd_set *in, fd_set *out, fd_set *except, timeval *limit)
{
    timeval shortest{0, 10};
    return __real_select(count, in, out, except, short_sleeps ? &shortest : limit);
}

int __wrap_socket(int domain, int type, int protocol)
{
    return (type & SOCK_RAW) == SOCK_RAW ? raw_socket.load()
                                         : __real_socket(domain, type, protocol);
}
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
