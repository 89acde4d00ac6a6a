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
    volatile sig_atomic_t end;        // another that ends a program; 0: none
    volatile sig_atomic_t stop;       // SIGTSTP
    volatile sig_atomic_t overdue;    // a second ago the program was asked to end
};
extern ScreenSignals screen_signals;

// Has signals noted instead of ending the program, and calls that wait ended by them, once more a
// second after each that asks for the end and every second from then on; false when the system
// refuses.
bool watch_screen_signals();
// Ends the program by the signal that has asked for it, or by SIGINT. Not to be called before one
// has.
void end_by_signal();

// The window of standard output.
Window screen_window();
// Whether the terminal is this program's to draw on, and not another's meanwhile.
bool is_in_front();

// Append what a terminal must be sent. The text has no more lines than the window, and none is
// longer.
void enter_screen(std::string &out);
void draw_screen(std::string &out, std::string_view text, const Window &window);
void leave_screen(std::string &out);
// Leaves a terminal that takes no output: what is on its way there is dropped.
void abandon_screen();

} // namespace frames
