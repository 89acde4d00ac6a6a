// Points in time, in whole seconds since 1970, and their texts, by the calendar of the library:
// time_t may have 32 bits with a sign.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace frames
{

constexpr int64_t TIME_UNKNOWN = -1;
constexpr size_t STAMP_DIGITS = 15; // "20261122-212040", UTC

// The text must have digits where a stamp has them. TIME_UNKNOWN for a day that is none.
int64_t parse_stamp(std::string_view stamp);

// Reads "2026-11-22T21:20:40Z" or "2026-11-22T21:20:40.119Z" of the years 1970 to 9999. False when
// the text is none.
bool parse_time(std::string_view text, int64_t &seconds, uint32_t &milliseconds);

// Appends "2026-11-22T21:20:40" with that sign between day and hour.
void append_time(std::string &out, int64_t seconds, char separator = 'T');
// Appends ".119"; at most 999.
void append_milliseconds(std::string &out, uint32_t milliseconds);

} // namespace frames
