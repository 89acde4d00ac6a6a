#include "sim_options.h"

#include "sim_log.h"
#include "sim_sockets.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cmath>
#include <cstring>
#include <getopt.h>
#include <iostream>
#include <random>
#include <string_view>

namespace sim
{

namespace
{

constexpr size_t MODEMS_MAX = 64;
constexpr unsigned RECEIVERS_MAX = 7;
constexpr double SECONDS_MAX = 86400;
constexpr double RATE_MAX = 1000;

[[noreturn]] void refuse(const std::string &value, const char *wanted)
{
    throw OptionError(make_text("'%.200s' is not %s", value.c_str(), wanted));
}

uint32_t parse_number(const std::string &value, int base, uint32_t most, const char *wanted)
{
    uint32_t number = 0;
    const char *end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number, base);
    if (error != std::errc() || stop != end || number > most) {
        refuse(value, wanted);
    }
    return number;
}

double parse_decimal(const std::string &value, double most, const char *wanted)
{
    double number = 0;
    const char *end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number, std::chars_format::fixed);
    if (error != std::errc() || stop != end || !std::isfinite(number) || number < 0 ||
        number > most) {
        refuse(value, wanted);
    }
    return number;
}

Milliseconds parse_seconds(const std::string &value)
{
    const double seconds = parse_decimal(value, SECONDS_MAX, "a number of seconds from 0 to 86400");
    return Milliseconds(std::lround(seconds * 1000));
}

uint32_t parse_count(const std::string &value, uint32_t least)
{
    const uint32_t count = parse_number(value, 10, UINT32_MAX, "a count");
    if (count < least) {
        refuse(value, "a count from 1 on");
    }
    return count;
}

in_addr parse_address(const std::string &value)
{
    in_addr address{};
    if (inet_pton(AF_INET, value.c_str(), &address) != 1) {
        refuse(value, "an IPv4 address");
    }
    if (address.s_addr == htonl(INADDR_ANY) || address.s_addr == htonl(INADDR_BROADCAST)) {
        refuse(value, "the address of one host");
    }
    return address;
}

bool is_modem(const Options &options, in_addr address)
{
    return std::any_of(options.addresses.begin(), options.addresses.end(),
                       [=](in_addr other) { return other.s_addr == address.s_addr; });
}

void add_address(Options &options, const std::string &value)
{
    const in_addr address = parse_address(value);
    if (is_multicast(address)) {
        refuse(value, "an address of this host");
    }
    if (is_modem(options, address)) {
        throw OptionError("'" + value + "' is given twice");
    }
    if (options.addresses.size() == MODEMS_MAX) {
        throw OptionError(make_text("more than %zu modems", MODEMS_MAX));
    }
    options.addresses.push_back(address);
}

// The pause between two; none for a rate of 0.
std::optional<std::chrono::microseconds> parse_rate(const std::string &value, const char *wanted)
{
    const double rate = parse_decimal(value, RATE_MAX, wanted);
    if (rate == 0) {
        return std::nullopt;
    }
    if (rate * SECONDS_MAX < 1) {
        refuse(value, "a rate of at least one a day");
    }
    return std::chrono::microseconds(std::llround(1e6 / rate));
}

void set_rate(Options &options, const std::string &value)
{
    options.frame_interval = value == "max" ? std::chrono::microseconds(0)
                                            : parse_rate(value, "a rate from 0 to 1000, or max");
}

// "4.04" or "4.04,text".
Answer parse_error(const std::string &value)
{
    const size_t comma = std::min(value.find(','), value.size());
    const std::string code = value.substr(0, comma);
    const std::string text = comma < value.size() ? value.substr(comma + 1) : "";
    const bool digits = code.size() == 4 && code[1] == '.' &&
                        code.find_first_not_of("0123456789", 2) == std::string::npos;
    if (!digits || code[0] < '2' || code[0] > '5' || std::stoi(code.substr(2)) > 31) {
        refuse(value, "a response code as 4.04 or 4.04,text");
    }
    if (text.size() > ANSWER_TEXT_MAX) {
        throw OptionError(make_text("the text of an error has at most %zu bytes", ANSWER_TEXT_MAX));
    }
    const int number = (code[0] - '0') * 32 + std::stoi(code.substr(2));
    return text_answer(static_cast<coap_pdu_code_t>(number), text);
}

