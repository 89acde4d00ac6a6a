// The real tool runs in a network namespace of its own and meets scripted modems, plain UDP sockets
// in another namespace, over a virtual Ethernet pair. Where namespaces are not to be had, all of it
// shares the loopback interface.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace e2e
{
using Bytes = std::string;
using std::chrono::milliseconds;

constexpr int CON = 0, NON = 1, ACK = 2, RST = 3;
constexpr int GET = 1, POST = 2, PUT = 3;
constexpr int VALID = 0x43, CHANGED = 0x44, CONTENT = 0x45, NOT_FOUND = 0x84, UNAVAILABLE = 0xA3;
constexpr milliseconds PATIENCE{5000};
constexpr std::uint32_t SERIAL = 0xA1B2C3;

extern int gateway_namespace;       // descriptor; -1 on the loopback interface
std::string address(unsigned host); // 0 is the gateway, 1 to 6 are modems
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string content_of(const std::string &path); // "-" when there is no such file
std::string hex(const Bytes &bytes);             // "0A FF ", as the tool dumps bytes
Bytes unhex(const std::string &digits);
Bytes little_endian(std::size_t value, unsigned width);
Bytes encode(int type, int code, int id, const Bytes &token = "", const std::string &path = "",
             const Bytes &payload = "");

// What modems report, and what the tool prints for it.
Bytes info(std::uint32_t serial = SERIAL, int state = 1);
std::string info_line(std::uint32_t serial = SERIAL, int state = 1);
std::string register_lines(std::uint32_t serial, unsigned host, unsigned port = 5683);
Bytes frame(const Bytes &data);
std::string frame_lines(const Bytes &data, std::uint32_t serial = SERIAL);
Bytes numbered(std::uint32_t number); // the data of a frame with the number in its identification

// A modem's UDP socket.
class Peer
{
public:
    explicit Peer(unsigned host = 1, unsigned port = 5683);
    Peer(Peer &&) = delete;
    ~Peer();

    void send(const Bytes &datagram, const std::string &to = address(0), unsigned port = 5683);
    void reply(const Bytes &datagram);               // to the sender of what came last
    Bytes receive(milliseconds patience = PATIENCE); // empty when nothing comes
    unsigned sender_port() const { return ntohs(from_.sin_port); }
    std::string sender() const;
    // The next datagram must be this confirmable request, such as "POST command_req 03", and
    // nothing else; returns its message id.
    int expect_request(const std::string &request);
    // Sends a confirmable report, which must be acknowledged with 2.03 within a second.
    void report(const std::string &resource, const Bytes &payload);

private:
    int socket_;
    sockaddr_in from_{};
    int id_ = 0x7000;
};

// A running program. Its standard output is kept without time stamps, line numbers and the lines
// about threads. All of it must be expected, and so must what is on standard error.
class Process
{
public:
    explicit Process(const std::string &arguments, const std::string &program = WMBUSCTL_TOOL);
    ~Process();

    void expect(const std::string &next, milliseconds patience = PATIENCE);
    // Leaves everything up to the text aside and returns it.
    std::string skip_to(const std::string &wanted, milliseconds patience = PATIENCE);
    // From the start up to the action.
    void register_modem(Peer &modem, unsigned port = 5683, const std::string &before = "");
    void expect_errors(const std::string &all) { expected_errors_ = all; }
    void ignore_rest() { strict_ = false; }
    void pause_reading(bool pause);
    int exit_status(); // waits for the program to end by itself
    // The same, with all that it has printed since.
    int exit_status(std::string &printed);
    std::string errors() const; // releases of the library pad a message id, or don't: without zeros
    std::string proc_file(const char *name) const;

private:
    void read_output(int pipe);
    void keep(std::string_view chunk);

    pid_t pid_;
    int errors_, end_status_; // a file; the status after SIGTERM
    std::mutex lock_;
    std::condition_variable changed_;
    std::string output_, rest_, expected_errors_;
    std::size_t next_ = 0;
    bool closed_ = false, paused_ = false, strict_ = true;
    std::thread reader_;
};

// A tool that has registered its first modem and has nothing to ask of it.
struct Idle {
    Peer modem;
    Process tool{""};
    explicit Idle(const std::string &before = "")
    {
        tool.register_modem(modem, 5683, before);
        tool.expect("INFO:No action requested\n");
    }
};
} // namespace e2e
