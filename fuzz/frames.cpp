// What the filter reads, with the options it is given. However the input is cut, the same comes out
// of it: printable text, whose records are the same when they are read again.
#include "support.h"
#include "wmbusctl_frames_records.h"
#include "wmbusctl_frames_table.h"
#include "wmbusctl_frames_unique.h"

#include <algorithm>

namespace
{
using namespace frames;

struct Settings {
    Format format;
    uint32_t unique;
    Filter filter;
    Window window;
};

std::string run(const Settings &settings, std::string_view text, size_t cut)
{
    const Format format = settings.format;
    std::string out;
    Table table;
    Unique unique{};
    if (settings.unique != 0) {
        assert(prepare_unique(unique, settings.unique));
    }
    const auto take_frame = [&](const Frame &frame) {
        const bool is_wanted = matches(settings.filter, frame);
        if (is_wanted && (settings.unique == 0 || is_new(unique, frame))) {
            add_frame(table, frame);
            append_record(out, format, frame);
        } else if (is_wanted) {
            add_repeated(table, frame);
        }
    };
    const EventHandler take_event = [&](const Event &event) {
        out += matches(settings.filter, event) ? std::string(event.record) + '\n' : "";
    };
    Parser parser(take_frame, format == Format::events ? take_event : nullptr);
    parser.feed(text.substr(0, cut));
    parser.feed(text.substr(cut));
    parser.finish();
    if (format == Format::table) {
        out = table_text(table, settings.window);
    }
    assert(std::all_of(out.begin(), out.end(),
                       [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
    return out;
}
} // namespace

void fuzz(FuzzedDataProvider &&input)
{
    Settings settings{};
    const size_t cut = input.ConsumeIntegral<uint16_t>();
    const auto choice = input.ConsumeIntegral<uint8_t>();
    settings.format = static_cast<Format>(choice % 6);
    settings.unique = choice & 0x80 ? choice : 0;
    settings.window = {size_t{choice} / 2, size_t{choice} % 16};
    const std::string text = input.ConsumeRemainingBytesAsString();
    if (choice & 0x40) {
        set_modem(settings.filter, text.substr(0, 4));
    }
    set_endpoint(settings.filter, text);
    const std::string out = run(settings, text, std::min(cut, text.size()));
    assert(out == run(settings, text, 0));
    if (settings.format == Format::json || settings.format == Format::events) {
        assert(out == run(settings, out, 0));
    }
}
