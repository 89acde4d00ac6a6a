// The modem itself: its state, and what each request of the LAN protocol does to it. It knows
// nothing of sockets; what it has to send by itself is picked up by its reports.

#ifndef SIM_MODEM_H
#define SIM_MODEM_H

#include "sim_faults.h"
#include "sim_options.h"
#include "sim_sockets.h"
#include "sim_wire.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace sim
{

// A file that takes frames, such as those of every tx_msg_req; shared by all modems of the process.
class Collector
{
public:
    // No file: everything appended is dropped. Throws std::runtime_error.
    explicit Collector(const std::string &path);

    // False when the file takes no more.
    bool append(ByteView bytes);

private:
    Descriptor m_file;
};

class Modem
{
public:
    struct Resource {
        const char *name;
        coap_request_t method;
        Answer (Modem::*act)(ByteView payload);
    };
    static const std::array<Resource, 11> RESOURCES;

    Modem(const Options &options, uint32_t serial, Collector &collector);

    uint32_t serial() const { return m_serial; }
    const std::string &name() const { return m_name; }

    // Carries a request out and logs it.
    Answer act(const Resource &resource, ByteView payload);

    // The payload of info_ind and of the answer to info_req.
    Bytes info() const;

    // The payload of rx_msg_req: the frame as the next of the active receivers took it.
    Bytes receive(const Bytes &frame);

    // Starts anew: READY, with receivers and parameters as at first, and wants to announce it.
    void restart();

    // Whether frames may be reported now.
    bool hears() const;

    // Whether an announcement is wanted at once; asking takes the wish back.
    bool take_announcement_wish();

    // When the running firmware installation ends, if one runs.
    std::optional<Time> install_end() const { return m_install_end; }

    // Ends the installation; the payload of firmware_install_ind.
    Bytes finish_install();

private:
    enum class State : uint8_t { ready = 1, running = 2 };

    struct Receiver {
        uint8_t mode = 0;
        uint8_t channel = 0;
        uint16_t frames = 0;
        uint8_t signal = 0;

        bool active() const { return mode != 0 || channel != 0; }
    };

    Answer command(ByteView payload);
    Answer rx_mode_config(ByteView payload);
    Answer rx_ext_config(ByteView payload);
    Answer tx_msg(ByteView payload);
    Answer tx_msg_ext(ByteView payload);
    Answer set_parameter(ByteView payload);
    Answer get_parameter(ByteView payload);
    Answer statistics(ByteView payload);
    Answer info_answer(ByteView payload);
    Answer log_text(ByteView payload);
    Answer firmware_upgrade(ByteView payload);

    void set_defaults();
    void enter(State state);
    const char *state_name() const;
    bool any_active_receiver() const;
    size_t next_receiver();
    void check_firmware_file(const std::string &name, uint32_t size) const;

    const Options &m_options;
    Collector &m_collector;
    const uint32_t m_serial;
    const std::string m_name;
    Time m_started = Clock::now();
    State m_state = State::ready;
    std::array<Receiver, 7> m_receivers{};
    size_t m_last_receiver = 0;
    uint32_t m_received = 0;
    uint32_t m_transmitted = 0;
    std::map<uint16_t, Bytes> m_parameters;
    bool m_announcement_wanted = false;
    std::optional<Time> m_install_end;
    std::string m_firmware;
};

} // namespace sim

#endif
