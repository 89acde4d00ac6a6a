// wmbusctl-frames: writes a record for every radio frame in the output of wmbusctl.

#include "wmbusctl_frames_options.h"
#include "wmbusctl_frames_screen.h"
#include "wmbusctl_frames_table.h"
#include "wmbusctl_frames_unique.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace
{

using namespace frames;
using Clock = std::chrono::steady_clock;

constexpr size_t BLOCK_SIZE = 65536;
constexpr std::chrono::seconds REDRAW_EVERY{1};
constexpr std::chrono::seconds REST_OF_INPUT{1}; // that comes in after Ctrl-C

// What a run works on.
struct Run {
    Options options;
    std::array<char, BLOCK_SIZE> block{};
    std::string out;
    Unique unique{};
    uint64_t wrong_lengths = 0;
    Table table;
    bool has_screen = false; // the table is drawn over and over
    bool on_screen = false;  // the terminal shows it now
    Clock::time_point next_draw;
    Clock::time_point end = Clock::time_point::max(); // whatever is still to come
};

// Ctrl-C stops the tool in front as well: what it has printed until then is still to be taken, up
// to the end of the input. A second one ends this program.
bool prepare_signals(bool has_screen)
{
    struct sigaction interrupt {
    };
    interrupt.sa_handler = [](int) {};
    interrupt.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    return signal(SIGPIPE, SIG_IGN) != SIG_ERR &&
           (has_screen ? watch_screen_signals() : sigaction(SIGINT, &interrupt, nullptr) == 0);
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
        } else if (screen_signals.overdue != 0) { // and for a second nothing was taken
            abandon_screen();
            end_by_signal();
        }
    }
    out.clear();
    return true;
}

void show_screen(Run &run, bool show)
{
    if (show != run.on_screen) {
        show ? enter_screen(run.out) : leave_screen(run.out);
        run.on_screen = show;
        run.next_draw = Clock::now();
    }
}

// The shell gets the terminal as it was until it lets this program go on.
bool stop_for_a_while(Run &run)
{
    show_screen(run, false);
    const bool written = write_out(run.out);
    raise(SIGSTOP);
    screen_signals.stop = 0;
    return written;
}

// Draws when it is time, or the window has changed.
bool draw(Run &run, bool is_changed)
{
    if (run.end != Clock::time_point::max()) {
        show_screen(run, false);
    } else if (is_changed || Clock::now() >= run.next_draw) {
        if (is_in_front()) {
            const Window window = screen_window();
            show_screen(run, true);
            draw_screen(run.out, table_text(run.table, window), window);
        }
        run.next_draw = Clock::now() + REDRAW_EVERY;
    }
    return write_out(run.out);
}

// Sets the end of what is waited for.
void judge_signals(Run &run)
{
    const auto now = Clock::now();
    if (screen_signals.end != 0 || screen_signals.interrupts > 1) {
        run.end = now;
    } else if (screen_signals.interrupts == 1) {
        run.end = std::min(run.end, now + REST_OF_INPUT);
    }
}

enum class Input { ready, over, failed };

// Waits for input and keeps the screen as it should be meanwhile.
Input wait_for_input(Run &run, int descriptor)
{
    for (bool is_changed = false;;) {
        judge_signals(run);
        if (screen_signals.stop != 0 && !stop_for_a_while(run)) {
            return Input::failed;
        }
        if (!draw(run, is_changed)) {
            return Input::failed;
        }
        const auto now = Clock::now();
        if (now >= run.end) {
            return Input::over;
        }
        const bool is_ending = run.end != Clock::time_point::max();
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            (is_ending ? run.end : run.next_draw) - now);
        pollfd waiting{descriptor, POLLIN, 0};
        const int found = poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (found > 0) {
            return Input::ready;
        }
        is_changed = found < 0; // by a signal
    }
}

// 0 at the end of the input, -1 when it cannot be read.
ssize_t read_block(Run &run, int descriptor)
{
    ssize_t count = 0;
    do {
        count = read(descriptor, run.block.data(), run.block.size());
    } while (count < 0 && may_retry(descriptor, POLLIN));
    return count;
}

