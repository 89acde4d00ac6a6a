// A row for every meter that was heard.

#pragma once

#include "wmbusctl_frames_meter.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

namespace frames
{

constexpr size_t TABLE_SIZE_MAX = 4096; // meters; the one unheard for longest makes room
constexpr int64_t REPEAT_SECONDS = 5;   // in which the same bytes are the same frame
constexpr size_t INTERVALS = 10;        // of which the median is shown

struct TableRow {
    Meter meter;
    uint32_t modem; // that heard it last
    uint64_t frames;
    uint64_t repeated;
    int64_t seen; // seconds since 1970
    int64_t told; // when it last had something new to tell
    uint64_t told_hash;
    std::array<uint32_t, INTERVALS> intervals; // in seconds; a ring
    uint64_t interval_count;
    int rssi;
    int lowest;
    int highest;
    int64_t rssi_sum;
};

struct MeterHash {
    size_t operator()(const Meter &meter) const;
};

struct Table {
    std::list<TableRow> rows; // the one heard last first
    std::unordered_map<Meter, std::list<TableRow>::iterator, MeterHash> of_meter;
    uint64_t frames = 0;
    uint64_t nameless = 0;  // frames too short to name their meter
    uint64_t forgotten = 0; // meters
};

void add_frame(Table &table, const Frame &frame);
// Counts a frame that is left out as repeated, and nothing else about it.
void add_repeated(Table &table, const Frame &frame);

struct Window {
    size_t columns; // 0: as many as it takes
    size_t lines;   // 0: all rows, with no column cut but that of the device types
};

// A title, a heading and the rows, the meter seen last first. Lines end in a newline.
std::string table_text(const Table &table, const Window &window);

} // namespace frames
