// wmbusctl-sim: stands in for wireless M-Bus modems on the local network.

#include "sim_frames.h"
#include "sim_log.h"
#include "sim_noise_sender.h"
#include "sim_options.h"
#include "sim_recorder.h"
#include "sim_station.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <coap3/coap.h>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <poll.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace
{

using namespace sim;

constexpr int EXIT_OPTIONS = 2;

// The CoAP library between its start and its clean-up.
class Library
{
public:
    explicit Library(bool verbose)
    {
        coap_startup();
        coap_set_log_handler([](coap_log_t, const char *message) { log_new(message); });
        coap_set_log_level(verbose ? LOG_INFO : LOG_WARNING);
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() { coap_cleanup(); }

private:
    // A message that repeats the last one is dropped: a gateway that is down makes many.
    static void log_new(std::string text)
    {
        static std::string last;
        text.erase(text.find_last_not_of("\r\n ") + 1);
        if (text != last) {
            log_event("sim", "CoAP library: %s", text.c_str());
            last = std::move(text);
        }
    }
};

// A descriptor that becomes readable when the process is asked to end, or a modem to start anew.
Descriptor open_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0 || signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        throw std::system_error(errno, std::generic_category(), "signals");
    }
    Descriptor descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!descriptor) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return descriptor;
}

using Stations = std::vector<std::unique_ptr<Station>>;

int wait_milliseconds(const Stations &stations, const NoiseSender &noise)
{
    std::optional<Time> next = noise.next_due();
    for (const auto &station : stations) {
        const std::optional<Time> due = station->next_due();
        if (due && (!next || *due < *next)) {
            next = due;
        }
    }
    if (!next) {
        return -1;
    }
    const auto wait = std::chrono::ceil<Milliseconds>(*next - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(wait)>(wait, 0, INT_MAX));
}

bool is_end_signal(const Descriptor &signals)
{
    signalfd_siginfo info{};
    if (read(signals.get(), &info, sizeof info) != sizeof info) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return info.ssi_signo != SIGUSR1;
}

void run(const Stations &stations, NoiseSender &noise, const Descriptor &signals)
{
    size_t next_restart = 0; // the modems take turns
    std::vector<pollfd> descriptors{{signals.get(), POLLIN, 0}};
    for (const auto &station : stations) {
        descriptors.push_back({station->descriptor(), POLLIN, 0});
    }
    for (;;) {
        const int wait = wait_milliseconds(stations, noise);
        if (poll(descriptors.data(), descriptors.size(), wait) < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (descriptors[0].revents != 0) {
            if (is_end_signal(signals)) {
                return;
            }
            stations[next_restart++ % stations.size()]->restart();
        }
        for (const auto &station : stations) {
            station->turn();
        }
        noise.tick(Clock::now());
    }
}

void log_summary(const Totals &totals)
{
    const uint64_t open = totals.sent - totals.acknowledged - totals.refused - totals.lost;
    log_event("sim",
              "frames: %" PRIu64 " sent, %" PRIu64 " acknowledged, %" PRIu64 " refused, %" PRIu64
              " lost, %" PRIu64 " open; requests: %" PRIu64 " received, %" PRIu64 " answered",
              totals.sent, totals.acknowledged, totals.refused, totals.lost, open, totals.requests,
              totals.answered);
}

void simulate(const Options &options)
{
    const std::vector<Bytes> frames =
        options.frames_file.empty() ? built_in_frames() : load_frames(options.frames_file);
    Collector collector(options.collect_file);
    Recorder recorder(options.record_file);
    const Descriptor signals = open_signals();
    const Library library(options.verbose);
    Totals totals;
    Stations stations;
    for (const in_addr &address : options.addresses) {
        const auto serial = static_cast<uint32_t>(options.serial + stations.size());
        stations.push_back(std::make_unique<Station>(options, address, serial, frames, collector,
                                                     recorder, totals));
    }
    NoiseSender noise(options);
    run(stations, noise, signals);
    log_summary(totals);
    if (options.noise_interval) {
        log_event("sim", "noise: %" PRIu64 " datagrams sent", noise.sent());
    }
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const std::optional<Options> options = parse_options(argc, argv);
        if (!options) {
            return std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
        }
        log_set_verbose(options->verbose);
        simulate(*options);
        return EXIT_SUCCESS;
    } catch (const OptionError &error) {
        if (error.what()[0] != '\0') {
            std::cerr << "wmbusctl-sim: " << error.what() << '\n';
        }
        std::cerr << "Try 'wmbusctl-sim --help'.\n";
        return EXIT_OPTIONS;
    } catch (const FrameFileError &error) {
        std::cerr << "wmbusctl-sim: --frames: " << error.what() << '\n';
        return EXIT_OPTIONS;
    } catch (const std::exception &error) {
        std::cerr << "wmbusctl-sim: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
