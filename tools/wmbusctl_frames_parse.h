// Finds the radio frames in what wmbusctl prints, and in records of frames.
//
//   20261122-212040:DEBUG:app_lan:193:
//   ################
//    PACKET RECEIVED
//   ################
//    RTC:1795382440,119, FREQ:868950000, RSSI:-65, FREQ_OFFSET:-625, RF_MOD:1, RF_RECEIVER:0
//   20261122-212040:DEBUG:app_lan:202:WMBUS Data len : 25
//   20261122-212040:DUMP:app_lan:209:18 44 21 06 40 30 20 10 01 07 7A 01 ...
//   20261122-212040:DEBUG:app_lan:212:Receive RF frame from EndPoint [21 06 / ...] on modem
//   [a1b2c3]
//
// The EndPoint line is the first to name the modem and ends the frame. One thread of the tool
// prints all frames, one after the other; lines of its other threads may come between these, whole.
// What a journal or a log puts before each line does not matter, nor do blanks and a carriage
// return at its end; a journal also gives a line twice where it goes on in another file. A line may
// also be a JSON record as written for a frame or an event. Memory is bounded: one line, one frame
// and one event are kept, whatever comes in.

#pragma once

#include "wmbusctl_frames_events.h"
#include "wmbusctl_frames_time.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace frames
{

constexpr size_t FRAME_SIZE_MAX = 65535; // the announced length has 16 bits
constexpr size_t LINE_SIZE_MAX = 1023;   // of what the tool prints, without the newline
constexpr size_t RECORD_SIZE_MAX = 2 * FRAME_SIZE_MAX + 1024; // of a line that is a JSON record

struct Frame {
    int64_t received;      // seconds since 1970 by the gateway's clock; TIME_UNKNOWN: not known
    uint32_t seconds;      // time of reception since 1970, by the modem's clock
    uint32_t milliseconds; // 0 to 65535, as the modem tells it
    uint32_t modem;        // serial number; 0: not known
    uint32_t frequency;
    int frequency_offset;
    int rssi; // 0 to -255
    unsigned mode;
    unsigned receiver;
    size_t size; // 1 to FRAME_SIZE_MAX
    uint8_t bytes[FRAME_SIZE_MAX];
};

// Called with each whole frame, which is valid until it returns.
using FrameHandler = std::function<void(const Frame &frame)>;

// The modem's own check: a frame begins with the number of the bytes that follow.
bool is_length_ok(const Frame &frame);

struct Counts {
    uint64_t broken_frames; // begun, but cut off, or not of the announced length
    uint64_t stray_lines;   // not the tool's, or a frame's without its banner
};

// A line from where the tool prints frames.
struct Trace {
    bool is_dump;
    unsigned number; // of the line in the source
    std::string_view stamp;
    std::string_view message;
};

class Parser
{
public:
    // Without a handler of events they are passed over.
    explicit Parser(FrameHandler frame_handler, EventHandler event_handler = nullptr)
        : handler_(std::move(frame_handler))
    {
        events_.handler = std::move(event_handler);
    }

    // Takes the next bytes, cut anywhere, and calls the handlers for all that they complete.
    void feed(std::string_view bytes);
    // A file ends here; a line without newline counts as one. A frame may go on in the next file.
    void end_file();
    // The input ends here.
    void finish();

    const Counts &counts() const { return counts_; }

private:
    enum class Stage { none, banner, header, data, spoiled };

    void keep_rest(std::string_view bytes);
    void take_line(std::string_view line);
    void take_other(std::string_view line);
    void take_record(std::string_view line);
    void begin_frame();
    void take_header(std::string_view line);
    void take_stamped(std::string_view line);
    int64_t time_of(std::string_view stamp);
    void take_length(const Trace &trace);
    void take_dump(const Trace &trace);
    void take_endpoint(const Trace &trace);
    bool is_whole(const Trace &end, std::string_view endpoint) const;
    void pass_over();
    void leave_frame();

    FrameHandler handler_;
    EventReader events_;
    Counts counts_{};
    std::string stamp_; // the last one that was read, and what it says
    int64_t stamp_time_ = TIME_UNKNOWN;
    std::string rest_; // of a line whose end is still to come

    Stage stage_ = Stage::none;
    std::string header_;
    Frame frame_{};
    size_t announced_ = 0;
    unsigned length_number_ = 0; // source lines that the length and the dump come from
    unsigned dump_number_ = 0;
    unsigned frame_dump_number_ = 0; // of the last whole frame; 0: there was none
    bool dump_bad_ = false;
    Frame record_{}; // the last one that came as a record
};

// Reads digits in pairs, with any blanks and slashes between the pairs: "21 06 / 40". At most
// limit bytes are written; returns how many, or limit + 1 when there are more or the text is none.
size_t parse_bytes(std::string_view text, uint8_t *bytes, size_t limit);

} // namespace frames
