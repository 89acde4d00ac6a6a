// What bench-load measures: each call starts the program, prints its figures as "name value" lines
// and ends the program.
#pragma once

#include "bench_process.h"

#include <cstdint>

namespace bench
{

struct Options {
    Output output = Output::null;
    uint32_t count = 100'000; // frames or packets
    uint32_t window = 32;     // frames without an answer at a time
    double rate = 0;          // frames a second at most; 0: no limit
    uint32_t payload = 57;    // bytes of a report
    uint32_t sources = 1;     // source ports, used in turn
    bool confirmable = true;
    double seconds = 60; // of measure_idle
    std::vector<std::string> program;
};

// A modem's reports: CPU of the program a frame, answers, losses, time to the answer.
void measure_frames(const Options &options);

// One frame at a time: from its sending to the last byte that is written for it.
void measure_latency(const Options &options);

// A modem that answers a download's packets: CPU of the program a packet.
void measure_packets(const Options &options);

// From the start to the line "Start CoAP server", or for another program to its first line.
void measure_start(const Options &options, const std::string &line);

// Wake-ups a second and memory once the modem is known and nothing happens.
void measure_idle(const Options &options);

} // namespace bench
