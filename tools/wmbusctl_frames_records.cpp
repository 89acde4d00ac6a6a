#include "wmbusctl_frames_records.h"

#include "wmbusctl_frames_json.h"
#include "wmbusctl_frames_meter.h"
#include "wmbusctl_frames_text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace frames
{

namespace
{

std::string number_text(int64_t number)
{
    char text[24];
    const auto [end, error] = std::to_chars(text, text + sizeof text, number);
    return {text, end};
}

// The milliseconds may be more than a second.
void append_modem_time(std::string &out, const Frame &frame, char separator)
{
    append_time(out, int64_t{frame.seconds} + frame.milliseconds / 1000, separator);
    append_milliseconds(out, frame.milliseconds % 1000);
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
    Fields fields{{{"time", true, {}},
                   {"modem", true, hex_text(frame.modem)},
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
    append_modem_time(fields[0].value, frame, 'T');
    fields[0].value += 'Z';
    if (const std::optional<Meter> meter = meter_of(frame)) {
        fields[2].value = manufacturer_text(*meter);
        fields[3].value = identification_text(*meter);
        fields[4].value = number_text(meter->version);
        fields[5].value = number_text(meter->device_type);
        fields[6].value = device_type_name(*meter);
    }
    return fields;
}

// What came first stands first, and the frame last, where scripts look for them.
void append_json(std::string &out, const Frame &frame, bool among_events)
{
    out += '{';
    if (among_events) {
        append_member(out, "event", "frame");
        if (const std::optional<Meter> meter = meter_of(frame)) {
            append_member(out, "id", identification_text(*meter));
        }
    }
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
    append_time_member(out, "received", frame.received);
    append_flag_member(out, "length_ok", is_length_ok(frame));
    append_bytes_member(out, "frame", frame.bytes, frame.size);
    out.back() = '}';
    out += '\n';
}

void append_csv(std::string &out, const Frame &frame)
{
    for (const Field &field : make_fields(frame)) {
        out += field.value;
        out += ',';
    }
    append_bytes(out, frame.bytes, frame.size);
    out += '\n';
}

// Link mode, two flags that all check sums were right, time, signal strength in dBm, another one
// that nobody reads, the meter.
void append_rtlwmbus(std::string &out, const Frame &frame)
{
    out += "T1;1;1;";
    append_modem_time(out, frame, ' ');
    out += ';';
    out += number_text(frame.rssi);
    out += ";0;";
    if (const std::optional<Meter> meter = meter_of(frame)) {
        out += identification_text(*meter);
    }
    out += ";0x";
    append_bytes(out, frame.bytes, frame.size);
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
    case Format::events:
        append_json(out, frame, format == Format::events);
        break;
    case Format::csv:
        append_csv(out, frame);
        break;
    case Format::hex:
        append_bytes(out, frame.bytes, frame.size);
        out += '\n';
        break;
    case Format::rtlwmbus:
        append_rtlwmbus(out, frame);
        break;
    case Format::table:
        break;
    }
}

bool set_modem(Filter &filter, std::string_view serial)
{
    uint32_t modem = 0;
    const bool is_serial = take_number(serial, 0U, UINT32_MAX, modem, 16) && serial.empty();
    filter.modem = modem;
    return is_serial;
}

bool set_endpoint(Filter &filter, std::string_view endpoint)
{
    uint8_t bytes[METER_SIZE];
    const size_t size = parse_bytes(endpoint, bytes, sizeof bytes);
    if (size == IDENTIFICATION_SIZE) { // as people read it, highest byte first
        std::reverse(bytes, bytes + size);
    }
    filter.endpoint.assign(bytes, bytes + std::min(size, sizeof bytes));
    return size == IDENTIFICATION_SIZE || size == METER_SIZE;
}

bool matches(const Filter &filter, const Frame &frame)
{
    if (filter.modem && *filter.modem != frame.modem) {
        return false;
    }
    if (filter.endpoint.empty()) {
        return true;
    }
    const uint8_t *meter = frame.bytes + METER_AT;
    const size_t skipped = filter.endpoint.size() == IDENTIFICATION_SIZE ? IDENTIFICATION_AT : 0;
    return frame.size >= METER_AT + METER_SIZE &&
           std::equal(filter.endpoint.begin(), filter.endpoint.end(), meter + skipped);
}

bool matches(const Filter &filter, const Event &event)
{
    return !filter.modem || filter.modem == event.modem;
}

} // namespace frames
