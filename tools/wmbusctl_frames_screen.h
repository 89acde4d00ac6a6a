// A terminal whose window shows one text, over and over, and is left as it was.

#pragma once

#include "wmbusctl_frames_table.h"

#include <csignal>
#include <string>
#include <string_view>

namespace frames
{

// What signals have asked for since the start.
struct ScreenSignals {
    volatile sig_atomic_t interrupts; // SIGINT, so often
    volatile sig_atomic_t end;        // SIGTERM or SIGHUP; 0: neither
    volatile sig_atomic_t stop;       // SIGTSTP
};
extern ScreenSignals screen_signals;

// Has signals noted instead of ending the program, and calls that wait ended by them; false when
// the system refuses.
bool watch_screen_signals();

// The window of standard output.
Window screen_window();

// Append what a terminal must be sent. The text has no more lines than the window, and none is
// longer.
void enter_screen(std::string &out);
void draw_screen(std::string &out, std::string_view text, const Window &window);
void leave_screen(std::string &out);

} // namespace frames
