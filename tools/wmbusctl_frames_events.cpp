#include "wmbusctl_frames_events.h"

#include "wmbusctl_frames_json.h"
#include "wmbusctl_frames_parse.h"
#include "wmbusctl_frames_text.h"

#include <array>

namespace frames
{

namespace
{

constexpr size_t VALUE_SIZE_MAX = 255;
constexpr int64_t RECEIVERS_MAX = 7;
constexpr const char *STATES[] = {nullptr, "READY", "RUNNING"};

// A record begins with what all have.
void begin(EventReader &reader, const char *kind, int64_t received, std::optional<uint32_t> modem)
{
    reader.record.assign(1, '{');
    append_member(reader.record, "event", kind);
    append_time_member(reader.record, "received", received);
    append_modem_member(reader.record, modem);
}

void end(EventReader &reader, std::optional<uint32_t> modem)
{
    reader.record.back() = '}'; // in place of a comma
    reader.handler({modem, reader.record});
}

bool take_modem(std::string_view &text, uint32_t &modem)
{
    return take_number(text, 0U, UINT32_MAX, modem, 16);
}

// What the line of an announcement holds, in its order.
enum Info {
    PROTOCOL,
    SERIAL,
    TMSP,
    HW_MAJOR,
    HW_MINOR,
    SW_MAJOR,
    SW_MINOR,
    TYPE,
    LOCATION,
    STATE,
    WAKEUP,
    RECEIVERS,
    FIRST_RECEIVER,
    INFO_SIZE = FIRST_RECEIVER + RECEIVERS_MAX
};
using InfoValues = std::array<int64_t, INFO_SIZE>;

bool parse_info(std::string_view text, InfoValues &values)
{
    // The tool prints 32 bits with a sign.
    constexpr struct {
        std::string_view name;
        int64_t least;
        int64_t most;
        int base;
    } FIELDS[INFO_SIZE] = {{"protocol:", 0, UINT32_MAX, 10},
                           {", serial number:", 0, UINT32_MAX, 16},
                           {", tmsp:", INT32_MIN, UINT32_MAX, 10},
                           {", hw_ver:", 0, UINT8_MAX, 10},
                           {".", 0, UINT8_MAX, 10},
                           {", sw_ver:", 0, UINT8_MAX, 10},
                           {".", 0, UINT8_MAX, 10},
                           {", type:", 0, UINT8_MAX, 10},
                           {", location:", 0, UINT8_MAX, 10},
                           {", state:", 0, UINT8_MAX, 10},
                           {", wakeup:", 0, UINT8_MAX, 10},
                           {", nb RF receiver:", 0, RECEIVERS_MAX, 10},
                           {", RF:", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16},
                           {"/", 0, UINT8_MAX, 16}};
    for (size_t i = 0; i < values.size(); ++i) {
        if (!skip(text, FIELDS[i].name) ||
            !take_number(text, FIELDS[i].least, FIELDS[i].most, values[i], FIELDS[i].base)) {
            return false;
        }
    }
    return text.empty();
}

std::string state_text(int64_t state)
{
    const bool is_known = state >= 1 && state < int64_t{std::size(STATES)};
    return is_known ? STATES[state] : std::to_string(state);
}

std::string version_text(int64_t major, int64_t minor)
{
    std::string text = std::to_string(major);
    text += '.';
    return text += std::to_string(minor);
}

void read_announcement(EventReader &reader, int64_t received, std::string_view text)
{
    InfoValues values{};
    if (!parse_info(text, values)) {
        return;
    }
    const auto modem = static_cast<uint32_t>(values[SERIAL]);
    std::string &record = reader.record;
    begin(reader, "announcement", received, modem);
    append_time_member(record, "time", static_cast<uint32_t>(values[TMSP]));
    append_number_member(record, "protocol", values[PROTOCOL]);
    append_member(record, "hw_ver", version_text(values[HW_MAJOR], values[HW_MINOR]));
    append_member(record, "sw_ver", version_text(values[SW_MAJOR], values[SW_MINOR]));
    append_number_member(record, "type", values[TYPE]);
    append_number_member(record, "location", values[LOCATION]);
    append_member(record, "state", state_text(values[STATE]));
    append_number_member(record, "wakeup", values[WAKEUP]);
    record += R"("receivers":[)";
    for (int64_t i = 0; i < values[RECEIVERS]; ++i) {
        append_hex_text(record,
                        static_cast<uint32_t>(values[static_cast<size_t>(FIRST_RECEIVER + i)]));
        record += ',';
    }
    if (record.back() == ',') {
        record.pop_back();
    }
    record += "],";
    end(reader, modem);
}

void read_state(EventReader &reader, int64_t received, std::string_view text)
{
    uint32_t modem = 0;
    if (!take_modem(text, modem) || !skip(text, " is in ") || !text.ends_with(" state")) {
        return;
    }
    begin(reader, "state", received, modem);
    append_member(reader.record, "state", text.substr(0, text.find(' ')));
    end(reader, modem);
}

void read_detection(EventReader &reader, int64_t received, std::string_view text)
{
    uint32_t modem = 0;
    if (!take_modem(text, modem) || !skip(text, " (IP:") || !text.ends_with(')')) {
        return;
    }
    text.remove_suffix(1);
    begin(reader, "detection", received, modem);
    append_member(reader.record, "address", text);
    end(reader, modem);
}

void read_action(EventReader &reader, int64_t received, std::string_view text)
{
    uint32_t modem = 0;
    if (take_modem(text, modem) && text.empty()) {
        reader.acting = modem;
        begin(reader, "action", received, modem);
        end(reader, modem);
    }
}

// Another run of the tool: what it asks, it asks some modem.
void read_start(EventReader &reader, int64_t, std::string_view)
{
    reader.acting.reset();
    reader.value_due = false;
}

void read_response(EventReader &reader, int64_t received, std::string_view text)
{
    const bool is_code = text.size() == 4 && text[1] == '.' &&
                         text.find_first_not_of(".0123456789") == std::string_view::npos;
    if (is_code) {
        begin(reader, "response", received, reader.acting);
        append_member(reader.record, "code", text);
        end(reader, reader.acting);
    }
}

void read_parameter(EventReader &reader, int64_t received, std::string_view text)
{
    reader.value_due =
        take_number(text, 0U, uint32_t{UINT16_MAX}, reader.parameter, 16) && skip(text, " len:") &&
        take_number(text, size_t{0}, VALUE_SIZE_MAX, reader.announced) && text == ", value:";
    reader.value_size = reader.announced;
    reader.value_received = received;
}

void read_cut(EventReader &reader, int64_t, std::string_view text)
{
    size_t announced = 0;
    size_t size = 0;
    if (take_number(text, size_t{0}, VALUE_SIZE_MAX, announced) && skip(text, " received:") &&
        take_number(text, size_t{0}, announced, size) && announced == reader.announced) {
        reader.value_size = size;
    }
}

void read_installation(EventReader &reader, int64_t received, std::string_view text)
{
    constexpr std::string_view OF = ") of modem ";
    const size_t at = text.rfind(OF);
    uint32_t modem = 0;
    if (at == std::string_view::npos) {
        return;
    }
    const std::string_view name = text.substr(0, at);
    text.remove_prefix(at + OF.size());
    if (take_modem(text, modem) && skip(text, " is ") && (text == "OK" || text == "KO")) {
        begin(reader, "installation", received, modem);
        append_member(reader.record, "name", name);
        append_member(reader.record, "result", text);
        end(reader, modem);
    }
}

void read_statistics(EventReader &reader, int64_t received, std::string_view text)
{
    uint32_t modem = 0;
    if (take_modem(text, modem) && text.empty()) {
        begin(reader, "statistics", received, modem);
        end(reader, modem);
    }
}

constexpr struct {
    std::string_view origin; // level and source
    std::string_view start;  // of the message
    void (*read)(EventReader &reader, int64_t received, std::string_view rest);
} LINES[] = {{"INFO", "Modem INFO :", read_announcement},
             {"INFO", "New modem detected ", read_detection},
             {"INFO", "Perform action on modem LAN:", read_action},
             {"INFO", "Param req : 0x", read_parameter},
             {"INFO", "Start CoAP server on ", read_start},
             {"DEBUG:app_lan", "Modem ", read_state},
             {"DEBUG:app_lan", "Firmware install (name:", read_installation},
             {"DEBUG:app_lan", "Update statistics of Modem ", read_statistics},
             {"DEBUG:coap_client", "COAP RES:", read_response},
             {"WARNING:app_lan", "Param value cut, announced:", read_cut}};

// Takes "INFO" or "DEBUG:app_lan" from the start of the line and leaves the message.
std::string_view take_origin(std::string_view &line)
{
    std::string_view origin;
    if (skip(line, "INFO:")) {
        return "INFO";
    }
    const size_t source = line.find(':') + 1;
    const size_t number = line.find(':', source) + 1;
    const size_t message = line.find(':', number) + 1;
    if (source != 0 && number != 0 && message != 0) {
        origin = line.substr(0, number - 1);
        line.remove_prefix(message);
    }
    return origin;
}

} // namespace

void read_event(EventReader &reader, int64_t received, std::string_view line)
{
    const std::string_view origin = take_origin(line);
    for (const auto &known : LINES) {
        if (origin == known.origin && skip(line, known.start)) {
            known.read(reader, received, line);
            return;
        }
    }
}

void read_value(EventReader &reader, std::string_view digits)
{
    uint8_t bytes[VALUE_SIZE_MAX];
    if (!reader.value_due || parse_bytes(digits, bytes, sizeof bytes) != reader.value_size) {
        return;
    }
    reader.value_due = false;
    begin(reader, "parameter", reader.value_received, reader.acting);
    append_hex_member(reader.record, "parameter", reader.parameter);
    append_bytes_member(reader.record, "value", bytes, reader.value_size);
    append_flag_member(reader.record, "length_ok", reader.value_size == reader.announced);
    end(reader, reader.acting);
}

} // namespace frames
