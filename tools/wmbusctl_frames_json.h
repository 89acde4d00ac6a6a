// JSON records, an object a line: what they are made of, and how they are read again.

#pragma once

#include "wmbusctl_frames_events.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace frames
{

struct Frame;

// Append "name":value and a comma. The record stays printable ASCII: all other bytes of a text are
// escaped. An unknown time or modem is null.
void append_member(std::string &out, const char *name, std::string_view text);
void append_number_member(std::string &out, const char *name, int64_t number);
void append_flag_member(std::string &out, const char *name, bool flag);
void append_hex_member(std::string &out, const char *name, uint32_t number);
void append_time_member(std::string &out, const char *name, int64_t seconds);
void append_modem_member(std::string &out, std::optional<uint32_t> modem);
void append_bytes_member(std::string &out, const char *name, const uint8_t *bytes, size_t size);

// "a1b2c3", with its quotes.
void append_hex_text(std::string &out, uint32_t number);
// Two digits a byte, without quotes.
void append_bytes(std::string &out, const uint8_t *bytes, size_t size);

enum class Record { none, frame, event };

// Reads a line as append_record or an event's record gives it, its members in any order, with
// blanks between them, and with others among them. A member that is missing or null counts as 0 or
// unknown; only a frame's bytes must be there. One that is not of its form makes the line none. Of
// an event, which must be printable ASCII, the record is the line itself.
Record parse_record(std::string_view line, Frame &frame, Event &event);

} // namespace frames
