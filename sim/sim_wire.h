// Bytes on the wire: little-endian fields, read through a cursor that cannot leave its payload.

#ifndef SIM_WIRE_H
#define SIM_WIRE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace sim
{

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;
using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

inline void append(Bytes &to, ByteView bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

// Appends the lowest width bytes of value, least significant first.
inline void put(Bytes &to, uint32_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i) {
        to.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// Reads fields in order. A field that does not fit reads as 0 and makes ok() false for good.
class Reader
{
public:
    explicit Reader(ByteView bytes) : m_bytes(bytes) {}

    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }
    uint32_t u32() { return number(4); }
    ByteView rest() const { return m_bytes; }
    bool ok() const { return m_ok; }

private:
    uint32_t number(size_t width)
    {
        if (width > m_bytes.size()) {
            m_ok = false;
            return 0;
        }
        uint32_t value = 0;
        for (size_t i = 0; i < width; ++i) {
            value |= static_cast<uint32_t>(m_bytes[i]) << (8 * i);
        }
        m_bytes = m_bytes.subspan(width);
        return value;
    }

    ByteView m_bytes;
    bool m_ok = true;
};

} // namespace sim

#endif
