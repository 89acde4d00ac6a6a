#include "harness.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace e2e
{
namespace
{
// A socket on the server's port that the tool gets from whoever started it.
struct Inherited {
    int socket_ = -1;
    Inherited()
    {
        std::thread([this] {
            EXPECT_TRUE(gateway_namespace < 0 || setns(gateway_namespace, CLONE_NEWNET) == 0);
            socket_ = socket(AF_INET, SOCK_DGRAM, 0);
            const int on = 1;
            const sockaddr_in any = {AF_INET, htons(5683), {}, {}};
            EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) +
                          bind(socket_, reinterpret_cast<const sockaddr *>(&any), sizeof any),
                      0);
        }).join();
    }
    ~Inherited() { close(socket_); }
};

struct Report : testing::Test, Inherited, Idle {
    Report()
        : Idle("WARNING:app_main:Another program listens on port 5683 as well: one takes from the "
               "other\n")
    {
    }
};

TEST_F(Report, PrintsExactLines)
{
    const Bytes data = numbered(0xA5), odd = "\2" + info(0xBEEF).substr(1);
    const Bytes nine = info().substr(0, 20) + unhex("9 1 2 3 4 5 6 7 8 9");
    const std::string before_wakeup = info_line().substr(0, info_line().find("7, nb RF"));
    const std::string before_count = before_wakeup + "7, nb RF receiver:";
    const std::string lines = frame_lines(data), state = "DEBUG:app_lan:Modem a1b2c3 is in ";
    const std::string banner = lines.substr(0, lines.find("DEBUG:app_lan:WMBUS"));
    std::string cut = frame_lines(data.substr(0, 5));
    cut.replace(cut.find("5\nDUMP"), 2,
                "12\nWARNING:app_lan:WMBUS Data cut, announced:12 received:5\n");
    const std::string bad = "ERROR:app_lan:Receive bad rx_msg, size:",
                      malformed = "ERROR:app_lan:Malformed ";
    const std::string version = "ERROR:app_lan:Not supported LAN protocol version:2\n";
    const std::string unsupported = "ERROR:app_lan:Unsupported state 3 for modem a1b2c3\n";
    const std::string install = "DEBUG:app_lan:Firmware install (name:) of modem a1b2c3 is ";
    const struct {
        std::string resource;
        Bytes payload;
        std::string printed;
    } cases[] = {
        {"rx_msg_req", frame(data), lines},
        {"rx_msg_req", "", bad + "0\n"},
        {"rx_msg_req", frame(data).substr(0, 17), banner + bad + "17\n"},
        {"rx_msg_req", frame(data).substr(0, 22), cut},
        {"info_ind", info(), info_line()},
        {"info_ind", info(SERIAL, 2), info_line(SERIAL, 2) + state + "RUNNING state\n"},
        {"info_ind", info(SERIAL, 2), info_line(SERIAL, 2)},
        {"info_ind", info(SERIAL, 3), info_line(SERIAL, 3) + unsupported},
        {"info_ind", info(), info_line() + state + "READY state\n"},
        {"info_ind", nine,
         "ERROR:app_lan:Too much receiver channel :9\n" + before_count + "7, RF:1/2/3/4/5/6/7\n"},
        {"info_ind", info().substr(0, 22), before_count + "1, RF:10/0/0/0/0/0/0\n"},
        {"info_ind", info().substr(0, 19),
         before_wakeup + "0, nb RF receiver:0, RF:0/0/0/0/0/0/0\n"},
        {"info_ind", info().substr(0, 18), malformed + "info msg\n"},
        {"info_ind", odd, version},
        {"firmware_install_ind", "", malformed + "fw install ind msg\n"},
        {"firmware_install_ind", unhex("1 0"), install + "OK \n"},
    };
    for (const auto &[resource, payload, printed] : cases) {
        SCOPED_TRACE(resource + ' ' + hex(payload));
        modem.report(resource, payload);
        tool.expect(printed);
    }
    Peer(1, 5684).report("rx_msg_req", frame(data));
    tool.expect(frame_lines(data, 0));
}

TEST_F(Report, IsAnsweredByTheRulesOfTheProtocol)
{
    const struct {
        int method, code;
        const char *resource;
    } cases[] = {{GET, 0x85, "rx_msg_req"},
                 {POST, 0x85, "rx_msg_req"},
                 {PUT, 0x85, "info_ind"},
                 {GET, NOT_FOUND, "command_req"},
                 {GET, CONTENT, ".well-known/core"}};
    Bytes answer;
    for (const auto &[method, code, resource] : cases) {
        modem.send(encode(CON, method, 1, "tok", resource));
        answer = modem.receive();
        EXPECT_EQ(hex(answer.substr(0, 7)), hex(encode(ACK, code, 1, "tok"))) << resource;
    }
    for (const char *link :
         {"</rx_msg_req>;ct=0", "</info_ind>;ct=0", "</firmware_install_ind>;ct=0"}) {
        EXPECT_NE(answer.find(link), Bytes::npos) << answer;
    }
    EXPECT_EQ(std::count(answer.begin(), answer.end(), '<'), 3);
    modem.send(encode(CON, 0xE2, 2)); // no CoAP over UDP: nothing to answer or to remember
    modem.send(encode(NON, PUT, 2, "tok", "rx_msg_req", frame(numbered(1))));
    answer = modem.receive();
    EXPECT_EQ(hex(answer.replace(2, 2, 2, '\0')), hex(encode(NON, VALID, 0, "tok")));
    tool.expect(frame_lines(numbered(1)));
}

