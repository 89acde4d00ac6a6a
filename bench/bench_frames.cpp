#include "bench_load.h"
#include "bench_wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace bench
{

namespace
{

using std::chrono::milliseconds;

constexpr uint32_t ANNOUNCEMENT = UINT32_MAX; // its token
constexpr uint32_t WARM_UP = 1000;            // frames before those that are measured
constexpr milliseconds LOST_AFTER{3000};
constexpr milliseconds ACTION_TIME{1500}; // the tool looks for its modem every half second

struct Answer {
    uint32_t token;
    unsigned code;
};

// The sockets of a modem, one a source port; reports go out of them in turn.
class Modem
{
public:
    explicit Modem(uint32_t sources)
    {
        for (uint32_t i = 0; i < sources; ++i) {
            m_sockets.push_back({open_socket(i == 0 ? COAP_PORT : 0), POLLIN, 0});
        }
    }
    Modem(const Modem &) = delete;
    Modem &operator=(const Modem &) = delete;
    ~Modem()
    {
        for (const pollfd &socket : m_sockets) {
            close(socket.fd);
        }
    }

    // False while the receiver has no room for it, or is not there yet.
    bool send(uint32_t turn, const std::string &message)
    {
        const int descriptor = m_sockets[turn % m_sockets.size()].fd;
        const auto sent = ::sendto(descriptor, message.data(), message.size(), 0,
                                   reinterpret_cast<const sockaddr *>(&m_tool), sizeof m_tool);
        return sent == static_cast<ssize_t>(message.size());
    }

    // Waits for answers and for output of the program, and takes all that is there.
    std::vector<Answer> receive(Process &process, milliseconds patience)
    {
        std::vector<pollfd> ready = m_sockets;
        ready.push_back({process.output(), POLLIN, 0});
        std::vector<Answer> answers;
        if (poll(ready.data(), ready.size(), static_cast<int>(patience.count())) > 0) {
            process.read_output();
            for (const pollfd &socket : ready) {
                if (socket.fd != process.output() && socket.revents != 0) {
                    take(socket.fd, answers);
                }
            }
        }
        return answers;
    }

private:
    static void take(int descriptor, std::vector<Answer> &answers)
    {
        std::array<char, 2048> message;
        ssize_t size = 0;
        while ((size = recv(descriptor, message.data(), message.size(), 0)) > 0) {
            Answer answer{0, static_cast<uint8_t>(message[1])};
            if (read_token({message.data(), static_cast<size_t>(size)}, &answer.token)) {
                answers.push_back(answer);
            }
        }
    }

    std::vector<pollfd> m_sockets;
    sockaddr_in m_tool = tool_address();
};

// Announces the modem until the program answers, and waits until it has done its action.
void announce(Modem &modem, Process &process)
{
    for (int attempt = 0; attempt < 1000; ++attempt) {
        process.must_run();
        modem.send(0, request(Type::non_confirmable, POST, ANNOUNCEMENT, "info_ind",
                              information(0xA1B2C3)));
        for (const Answer &answer : modem.receive(process, milliseconds(10))) {
            if (answer.token == ANNOUNCEMENT) {
                std::this_thread::sleep_for(ACTION_TIME);
                process.wait_until_quiet();
                return;
            }
        }
    }
    throw std::runtime_error("the program does not answer");
}

struct Counts {
    uint32_t sent = 0;
    uint32_t answered = 0;
    uint32_t refused = 0; // by another class of answers than 2
    uint32_t lost = 0;
    std::vector<double> answer_us;
};

// Keeps the window full until as many frames as wanted have been settled.
class Load
{
public:
    Load(const Options &options, Modem &modem, Process &process)
        : m_options(options), m_modem(modem), m_process(process)
    {
    }

    // rate: frames a second at most, 0: no limit.
    Counts run(uint32_t count, double rate)
    {
        Counts counts;
        m_start = Clock::now();
        m_rate = rate;
        while (counts.sent < count || !m_open.empty()) {
            fill_window(count, counts);
            for (const Answer &answer : m_modem.receive(m_process, milliseconds(1))) {
                settle(answer, counts);
            }
            give_up(counts);
        }
        return counts;
    }

private:
    bool is_due(uint32_t sent) const
    {
        const std::chrono::duration<double> passed = Clock::now() - m_start;
        return m_rate == 0 || sent < passed.count() * m_rate;
    }

    // Confirmable frames replace each answer by the next; the others go out in bursts.
    void fill_window(uint32_t count, Counts &counts)
    {
        if (!m_options.confirmable && !m_open.empty()) {
            return;
        }
        const Type type = m_options.confirmable ? Type::confirmable : Type::non_confirmable;
        while (m_open.size() < m_options.window && counts.sent < count && is_due(counts.sent)) {
            const uint32_t token = m_next++;
            m_open[token] = Clock::now();
            ++counts.sent;
            m_modem.send(token,
                         request(type, PUT, token, "rx_msg_req", frame(token, m_options.payload)));
        }
    }

    void settle(const Answer &answer, Counts &counts)
    {
        const auto open = m_open.find(answer.token);
        if (open == m_open.end()) {
            return;
        }
        const std::chrono::duration<double, std::micro> time = Clock::now() - open->second;
        counts.answer_us.push_back(time.count());
        ++(answer.code >> 5U == 2 ? counts.answered : counts.refused);
        m_open.erase(open);
    }

    void give_up(Counts &counts)
    {
        while (!m_open.empty() && Clock::now() - m_open.begin()->second > LOST_AFTER) {
            m_open.erase(m_open.begin());
            ++counts.lost;
        }
    }

    const Options &m_options;
    Modem &m_modem;
    Process &m_process;
    std::map<uint32_t, Clock::time_point> m_open;
    uint32_t m_next = 0;
    Clock::time_point m_start;
    double m_rate = 0;
};

double percentile(std::vector<double> &values, double part)
{
    if (values.empty()) {
        return 0;
    }
    const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<size_t>(at)];
}

} // namespace

