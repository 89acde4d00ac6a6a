#include "sim_frames.h"

#include "sim_log.h"

#include <cctype>
#include <fstream>

namespace sim
{

namespace
{

constexpr uint8_t C_SEND_NO_REPLY = 0x44;
constexpr uint8_t CI_SHORT_HEADER = 0x7A;

struct Meter {
    char maker[4];
    uint32_t identification; // eight decimal digits, written as hexadecimal ones
    uint8_t version;
    uint8_t type;
    Bytes records;
};

uint32_t packed_maker(const char *letters)
{
    uint32_t packed = 0;
    for (int i = 0; i < 3; ++i) {
        packed = packed << 5 | static_cast<uint32_t>(letters[i] - '@');
    }
    return packed;
}

Bytes telegram(const Meter &meter, uint8_t access_number)
{
    Bytes frame{0, C_SEND_NO_REPLY};
    put(frame, packed_maker(meter.maker), 2);
    put(frame, meter.identification, 4);
    append(frame, Bytes{meter.version, meter.type, CI_SHORT_HEADER, access_number});
    append(frame, Bytes{0x00, 0x00, 0x00}); // no error, not encrypted
    append(frame, meter.records);
    frame[0] = static_cast<uint8_t>(frame.size() - 1);
    return frame;
}

int nibble(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

[[noreturn]] void refuse_line(const std::string &path, unsigned number, const std::string &why)
{
    throw FrameFileError(make_text("%s line %u: %s", path.c_str(), number, why.c_str()));
}

Bytes parse_line(const std::string &path, unsigned number, const std::string &line)
{
    Bytes frame;
    int high = -1;
    for (const char c : line.substr(0, line.find('#'))) {
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            continue;
        }
        const int value = nibble(c);
        if (value < 0) {
            refuse_line(path, number, make_text("'%c' is not a hexadecimal digit", c));
        }
        if (high < 0) {
            high = value;
            continue;
        }
        frame.push_back(static_cast<uint8_t>(high << 4 | value));
        high = -1;
    }
    if (high >= 0) {
        refuse_line(path, number, "odd number of hexadecimal digits");
    }
    if (frame.size() > FRAME_SIZE_MAX) {
        refuse_line(path, number, make_text("more than %zu bytes", FRAME_SIZE_MAX));
    }
    return frame;
}

} // namespace

std::vector<Bytes> built_in_frames()
{
    // A record is a data information byte (0x0C: eight digits, 0x04: 32 bits, 0x02: 16 bits, ...),
    // a value information byte (0x13: litres, 0x06: kWh, ...) and the value, lowest byte first.
    const Meter meters[] = {
        // water: 123,456 l, flow 0.250 m3/h
        {"AQA",
         0x10203040,
         0x01,
         0x07,
         {0x0C, 0x13, 0x56, 0x34, 0x12, 0x00, 0x0A, 0x3B, 0x50, 0x02}},
        // heat: 8,421 kWh, 61.5 and 43.2 degrees
        {"HOT",
         0x20230517,
         0x11,
         0x04,
         {0x0C, 0x06, 0x21, 0x84, 0x00, 0x00, 0x0A, 0x5A, 0x15, 0x06, 0x0A, 0x5E, 0x32, 0x04}},
        // electricity: 1,500,000 Wh, 350 W
        {"VLT",
         0x31415926,
         0x02,
         0x02,
         {0x04, 0x03, 0x60, 0xE3, 0x16, 0x00, 0x02, 0x2B, 0x5E, 0x01}},
        // gas: 4,711.08 m3
        {"GAZ", 0x47110815, 0x30, 0x03, {0x0C, 0x14, 0x08, 0x11, 0x47, 0x00}},
        // heat cost allocator: 1,024 units, 617 at the last due date
        {"ALC",
         0x55501234,
         0x09,
         0x08,
         {0x0B, 0x6E, 0x24, 0x10, 0x00, 0x4B, 0x6E, 0x17, 0x06, 0x00}},
        // room sensor: 21.35 degrees, 47 % humidity
        {"AIR", 0x60000007, 0x01, 0x1B, {0x02, 0x65, 0x57, 0x08, 0x01, 0xFB, 0x1B, 0x2F}},
        // warm water: 9,876 l, date 2026-02-14
        {"AQA",
         0x10203041,
         0x01,
         0x06,
         {0x0C, 0x13, 0x76, 0x98, 0x00, 0x00, 0x02, 0x6C, 0x4E, 0x32}},
    };
    std::vector<Bytes> frames;
    for (const Meter &meter : meters) {
        frames.push_back(telegram(meter, static_cast<uint8_t>(frames.size() + 1)));
    }
    return frames;
}

Bytes marked_frame(uint32_t serial, uint32_t run, uint32_t number)
{
    Bytes records{0x0F};
    put(records, serial, 4);
    put(records, run, 4);
    return telegram({"SIM", number, 0x01, 0x07, records}, static_cast<uint8_t>(number));
}

std::vector<Bytes> load_frames(const std::string &path)
{
    std::ifstream file(path);
    if (!file) {
        throw FrameFileError(path + ": cannot be opened");
    }
    std::vector<Bytes> frames;
    std::string line;
    for (unsigned number = 1; std::getline(file, line); ++number) {
        Bytes frame = parse_line(path, number, line);
        if (frame.empty()) {
            continue;
        }
        if (frame[0] != frame.size() - 1) {
            log_event("sim", "%s line %u: length byte says %u, %zu bytes follow; sent as it is",
                      path.c_str(), number, frame[0], frame.size() - 1);
        }
        frames.push_back(std::move(frame));
    }
    if (file.bad() || !file.eof()) {
        throw FrameFileError(path + ": cannot be read");
    }
    if (frames.empty()) {
        throw FrameFileError(path + ": holds no frame");
    }
    return frames;
}

} // namespace sim
