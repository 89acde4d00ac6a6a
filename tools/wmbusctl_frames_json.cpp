#include "wmbusctl_frames_json.h"

#include "wmbusctl_frames_parse.h"
#include "wmbusctl_frames_text.h"

#include <algorithm>

namespace frames
{

namespace
{

constexpr unsigned DEPTH_MAX = 16; // of values within values
constexpr uint32_t MILLISECONDS_MAX = UINT16_MAX;

bool is_printable(char c)
{
    return c >= ' ' && c <= '~';
}

void append_name(std::string &out, const char *name)
{
    out += '"';
    out += name;
    out += "\":";
}

// What is left of a line.
struct Cursor {
    std::string_view text;
    unsigned depth;
};

enum class Kind { text, number, other };

// A value as it is written, a text without its quotes.
struct Value {
    Kind kind;
    std::string_view text;

    bool is_null() const { return kind == Kind::other && text == "null"; }
};

void skip_blanks(Cursor &cursor)
{
    const size_t at = cursor.text.find_first_not_of(" \t");
    cursor.text.remove_prefix(std::min(at, cursor.text.size()));
}

bool skip_sign(Cursor &cursor, std::string_view sign)
{
    skip_blanks(cursor);
    return skip(cursor.text, sign);
}

// How many characters the escape behind a backslash has; 0: it is none.
size_t escape_size(std::string_view rest)
{
    constexpr std::string_view DIGITS = "0123456789abcdefABCDEF";
    if (rest.starts_with('u')) {
        const std::string_view digits = rest.substr(1, 4);
        const bool is_code =
            digits.size() == 4 && digits.find_first_not_of(DIGITS) == std::string_view::npos;
        return is_code ? 5 : 0;
    }
    return !rest.empty() && std::string_view("\"\\/bfnrt").find(rest[0]) != std::string_view::npos;
}

// The opening quote is taken already.
bool take_text(Cursor &cursor, std::string_view &text)
{
    const std::string_view all = cursor.text;
    for (size_t at = 0; at < all.size(); ++at) {
        if (all[at] == '"') {
            text = all.substr(0, at);
            cursor.text.remove_prefix(at + 1);
            return true;
        }
        if (static_cast<unsigned char>(all[at]) < ' ') {
            return false;
        }
        if (all[at] == '\\') {
            const size_t size = escape_size(all.substr(at + 1));
            if (size == 0) {
                return false;
            }
            at += size;
        }
    }
    return false;
}

bool skip_digits(std::string_view &text)
{
    const size_t size = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(size);
    return size != 0;
}

bool take_number_text(Cursor &cursor, std::string_view &number)
{
    const std::string_view all = cursor.text;
    std::string_view &left = cursor.text;
    skip(left, "-");
    if (!skip(left, "0") && !skip_digits(left)) {
        return false;
    }
    if (skip(left, ".") && !skip_digits(left)) {
        return false;
    }
    if ((skip(left, "e") || skip(left, "E"))) {
        if (!skip(left, "+")) {
            skip(left, "-");
        }
        if (!skip_digits(left)) {
            return false;
        }
    }
    number = all.substr(0, all.size() - left.size());
    return true;
}

bool take_value(Cursor &cursor, Value &value);

// The members up to the closing sign, which is '}' behind names or ']'.
bool skip_members(Cursor &cursor, bool have_names)
{
    const std::string_view closing = have_names ? "}" : "]";
    if (++cursor.depth > DEPTH_MAX) {
        return false;
    }
    if (!skip_sign(cursor, closing)) {
        do {
            std::string_view name;
            Value value{};
            if (have_names &&
                !(skip_sign(cursor, "\"") && take_text(cursor, name) && skip_sign(cursor, ":"))) {
                return false;
            }
            if (!take_value(cursor, value)) {
                return false;
            }
        } while (skip_sign(cursor, ","));
        if (!skip_sign(cursor, closing)) {
            return false;
        }
    }
    --cursor.depth;
    return true;
}

bool take_value(Cursor &cursor, Value &value)
{
    skip_blanks(cursor);
    value.kind = Kind::other;
    for (const std::string_view word : {"null", "true", "false"}) {
        if (skip(cursor.text, word)) {
            value.text = word;
            return true;
        }
    }
    if (skip(cursor.text, "{")) {
        return skip_members(cursor, true);
    }
    if (skip(cursor.text, "[")) {
        return skip_members(cursor, false);
    }
    if (skip(cursor.text, "\"")) {
        value.kind = Kind::text;
        return take_text(cursor, value.text);
    }
    value.kind = Kind::number;
    return take_number_text(cursor, value.text);
}

template<typename Number>
bool read_number(const Value &value, int64_t least, int64_t most, Number &number)
{
    std::string_view text = value.text;
    int64_t wide = 0;
    if (value.kind != Kind::number || !take_number(text, least, most, wide) || !text.empty()) {
        return false;
    }
    number = static_cast<Number>(wide);
    return true;
}

bool read_serial(const Value &value, uint32_t &modem)
{
    std::string_view text = value.text;
    return value.kind == Kind::text && take_number(text, 0U, UINT32_MAX, modem, 16) && text.empty();
}

// What the record tells as whole seconds may have been too many milliseconds.
bool read_modem_time(const Value &value, Frame &frame)
{
    int64_t seconds = 0;
    uint32_t milliseconds = 0;
    if (value.kind != Kind::text || !parse_time(value.text, seconds, milliseconds)) {
        return false;
    }
    const int64_t within = std::min(seconds, int64_t{UINT32_MAX});
    const int64_t rest = (seconds - within) * 1000 + milliseconds;
    frame.seconds = static_cast<uint32_t>(within);
    frame.milliseconds = static_cast<uint32_t>(rest);
    return rest <= int64_t{MILLISECONDS_MAX};
}

bool read_received(const Value &value, Frame &frame)
{
    uint32_t milliseconds = 0;
    return value.kind == Kind::text && parse_time(value.text, frame.received, milliseconds);
}

bool read_bytes(const Value &value, Frame &frame)
{
    frame.size =
        value.kind == Kind::text ? parse_bytes(value.text, frame.bytes, sizeof frame.bytes) : 0;
    return frame.size != 0 && frame.size <= sizeof frame.bytes;
}

constexpr struct {
    std::string_view name;
    bool (*read)(const Value &value, Frame &frame);
} MEMBERS[] = {
    {"time", read_modem_time},
    {"received", read_received},
    {"frame", read_bytes},
    {"modem", [](const Value &value, Frame &frame) { return read_serial(value, frame.modem); }},
    {"rssi", [](const Value &value,
                Frame &frame) { return read_number(value, -UINT8_MAX, 0, frame.rssi); }},
    {"frequency", [](const Value &value,
                     Frame &frame) { return read_number(value, 0, UINT32_MAX, frame.frequency); }},
    {"frequency_offset",
     [](const Value &value, Frame &frame) {
         return read_number(value, INT16_MIN, INT16_MAX, frame.frequency_offset);
     }},
    {"mode",
     [](const Value &value, Frame &frame) { return read_number(value, 0, UINT8_MAX, frame.mode); }},
    {"receiver", [](const Value &value, Frame &frame) {
         return read_number(value, 0, UINT8_MAX, frame.receiver);
     }}};

// A member of a record that is still open: no event has a member that a frame reads otherwise.
bool read_member(std::string_view name, const Value &value, Frame &frame)
{
    for (const auto &known : MEMBERS) {
        if (name == known.name && !value.is_null()) {
            return known.read(value, frame);
        }
    }
    return true;
}

void clear(Frame &frame)
{
    frame.received = TIME_UNKNOWN;
    frame.seconds = frame.milliseconds = frame.modem = frame.frequency = 0;
    frame.frequency_offset = frame.rssi = 0;
    frame.mode = frame.receiver = 0;
    frame.size = 0;
}

} // namespace

void append_member(std::string &out, const char *name, std::string_view text)
{
    append_name(out, name);
    out += '"';
    for (const char c : text) {
        if (is_printable(c) && c != '"' && c != '\\') {
            out += c;
        } else {
            const auto byte = static_cast<uint8_t>(c);
            out += "\\u00";
            append_bytes(out, &byte, 1);
        }
    }
    out += "\",";
}

void append_number_member(std::string &out, const char *name, int64_t number)
{
    append_name(out, name);
    out += std::to_string(number);
    out += ',';
}

void append_flag_member(std::string &out, const char *name, bool flag)
{
    append_name(out, name);
    out += flag ? "true," : "false,";
}

void append_hex_member(std::string &out, const char *name, uint32_t number)
{
    append_name(out, name);
    append_hex_text(out, number);
    out += ',';
}

void append_time_member(std::string &out, const char *name, int64_t seconds)
{
    append_name(out, name);
    if (seconds == TIME_UNKNOWN) {
        out += "null,";
        return;
    }
    out += '"';
    append_time(out, seconds);
    out += "Z\",";
}

void append_modem_member(std::string &out, std::optional<uint32_t> modem)
{
    if (modem) {
        append_hex_member(out, "modem", *modem);
    } else {
        out += R"("modem":null,)";
    }
}

void append_bytes_member(std::string &out, const char *name, const uint8_t *bytes, size_t size)
{
    append_name(out, name);
    out += '"';
    append_bytes(out, bytes, size);
    out += "\",";
}

void append_hex_text(std::string &out, uint32_t number)
{
    out += '"';
    out += hex_text(number);
    out += '"';
}

void append_bytes(std::string &out, const uint8_t *bytes, size_t size)
{
    constexpr const char *DIGITS = "0123456789ABCDEF";
    const size_t start = out.size();
    out.resize(start + 2 * size);
    char *next = out.data() + start;
    for (const uint8_t *byte = bytes; byte != bytes + size; ++byte) {
        *next++ = DIGITS[*byte >> 4];
        *next++ = DIGITS[*byte & 15];
    }
}

Record parse_record(std::string_view line, Frame &frame, Event &event)
{
    Cursor cursor{line, 0};
    bool names_event = false;
    clear(frame);
    if (!skip_sign(cursor, "{")) {
        return Record::none;
    }
    do {
        std::string_view name;
        Value value{};
        if (!skip_sign(cursor, "\"") || !take_text(cursor, name) || !skip_sign(cursor, ":") ||
            !take_value(cursor, value) || !read_member(name, value, frame)) {
            return Record::none;
        }
        names_event = names_event || (name == "event" && value.kind == Kind::text);
        if (name == "modem" && !value.is_null()) {
            event.modem = frame.modem;
        }
    } while (skip_sign(cursor, ","));
    if (!skip_sign(cursor, "}") || !cursor.text.empty()) {
        return Record::none;
    }
    event.record = line;
    if (frame.size != 0) {
        return Record::frame;
    }
    const bool is_event = names_event && std::all_of(line.begin(), line.end(), is_printable);
    return is_event ? Record::event : Record::none;
}

} // namespace frames
