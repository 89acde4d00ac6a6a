#include "sim_recorder.h"

#include "sim_frames.h"
#include "sim_log.h"

#include <random>

namespace sim
{

Recorder::Recorder(const std::string &path)
    : m_wanted(!path.empty()), m_run(std::random_device{}()), m_file(path)
{
}

Bytes Recorder::frame(uint32_t serial, uint32_t number) const
{
    return marked_frame(serial, m_run, number);
}

bool Recorder::append(ByteView frame)
{
    std::string line;
    for (const uint8_t byte : frame) {
        line += make_text("%02X", byte);
    }
    line += '\n';
    return m_file.append({reinterpret_cast<const uint8_t *>(line.data()), line.size()});
}

} // namespace sim
