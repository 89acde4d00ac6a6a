// wmbusctl-frames: writes a record for every radio frame in the output of wmbusctl.

#include "wmbusctl_frames_records.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <poll.h>
#include <unistd.h>

namespace
{

using namespace frames;

constexpr int EXIT_USAGE = 2;
constexpr size_t BLOCK_SIZE = 65536;

constexpr const char *HELP =
    "Usage: wmbusctl | wmbusctl-frames [OPTION]...\n"
    "\n"
    "Reads what wmbusctl prints and writes a line for every radio frame received.\n"
    "\n"
    "Options:\n"
    "  --format json|hex|csv  an object a line (default); the bare frame in hexadecimal;\n"
    "                         values with commas between, after a line of their names\n"
    "  --modem SERIAL         only frames that this modem received, such as a1b2c3\n"
    "  --endpoint ID          only frames of this endpoint: its identification, such as\n"
    "                         10203040, or its address as wmbusctl prints it, such as\n"
    "                         '21 06 / 40 30 20 10 01 07'\n"
    "  --help                 print this help and exit\n"
    "\n"
    "Broken frames and stray lines are left out, and counted at the end.\n"
    "\n"
    "Examples:\n"
    "  wmbusctl -r 16 | wmbusctl-frames | jq .identification\n"
    "  wmbusctl -r 16 | wmbusctl-frames --format csv > frames.csv\n";

struct Options {
    Format format = Format::json;
    Filter filter;
};

[[noreturn]] void refuse_usage(const char *option, const char *value, const char *wanted)
{
    if (option != nullptr) {
        fprintf(stderr, "wmbusctl-frames: %s: '%.200s' is not %s\n", option, value, wanted);
    }
    fputs("Try 'wmbusctl-frames --help'.\n", stderr);
    exit(EXIT_USAGE);
}

Format parse_format(std::string_view name)
{
    constexpr std::pair<std::string_view, Format> FORMATS[] = {
        {"json", Format::json}, {"hex", Format::hex}, {"csv", Format::csv}};
    for (const auto &[known, format] : FORMATS) {
        if (name == known) {
            return format;
        }
    }
    refuse_usage("--format", name.data(), "json, hex or csv");
}

int fail(const char *what)
{
    if (errno != EPIPE) { // a reader that has seen enough is no fault
        fprintf(stderr, "wmbusctl-frames: %s: %s\n", what, strerror(errno));
    }
    return EXIT_FAILURE;
}

[[noreturn]] void print_help()
{
    const bool printed = fputs(HELP, stdout) >= 0 && fflush(stdout) == 0;
    exit(printed ? EXIT_SUCCESS : fail("standard output"));
}

Options parse_options(int argc, char **argv)
{
    static constexpr option TABLE[] = {{"format", required_argument, nullptr, 'f'},
                                       {"modem", required_argument, nullptr, 'm'},
                                       {"endpoint", required_argument, nullptr, 'e'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {}};
    Options options;
    for (int found = 0; (found = getopt_long(argc, argv, "", TABLE, nullptr)) != -1;) {
        if (found == 'f') {
            options.format = parse_format(optarg);
        } else if (found == 'm') {
            if (!set_modem(options.filter, optarg)) {
                refuse_usage("--modem", optarg, "a serial number of 1 to 8 hexadecimal digits");
            }
        } else if (found == 'e') {
            if (!set_endpoint(options.filter, optarg)) {
                refuse_usage("--endpoint", optarg, "an identification or address of an endpoint");
            }
        } else if (found == 'h') {
            print_help();
        } else { // getopt_long has printed what is wrong
            refuse_usage(nullptr, nullptr, nullptr);
        }
    }
    if (optind < argc) {
        refuse_usage("argument", argv[optind], "an option");
    }
    return options;
}

// Ctrl-C stops the tool in front as well: what it has printed until then is still to be taken, up
// to the end of the input. A second one ends this program.
bool prepare_signals()
{
    struct sigaction interrupt {
    };
    interrupt.sa_handler = [](int) {};
    interrupt.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    return sigaction(SIGINT, &interrupt, nullptr) == 0 && signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

// After a read or write that failed: true when it may be tried again, which is waited for.
bool may_retry(int descriptor, short events)
{
    if (errno != EAGAIN) {
        return errno == EINTR;
    }
    pollfd waiting{descriptor, events, 0};
    return poll(&waiting, 1, -1) >= 0 || errno == EINTR;
}

bool write_out(std::string &out)
{
    for (std::string_view left = out; !left.empty();) {
        const ssize_t count = write(STDOUT_FILENO, left.data(), left.size());
        if (count >= 0) {
            left.remove_prefix(static_cast<size_t>(count));
        } else if (!may_retry(STDOUT_FILENO, POLLOUT)) {
            return false;
        }
    }
    out.clear();
    return true;
}

// 0 at the end of the input, -1 when it cannot be read.
ssize_t read_block(std::array<char, BLOCK_SIZE> &block)
{
    ssize_t count = 0;
    do {
        count = read(STDIN_FILENO, block.data(), block.size());
    } while (count < 0 && may_retry(STDIN_FILENO, POLLIN));
    return count;
}

void report(const Counts &counts)
{
    if (counts.broken_frames != 0 || counts.stray_lines != 0) {
        fprintf(stderr,
                "wmbusctl-frames: broken frames left out: %" PRIu64 ", stray lines: %" PRIu64 "\n",
                counts.broken_frames, counts.stray_lines);
    }
}

// Records leave when all complete lines of a block are taken: at once for a tool that prints a
// frame now and then, many at a time for one that is ahead.
int run(const Options &options)
{
    std::array<char, BLOCK_SIZE> block;
    std::string out;
    Parser parser([&](const Frame &frame) {
        if (matches(options.filter, frame)) {
            append_record(out, options.format, frame);
        }
    });
    append_heading(out, options.format);
    ssize_t count = 0;
    do {
        if (!write_out(out)) {
            return fail("standard output");
        }
        count = read_block(block);
        if (count < 0) {
            return fail("standard input");
        }
        parser.feed({block.data(), static_cast<size_t>(count)});
    } while (count > 0);
    parser.finish();
    const bool written = write_out(out) && close(STDOUT_FILENO) == 0;
    const int status = written ? EXIT_SUCCESS : fail("standard output");
    report(parser.counts());
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = parse_options(argc, argv);
    if (!prepare_signals()) {
        return fail("signals");
    }
    return run(options);
}
