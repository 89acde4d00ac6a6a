// The command line of the simulator.

#ifndef SIM_OPTIONS_H
#define SIM_OPTIONS_H

#include "sim_faults.h"
#include "sim_wire.h"

#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim
{

struct Options {
    std::vector<in_addr> addresses;
    uint32_t serial = 0xa1b2c3;
    uint8_t receivers = 6;
    in_addr announce_to{};
    Milliseconds announce_every{5000}; // 0: at the start and at changes only
    std::optional<std::chrono::microseconds> frame_interval{std::chrono::seconds(1)}; // 0: no pause
    uint32_t frame_count = 0;                                                         // 0: no end
    bool confirmable = true;
    bool always = false;
    std::string frames_file;
    std::string collect_file;
    std::string firmware_dir = "/var/ftp";
    Milliseconds install_delay{2000};
    bool install_ok = true;
    FaultPlan faults;
    bool malformed_reports = false;
    std::string record_file;
    std::optional<std::chrono::microseconds> noise_interval;
    uint32_t noise_seed = 0; // a random one unless it is given
    bool verbose = false;
};

struct OptionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads the command line. Empty when --help or --version was asked for and went to std::cout;
// throws OptionError for what it does not accept, with no text when that is already printed.
std::optional<Options> parse_options(int argc, char **argv);

} // namespace sim

#endif
