#include "wmbusctl_frames_screen.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace frames
{

ScreenSignals screen_signals;

namespace
{

constexpr unsigned END_SECONDS = 1;

// SIGWINCH is there to wake the program up. So is SIGALRM: a signal that comes right before a call
// that waits does not end it.
void note_signal(int signal)
{
    if (signal == SIGWINCH) {
        return;
    }
    if (signal == SIGTSTP) {
        screen_signals.stop = 1;
        return;
    }
    const bool is_ending = screen_signals.end != 0 || screen_signals.interrupts != 0;
    if (signal == SIGALRM && is_ending) {
        screen_signals.overdue = 1;
    } else if (signal == SIGINT) {
        screen_signals.interrupts = screen_signals.interrupts + 1;
    } else {
        screen_signals.end = signal;
    }
    alarm(END_SECONDS);
}

} // namespace

bool watch_screen_signals()
{
    struct sigaction action {
    };
    action.sa_handler = note_signal;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH, SIGALRM}) {
        struct sigaction before {
        };
        if (sigaction(signal, nullptr, &before) != 0 ||
            (before.sa_handler != SIG_IGN && sigaction(signal, &action, nullptr) != 0)) {
            return false;
        }
    }
    return true;
}

void end_by_signal()
{
    const int by = screen_signals.end != 0 ? screen_signals.end : SIGINT;
    signal(by, SIG_DFL);
    raise(by);
}

Window screen_window()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {80, 24};
    }
    return {size.ws_col, size.ws_row};
}

bool is_in_front()
{
    const pid_t front = tcgetpgrp(STDOUT_FILENO);
    return front < 0 || front == getpgrp(); // without job control nobody else has it
}

void enter_screen(std::string &out)
{
    out += "\033[?1049h\033[?25l"; // a screen of its own, without a cursor
}

// Each line is cleared before it is written: behind a full one the cursor still stands in it.
void draw_screen(std::string &out, std::string_view text, const Window &window)
{
    size_t lines = 0;
    out += "\033[H";
    for (size_t end = 0; (end = text.find('\n')) != std::string_view::npos; ++lines) {
        out += lines == 0 ? "\033[K" : "\r\n\033[K";
        out += text.substr(0, end);
        text.remove_prefix(end + 1);
    }
    if (lines < window.lines) {
        out += "\r\n\033[J";
    }
}

void leave_screen(std::string &out)
{
    out += "\033[?25h\033[?1049l";
}

void abandon_screen()
{
    std::string out;
    leave_screen(out);
    signal(SIGTTOU, SIG_IGN); // or in the background the next call would stop the program
    tcflush(STDOUT_FILENO, TCOFLUSH);
    // What it does not even take now, nobody can bring there.
    [[maybe_unused]] const ssize_t count = write(STDOUT_FILENO, out.data(), out.size());
}

} // namespace frames
