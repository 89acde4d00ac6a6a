#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace e2e
{
namespace
{
void must(bool done)
{
    if (!done) {
        throw std::system_error(errno, std::generic_category());
    }
}

sockaddr_in socket_address(const std::string &host, unsigned port)
{
    return {AF_INET, htons(static_cast<std::uint16_t>(port)), {inet_addr(host.c_str())}, {}};
}

// "20261122-204128:DEBUG:app_lan:123:text" becomes "DEBUG:app_lan:text".
std::string without_stamp(const std::string &line)
{
    int level = 0, number = 0, message = 0;
    static_cast<void>(sscanf(line.c_str(), "%*8[0-9]-%*6[0-9]:%n%*[A-Z]:%*[a-z_]:%n%*[0-9]:%n",
                             &level, &number, &message));
    const char *date = getenv("E2E_DATE");
    EXPECT_TRUE(level != 16 || date == nullptr || line.starts_with(date)) << line;
    if (level == 16 && message > 0) {
        return line.substr(16, static_cast<std::size_t>(number - level)) + (line.c_str() + message);
    }
    return level == 16 && line.compare(16, 5, "INFO:") == 0 ? line.substr(16) : line;
}

// The program itself, or that of the same name in another folder: one for another machine, say.
std::string file_to_run(const std::string &program)
{
    const char *folder = getenv("E2E_PROGRAMS");
    const std::string other = folder == nullptr ? "" : folder + program.substr(program.rfind('/'));
    return access(other.c_str(), X_OK) == 0 ? other : program;
}
} // namespace

std::string address(unsigned host)
{
    return (gateway_namespace >= 0 ? "10.55.0." : "127.0.0.") + std::to_string(host + 1);
}

std::string text(const char *format, ...)
{
    char buffer[1024];
    va_list arguments;
    va_start(arguments, format);
    must(vsnprintf(buffer, sizeof buffer, format, arguments) < int{sizeof buffer});
    va_end(arguments);
    return buffer;
}

std::string hex(const Bytes &bytes)
{
    std::string digits;
    for (const char byte : bytes) {
        digits += text("%02X ", static_cast<unsigned char>(byte));
    }
    return digits;
}

Bytes unhex(const std::string &digits)
{
    std::istringstream input(digits);
    Bytes bytes;
    for (unsigned byte = 0; input >> std::hex >> byte;) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "-";
}

Bytes little_endian(std::size_t value, unsigned width)
{
    return width == 0 ? "" : static_cast<char>(value) + little_endian(value >> 8, width - 1);
}

Bytes encode(int type, int code, int id, const Bytes &token, const std::string &path,
             const Bytes &payload)
{
    Bytes bytes = {static_cast<char>(0x40 | type << 4 | static_cast<int>(token.size())),
                   static_cast<char>(code), static_cast<char>(id >> 8), static_cast<char>(id)};
    bytes += token;
    std::istringstream segments(path);
    int delta = 11; // Uri-Path, once a segment
    for (std::string segment; std::getline(segments, segment, '/'); delta = 0) {
        const int length = static_cast<int>(segment.size());
        bytes += static_cast<char>(delta << 4 | std::min(length, 13));
        bytes += length < 13 ? segment : static_cast<char>(length - 13) + segment;
    }
    return payload.empty() ? bytes : bytes + '\xFF' + payload;
}

Bytes info(std::uint32_t serial, int state)
{
    return little_endian(1, 4) + little_endian(serial, 4) + unhex("0 E1 F5 5 2 1 4 3 5 6") +
           static_cast<char>(state) + unhex("7 2 10 A1");
}

std::string info_line(std::uint32_t serial, int state)
{
    return text("INFO:Modem INFO :protocol:1, serial number:%x, tmsp:100000000, hw_ver:1.2, "
                "sw_ver:3.4, type:5, location:6, state:%d, wakeup:7, nb RF receiver:2, "
                "RF:10/a1/0/0/0/0/0\n",
                serial, state);
}

std::string register_lines(std::uint32_t serial, unsigned host, unsigned port)
{
    return info_line(serial) +
           text("INFO:New modem detected %x (IP:%s:%u)\nINFO:Register new modem %x\n"
                "DEBUG:app_lan:Modem %x is in READY state\n",
                serial, address(host).c_str(), port, serial, serial);
}

Bytes frame(const Bytes &data)
{
    return unhex("F0 1F CB 33 A 0 0 0 7 0 FB FF") + little_endian(data.size(), 2) +
           unhex("50 3 1") + data;
}

std::string frame_lines(const Bytes &data, std::uint32_t serial)
{
    const std::string endpoint = hex(data.substr(2, 2)) + "/ " + hex(data.substr(4, 6));
    std::string lines =
        text("DEBUG:app_lan:\n################\n PACKET RECEIVED \n################\n RTC:10,007, "
             "FREQ:868950000, RSSI:-80, FREQ_OFFSET:-5, RF_MOD:3, RF_RECEIVER:1\n"
             "DEBUG:app_lan:WMBUS Data len : %zu\n",
             data.size());
    lines += "DUMP:app_lan:" + hex(data) + "\nDEBUG:app_lan:Receive RF frame from EndPoint [";
    std::transform(endpoint.begin(), endpoint.end() - 1, std::back_inserter(lines), tolower);
    return lines + text("] on modem [%x]\n", serial) +
           "DEBUG:app_lan:\n################\n################\n";
}

Bytes numbered(std::uint32_t number)
{
    return unhex("C 44 93 15") + little_endian(number, 4) + unhex("1 7 7A 0");
}

Peer::Peer(unsigned host, unsigned port) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const int on = 1;
    const sockaddr_in here = socket_address(address(host), port);
    must(setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         setsockopt(socket_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0 &&
         bind(socket_, reinterpret_cast<const sockaddr *>(&here), sizeof here) == 0);
}

Peer::~Peer()
{
    close(socket_);
}

void Peer::send(const Bytes &datagram, const std::string &to, unsigned port)
{
    from_ = socket_address(to, port);
    reply(datagram);
}

void Peer::reply(const Bytes &datagram)
{
    const auto *to = reinterpret_cast<const sockaddr *>(&from_);
    must(sendto(socket_, datagram.data(), datagram.size(), 0, to, sizeof from_) >= 0);
}

Bytes Peer::receive(milliseconds patience)
{
    pollfd waiting{socket_, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(patience.count())) != 1) {
        return "";
    }
    char datagram[2000];
    socklen_t length = sizeof from_;
    const ssize_t count = recvfrom(socket_, datagram, sizeof datagram, 0,
                                   reinterpret_cast<sockaddr *>(&from_), &length);
    must(count >= 0);
    return {datagram, static_cast<std::size_t>(count)};
}