void set_fault(Options &options, const std::string &value)
{
    if (options.faults.fault != Fault::none) {
        throw OptionError("is given twice");
    }
    const size_t equals = std::min(value.find('='), value.size());
    const std::string kind = value.substr(0, equals);
    const bool has_argument = equals < value.size();
    const std::string argument = has_argument ? value.substr(equals + 1) : "";
    FaultPlan &plan = options.faults;
    if (kind == "late" && has_argument) {
        plan.fault = Fault::late;
        plan.delay = parse_seconds(argument);
    } else if (kind == "separate") {
        plan.fault = Fault::separate;
        plan.delay = has_argument ? parse_seconds(argument) : Milliseconds(1000);
    } else if (kind == "error" && has_argument) {
        plan.fault = Fault::error;
        plan.error = parse_error(argument);
    } else if (kind == "lost" && !has_argument) {
        plan.fault = Fault::lost;
    } else if (kind == "reset" && !has_argument) {
        plan.fault = Fault::reset;
    } else if (kind == "malformed" && !has_argument) {
        plan.fault = Fault::malformed;
    } else {
        refuse(value, "lost, late=SECONDS, separate[=SECONDS], reset, error=CODE[,TEXT] or "
                      "malformed");
    }
}

void set_install_result(Options &options, const std::string &value)
{
    if (value != "ok" && value != "ko") {
        refuse(value, "ok or ko");
    }
    options.install_ok = value == "ok";
}

void set_file(std::string &file, const std::string &value)
{
    if (value.empty()) {
        refuse(value, "a name");
    }
    file = value;
}

struct OptionRow {
    const char *name;
    const char *argument; // none when null
    const char *help;
    void (*apply)(Options &options, const std::string &value); // null for --help and --version
};

using Value = const std::string &;

constexpr OptionRow ROWS[] = {
    {"address", "ADDR", "a modem on this address (default 127.0.0.2); again for each further modem",
     add_address},
    {"serial", "HEX", "serial number of the first modem, the next ones count up (default a1b2c3)",
     [](Options &o, Value v) {
         o.serial = parse_number(v, 16, UINT32_MAX, "a serial number of 1 to 8 hexadecimal digits");
     }},
    {"receivers", "N", "number of radio receivers, 0 to 7 (default 6)",
     [](Options &o, Value v) {
         o.receivers = static_cast<uint8_t>(
             parse_number(v, 10, RECEIVERS_MAX, "a number of receivers from 0 to 7"));
     }},
    {"announce-to", "ADDR", "gateway or multicast group to announce to (default 224.1.2.3)",
     [](Options &o, Value v) { o.announce_to = parse_address(v); }},
    {"announce-every", "SECONDS", "pause between announcements (default 5; 0: only at changes)",
     [](Options &o, Value v) { o.announce_every = parse_seconds(v); }},
    {"rate", "PER_SECOND",
     "received frames reported a second (default 1; 0: none; max: the next as\n"
     "soon as the last was answered)",
     set_rate},
    {"count", "N", "stop after N frames of each modem (default 0: no end)",
     [](Options &o, Value v) { o.frame_count = parse_count(v, 0); }},
    {"frames", "FILE", "report the frames of FILE, a line of hexadecimal digits each",
     [](Options &o, Value v) { set_file(o.frames_file, v); }},
    {"non-confirmable", nullptr, "report frames without asking for an acknowledgement",
     [](Options &o, Value) { o.confirmable = false; }},
    {"always", nullptr, "report frames also while READY, without waiting for a start",
     [](Options &o, Value) { o.always = true; }},
    {"collect", "FILE", "append the frame bytes of every tx_msg_req to FILE",
     [](Options &o, Value v) { set_file(o.collect_file, v); }},
    {"firmware-dir", "DIR", "where the gateway places firmware files (default /var/ftp)",
     [](Options &o, Value v) { set_file(o.firmware_dir, v); }},
    {"install-delay", "SECONDS", "time that a firmware installation takes (default 2)",
     [](Options &o, Value v) { o.install_delay = parse_seconds(v); }},
    {"install-result", "ok|ko", "how an installation ends (default ok)", set_install_result},
    {"fault", "KIND", "answer requests wrongly, see below", set_fault},
    {"fault-every", "N", "only every N-th request meets the fault (default 1: all)",
     [](Options &o, Value v) { o.faults.every = parse_count(v, 1); }},
    {"fault-count", "M", "stop after M faults of each modem (default 0: never)",
     [](Options &o, Value v) { o.faults.limit = parse_count(v, 0); }},
    {"malformed-reports", nullptr,
     "every fourth report of a modem is too short or lies about lengths",
     [](Options &o, Value) { o.malformed_reports = true; }},
    {"record", "FILE",
     "report frames of which none is like another, and append a line of\n"
     "hexadecimal digits to FILE for each that was acknowledged",
     [](Options &o, Value v) { set_file(o.record_file, v); }},
    {"noise", "PER_SECOND", "broken datagrams sent to the gateway from other ports (default 0)",
     [](Options &o, Value v) { o.noise_interval = parse_rate(v, "a rate from 0 to 1000"); }},
    {"seed", "N", "repeat the noise of an earlier run, which logged this seed",
     [](Options &o, Value v) { o.noise_seed = parse_count(v, 0); }},
    {"verbose", nullptr, "log every frame, announcement and repetition",
     [](Options &o, Value) { o.verbose = true; }},
    {"help", nullptr, "print this help and exit", nullptr},
    {"version", nullptr, "print the version and exit", nullptr},
};

