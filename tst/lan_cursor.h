// Cursors over the packed little-endian payloads of the LAN protocol. Running past the end is
// never an access: a reader then gives 0, a writer drops the bytes and remembers that it overran.

#ifndef LAN_CURSOR_H
#define LAN_CURSOR_H

#include <cstdint>
#include <cstring>

struct LanReader {
    const uint8_t *next;
    uint32_t left;
};

// The next bytes, at most count: their address, with *taken the number that is there.
inline const uint8_t *lan_take(LanReader *reader, uint32_t count, uint32_t *taken)
{
    const uint8_t *bytes = reader->next;
    *taken = count < reader->left ? count : reader->left;
    if (*taken != 0) {
        reader->next += *taken;
        reader->left -= *taken;
    }
    return bytes;
}

inline uint32_t lan_read_little_endian(LanReader *reader, uint32_t width)
{
    uint32_t taken = 0;
    const uint8_t *bytes = lan_take(reader, width, &taken);
    if (taken != width) {
        return 0;
    }
    uint32_t value = 0;
    for (uint32_t i = 0; i < width; ++i) {
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

inline uint8_t lan_read_u8(LanReader *reader)
{
    return static_cast<uint8_t>(lan_read_little_endian(reader, 1));
}

inline uint16_t lan_read_u16(LanReader *reader)
{
    return static_cast<uint16_t>(lan_read_little_endian(reader, 2));
}

inline uint32_t lan_read_u32(LanReader *reader)
{
    return lan_read_little_endian(reader, 4);
}

struct LanWriter {
    uint8_t *next;
    uint32_t room;
    bool overrun;
};

inline void lan_write_bytes(LanWriter *writer, const void *bytes, uint32_t count)
{
    if (count > writer->room) {
        writer->overrun = true;
    } else if (count != 0) {
        memcpy(writer->next, bytes, count);
        writer->next += count;
        writer->room -= count;
    }
}

inline void lan_write_u8(LanWriter *writer, uint8_t value)
{
    lan_write_bytes(writer, &value, 1);
}

inline void lan_write_u16(LanWriter *writer, uint16_t value)
{
    const uint8_t bytes[] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    lan_write_bytes(writer, bytes, sizeof bytes);
}

inline void lan_write_u32(LanWriter *writer, uint32_t value)
{
    const uint8_t bytes[] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                             static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    lan_write_bytes(writer, bytes, sizeof bytes);
}

#endif
