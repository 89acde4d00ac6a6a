// What is written for a received radio frame, and for which frames.

#pragma once

#include "wmbusctl_frames_parse.h"

#include <optional>
#include <vector>

namespace frames
{

// events: JSON whose members say what each record is. A table has no records.
enum class Format { json, events, hex, csv, rtlwmbus, table };

// Appends the line that comes before all records, in the formats that have one.
void append_heading(std::string &out, Format format);
// Appends the frame's record, which is one line. The sender's fields are null, in CSV empty, when
// the frame is too short to name it.
void append_record(std::string &out, Format format, const Frame &frame);

struct Filter {
    std::optional<uint32_t> modem;
    std::vector<uint8_t> endpoint; // in the order of the frame; identification or whole address
};

// Take the text of an option; false when it does not have the form. An endpoint is its eight digits
// of identification as in the records, or its whole address as the tool prints it.
bool set_modem(Filter &filter, std::string_view serial);
bool set_endpoint(Filter &filter, std::string_view endpoint);
bool matches(const Filter &filter, const Frame &frame);
bool matches(const Filter &filter, const Event &event);

} // namespace frames
