#include "wmbusctl_frames_options.h"

#include "wmbusctl_frames_text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace frames
{

namespace
{

constexpr int EXIT_USAGE = 2;
constexpr uint32_t UNIQUE_SECONDS_MAX = 86400;

constexpr const char *HELP =
    "Usage: wmbusctl | wmbusctl-frames [OPTION]... [FILE]...\n"
    "\n"
    "Reads what wmbusctl prints, or records of it, and writes a line for every radio frame\n"
    "received. Without a FILE, or where it is -, standard input is read.\n"
    "\n"
    "Options:\n"
    "  --format FORMAT   json      an object a line (default)\n"
    "                    hex       the bare frame in hexadecimal\n"
    "                    csv       values with commas between, after a line of their names\n"
    "                    rtlwmbus  what wmbusmeters reads as stdin:rtlwmbus\n"
    "                    table     a row for every meter; on a terminal live, until Ctrl-C\n"
    "  --events          in JSON, also records of modems, parameter values, answers,\n"
    "                    installations and statistics\n"
    "  --unique SECONDS  leave out frames whose bytes came within so many seconds before\n"
    "  --strict          leave out frames whose length byte does not fit their size\n"
    "  --modem SERIAL    only what comes from this modem, such as a1b2c3\n"
    "  --endpoint ID     only frames of this endpoint: its identification, such as\n"
    "                    10203040, or its address as wmbusctl prints it, such as\n"
    "                    '21 06 / 40 30 20 10 01 07'\n"
    "  -h, --help        print this help and exit\n"
    "  --version         print the version and exit\n"
    "\n"
    "Broken frames and stray lines are left out, and counted at the end.\n"
    "\n"
    "Examples:\n"
    "  wmbusctl -r 16 | wmbusctl-frames | jq .identification\n"
    "  wmbusctl -r 16 | wmbusctl-frames --format csv > frames.csv\n"
    "  journalctl -f -t wmbusctl -o cat | wmbusctl-frames --format table\n";

[[noreturn]] void refuse_usage()
{
    fputs("Try 'wmbusctl-frames --help'.\n", stderr);
    exit(EXIT_USAGE);
}

[[noreturn]] void refuse_value(const char *option, const char *value, const char *wanted)
{
    fprintf(stderr, "wmbusctl-frames: %s: '%.200s' is not %s\n", option, value, wanted);
    refuse_usage();
}

[[noreturn]] void print_text(const char *text)
{
    const bool printed = fputs(text, stdout) >= 0 && fflush(stdout) == 0;
    exit(printed ? EXIT_SUCCESS : fail("standard output"));
}

bool set_format(Options &options, std::string_view name)
{
    constexpr std::pair<std::string_view, Format> FORMATS[] = {{"json", Format::json},
                                                               {"hex", Format::hex},
                                                               {"csv", Format::csv},
                                                               {"rtlwmbus", Format::rtlwmbus},
                                                               {"table", Format::table}};
    for (const auto &[known, format] : FORMATS) {
        if (name == known) {
            options.format = format;
            return true;
        }
    }
    return false;
}

bool set_unique(Options &options, std::string_view seconds)
{
    return take_number(seconds, 1U, UNIQUE_SECONDS_MAX, options.unique) && seconds.empty();
}

// Those that take a value.
constexpr struct {
    int letter;
    const char *name;
    bool (*set)(Options &options, std::string_view value);
    const char *wanted;
} SETTERS[] = {{'f', "--format", set_format, "json, hex, csv, rtlwmbus or table"},
               {'u', "--unique", set_unique, "a number of seconds from 1 to 86400"},
               {'m', "--modem",
                [](Options &o, std::string_view value) { return set_modem(o.filter, value); },
                "a serial number of 1 to 8 hexadecimal digits"},
               {'e', "--endpoint",
                [](Options &o, std::string_view value) { return set_endpoint(o.filter, value); },
                "an identification or address of an endpoint"}};

void set_value(Options &options, int letter, const char *value)
{
    for (const auto &setter : SETTERS) {
        if (setter.letter == letter && !setter.set(options, value)) {
            refuse_value(setter.name, value, setter.wanted);
        }
    }
}

// Events are told in JSON only.
void settle_events(Options &options)
{
    if (options.format != Format::json) {
        fputs("wmbusctl-frames: --events goes with --format json only\n", stderr);
        refuse_usage();
    }
    options.format = Format::events;
}

} // namespace

Options parse_options(int argc, char **argv)
{
    static constexpr option TABLE[] = {{"format", required_argument, nullptr, 'f'},
                                       {"events", no_argument, nullptr, 'v'},
                                       {"unique", required_argument, nullptr, 'u'},
                                       {"strict", no_argument, nullptr, 's'},
                                       {"modem", required_argument, nullptr, 'm'},
                                       {"endpoint", required_argument, nullptr, 'e'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {}};
    Options options;
    bool events = false;
    for (int found = 0; (found = getopt_long(argc, argv, "h", TABLE, nullptr)) != -1;) {
        switch (found) {
        case 'h':
            print_text(HELP);
        case 'V':
            print_text("wmbusctl-frames " WMBUSCTL_VERSION "\n");
        case '?': // getopt_long has printed what is wrong
            refuse_usage();
        case 'v':
            events = true;
            break;
        case 's':
            options.strict = true;
            break;
        default:
            set_value(options, found, optarg);
        }
    }
    if (events) {
        settle_events(options);
    }
    options.files.assign(argv + optind, argv + argc);
    if (options.files.empty()) {
        options.files.push_back("-");
    }
    return options;
}

int fail(const char *what)
{
    if (errno != EPIPE) { // a reader that has seen enough is no fault
        fprintf(stderr, "wmbusctl-frames: %s: %s\n", what, strerror(errno));
    }
    return EXIT_FAILURE;
}

} // namespace frames
