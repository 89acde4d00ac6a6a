// Frames of which none is like another, and the file of those that the gateway acknowledged.

#ifndef SIM_RECORDER_H
#define SIM_RECORDER_H

#include "sim_modem.h"
#include "sim_wire.h"

#include <string>

namespace sim
{

// Shared by all modems of the process.
class Recorder
{
public:
    // No file: it is not wanted. Throws std::runtime_error.
    explicit Recorder(const std::string &path);

    bool wanted() const { return m_wanted; }

    // The number-th frame of the modem, unlike any frame of another modem or another run.
    Bytes frame(uint32_t serial, uint32_t number) const;

    // Appends the frame as a line of hexadecimal digits. False when the file takes no more.
    bool append(ByteView frame);

private:
    const bool m_wanted;
    const uint32_t m_run; // a random number
    Collector m_file;
};

} // namespace sim

#endif