// The gateway's address again, with "broadcast +" or without a broadcast address.
void set_broadcast(const std::string &broadcast)
{
    const std::string in_gateway =
        text("nsenter --net=/proc/%d/fd/%d ip address ", getpid(), gateway_namespace);
    EXPECT_EQ(system((in_gateway + "flush dev eth0 && " + in_gateway +
                      "add 10.55.0.1/24 dev eth0 " + broadcast)
                         .c_str()),
              0);
}

TEST(Registration, WorksByGroupAndBroadcastWhateverTheInterfaceKnows)
{
    if (gateway_namespace < 0) {
        GTEST_SKIP() << "needs an Ethernet interface";
    }
    for (const std::string broadcast : {"", "broadcast +"}) {
        set_broadcast(broadcast);
        for (const std::string to : {"224.1.2.3", "10.55.0.255", "255.255.255.255", "10.55.0.1"}) {
            for (const int type : {CON, NON}) {
                SCOPED_TRACE(text("%s by type %d %s", to.c_str(), type, broadcast.c_str()));
                Peer modem;
                Process tool("");
                tool.expect("INFO:Start CoAP server on 0.0.0.0:5683\n");
                for (int i = 0;
                     i < 500 && tool.proc_file("/net/igmp").find("030201E0") == Bytes::npos; ++i) {
                    std::this_thread::sleep_for(milliseconds(10));
                }
                modem.send(encode(type, POST, 1, "", "info_ind", info()), to);
                EXPECT_EQ(modem.receive(milliseconds(500)).substr(0, 2),
                          encode(type == CON ? ACK : NON, VALID, 1).substr(0, 2));
                EXPECT_EQ(modem.sender(), address(0));
                tool.expect(register_lines(SERIAL, 1));
                tool.expect("INFO:Perform action on modem LAN:a1b2c3\nINFO:No action requested\n");
                modem.send(encode(type, PUT, 2, "", "rx_msg_req", frame(numbered(1))), to);
                EXPECT_EQ(modem.receive(milliseconds(500))[1], char(VALID));
                tool.expect(frame_lines(numbered(1)));
            }
        }
    }
}

TEST(Registration, TakesFiveModemsAndActsOnTheFirst)
{
    Peer modems[] = {Peer(1), Peer(2), Peer(3), Peer(4), Peer(5), Peer(6)};
    Process tool("-c 3");
    const std::string action = "INFO:Perform action on modem LAN:a1\n"; // somewhere among the rest
    std::string expected;
    tool.expect("INFO:Start CoAP server on 0.0.0.0:5683\n");
    for (unsigned i = 0; i < 5; ++i) {
        modems[i].report("info_ind", info(0xA1 + i));
        expected += register_lines(0xA1 + i, i + 1);
    }
    std::string printed = tool.skip_to("Modem a5 is in READY state\n");
    if (printed.find(action) == std::string::npos) {
        printed += tool.skip_to(action);
    }
    printed.erase(printed.find(action), action.size());
    EXPECT_EQ(printed, expected);
    modems[0].reply(encode(ACK, CHANGED, modems[0].expect_request("POST command_req 3")));
    tool.expect("DEBUG:coap_client:COAP RES:2.04\n");

    const std::string refused = info_line(0xA6) + "INFO:New modem detected a6 (IP:" + address(6) +
                                ":5683)\nERROR:app_lan:No more place in modem list!!!!\n";
    const Bytes data = numbered(1);
    const struct {
        unsigned modem;
        const char *resource;
        Bytes payload;
        std::string printed;
    } cases[] = {{6, "info_ind", info(0xA6), refused},
                 {6, "rx_msg_req", frame(data), frame_lines(data, 0)},
                 {5, "rx_msg_req", frame(data), frame_lines(data, 0xA5)},
                 {6, "info_ind", info(0xA2, 2),
                  info_line(0xA2, 2) + "DEBUG:app_lan:Modem a2 is in RUNNING state\n"},
                 {6, "rx_msg_req", frame(data), frame_lines(data, 0xA2)},
                 {3, "info_ind", info(0xA2), // a3 is there, too
                  info_line(0xA2) + "DEBUG:app_lan:Modem a2 is in READY state\n"},
                 {3, "rx_msg_req", frame(data), frame_lines(data, 0xA2)},
                 {2, "rx_msg_req", frame(data), frame_lines(data, 0)}};
    for (const auto &[modem, resource, payload, lines] : cases) {
        modems[modem - 1].report(resource, payload);
        tool.expect(lines);
    }
}
} // namespace
} // namespace e2e