std::string Peer::sender() const
{
    return inet_ntoa(from_.sin_addr);
}

int Peer::expect_request(const std::string &request)
{
    std::istringstream words(request);
    std::string method, path, payload;
    words >> method >> path;
    std::getline(words, payload);
    Bytes datagram = receive();
    datagram.resize(std::max<std::size_t>(datagram.size(), 4));
    const int id =
        static_cast<std::uint8_t>(datagram[2]) << 8 | static_cast<std::uint8_t>(datagram[3]);
    const int code = method == "GET" ? GET : method == "POST" ? POST : PUT;
    EXPECT_EQ(hex(datagram), hex(encode(CON, code, id, "", path, unhex(payload)))) << request;
    return id;
}

void Peer::report(const std::string &resource, const Bytes &payload)
{
    const Bytes token = little_endian(static_cast<std::size_t>(++id_), 2);
    send(encode(CON, resource == "rx_msg_req" ? PUT : POST, id_, token, resource, payload));
    EXPECT_EQ(hex(receive(milliseconds(1000))), hex(encode(ACK, VALID, id_, token)));
}

Process::Process(const std::string &arguments, const std::string &program)
    : errors_(memfd_create("stderr", MFD_CLOEXEC)),
      end_status_(program == WMBUSCTL_TOOL ? SIGTERM : 0)
{
    int output[2];
    must(errors_ >= 0 && pipe2(output, O_CLOEXEC) == 0);
    std::istringstream input("wmbusctl " + arguments);
    std::vector<std::string> words(std::istream_iterator<std::string>(input), {});
    std::vector<char *> pointers(words.size() + 1);
    std::transform(words.begin(), words.end(), pointers.begin(),
                   [](std::string &word) { return word.data(); });
    const std::string file = file_to_run(program);
    pid_ = fork();
    must(pid_ >= 0);
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output[1], STDOUT_FILENO);
        dup2(errors_, STDERR_FILENO);
        if (program != WMBUSCTL_TOOL || gateway_namespace < 0 ||
            setns(gateway_namespace, CLONE_NEWNET) == 0) {
            execv(file.c_str(), pointers.data());
        }
        _exit(127);
    }
    close(output[1]);
    reader_ = std::thread(&Process::read_output, this, output[0]);
}

