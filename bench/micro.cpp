// What is hot in the tool, piece by piece. Trace lines go to /dev/null, the results to standard
// error.

#include "app_lan.h"
#include "lan_cursor.h"
#include "vos_mem.h"
#include "vos_task_linux.h"
#include "vos_trace.h"

#include <benchmark/benchmark.h>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace
{

constexpr uint8_t DATA[256] = {0x2C, 0x44, 0x2D, 0x2C, 0x78, 0x56, 0x34, 0x12, 0x01, 0x07};

// The compiler must not know what is read, nor that nobody looks at the result.
const uint8_t *volatile unknown_data = DATA;
volatile uint32_t sink;

void trace_line(benchmark::State &state)
{
    while (state.KeepRunning()) {
        vos_trace_debug("bench", __LINE__, "Receive RF frame from EndPoint [%s] on modem [%x]",
                        "2d 2c / 78 56 34 12 01 07", 0xA1B2C3U);
    }
}
BENCHMARK(trace_line);

void trace_dump(benchmark::State &state)
{
    while (state.KeepRunning()) {
        vos_trace_dump("bench", __LINE__, DATA, static_cast<uint32_t>(state.range(0)));
    }
}
BENCHMARK(trace_dump)->Arg(12)->Arg(40)->Arg(255);

void whole_frame(benchmark::State &state)
{
    uint8_t payload[17 + 40] = {};
    payload[12] = 40;
    memcpy(payload + 17, DATA, 40);
    coap_address_t from;
    coap_address_init(&from);
    while (state.KeepRunning()) {
        lan_handle_rx_msg(&from, payload, sizeof payload);
    }
}
BENCHMARK(whole_frame);

void format_endpoint(benchmark::State &state)
{
    char text[LAN_ENDPOINT_SIZE];
    while (state.KeepRunning()) {
        lan_format_endpoint(unknown_data, 40, text);
        sink = static_cast<uint8_t>(text[1]);
    }
}
BENCHMARK(format_endpoint);

void read_header(benchmark::State &state)
{
    while (state.KeepRunning()) {
        LanReader reader{unknown_data, LAN_RX_HEADER_SIZE};
        sink = lan_read_u32(&reader);
        sink = lan_read_u32(&reader);
        sink = lan_read_u16(&reader);
        sink = lan_read_u16(&reader);
        sink = lan_read_u16(&reader);
        sink = lan_read_u8(&reader);
    }
}
BENCHMARK(read_header);

void allocate_and_free(benchmark::State &state)
{
    while (state.KeepRunning()) {
        uint8_t *block = nullptr;
        vos_mem_alloc(&block, static_cast<uint32_t>(state.range(0)));
        benchmark::DoNotOptimize(block);
        vos_mem_free(&block);
    }
}
BENCHMARK(allocate_and_free)->Arg(57)->Arg(1024);

// A message to itself: what post and receive cost without a switch of threads.
uint32_t run_mailbox(VosTask *self, uintptr_t argument)
{
    auto &state = *std::bit_cast<benchmark::State *>(argument);
    uint8_t byte = 0;
    void *message = &byte;
    while (state.KeepRunning()) {
        vos_mbx_send(self, &message);
        vos_mbx_receive(self, &message, 1);
    }
    return 0;
}

void post_and_receive(benchmark::State &state)
{
    vos_thread_create(run_mailbox, 6, "bench", std::bit_cast<uintptr_t>(&state));
    while (vos_task_count() > 1 || state.iterations() == 0) {
        usleep(1000);
    }
}
BENCHMARK(post_and_receive)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        return EXIT_FAILURE;
    }
    vos_mem_init();
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return EXIT_SUCCESS;
}
