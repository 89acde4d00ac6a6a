#include "wmbusctl_frames_records.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace frames
{

namespace
{

constexpr size_t ADDRESS_AT = 2; // behind the length and the control byte
constexpr size_t ADDRESS_SIZE = 8;
constexpr size_t IDENTIFICATION_AT = 2; // in the address, whose start is the manufacturer
constexpr size_t IDENTIFICATION_SIZE = 4;
constexpr size_t VERSION_AT = 6;
constexpr size_t DEVICE_TYPE_AT = 7;
constexpr size_t TIME_TEXT_SIZE = 32;

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

void append_hex(std::string &out, const uint8_t *bytes, size_t size)
{
    const size_t start = out.size();
    out.resize(start + 2 * size);
    for (size_t i = 0; i < size; ++i) {
        out[start + 2 * i] = "0123456789ABCDEF"[bytes[i] >> 4];
        out[start + 2 * i + 1] = "0123456789ABCDEF"[bytes[i] & 15];
    }
}

std::string number_text(int64_t number, int base = 10)
{
    char text[24];
    const auto [end, error] = std::to_chars(text, text + sizeof text, number, base);
    return {text, end};
}

// By the calendar of the library: time_t may have 32 bits with a sign, the seconds have none.
std::string time_text(const Frame &frame)
{
    using namespace std::chrono;
    const sys_time<milliseconds> time(seconds(frame.seconds) + milliseconds(frame.milliseconds));
    const auto midnight = floor<days>(time);
    const year_month_day date(midnight);
    const auto of_day = static_cast<unsigned>((time - midnight).count());
    char text[TIME_TEXT_SIZE];
    snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02u.%03uZ", int{date.year()},
             unsigned{date.month()}, unsigned{date.day()}, of_day / 3'600'000, of_day / 60'000 % 60,
             of_day / 1000 % 60, of_day % 1000);
    return text;
}

// Three letters of five bits each, 'A' is 1; the top bit is none of them.
std::string manufacturer_text(const uint8_t *address)
{
    const unsigned packed = address[0] | unsigned{address[1]} << 8;
    std::string letters;
    for (const unsigned shift : {10U, 5U, 0U}) {
        const auto letter = static_cast<char>('@' + (packed >> shift & 0x1F));
        letters += letter >= 'A' && letter <= 'Z' ? letter : '?';
    }
    return letters;
}

// Eight decimal digits, lowest byte first.
std::string identification_text(const uint8_t *address)
{
    std::array<uint8_t, IDENTIFICATION_SIZE> bytes{};
    std::reverse_copy(address + IDENTIFICATION_AT,
                      address + IDENTIFICATION_AT + IDENTIFICATION_SIZE, bytes.begin());
    std::string digits;
    append_hex(digits, bytes.data(), bytes.size());
    return digits;
}

// Values are made of letters, digits and signs that need no escape in JSON and no quotes in CSV.
struct Field {
    const char *name;
    bool is_text;
    std::string value; // not known when empty
};

using Fields = std::array<Field, 12>; // all but the frame itself

Fields make_fields(const Frame &frame)
{
    Fields fields{{{"time", true, time_text(frame)},
                   {"modem", true, number_text(frame.modem, 16)},
                   {"manufacturer", true, {}},
                   {"identification", true, {}},
                   {"version", false, {}},
                   {"device_type", false, {}},
                   {"device_type_name", true, {}},
                   {"rssi", false, number_text(frame.rssi)},
                   {"frequency", false, number_text(frame.frequency)},
                   {"frequency_offset", false, number_text(frame.frequency_offset)},
                   {"mode", false, number_text(frame.mode)},
                   {"receiver", false, number_text(frame.receiver)}}};
    if (frame.size >= ADDRESS_AT + ADDRESS_SIZE) {
        const uint8_t *address = frame.bytes + ADDRESS_AT;
        const uint8_t type = address[DEVICE_TYPE_AT];
        fields[2].value = manufacturer_text(address);
        fields[3].value = identification_text(address);
        fields[4].value = number_text(address[VERSION_AT]);
        fields[5].value = number_text(type);
        fields[6].value = type < std::size(DEVICE_TYPES) ? DEVICE_TYPES[type] : RESERVED;
    }
    return fields;
}

void append_json(std::string &out, const Frame &frame)
{
    out += '{';
    for (const Field &field : make_fields(frame)) {
        const char *quote = field.is_text && !field.value.empty() ? "\"" : "";
        out += '"';
        out += field.name;
        out += "\":";
        out += quote;
        out += field.value.empty() ? "null" : field.value;
        out += quote;
        out += ',';
    }
    out += R"("frame":")";
    append_hex(out, frame.bytes, frame.size);
    out += "\"}\n";
}

void append_csv(std::string &out, const Frame &frame)
{
    for (const Field &field : make_fields(frame)) {
        out += field.value;
        out += ',';
    }
    append_hex(out, frame.bytes, frame.size);
    out += '\n';
}

} // namespace

void append_heading(std::string &out, Format format)
{
    if (format == Format::csv) {
        for (const Field &field : make_fields(Frame{})) {
            out += field.name;
            out += ',';
        }
        out += "frame\n";
    }
}

void append_record(std::string &out, Format format, const Frame &frame)
{
    switch (format) {
    case Format::json:
        append_json(out, frame);
        break;
    case Format::csv:
        append_csv(out, frame);
        break;
    case Format::hex:
        append_hex(out, frame.bytes, frame.size);
        out += '\n';
        break;
    }
}

bool set_modem(Filter &filter, std::string_view serial)
{
    uint32_t modem = 0;
    const char *end = serial.data() + serial.size();
    const auto [stop, error] = std::from_chars(serial.data(), end, modem, 16);
    filter.modem = modem;
    return error == std::errc() && stop == end;
}

bool set_endpoint(Filter &filter, std::string_view endpoint)
{
    uint8_t bytes[ADDRESS_SIZE];
    const size_t size = parse_bytes(endpoint, bytes, sizeof bytes);
    if (size == IDENTIFICATION_SIZE) { // as people read it, highest byte first
        std::reverse(bytes, bytes + size);
    }
    filter.endpoint.assign(bytes, bytes + std::min(size, sizeof bytes));
    return size == IDENTIFICATION_SIZE || size == ADDRESS_SIZE;
}

bool matches(const Filter &filter, const Frame &frame)
{
    if (filter.modem && *filter.modem != frame.modem) {
        return false;
    }
    if (filter.endpoint.empty()) {
        return true;
    }
    const uint8_t *address = frame.bytes + ADDRESS_AT;
    const size_t skipped = filter.endpoint.size() == IDENTIFICATION_SIZE ? IDENTIFICATION_AT : 0;
    return frame.size >= ADDRESS_AT + ADDRESS_SIZE &&
           std::equal(filter.endpoint.begin(), filter.endpoint.end(), address + skipped);
}

} // namespace frames
