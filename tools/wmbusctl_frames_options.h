// The command line.

#pragma once

#include "wmbusctl_frames_records.h"

#include <cstdint>
#include <vector>

namespace frames
{

struct Options {
    Format format = Format::json;
    Filter filter;
    uint32_t unique = 0; // seconds; 0: every frame
    bool strict = false;
    std::vector<const char *> files; // "-" for standard input; at least one
};

// Prints what was asked for and ends with status 0, or says what is wrong and ends with 2.
Options parse_options(int argc, char **argv);

// Says why the last call failed, unless it is that nobody reads any more, and returns the status 1.
int fail(const char *what);

} // namespace frames
