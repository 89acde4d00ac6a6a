#include "wmbusctl_frames_parse.h"

#include "wmbusctl_frames_json.h"
#include "wmbusctl_frames_text.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace frames
{

namespace
{

constexpr std::string_view SOURCE = "app_lan:";
constexpr std::string_view RULE = "################";
constexpr std::string_view BANNER = " PACKET RECEIVED"; // without the blank at its end
constexpr std::string_view HEADER = " RTC:";
constexpr std::string_view LENGTH = "WMBUS Data len : ";
constexpr std::string_view ENDPOINT = "Receive RF frame from EndPoint [";
constexpr std::string_view MODEM = "] on modem [";
constexpr size_t STAMP_SIZE = STAMP_DIGITS + 1; // with its colon
constexpr size_t ENDPOINT_AT = 2;               // in a frame
constexpr size_t ENDPOINT_SIZE = 8;
constexpr uint8_t NO_DIGIT = 0xFF;

constexpr std::array<uint8_t, 256> make_digit_values()
{
    std::array<uint8_t, 256> values{};
    values.fill(NO_DIGIT);
    for (uint8_t i = 0; i < 16; ++i) {
        values[static_cast<uint8_t>("0123456789abcdef"[i])] = i;
        values[static_cast<uint8_t>("0123456789ABCDEF"[i])] = i;
    }
    return values;
}

constexpr std::array<uint8_t, 256> DIGIT_VALUES = make_digit_values();

bool is_stamped(std::string_view line)
{
    return line.size() > STAMP_SIZE && line.size() <= LINE_SIZE_MAX && line[8] == '-' &&
           line[15] == ':' && std::all_of(line.begin(), line.begin() + 8, is_digit) &&
           std::all_of(line.begin() + 9, line.begin() + 15, is_digit);
}

// Where a stamp stands behind something else.
size_t find_stamp(std::string_view line)
{
    for (size_t dash = line.find('-', 8); dash != std::string_view::npos;
         dash = line.find('-', dash + 1)) {
        if (is_stamped(line.substr(dash - 8))) {
            return dash - 8;
        }
    }
    return std::string_view::npos;
}

std::string_view without_trailing_blanks(std::string_view line)
{
    while (line.ends_with(' ') || line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

// Whether these are the bytes that the frame ends with.
bool repeats_end(const Frame &frame, std::string_view digits)
{
    uint8_t bytes[LINE_SIZE_MAX / 2];
    const size_t size = parse_bytes(digits, bytes, sizeof bytes);
    return size <= sizeof bytes && size <= frame.size &&
           memcmp(bytes, frame.bytes + frame.size - size, size) == 0;
}

// False when the line, taken without its stamp, does not come from where frames are printed.
bool split_trace(std::string_view line, Trace &trace)
{
    trace.is_dump = skip(line, "DUMP:");
    const bool may_tell_frame = trace.is_dump || skip(line, "DEBUG:");
    const bool split = may_tell_frame && skip(line, SOURCE) &&
                       take_number(line, 0U, unsigned{INT32_MAX}, trace.number) && skip(line, ":");
    trace.message = line;
    return split;
}

bool parse_header(std::string_view text, Frame &frame)
{
    // The tool prints 32 bits with a sign: from 2038 on the seconds are negative.
    const struct {
        std::string_view name;
        int64_t least;
        int64_t most;
    } fields[] = {{HEADER, INT32_MIN, UINT32_MAX},          {",", 0, UINT16_MAX},
                  {", FREQ:", INT32_MIN, UINT32_MAX},       {", RSSI:-", 0, UINT8_MAX},
                  {", FREQ_OFFSET:", INT16_MIN, INT16_MAX}, {", RF_MOD:", 0, UINT8_MAX},
                  {", RF_RECEIVER:", 0, UINT8_MAX}};
    int64_t values[std::size(fields)];
    for (size_t i = 0; i < std::size(fields); ++i) {
        if (!skip(text, fields[i].name) ||
            !take_number(text, fields[i].least, fields[i].most, values[i])) {
            return false;
        }
    }
    frame.seconds = static_cast<uint32_t>(values[0]);
    frame.milliseconds = static_cast<uint32_t>(values[1]);
    frame.frequency = static_cast<uint32_t>(values[2]);
    frame.rssi = static_cast<int>(-values[3]);
    frame.frequency_offset = static_cast<int>(values[4]);
    frame.mode = static_cast<unsigned>(values[5]);
    frame.receiver = static_cast<unsigned>(values[6]);
    return text.empty();
}

} // namespace

bool is_length_ok(const Frame &frame)
{
    return frame.size == size_t{frame.bytes[0]} + 1;
}

size_t parse_bytes(std::string_view text, uint8_t *bytes, size_t limit)
{
    size_t size = 0;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ' || text[at] == '/') {
            ++at;
            continue;
        }
        const uint8_t high = DIGIT_VALUES[static_cast<uint8_t>(text[at])];
        const uint8_t low =
            at + 1 < text.size() ? DIGIT_VALUES[static_cast<uint8_t>(text[at + 1])] : NO_DIGIT;
        if (high == NO_DIGIT || low == NO_DIGIT || size == limit) {
            return limit + 1;
        }
        bytes[size++] = static_cast<uint8_t>(high << 4 | low);
        at += 2;
    }
    return size;
}

void Parser::feed(std::string_view bytes)
{
    for (size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos;) {
        if (rest_.empty()) {
            take_line(bytes.substr(0, end));
        } else {
            keep_rest(bytes.substr(0, end));
            take_line(rest_);
            rest_.clear();
        }
        bytes.remove_prefix(end + 1);
    }
    keep_rest(bytes);
}

void Parser::end_file()
{
    if (!rest_.empty()) {
        take_line(rest_);
        rest_.clear();
    }
}

void Parser::finish()
{
    end_file();
    leave_frame();
}

// A byte more than the longest line has is enough to see that it is none.
void Parser::keep_rest(std::string_view bytes)
{
    rest_ += bytes.substr(0, RECORD_SIZE_MAX + 1 - rest_.size());
}

void Parser::take_line(std::string_view line)
{
    if (line.size() > RECORD_SIZE_MAX) {
        ++counts_.stray_lines;
        return;
    }
    line = without_trailing_blanks(line);
    if (is_stamped(line)) {
        take_stamped(line);
    } else if (line.starts_with(HEADER)) {
        take_header(line);
    } else if (line == BANNER) {
        begin_frame();
    } else if (!line.empty() && line != RULE) {
        take_other(line);
    }
}

// Whatever stands before it, a line is one of the tool's. A text that a modem has sent can look so,
// too; but then that modem could as well have sent the frame.
void Parser::take_other(std::string_view line)
{
    if (line.ends_with('}')) {
        take_record(line);
    } else if (const size_t at = find_stamp(line); at != std::string_view::npos) {
        take_stamped(line.substr(at));
    } else if (const size_t header = line.find(HEADER); header != std::string_view::npos) {
        take_header(line.substr(header));
    } else if (line.ends_with(BANNER)) {
        begin_frame();
    } else if (!line.ends_with(RULE)) {
        ++counts_.stray_lines;
    }
}

void Parser::take_record(std::string_view line)
{
    Event event;
    line.remove_prefix(std::min(line.find('{'), line.size()));
    switch (parse_record(line, record_, event)) {
    case Record::frame:
        handler_(record_);
        break;
    case Record::event:
        if (events_.handler) {
            events_.handler(event);
        }
        break;
    case Record::none:
        ++counts_.stray_lines;
        break;
    }
}

void Parser::begin_frame()
{
    if (stage_ != Stage::banner) {
        leave_frame();
    }
    stage_ = Stage::banner;
}

void Parser::take_stamped(std::string_view line)
{
    Trace trace{};
    trace.stamp = line.substr(0, STAMP_DIGITS);
    line.remove_prefix(STAMP_SIZE);
    if (events_.handler) {
        read_event(events_, time_of(trace.stamp), line);
    }
    if (!split_trace(line, trace)) {
        return;
    }
    if (trace.is_dump) {
        take_dump(trace);
    } else if (skip(trace.message, LENGTH)) {
        take_length(trace);
    } else if (skip(trace.message, ENDPOINT)) {
        take_endpoint(trace);
    }
}

// Most lines have the stamp of the line before.
int64_t Parser::time_of(std::string_view stamp)
{
    if (stamp != stamp_) {
        stamp_ = stamp;
        stamp_time_ = parse_stamp(stamp);
    }
    return stamp_time_;
}

void Parser::take_header(std::string_view line)
{
    if (stage_ == Stage::banner && parse_header(line, frame_)) {
        stage_ = Stage::header;
        header_ = line;
    } else if (stage_ != Stage::header || line != header_) {
        pass_over();
    }
}

void Parser::take_length(const Trace &trace)
{
    std::string_view text = trace.message;
    if (stage_ == Stage::data && trace.number == length_number_ && frame_.size == 0 &&
        text == std::to_string(announced_)) {
        return;
    }
    if (stage_ != Stage::header || !take_number(text, size_t{0}, FRAME_SIZE_MAX, announced_) ||
        !text.empty()) {
        pass_over();
        return;
    }
    stage_ = Stage::data;
    frame_.received = time_of(trace.stamp);
    length_number_ = trace.number;
    dump_number_ = 0;
    frame_.size = 0;
}

// Values of parameters are dumped by the same source, and at any time. The frame's dump is the
// first one behind the place in the source that told the length.
void Parser::take_dump(const Trace &trace)
{
    if (events_.value_due && trace.number != frame_dump_number_) {
        read_value(events_, trace.message);
    }
    if (stage_ != Stage::data || trace.number <= length_number_ ||
        (dump_number_ != 0 && trace.number > dump_number_)) {
        return;
    }
    if (trace.number != dump_number_) {
        dump_number_ = trace.number;
        dump_bad_ = false;
        frame_.size = 0;
    }
    const size_t room = announced_ - frame_.size;
    if (room == 0 && repeats_end(frame_, trace.message)) {
        return;
    }
    const size_t size = parse_bytes(trace.message, frame_.bytes + frame_.size, room);
    dump_bad_ = dump_bad_ || size > room;
    frame_.size += dump_bad_ ? 0 : size;
}

void Parser::take_endpoint(const Trace &trace)
{
    std::string_view text = trace.message;
    const std::string_view endpoint = text.substr(0, text.find(']'));
    text.remove_prefix(endpoint.size());
    if (stage_ != Stage::data || !skip(text, MODEM) ||
        !take_number(text, 0U, UINT32_MAX, frame_.modem, 16) || text != "]" ||
        !is_whole(trace, endpoint)) {
        pass_over();
        leave_frame();
        return;
    }
    stage_ = Stage::none;
    frame_dump_number_ = dump_number_;
    handler_(frame_);
}

// The endpoint is compared as well: where lines got lost, this one may be another frame's.
bool Parser::is_whole(const Trace &end, std::string_view endpoint) const
{
    uint8_t bytes[ENDPOINT_SIZE];
    const size_t size = parse_bytes(endpoint, bytes, sizeof bytes);
    const size_t expected =
        std::min(frame_.size - std::min(frame_.size, ENDPOINT_AT), sizeof bytes);
    return announced_ != 0 && frame_.size == announced_ && !dump_bad_ &&
           dump_number_ < end.number && size == expected &&
           memcmp(bytes, frame_.bytes + ENDPOINT_AT, size) == 0;
}

// A line of a frame that does not belong here: it spoils the frame that has begun, if one has.
void Parser::pass_over()
{
    if (stage_ == Stage::none) {
        ++counts_.stray_lines;
    } else {
        stage_ = Stage::spoiled;
    }
}

// What has not become a whole frame by now never will.
void Parser::leave_frame()
{
    if (stage_ != Stage::none) {
        ++counts_.broken_frames;
        stage_ = Stage::none;
    }
}

} // namespace frames