constexpr const char *HELP_HEAD =
    "Usage: wmbusctl-sim [OPTION]...\n"
    "\n"
    "Stands in for wireless M-Bus radio modems on the local network: announces itself\n"
    "to the gateway, answers its requests and reports received radio frames.\n"
    "Runs until it is interrupted (Ctrl-C) and then prints a summary. At a SIGUSR1 a\n"
    "modem starts anew, each in turn.\n"
    "\n";

constexpr const char *HELP_TAIL =
    "\n"
    "Faults (KIND of --fault):\n"
    "  lost                the request is carried out, its answer gets lost\n"
    "  late=SECONDS        the answer comes late, nothing comes before it\n"
    "  separate[=SECONDS]  an empty acknowledgement, the answer follows (default 1)\n"
    "  reset               the request is rejected with a reset\n"
    "  error=CODE[,TEXT]   the request is refused, for example error=4.04,no such thing\n"
    "  malformed           the answer's payload is too short or lies about its lengths\n"
    "\n"
    "Commands (command_req): 1 stop (READY), 2 start (RUNNING); every other number is\n"
    "accepted and only logged. A receiver configuration of zeros alone switches the\n"
    "receivers off and stops the modem.\n"
    "\n"
    "Without --announce-to ADDR of a gateway, the gateway is the first host that sends\n"
    "a request, or, before one did, the host that answered an announcement.\n"
    "\n"
    "Examples:\n"
    "  wmbusctl-sim --announce-to 127.0.0.1         a modem for a tool on this computer\n"
    "  wmbusctl-sim --address 192.168.7.2 --always  one that reports frames by itself\n"
    "  wmbusctl-sim --announce-to 127.0.0.1 --fault lost --fault-every 3\n";

void print_help()
{
    std::cout << HELP_HEAD << "Options:\n";
    for (const OptionRow &row : ROWS) {
        std::string left = std::string("--") + row.name;
        if (row.argument != nullptr) {
            left += std::string(" ") + row.argument;
        }
        std::string help = row.help;
        if (const size_t end = help.find('\n'); end != std::string::npos) {
            help.replace(end, 1, "\n" + std::string(28, ' '));
        }
        std::cout << make_text("  %-25s %s\n", left.c_str(), help.c_str());
    }
    std::cout << HELP_TAIL;
}

void check_together(const Options &options)
{
    if (options.serial > UINT32_MAX - (options.addresses.size() - 1)) {
        throw OptionError("--serial: the serial numbers of all modems must fit in 32 bits");
    }
    if (is_modem(options, options.announce_to)) {
        throw OptionError("--announce-to: a modem cannot be its own gateway");
    }
    if (options.noise_interval && is_multicast(options.announce_to)) {
        throw OptionError("--noise needs --announce-to with the address of a gateway");
    }
    if (!options.record_file.empty() &&
        (options.malformed_reports || !options.frames_file.empty())) {
        throw OptionError("--record goes neither with --frames nor with --malformed-reports");
    }
    if (options.faults.fault == Fault::none &&
        (options.faults.every != 1 || options.faults.limit != 0)) {
        throw OptionError("--fault-every and --fault-count need --fault");
    }
}

std::vector<option> long_options()
{
    std::vector<option> table;
    for (const OptionRow &row : ROWS) {
        const int argument = row.argument != nullptr ? required_argument : no_argument;
        table.push_back({row.name, argument, nullptr, 0});
    }
    table.push_back({});
    return table;
}

void apply(const OptionRow &row, Options &options, const char *value)
{
    try {
        row.apply(options, value != nullptr ? value : "");
    } catch (const OptionError &error) {
        throw OptionError(std::string("--") + row.name + ": " + error.what());
    }
}

} // namespace

std::optional<Options> parse_options(int argc, char **argv)
{
    Options options;
    options.announce_to = parse_address("224.1.2.3");
    options.noise_seed = std::random_device{}();
    const std::vector<option> table = long_options();
    for (;;) {
        int index = 0;
        const int found = getopt_long(argc, argv, "", table.data(), &index);
        if (found == -1) {
            break;
        }
        if (found != 0) { // getopt_long has printed what is wrong
            throw OptionError("");
        }
        const OptionRow &row = ROWS[index];
        if (row.apply != nullptr) {
            apply(row, options, optarg);
        } else if (std::strcmp(row.name, "help") == 0) {
            print_help();
            return std::nullopt;
        } else {
            std::cout << "wmbusctl-sim " WMBUSCTL_VERSION "\n";
            return std::nullopt;
        }
    }
    if (optind < argc) {
        throw OptionError(make_text("unexpected argument '%.200s'", argv[optind]));
    }
    if (options.addresses.empty()) {
        options.addresses.push_back(parse_address("127.0.0.2"));
    }
    check_together(options);
    return options;
}

} // namespace sim
