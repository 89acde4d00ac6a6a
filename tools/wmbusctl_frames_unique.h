// Which frames have come before, through whatever modem or gateway.

#pragma once

#include "wmbusctl_frames_parse.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace frames
{

constexpr size_t UNIQUE_MAX = 100000;   // frames remembered; 16 bytes each
constexpr size_t UNIQUE_CHAINS = 65536; // of 4 bytes each

struct Unique {
    struct Entry {
        uint64_t hash;
        uint32_t seconds;
        uint32_t next; // in its chain
    };

    uint32_t span; // in seconds; 0: nothing is remembered
    uint64_t key[2];
    std::vector<Entry> entries; // a ring once it is full
    std::vector<uint32_t> chains;
    size_t oldest;
    uint64_t left_out;
    uint64_t forgotten; // before the span was over
};

// To be called once before is_new. Nobody can make a frame that is taken for another: the hash has
// a key of this run. False when the system gives none.
bool prepare_unique(Unique &unique, uint32_t span);
// False for a frame whose bytes came at most span seconds before or after this one, by the
// gateway's clock, or by the modem's where that is not known; it is counted then. The first one of
// them is what counts: a frame that comes for ever is new once in a span.
bool is_new(Unique &unique, const Frame &frame);

} // namespace frames