void measure_frames(const Options &options)
{
    Modem modem(options.sources);
    Process process(options.program, options.output);
    announce(modem, process);
    Load load(options, modem, process);
    const uint32_t warm_up = std::max(WARM_UP, options.sources);
    const uint64_t bytes_before = process.output_bytes();
    load.run(warm_up, 0);
    const uint64_t cpu_before = process.wait_until_quiet();
    const uint64_t warm_bytes = process.output_bytes() - bytes_before;
    printf("warm_peak_kb %lu\n", process.peak_kb());
    const auto begin = Clock::now();
    Counts counts = load.run(options.count, options.rate);
    const std::chrono::duration<double> seconds = Clock::now() - begin;
    const auto cpu = static_cast<double>(process.wait_until_quiet() - cpu_before);
    printf("sent %u\nanswered %u\nrefused %u\nlost %u\nseconds %.3f\n", counts.sent,
           counts.answered, counts.refused, counts.lost, seconds.count());
    if (warm_bytes != 0) { // every frame gives as many bytes
        const uint64_t bytes = process.output_bytes() - bytes_before - warm_bytes;
        printf("unwritten %ld\n", lround(options.count - static_cast<double>(bytes) * warm_up /
                                                             static_cast<double>(warm_bytes)));
    }
    printf("cpu_us %.3f\nanswer_p50_us %.1f\nanswer_p99_us %.1f\npeak_kb %lu\n",
           cpu / 1000 / options.count, percentile(counts.answer_us, 0.5),
           percentile(counts.answer_us, 0.99), process.peak_kb());
}

void measure_latency(const Options &options)
{
    Modem modem(1);
    Process process(options.program, Output::pipe);
    announce(modem, process);
    size_t frame_output = 0;
    std::vector<double> times;
    for (uint32_t i = 0; i <= options.count; ++i) {
        const std::string message =
            request(Type::confirmable, PUT, i, "rx_msg_req", frame(0, options.payload));
        std::this_thread::sleep_for(milliseconds(2));
        const auto begin = Clock::now();
        const auto end = begin + LOST_AFTER;
        modem.send(0, message);
        size_t output = 0;
        if (i == 0) { // every frame of this run gives as many bytes as the first
            std::this_thread::sleep_for(milliseconds(200));
            frame_output = output = process.read_output();
        }
        while ((output += process.read_output()) < frame_output && Clock::now() < end) {
            pollfd ready{process.output(), POLLIN, 0};
            poll(&ready, 1, 100);
        }
        if (output == 0 || output != frame_output) {
            throw std::runtime_error("a frame was not written");
        }
        const std::chrono::duration<double, std::micro> time = Clock::now() - begin;
        if (i > WARM_UP / 10) {
            times.push_back(time.count());
        }
        modem.receive(process, milliseconds(0));
    }
    printf("written_p50_us %.1f\nwritten_p99_us %.1f\n", percentile(times, 0.5),
           percentile(times, 0.99));
}

void measure_idle(const Options &options)
{
    Modem modem(1);
    Process process(options.program, Output::pipe);
    announce(modem, process);
    const uint64_t before = process.context_switches();
    std::this_thread::sleep_for(std::chrono::duration<double>(options.seconds));
    printf("wakeups_per_s %.3f\npeak_kb %lu\n",
           static_cast<double>(process.context_switches() - before) / options.seconds,
           process.peak_kb());
}

void measure_start(const Options &options, const std::string &line)
{
    const auto begin = Clock::now();
    Process process(options.program, Output::pipe);
    process.wait_for_line(line);
    const std::chrono::duration<double, std::milli> time = Clock::now() - begin;
    printf("start_ms %.3f\n", time.count());
}

} // namespace bench
