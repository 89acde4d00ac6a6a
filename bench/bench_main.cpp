// bench-load: starts a program, loads it as a modem would, and prints what that cost it.
//
//   bench-load MEASURE [OPTION...] -- PROGRAM [ARGUMENT...]
//
// It talks to port 5683 of 127.0.0.1 from 127.0.0.2, so nothing else may use these.

#include "bench_load.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <unistd.h>

namespace
{

constexpr char USAGE[] =
    "Usage: bench-load frames|latency|packets|start|idle [OPTION...] -- PROGRAM [ARGUMENT...]\n"
    "  -n COUNT    frames or packets, from 1000 on\n"
    "  -w WINDOW   frames without an answer at a time\n"
    "  -r RATE     frames a second at most\n"
    "  -s SIZE     bytes of a report, from 27 on\n"
    "  -p SOURCES  source ports, used in turn\n"
    "  -u          non-confirmable frames, a window at a time\n"
    "  -o          the program writes to a pipe that is read, not to /dev/null\n"
    "  -t SECONDS  of idle\n"
    "  -l LINE     of the output that ends start\n";

constexpr uint32_t MAX_SOURCES = 1000; // a process has 1024 descriptors

bool run(std::string_view measure, const bench::Options &options, const std::string &line)
{
    if (measure == "frames") {
        bench::measure_frames(options);
    } else if (measure == "latency") {
        bench::measure_latency(options);
    } else if (measure == "packets") {
        bench::measure_packets(options);
    } else if (measure == "start") {
        bench::measure_start(options, line);
    } else if (measure == "idle") {
        bench::measure_idle(options);
    } else {
        return false;
    }
    return true;
}

uint32_t number(const char *text, uint32_t least, uint32_t most)
{
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, 10);
    if (*end != '\0' || value < least || value > most) {
        fprintf(stderr, "'%s' is not a number from %u to %u\n", text, least, most);
        exit(EXIT_FAILURE);
    }
    return static_cast<uint32_t>(value);
}

} // namespace

int main(int argc, char **argv)
{
    bench::Options options;
    std::string line = "Start CoAP server";
    if (argc < 2) {
        fputs(USAGE, stderr);
        return EXIT_FAILURE;
    }
    const std::string_view measure = argv[1];
    int option = 0;
    optind = 2;
    while ((option = getopt(argc, argv, "+n:w:r:s:p:uot:l:")) != -1) {
        switch (option) {
        case 'n':
            options.count = number(optarg, 1000, 100'000'000);
            break;
        case 'w':
            options.window = number(optarg, 1, 10'000);
            break;
        case 'r':
            options.rate = number(optarg, 1, 1'000'000);
            break;
        case 's':
            options.payload = number(optarg, 27, 1300);
            break;
        case 'p':
            options.sources = number(optarg, 1, MAX_SOURCES);
            break;
        case 'u':
            options.confirmable = false;
            break;
        case 'o':
            options.output = bench::Output::pipe;
            break;
        case 't':
            options.seconds = number(optarg, 1, 86'400);
            break;
        case 'l':
            line = optarg;
            break;
        default:
            fputs(USAGE, stderr);
            return EXIT_FAILURE;
        }
    }
    options.program.assign(argv + optind, argv + argc);
    try {
        if (options.program.empty() || !run(measure, options, line)) {
            fputs(USAGE, stderr);
            return EXIT_FAILURE;
        }
    } catch (const std::exception &error) {
        fprintf(stderr, "bench-load: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