void take_frame(Run &run, const Frame &frame)
{
    if (!matches(run.options.filter, frame)) {
        return;
    }
    const bool is_table = run.options.format == Format::table;
    if (run.options.strict && !is_length_ok(frame)) {
        ++run.wrong_lengths;
    } else if (run.options.unique != 0 && !is_new(run.unique, frame)) {
        if (is_table) {
            add_repeated(run.table, frame);
        }
    } else if (is_table) {
        add_frame(run.table, frame);
    } else {
        append_record(run.out, run.options.format, frame);
    }
}

EventHandler event_handler(Run &run)
{
    if (run.options.format != Format::events) {
        return nullptr;
    }
    return [&run](const Event &event) {
        if (matches(run.options.filter, event)) {
            run.out += event.record;
            run.out += '\n';
        }
    };
}

// Records leave when all complete lines of a block are taken: at once for a tool that prints a
// frame now and then, many at a time for one that is ahead. False when they can't be written.
bool take_descriptor(Run &run, Parser &parser, int descriptor, const char *name, int &status)
{
    for (;;) {
        const Input input = run.has_screen ? wait_for_input(run, descriptor) : Input::ready;
        if (input != Input::ready) {
            return input != Input::failed;
        }
        const ssize_t count = read_block(run, descriptor);
        if (count < 0) {
            status = fail(name);
        }
        if (count <= 0) {
            return true;
        }
        parser.feed({run.block.data(), static_cast<size_t>(count)});
        if (!write_out(run.out)) {
            return false;
        }
    }
}

bool take_file(Run &run, Parser &parser, std::string_view name, int &status)
{
    if (name == "-") {
        return take_descriptor(run, parser, STDIN_FILENO, "standard input", status);
    }
    const int descriptor = open(name.data(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        status = fail(name.data());
        return true;
    }
    const bool written = take_descriptor(run, parser, descriptor, name.data(), status);
    close(descriptor);
    return written;
}

void report(const Run &run, const Counts &counts)
{
    if (counts.broken_frames != 0 || counts.stray_lines != 0) {
        fprintf(stderr,
                "wmbusctl-frames: broken frames left out: %" PRIu64 ", stray lines: %" PRIu64 "\n",
                counts.broken_frames, counts.stray_lines);
    }
    if (run.options.strict) {
        fprintf(stderr, "wmbusctl-frames: frames of a wrong length left out: %" PRIu64 "\n",
                run.wrong_lengths);
    }
    if (run.options.unique != 0) {
        fprintf(stderr, "wmbusctl-frames: repeated frames left out: %" PRIu64 "\n",
                run.unique.left_out);
    }
    if (run.unique.forgotten != 0) {
        fprintf(stderr, "wmbusctl-frames: frames forgotten before their time: %" PRIu64 "\n",
                run.unique.forgotten);
    }
}

bool write_end(Run &run)
{
    show_screen(run, false);
    if (run.options.format == Format::table) {
        run.out += table_text(run.table, {run.has_screen ? screen_window().columns : 0, 0});
    }
    return write_out(run.out) && close(STDOUT_FILENO) == 0;
}

int take_all(Run &run)
{
    Parser parser([&run](const Frame &frame) { take_frame(run, frame); }, event_handler(run));
    int status = EXIT_SUCCESS;
    append_heading(run.out, run.options.format);
    bool written = write_out(run.out);
    for (const char *name : run.options.files) {
        if (!written || Clock::now() >= run.end) {
            break;
        }
        written = take_file(run, parser, name, status);
        parser.end_file();
    }
    parser.finish();
    if (!written || !write_end(run)) {
        status = fail("standard output");
    }
    report(run, parser.counts());
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    Run run;
    run.options = parse_options(argc, argv);
    run.has_screen = run.options.format == Format::table && isatty(STDOUT_FILENO) != 0;
    if (!prepare_signals(run.has_screen)) {
        return fail("signals");
    }
    if (run.options.unique != 0 && !prepare_unique(run.unique, run.options.unique)) {
        return fail("random numbers");
    }
    const int status = take_all(run);
    if (screen_signals.end != 0) { // as it would have ended without a screen to leave
        end_by_signal();
    }
    return status;
}
