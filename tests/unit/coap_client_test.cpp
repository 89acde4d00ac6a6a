#include "coap_client.h"

#include <fstream>
#include <future>
#include <map>
#include <sys/socket.h>

#include "../private_mounts.h"
#include "app_lan_state.h"
#include "support.h"

namespace
{
// A modem's socket. Its address holds the process id, so that test programs don't meet.
struct Peer {
    explicit Peer(uint8_t slot, uint16_t port = 5683)
    {
        modem.address = ipv4("127.0.0.1", port);
        const auto host = 0x7F000000 + (static_cast<uint32_t>(slot) << 20) + (getpid() & 0xFFFFF);
        modem.address.addr.sin.sin_addr.s_addr = htonl(static_cast<uint32_t>(host));
        modem.present = 1;
        modem.serial_number = slot;
        const int on = 1;
        setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        EXPECT_EQ(bind(descriptor, &modem.address.addr.sa, modem.address.size), 0);
        lan_state.table[slot] = modem;
    }
    ~Peer() { close(descriptor); }

    // Answers the one request of the call and returns it; both datagrams without message id.
    Bytes exchange(const std::function<void()> &call, const std::string &answer = "6044") const
    {
        const std::future<void> calling = std::async(std::launch::async, call);
        coap_address_t from = modem.address;
        Bytes request(2000);
        const auto size = recvfrom(descriptor, &request[0], 2000, 0, &from.addr.sa, &from.size);
        request.resize(static_cast<size_t>(size));
        Bytes reply = unhex(answer);
        reply.insert(reply.begin() + 2, &request[2], &request[4]);
        EXPECT_GT(sendto(descriptor, &reply[0], reply.size(), 0, &from.addr.sa, from.size), 0);
        request.erase(request.begin() + 2, request.begin() + 4);
        return request;
    }
    int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ModemEntry modem{};
};

// A confirmable request without its message id.
Bytes datagram(const LanRequest &request, const std::string &payload)
{
    const auto length = static_cast<uint8_t>(request.name_length);
    Bytes bytes = {0x40, static_cast<uint8_t>(request.method), 0xBD,
                   static_cast<uint8_t>(length - 13)};
    if (length < 13) {
        bytes = {0x40, static_cast<uint8_t>(request.method), static_cast<uint8_t>(0xB0 + length)};
    }
    bytes.insert(bytes.end(), request.name, request.name + length);
    const Bytes body = unhex((payload.empty() ? "" : "FF") + payload);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

struct Client : testing::Test {
    Peer peer{4};
    const ModemEntry *modem = &peer.modem;
    uint8_t abc[3] = {0xAA, 0xBB, 0xCC};
};

// Datagrams for tshark, and a filter that finds those of which it does not show what it should.
struct Capture {
    std::string dump, wrong = "_ws.lua.error";
    int count = 0;
    void add(Bytes message, int id, const std::string &shown)
    {
        message.insert(message.begin() + 2, {0, static_cast<uint8_t>(id)});
        dump += message[0] == 0x40 ? "I\n0000" : "O\n0000"; // to a modem, or an answer
        for (const uint8_t byte : message) {
            char digits[4];
            snprintf(digits, sizeof digits, " %02x", byte);
            dump += digits;
        }
        dump += '\n';
        ++count;
        if (!shown.empty()) {
            wrong += " || (frame.number == " + std::to_string(count) + " && !(" + shown + "))";
        }
    }
    std::string find_wrong() const // in one pass and in two
    {
        const Scratch scratch;
        std::ofstream("dump") << dump;
        std::ofstream("wrong") << wrong;
        // From version 4.4 on it runs no scripts for root.
        const char *const commands =
            "text2pcap -q -D -u 4,5683 -4 10.0.0.1,10.0.0.2 dump pcap && for passes in '' -2; do "
            "setpriv --reuid=1 --regid=1 --clear-groups --inh-caps=+dac_override "
            "--ambient-caps=+dac_override tshark $passes -r pcap -X lua_script:" WMBUSCTL_DISSECTOR
            " -T fields -e frame.number -Y \"$(cat wrong)\" || exit; done >found";
        EXPECT_EQ(system(commands), 0);
        return content_of("found");
    }
};

TEST_F(Client, MessagesAreAsDocumentedAndDissected)
{
    if (!make_mounts_private() || !mount_empty("/var") ||
        system("command -v tshark >/dev/null") != 0) {
        ASSERT_EQ(getenv("CI"), nullptr);
        GTEST_SKIP() << "no mount namespace or no tshark to be had";
    }
    std::ofstream("/var/fw") << "of an unknown modem";
    EXPECT_EQ(lan_fw_upgrade(9, "/var/fw", "name", false), -1);
    EXPECT_EQ(content_of("/var/fw") + content_of("/var/ftp/9"), "--");
    std::ofstream("/var/fw") << std::string(50'000, 'x');
    const uint32_t serial = lan_state.table[4].serial_number = 0xA1B2C3;
    const Bytes modes = unhex("1000100110021003100410050000"), value = unhex("0AFF");
    const LanTxExt ext = {0x11121314, 0x2122, 0x31323334, 0x41424344, 5,      6,  0x71727374,
                          8,          9,      0xA1A2,     11,         0xC1C2, 13, 14};
    std::map<std::string, std::function<void()>> calls = {
        {"command_req", [&] { lan_command(serial, 2); }},
        {"rx_mode_config_req", [&] { lan_rx_mode_config(serial, modes.data(), 14); }},
        {"tx_msg_req", [&] { lan_tx_frame(serial, 1, 2, 16, 2, 0, 27, abc, 2); }},
        {"config_set_param_req", [&] { lan_set_param(serial, 257, value.data(), 2); }},
        {"config_get_param_req", [&] { lan_get_param(serial, 257); }},
        {"firmware_upgrade_req", [&] { lan_fw_upgrade(serial, "/var/fw", "manual", false); }},
        {"statistics_req", [] { lan_request_statistics(7); }},
        {"log_req", [&] { EXPECT_EQ(lan_request_log(modem), 68U); }},
        {"tx_msg_ext_req", [&] { lan_send_tx_msg_ext(modem, &ext, abc, 3, abc, 1); }}};
    std::map<std::string, decltype(lan_handle_info) *> handlers = {
        {"info_ind", lan_handle_info},
        {"info_req", lan_handle_info},
        {"rx_msg_req", lan_handle_rx_msg},
        {"firmware_install_ind", lan_handle_fw_install},
        {"config_get_param_req", lan_handle_param},
        {"statistics_req", lan_handle_stats}};
    Capture capture;
    std::ifstream document(WMBUSCTL_PROTOCOL);
    std::string line, lines;
    for (int id = 0; std::getline(document, line);) {
        if (!line.starts_with("```example ")) {
            continue;
        }
        const std::string resource = line.substr(line.rfind(' ') + 1);
        const bool answer = line[11] == '2';
        const uint32_t method = line[11] == 'G' ? LAN_GET : line[12] == 'U' ? LAN_PUT : LAN_POST;
        std::getline(document, line);
        std::erase(line, ' ');
        const Bytes payload = unhex(line);
        const auto size = static_cast<uint32_t>(payload.size());
        const Bytes message =
            answer ? unhex("6045FF" + line) : datagram(lan_request(resource, method), line);
        if (const auto call = calls.extract(answer ? "" : resource)) {
            EXPECT_EQ(peer.exchange(call.mapped()), message) << resource;
        } else if (const auto handler = handlers.extract(size == 0 ? "" : resource)) {
            lines = lines_of([&] { handler.mapped()(&modem->address, &payload[0], size); });
        }
        while (std::getline(document, line) && line.starts_with("> ")) {
            EXPECT_NE(lines.find(line.substr(2)), std::string::npos) << line << lines;
        }
        id += answer ? 0 : 1;
        capture.add(message, id, "wmbusctl.resource == \"" + resource + "\" && " + line.substr(2));
        for (size_t at = message.size() - size; at < message.size(); ++at) {
            capture.add(Bytes(&message[0], &message[at]), id,
                        "wmbusctl.malformed || wmbusctl.cut || wmbusctl.log_text || !coap.payload");
            for (int other = 0; other < 256; other += 15) {
                Bytes mutant = message;
                mutant[at] = static_cast<uint8_t>(other);
                capture.add(mutant, id, "");
            }
        }
    }
    Bytes prepared = unhex("FFFFFFFFFFFF0200AABB");
    EXPECT_EQ(peer.exchange([&] { lan_send_tx_prepared(modem, 1, 2, &prepared[0], 10); }),
              datagram(LAN_TX_MSG_REQ, "0100000002000200AABB"));
    EXPECT_EQ(peer.exchange([&] { lan_rx_mode_off(modem); }),
              datagram(LAN_RX_MODE_CONFIG_REQ, std::string(28, '0')));
    EXPECT_EQ(lan_get_tx_count(), 2U);
    EXPECT_EQ(calls.size() + handlers.size(), 0U) << "are not documented";
    EXPECT_EQ(capture.find_wrong(), "") << "of " << capture.count;
}

TEST_F(Client, PayloadFitsOrIsLeftOutAndAnotherPortIsNamed)
{
    const Bytes large(1385);
    const auto send = [&](uint16_t port, uint16_t size) {
        coap_client_send_request(&modem->address, port, LAN_TX_MSG_REQ, large.data(), size);
    };
    const Scratch scratch;
    std::ofstream("file") << std::string(1372, 'x');
    const auto download = [] { return lan_download_file(4, "file", 1372, 0); };
    EXPECT_EQ(peer.exchange([&] { EXPECT_EQ(download(), 1); }).size(), 1400U - 2);
    std::ofstream("file", std::ios::app) << std::string(1372, 'y');
    fail_allocation = 1;
    peer.exchange([&] {
        EXPECT_EQ(lines_of([&] { EXPECT_EQ(download(), -1); }),
                  "DEBUG:app_lan:Request donwnload  file file|DEBUG:app_lan:Send packet n 1|"
                  "ERROR:app_lan:No memory for a request of 1372 bytes|"
                  "DEBUG:app_lan:Send packet n 2|DEBUG:coap_client:COAP RES:2.04|");
    });
    EXPECT_EQ(peer.exchange([&] { send(5683, 1385); }), datagram(LAN_TX_MSG_REQ, ""));
    const Peer elsewhere(4, 0x5684);
    EXPECT_EQ(elsewhere.exchange([&] { send(0x5684, 0); }),
              unhex("40037256844A74785F6D73675F726571"));
}

TEST_F(Client, NothingIsSentWithoutAModemOrWithTooMuch)
{
    const Scratch scratch;
    std::ofstream("file") << std::string(1373, 'x');
    Bytes value(254);
    const std::string lines = lines_of([&] {
        EXPECT_EQ(lan_command(9, 1) + lan_rx_mode_config(9, abc, 1), -2);
        lan_tx_frame(9, 1, 2, 3, 4, 5, 6, abc, 1);
        EXPECT_EQ(lan_set_param(9, 1, &value[0], 253) + lan_get_param(9, 1), 2);
        EXPECT_EQ(lan_set_param(4, 1, &value[0], 254), -1);
        EXPECT_EQ(lan_send_tx_prepared(modem, 1, 1, &value[0], 5), 0U);
        for (const uint32_t packet : {0U, 64U, 1373U}) {
            EXPECT_EQ(lan_download_file(4, "file", packet, 0), -1);
        }
    });
    const std::string request = "DEBUG:app_lan:Request donwnload  file ";
    const std::string unfit = request + "file|ERROR:app_lan:file not wellformed, size 1373 is not ";
    EXPECT_EQ(lines, "ERROR:app_lan:Value of 254 bytes too long for parameter 0x1|"
                     "ERROR:app_lan:No room for the time in a tx frame of 5 bytes|" +
                         unfit + "modulo 0 |" + unfit + "modulo 64 |" + request +
                         "file|ERROR:app_lan:packet size 1373 too large for a request, at most "
                         "1372|");
    EXPECT_EQ(recv(peer.descriptor, &value[0], 1, MSG_DONTWAIT), -1);
}

TEST_F(Client, AnswersGiveAResultAndGoToTheModemTask)
{
    const Peer second(2);
    LanMsg stop{};
    void *end = &stop;
    const std::string lines = lines_of([&] {
        const BodyTask task([](VosTask *self) { _lan_modem_task(self, 0); });
        lan_state.modem_task = task.handle;
        peer.exchange([] { lan_get_param(4, 1); }, "6045FF0101FF0A");
        Bytes asked;
        const auto ask = [&] {
            asked = second.exchange([] { lan_request_statistics(7); }, "6045FF00");
        };
        EXPECT_EQ(peer.exchange(ask, "6045FF" + std::string(108, '0')), asked) << "in slot order";
        EXPECT_EQ(asked, datagram(LAN_STATISTICS_REQ, "07"));
        const auto info = [&] {
            coap_client_send_request(&modem->address, 5683, LAN_INFO_REQ, abc, 0);
        };
        peer.exchange(info, "6045FF01");
        EXPECT_EQ(vos_mbx_send(task.handle, &end), 1);
    });
    for (const char *line : // others may come between any two
         {"|WARNING:app_lan:Param value cut, announced:255 received:1|", "|DUMP:app_lan:0A |",
          "|ERROR:app_lan:Malformed stats msg|", "|DEBUG:app_lan:Update statistics of Modem 4|",
          "|ERROR:app_lan:Malformed info msg|"}) {
        EXPECT_NE(lines.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(new_blocks(), 0U) << "of the messages";
}
} // namespace
