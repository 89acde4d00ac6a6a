// Finds the radio frames in what wmbusctl prints.
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
// Memory is bounded: one line and one frame are kept, whatever comes in.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace frames
{

constexpr size_t FRAME_SIZE_MAX = 65535; // the announced length has 16 bits
constexpr size_t LINE_SIZE_MAX = 1023;   // of what the tool prints, without the newline

struct Frame {
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

struct Counts {
    uint64_t broken_frames; // begun, but cut off, or not of the announced length
    uint64_t stray_lines;   // not the tool's, or a frame's without its banner
};

// A line from where the tool prints frames.
struct Trace {
    bool is_dump;
    unsigned number; // of the line in the source
    std::string_view message;
};

class Parser
{
public:
    explicit Parser(FrameHandler handler) : handler_(std::move(handler)) {}

    // Takes the next bytes, cut anywhere, and calls the handler for every frame that they complete.
    void feed(std::string_view bytes);
    // The input ends here; a line without newline counts as one.
    void finish();

    const Counts &counts() const { return counts_; }

private:
    enum class Stage { none, banner, header, data, spoiled };

    void keep_rest(std::string_view bytes);
    void take_line(std::string_view line);
    void take_header(std::string_view line);
    void take_stamped(std::string_view line);
    void take_length(const Trace &trace);
    void take_dump(const Trace &trace);
    void take_endpoint(const Trace &trace);
    bool is_whole(const Trace &end, std::string_view endpoint) const;
    void pass_over();
    void leave_frame();

    FrameHandler handler_;
    Counts counts_{};
    std::string rest_; // of a line whose end is still to come

    Stage stage_ = Stage::none;
    Frame frame_{};
    size_t announced_ = 0;
    unsigned length_number_ = 0; // source lines that the length and the dump come from
    unsigned dump_number_ = 0;
    bool dump_bad_ = false;
};

// Reads digits in pairs, with any blanks and slashes between the pairs: "21 06 / 40". At most
// limit bytes are written; returns how many, or limit + 1 when there are more or the text is none.
size_t parse_bytes(std::string_view text, uint8_t *bytes, size_t limit);

} // namespace frames
