// The modem's state, its receivers and counters.

#include "sim_modem.h"

#include "sim_log.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>

namespace sim
{

namespace
{

constexpr uint32_t LAN_PROTOCOL = 1;
constexpr uint32_t HARDWARE_VERSION = 0x0102;
constexpr uint32_t SOFTWARE_VERSION = 0x0203;
constexpr uint8_t MODEM_TYPE = 1;
constexpr uint8_t MODEM_LOCATION = 0;
constexpr uint8_t WAKEUP_POWER_ON = 1;
constexpr uint8_t FIRST_RECEIVER_ID = 0x11;
constexpr uint8_t DEFAULT_MODE = 1;

constexpr uint32_t FREQUENCY = 868950000;
constexpr uint32_t SIGNAL_BEST = 58;
constexpr uint32_t SIGNAL_SPREAD = 37;
constexpr int OFFSET_SPREAD = 1500;

} // namespace

Collector::Collector(const std::string &path)
{
    if (path.empty()) {
        return;
    }
    m_file = Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!m_file) {
        throw std::runtime_error(path + ": " + std::generic_category().message(errno));
    }
}

bool Collector::append(ByteView bytes)
{
    while (m_file && !bytes.empty()) {
        const ssize_t written = write(m_file.get(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return true;
}

Modem::Modem(const Options &options, uint32_t serial, Collector &collector)
    : m_options(options), m_collector(collector), m_serial(serial), m_name(make_text("%x", serial))
{
    set_defaults();
}

void Modem::set_defaults()
{
    m_parameters = {
        {0x0100, {'s', 'i', 'm'}},
        {0x0101, {0x0A, 0x00}},
        {0x0102, {27}},
        {0x0200, {0x66, 0x0D, 0xCB, 0x33}},
    };
    m_receivers = {};
    for (size_t i = 0; i < m_options.receivers; ++i) {
        m_receivers[i].mode = DEFAULT_MODE;
        m_receivers[i].channel = static_cast<uint8_t>(i + 1);
    }
}

void Modem::restart()
{
    log_event(m_name, "starts anew");
    set_defaults();
    m_state = State::ready;
    m_started = Clock::now();
    m_install_end.reset();
    m_announcement_wanted = true;
}

Bytes Modem::info() const
{
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    Bytes info;
    put(info, LAN_PROTOCOL, 4);
    put(info, m_serial, 4);
    put(info, static_cast<uint32_t>(now), 4);
    put(info, HARDWARE_VERSION, 2);
    put(info, SOFTWARE_VERSION, 2);
    append(info, Bytes{MODEM_TYPE, MODEM_LOCATION, static_cast<uint8_t>(m_state), WAKEUP_POWER_ON,
                       m_options.receivers});
    for (uint8_t i = 0; i < m_options.receivers; ++i) {
        info.push_back(static_cast<uint8_t>(FIRST_RECEIVER_ID + i));
    }
    return info;
}

bool Modem::any_active_receiver() const
{
    return std::any_of(m_receivers.begin(), m_receivers.end(),
                       [](const Receiver &receiver) { return receiver.active(); });
}

bool Modem::hears() const
{
    return m_options.always || (m_state == State::running && any_active_receiver());
}

size_t Modem::next_receiver()
{
    for (size_t step = 1; step <= m_receivers.size(); ++step) {
        const size_t candidate = (m_last_receiver + step) % m_receivers.size();
        if (m_receivers[candidate].active()) {
            return candidate;
        }
    }
    return 0;
}

Bytes Modem::receive(const Bytes &frame)
{
    m_last_receiver = m_received == 0 && m_receivers[0].active() ? 0 : next_receiver();
    ++m_received;
    Receiver &receiver = m_receivers[m_last_receiver];
    receiver.frames = static_cast<uint16_t>(std::min(receiver.frames + 1, 0xFFFF));
    receiver.signal = static_cast<uint8_t>(SIGNAL_BEST + m_received * 7 % SIGNAL_SPREAD);
    const int offset = static_cast<int>(m_received % 13) * OFFSET_SPREAD / 12 - OFFSET_SPREAD / 2;

    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<Milliseconds>(now).count();
    Bytes report;
    put(report, FREQUENCY, 4);
    put(report, static_cast<uint32_t>(milliseconds / 1000), 4);
    put(report, static_cast<uint32_t>(milliseconds % 1000), 2);
    put(report, static_cast<uint32_t>(offset), 2);
    put(report, static_cast<uint32_t>(frame.size()), 2);
    append(report, Bytes{receiver.signal, receiver.mode, static_cast<uint8_t>(m_last_receiver)});
    append(report, frame);
    return report;
}

void Modem::enter(State state)
{
    if (state != m_state) {
        m_state = state;
        m_announcement_wanted = true;
        log_event(m_name, "is %s now", state_name());
    }
}

const char *Modem::state_name() const
{
    return m_state == State::running ? "RUNNING" : "READY";
}

bool Modem::take_announcement_wish()
{
    return std::exchange(m_announcement_wanted, false);
}

Bytes Modem::finish_install()
{
    m_install_end.reset();
    log_event(m_name, "installation of %s ended: %s", m_firmware.c_str(),
              m_options.install_ok ? "OK" : "KO");
    return Bytes{static_cast<uint8_t>(m_options.install_ok ? 1 : 0)};
}

} // namespace sim
