// What the filter reads. However the input is cut, the same records come out of it.
#include "support.h"
#include "wmbusctl_frames_records.h"

void fuzz(FuzzedDataProvider &&input)
{
    size_t cut = input.ConsumeIntegral<uint16_t>();
    const std::string text = input.ConsumeRemainingBytesAsString();
    frames::Filter filter;
    set_endpoint(filter, text);
    std::string out[2];
    for (std::string &records : out) {
        frames::Parser parser([&records, &filter](const frames::Frame &frame) {
            const auto format = matches(filter, frame) ? frames::Format::csv : frames::Format::json;
            append_record(records, format, frame);
        });
        parser.feed(text.substr(0, cut));
        parser.feed(text.substr(std::min(cut, text.size())));
        parser.finish();
        records += std::to_string(parser.counts().broken_frames + parser.counts().stray_lines);
        cut = 0;
    }
    assert(out[0] == out[1]);
}
