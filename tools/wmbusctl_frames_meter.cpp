#include "wmbusctl_frames_meter.h"

#include <iterator>

namespace frames
{

namespace
{

constexpr size_t VERSION_AT = 6;
constexpr size_t DEVICE_TYPE_AT = 7;

constexpr const char *RESERVED = "Reserved";
constexpr const char *DEVICE_TYPES[] = {"Other",
                                        "Oil",
                                        "Electricity",
                                        "Gas",
                                        "Heat",
                                        "Steam",
                                        "Warm water",
                                        "Water",
                                        "Heat cost allocator",
                                        "Compressed air",
                                        "Cooling (outlet)",
                                        "Cooling (inlet)",
                                        "Heat (inlet)",
                                        "Heat/cooling",
                                        "Bus/system component",
                                        "Unknown",
                                        "Irrigation water",
                                        "Water data logger",
                                        "Gas data logger",
                                        "Gas converter",
                                        "Calorific value",
                                        "Hot water",
                                        "Cold water",
                                        "Hot/cold water",
                                        "Pressure",
                                        "A/D converter",
                                        "Smoke detector",
                                        "Room sensor",
                                        "Gas detector",
                                        "Carbon monoxide alarm",
                                        "Heat alarm",
                                        "Sensor",
                                        "Breaker (electricity)",
                                        "Valve (gas or water)",
                                        RESERVED,
                                        RESERVED,
                                        RESERVED,
                                        "Customer unit",
                                        RESERVED,
                                        RESERVED,
                                        "Waste water",
                                        "Waste",
                                        "Carbon dioxide",
                                        RESERVED,
                                        RESERVED,
                                        RESERVED,
                                        RESERVED,
                                        RESERVED,
                                        "Service tool",
                                        "Gateway",
                                        "Unidirectional repeater",
                                        "Bidirectional repeater",
                                        RESERVED,
                                        RESERVED,
                                        "Radio converter (system side)",
                                        "Radio converter (meter side)",
                                        "Bus converter (meter side)"};

} // namespace

std::optional<Meter> meter_of(const Frame &frame)
{
    if (frame.size < METER_AT + METER_SIZE) {
        return std::nullopt;
    }
    const uint8_t *bytes = frame.bytes + METER_AT;
    const uint8_t *digits = bytes + IDENTIFICATION_AT; // lowest byte first
    return Meter{static_cast<uint16_t>(bytes[0] | bytes[1] << 8),
                 digits[0] | uint32_t{digits[1]} << 8 | uint32_t{digits[2]} << 16 |
                     uint32_t{digits[3]} << 24,
                 bytes[VERSION_AT], bytes[DEVICE_TYPE_AT]};
}

// 'A' is 1; the top bit is no letter's.
std::string manufacturer_text(const Meter &meter)
{
    std::string letters;
    for (const unsigned shift : {10U, 5U, 0U}) {
        const auto letter = static_cast<char>('@' + (unsigned{meter.manufacturer} >> shift & 0x1F));
        letters += letter >= 'A' && letter <= 'Z' ? letter : '?';
    }
    return letters;
}

std::string identification_text(const Meter &meter)
{
    std::string digits;
    for (int shift = 28; shift >= 0; shift -= 4) {
        digits += "0123456789ABCDEF"[meter.identification >> shift & 0xF];
    }
    return digits;
}

const char *device_type_name(const Meter &meter)
{
    const uint8_t type = meter.device_type;
    return type < std::size(DEVICE_TYPES) ? DEVICE_TYPES[type] : RESERVED;
}

} // namespace frames
