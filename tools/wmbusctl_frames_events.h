// What modems tell beside frames, as it stands in single lines of wmbusctl's output.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace frames
{

struct Event {
    std::optional<uint32_t> modem; // serial number, where it is known
    std::string_view record;       // a JSON object in printable ASCII
};

// Called with each event, which is valid until it returns.
using EventHandler = std::function<void(const Event &event)>;

struct EventReader {
    EventHandler handler; // none: events are passed over

    std::optional<uint32_t> acting; // the modem that requests go to
    bool value_due = false;         // a parameter's value is to come
    uint32_t parameter = 0;
    size_t announced = 0; // bytes of the value, and how many of them the tool has got
    size_t value_size = 0;
    int64_t value_received = 0;
    std::string record;
};

// Takes a line of the tool, without its stamp, whose time is in seconds.
void read_event(EventReader &reader, int64_t received, std::string_view line);
// Takes what the tool has dumped, where it may be the value of a parameter.
void read_value(EventReader &reader, std::string_view digits);

} // namespace frames
