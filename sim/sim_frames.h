// The wireless M-Bus frames that a simulated modem claims to have received.

#ifndef SIM_FRAMES_H
#define SIM_FRAMES_H

#include "sim_wire.h"

#include <stdexcept>
#include <string>

namespace sim
{

// The largest frame a file may hold; a radio frame has at most 256 bytes.
constexpr size_t FRAME_SIZE_MAX = 512;

struct FrameFileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One frame of each kind of meter this program knows.
std::vector<Bytes> built_in_frames();

// A frame that holds these three numbers: the last one as the meter's identification, the others as
// the manufacturer's own data.
Bytes marked_frame(uint32_t serial, uint32_t run, uint32_t number);

// The frames of a file, one a line as hexadecimal digits; blanks between bytes, blank lines and
// everything behind a '#' are skipped. Throws FrameFileError with the line's number.
std::vector<Bytes> load_frames(const std::string &path);

} // namespace sim

#endif