Process::~Process()
{
    pause_reading(false);
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        EXPECT_EQ(exit_status(), end_status_);
    }
    reader_.join();
    EXPECT_EQ(errors().find("Sanitizer"), std::string::npos) << errors();
    EXPECT_EQ(errors().find("runtime error:"), std::string::npos) << errors();
    if (strict_) {
        EXPECT_EQ(errors(), expected_errors_);
        EXPECT_EQ(output_.substr(next_) + rest_, "") << "is not expected";
    }
    close(errors_);
}

std::string Process::errors() const
{
    std::string all = content_of("/proc/self/fd/" + std::to_string(errors_));
    const std::string id = "mid=0x";
    for (std::size_t at = 0; (at = all.find(id, at)) != std::string::npos;) {
        at += id.size();
        all.erase(at, std::min(all.find_first_not_of('0', at), all.size()) - at);
    }
    return all;
}

void Process::read_output(int pipe)
{
    std::vector<char> buffer(65536);
    ssize_t count = 0;
    do {
        count = read(pipe, buffer.data(), buffer.size());
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this] { return !paused_; });
        closed_ = count <= 0;
        keep({buffer.data(), closed_ ? 0 : static_cast<std::size_t>(count)});
        changed_.notify_all();
    } while (count > 0);
    close(pipe);
}

void Process::keep(std::string_view chunk)
{
    for (std::size_t end = 0; (end = chunk.find('\n')) != std::string_view::npos;) {
        rest_ += chunk.substr(0, end);
        chunk.remove_prefix(end + 1);
        EXPECT_LT(rest_.size(), 1024U) << rest_;
        const bool joined = rest_.find("cannot join multicast group") == std::string::npos;
        if (rest_.find(":INFO:Thread ") != 15 && (joined || gateway_namespace >= 0)) {
            output_ += without_stamp(rest_) + '\n';
        }
        rest_.clear();
    }
    rest_ += chunk;
}

void Process::expect(const std::string &next, milliseconds patience)
{
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, patience,
                      [&] { return closed_ || output_.size() >= next_ + next.size(); });
    const std::string got = output_.substr(next_, next.size());
    next_ += got.size();
    EXPECT_EQ(got, next) << "comes after\n"
                         << output_.substr(std::max<std::size_t>(next_, 4000) - 4000);
}

std::string Process::skip_to(const std::string &wanted, milliseconds patience)
{
    std::unique_lock guard(lock_);
    const std::size_t begin = next_;
    std::size_t found = std::string::npos;
    const bool printed = changed_.wait_for(guard, patience, [&] {
        found = output_.find(wanted, next_);
        next_ = std::max(begin, output_.size() - std::min(output_.size(), wanted.size()));
        return found != std::string::npos;
    });
    EXPECT_TRUE(printed) << wanted << " is not in\n" << output_.substr(begin);
    next_ = printed ? found + wanted.size() : output_.size();
    std::string skipped = output_.substr(begin, next_ - begin);
    output_.erase(0, next_);
    next_ = 0;
    return skipped;
}

void Process::register_modem(Peer &modem, unsigned port, const std::string &before)
{
    expect(before + "INFO:Start CoAP server on 0.0.0.0:5683\n");
    modem.report("info_ind", info());
    expect(register_lines(SERIAL, 1, port));
    expect("INFO:Perform action on modem LAN:a1b2c3\n");
}

void Process::pause_reading(bool pause)
{
    const std::lock_guard guard(lock_);
    paused_ = pause;
    changed_.notify_all();
}

int Process::exit_status()
{
    std::unique_lock guard(lock_);
    int status = -1;
    if (changed_.wait_for(guard, PATIENCE, [this] { return closed_; })) {
        must(waitpid(pid_, &status, 0) == pid_);
        pid_ = -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : status;
}

int Process::exit_status(std::string &printed)
{
    const int status = exit_status();
    const std::lock_guard guard(lock_);
    printed = output_.substr(next_);
    next_ = output_.size();
    return status;
}

std::string Process::proc_file(const char *name) const
{
    return content_of("/proc/" + std::to_string(pid_) + name);
}
} // namespace e2e
