// The meter that has sent a frame, which names it by eight bytes near its start.

#pragma once

#include "wmbusctl_frames_parse.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace frames
{

constexpr size_t METER_AT = 2; // in a frame, behind the length and the control byte
constexpr size_t METER_SIZE = 8;
constexpr size_t IDENTIFICATION_AT = 2; // in these bytes, whose start is the manufacturer
constexpr size_t IDENTIFICATION_SIZE = 4;

struct Meter {
    uint16_t manufacturer;   // three letters of five bits each
    uint32_t identification; // eight decimal digits, written as hexadecimal ones
    uint8_t version;
    uint8_t device_type;

    bool operator==(const Meter &) const = default;
};

// None when the frame is too short.
std::optional<Meter> meter_of(const Frame &frame);

std::string manufacturer_text(const Meter &meter);   // '?' for a code that is no letter
std::string identification_text(const Meter &meter); // eight digits
const char *device_type_name(const Meter &meter);

} // namespace frames
