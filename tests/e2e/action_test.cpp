#include "harness.h"

#include <gtest/gtest.h>

#include <optional>

namespace e2e
{
namespace
{
using Clock = std::chrono::steady_clock;

const std::string RESULT = "DEBUG:coap_client:COAP RES:";

TEST(Action, SendsExactRequests)
{
    const std::string n2_2400 = "POST rx_mode_config_req 10 0 10 1 10 2 10 3 10 4 10 5 0 0";
    const std::string start = "POST command_req 2", long_frame(2048, 'A');
    std::string long_tx = "PUT tx_msg_req 5 0 0 0 6 0 0 4 1 2 3 4";
    for (int i = 0; i < 1024; ++i) {
        long_tx += " AA";
    }
    const struct {
        std::string arguments;
        std::vector<std::string> requests;
        std::string unused{};
    } cases[] = {
        {"-c -1", {}},
        {"-g 0 -p 1G 0A -r 0", {}},
        {"-r 16", {n2_2400, start}},
        {"-r 5", {"POST rx_mode_config_req 0 0 0 0 0 0 0 0 0 0 0 0 0 0", start}},
        {"-t 16 2 0 27 1 2 AABB", {start, "PUT tx_msg_req 1 0 0 0 2 0 2 0 10 2 0 1B AA BB"}},
        {"-t 272 258 257 283 -2 65539 0a1B2",
         {start, "PUT tx_msg_req FE FF FF FF 3 0 2 0 10 2 1 1B A 1B"}},
        {"-t 1 2 3 4 5 6 " + long_frame, {start, long_tx}},
        {"-c 259", {"POST command_req 3"}},
        {"-c -99999999999", {"POST command_req 0"}},
        {"-c 1 -c -2", {"POST command_req FE"}},
        {"-x 5 -c 3 -y", {"POST command_req 3"}, "Unused argument -x\nUnused argument -y\n"},
        {"-p 101 0x10A", {"POST config_set_param_req 1 1 2 0 10"}},
        {"-g 101 -p 0x12345 000102030405060708090a0B",
         {"POST config_set_param_req 45 23 C 0 1 2 3 4 5 6 7 8 9 A B"}},
        {"-g 0x1A2b", {"GET config_get_param_req 2B 1A"}},
        {"-c 3 -t 1 2 3 4 5 6 AA -r 16", {n2_2400, start}},
    };
    for (const auto &[arguments, requests, unused] : cases) {
        SCOPED_TRACE(arguments);
        Peer modem;
        Process tool(arguments);
        tool.expect(unused);
        tool.register_modem(modem);
        for (const std::string &request : requests) {
            modem.reply(encode(ACK, CHANGED, modem.expect_request(request)));
            tool.expect(RESULT + "2.04\n");
        }
        tool.expect(requests.empty() ? "INFO:No action requested\n" : "");
        EXPECT_EQ(hex(modem.receive(milliseconds(300))), "");
    }
}

std::string reset_alert(int id) // the library's own
{
    return text("ALERT got RST for mid=0x%x\n", id & 0xFFFF);
}

// A command that waits for its answer.
struct Command {
    Peer modem;
    Process tool{"-c 3"};
    int id = (tool.register_modem(modem), modem.expect_request("POST command_req 3"));
    Clock::time_point begin = Clock::now();
};
struct Exchange : testing::Test, Command {
};

TEST_F(Exchange, IsGivenUpAfterTwentySecondsWhileFramesArePrinted)
{
    Peer other(2);
    int again = 0;
    while (Clock::now() < begin + milliseconds(18'300)) {
        other.report("rx_msg_req", frame(numbered(7)));
        tool.expect(frame_lines(numbered(7), 0), milliseconds(1000));
        const Bytes request = modem.receive(milliseconds(1000));
        if (!request.empty()) {
            EXPECT_EQ(hex(request), hex(encode(CON, POST, id, "", "command_req", "\3")));
            ++again;
        }
    }
    EXPECT_GE(again, 2);
    tool.expect(RESULT + "0.00\n", milliseconds(2000));
    EXPECT_GT(Clock::now(), begin + milliseconds(19'900));
}

TEST_F(Exchange, TakesOnlyItsOwnAnswer)
{
    const unsigned port = modem.sender_port();
    Peer(2).send(encode(ACK, NOT_FOUND, id), address(0), port);
    Peer(1, 5684).send(encode(RST, 0, id), address(0), port);
    modem.reply(encode(ACK, NOT_FOUND, id + 1));
    modem.reply(encode(RST, 0, id - 1));
    modem.reply(encode(CON, 0xE2, id + 2)); // no CoAP over UDP: nothing to answer
    EXPECT_EQ(modem.expect_request("POST command_req 3"), id);
    modem.reply(encode(ACK, CHANGED, id));
    tool.expect(RESULT + "2.04\n", milliseconds(1000));
    tool.expect_errors(reset_alert(id - 1));
}

TEST(Answer, EndsTheExchangeAtOnce)
{
    const std::string long_text(1395, 'x');
    const struct {
        int type, code;
        std::string payload, result, errors;
    } cases[] = {{RST, 0, "", "0.00\n", ""},
                 {ACK, 0, "", "0.00\n", ""},
                 {NON, CHANGED, "", "2.04\n", ""},
                 {CON, CHANGED, "", "2.04\n", ""},
                 {ACK, CONTENT, "not asked for", "2.05\n", ""},
                 {ACK, NOT_FOUND, "no %s here", "4.04\n", "4.04 no %s here\n"},
                 {ACK, 0xA0, "", "5.00\n", "5.00\n"},
                 {ACK, 0x9F, long_text, "4.31\n", "4.31 " + long_text + "\n"}};
    for (const auto &[type, code, payload, result, errors] : cases) {
        Command command;
        const int id = type == NON || type == CON ? 0x7777 : command.id;
        command.modem.reply(encode(type, code, id, "", "", payload));
        EXPECT_EQ(hex(command.modem.receive(milliseconds(type == CON ? 2000 : 200))),
                  type == CON ? hex(encode(ACK, 0, id)) : "");
        command.tool.expect(RESULT + result, milliseconds(1000));
        command.tool.expect_errors(type == RST ? reset_alert(command.id) : errors);
    }
}

TEST(Answer, MayComeFromAModemThatWasNotListeningAtFirst)
{
    if (gateway_namespace < 0) {
        GTEST_SKIP() << "the tool itself would hear the request";
    }
    std::optional<Peer> modem(std::in_place, 1, 5684); // nobody has port 5683
    Process tool("-c 3");
    tool.register_modem(*modem, 5684);
    std::this_thread::sleep_for(milliseconds(500));
    modem.emplace();
    modem->reply(encode(ACK, CHANGED, modem->expect_request("POST command_req 3")));
    tool.expect(RESULT + "2.04\n");
}
} // namespace
} // namespace e2e
