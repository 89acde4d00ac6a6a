#include "sim_noise.h"

#include <algorithm>
#include <string_view>

namespace sim
{

namespace
{

// First byte of a message without a token: version 1 and the type.
constexpr uint8_t CONFIRMABLE = 0x40;
constexpr uint8_t NON_CONFIRMABLE = 0x50;
constexpr uint8_t ACKNOWLEDGEMENT = 0x60;

constexpr uint8_t GET = 1;
constexpr uint8_t POST = 2;
constexpr uint8_t PUT = 3;
constexpr uint8_t VALID = 0x43;

constexpr size_t RANDOM_SIZE_MAX = 100;
constexpr uint32_t SERIALS = 9;
constexpr uint32_t CHANGES_MAX = 4;
constexpr size_t CHANGE_SIZE_MAX = 8;

Bytes bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}

void append_path(Bytes &message, std::string_view path)
{
    constexpr size_t LENGTH_IN_BYTE = 13; // a longer segment has its length in a byte of its own
    size_t delta = 11;                    // Uri-Path, once a segment
    while (!path.empty()) {
        const std::string_view segment = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(segment.size() + 1, path.size()));
        const size_t length = std::min(segment.size(), LENGTH_IN_BYTE);
        message.push_back(static_cast<uint8_t>(delta << 4 | length));
        if (length == LENGTH_IN_BYTE) {
            message.push_back(static_cast<uint8_t>(segment.size() - LENGTH_IN_BYTE));
        }
        append(message, bytes_of(segment));
        delta = 0;
    }
}

Bytes message(uint8_t type, uint8_t code, uint8_t id, std::string_view token, std::string_view path,
              const Bytes &payload)
{
    Bytes result{static_cast<uint8_t>(type | token.size()), code, 0, id};
    append(result, bytes_of(token));
    append_path(result, path);
    if (!payload.empty()) {
        result.push_back(0xFF);
        append(result, payload);
    }
    return result;
}

Bytes info(uint32_t serial)
{
    Bytes payload;
    put(payload, 1, 4); // protocol
    put(payload, serial, 4);
    append(payload, Bytes{0x00, 0xE1, 0xF5, 0x05, 2, 1, 4, 3, 5, 6, 1, 7, 2, 0x10, 0xA1});
    return payload;
}

Bytes frame_report(uint32_t identification)
{
    Bytes frame{0x0C, 0x44, 0x93, 0x15};
    put(frame, identification, 4);
    append(frame, Bytes{0x01, 0x07, 0x7A, 0x00});
    Bytes payload{0xF0, 0x1F, 0xCB, 0x33, 10, 0, 0, 0, 7, 0, 0xFB, 0xFF};
    put(payload, static_cast<uint32_t>(frame.size()), 2);
    append(payload, Bytes{0x50, 3, 1});
    append(payload, frame);
    return payload;
}

} // namespace

Bytes Noise::random_bytes(size_t size)
{
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<uint8_t>(m_random()); });
    return bytes;
}

Bytes Noise::valid_datagram()
{
    switch (below(6)) {
    case 0:
        return message(CONFIRMABLE, PUT, 1, "to", "rx_msg_req", frame_report(below(100)));
    case 1:
        return message(NON_CONFIRMABLE, POST, 2, "", "info_ind", info(m_serial + below(SERIALS)));
    case 2:
        return message(CONFIRMABLE, POST, 3, "t", "firmware_install_ind", {1});
    case 3:
        return message(CONFIRMABLE, GET, 4, "token", ".well-known/core", {});
    case 4:
        return message(ACKNOWLEDGEMENT, VALID, 5, "", "", bytes_of("payload"));
    default:
        return random_bytes(below(RANDOM_SIZE_MAX));
    }
}

void Noise::mutate(Bytes &datagram)
{
    const size_t at = below(datagram.size() + 1);
    const auto begin = datagram.begin() + static_cast<std::ptrdiff_t>(at);
    const size_t out = std::min<size_t>(below(CHANGE_SIZE_MAX), datagram.size() - at);
    const Bytes in = random_bytes(below(CHANGE_SIZE_MAX));
    const auto place = datagram.erase(begin, begin + static_cast<std::ptrdiff_t>(out));
    datagram.insert(place, in.begin(), in.end());
    if (below(4) == 0) {
        datagram.resize(at);
    }
}

Bytes Noise::next()
{
    Bytes datagram = valid_datagram();
    for (uint32_t changes = below(CHANGES_MAX) + 1; changes > 0; --changes) {
        mutate(datagram);
    }
    return datagram;
}

} // namespace sim
