#include "harness.h"

#include <gtest/gtest.h>

namespace e2e
{
namespace
{
const std::string RESULT = "DEBUG:coap_client:COAP RES:", START = "POST command_req 2";
const std::string N2_2400 = "POST rx_mode_config_req 10 0 10 1 10 2 10 3 10 4 10 5 0 0";
const std::string COMMAND = "POST command_req 3", READ = "GET config_get_param_req 1 1";
const std::string SHOWN = "DUMP:app_lan:07 \n", ERROR = "ERROR:app_lan:";
const Bytes VALUE = unhex("1 1 1 7");

std::string perform_line(std::uint32_t serial)
{
    return text("INFO:Perform action on modem LAN:%x\n", serial);
}

// What a modem sends for a request, one datagram after the other; an id of 0 stands for the
// request's own.
struct Reply {
    int type, code, id = 0;
    Bytes token{}, payload{};
};

TEST(Once, EndsWithAStatus)
{
    const Reply empty{ACK, 0};
    const struct {
        int status;
        std::string arguments, request;
        std::vector<Reply> replies;
        std::string printed, errors{};
    } cases[] = {
        {0, "-c 3", COMMAND, {{ACK, CHANGED}}, RESULT + "2.04\n"},
        {0, "-g 101 --modem=0xA1B2C3", READ, {{ACK, CONTENT, 0, "", VALUE}}, SHOWN},
        {0, "-g 101", READ, {empty, {CON, CONTENT, 7, "", VALUE}}, SHOWN},
        {0, "-g 101", READ, {empty, {CON, CONTENT, 7, "t"}, {NON, CONTENT, 8, "", VALUE}}, SHOWN},
        {2, "-g 101", READ, {empty, {CON, NOT_FOUND, 7}}, RESULT + "4.04\n", "4.04\n"},
        {2, "-r 16", N2_2400, {{ACK, NOT_FOUND}}, RESULT + "4.04\n", "4.04\n"},
        {2, "-d /no 64 5", START, {{ACK, CHANGED}}, ERROR + "Empty file for download(/no)\n"},
        {0, "", "", {}, "INFO:No action requested\n"},
        {3, "-c 3 --wait 1 --modem 0xa1b2c", "", {}, "app_main:No modem within 1 seconds\n"},
    };
    for (const auto &[status, arguments, request, replies, printed, errors] : cases) {
        SCOPED_TRACE(arguments + text(" with %zu replies", replies.size()));
        Peer modem, voice(1, 5684);
        Process tool("--once " + arguments);
        tool.skip_to("Start CoAP server on 0.0.0.0:5683\n");
        voice.report("info_ind", info()); // the request may be there before it is acknowledged
        tool.skip_to("is in READY state\n");
        const int id = request.empty() ? 0 : modem.expect_request(request);
        for (const Reply &reply : replies) {
            const int reply_id = reply.id == 0 ? id : reply.id;
            modem.reply(encode(reply.type, reply.code, reply_id, reply.token, "", reply.payload));
            if (reply.type == CON) { // one with a token is not the request's
                EXPECT_EQ(hex(modem.receive()),
                          hex(encode(reply.token.empty() ? ACK : RST, 0, reply_id)));
            }
        }
        std::string all;
        EXPECT_EQ(tool.exit_status(all), status);
        EXPECT_NE(all.find(printed), std::string::npos) << all;
        EXPECT_EQ(hex(modem.receive(milliseconds(0))), "");
        tool.expect_errors(errors);
    }
}

TEST(Once, CountsNoAnswerAsAFailure)
{
    Peer modem, voice(1, 5684), silent(2);
    const auto begin = std::chrono::steady_clock::now();
    Process unanswered("-r 16 --at " + address(2));
    Process unacknowledged("-c 3 --once");
    silent.reply(encode(ACK, CONTENT, silent.expect_request("GET info_req"), "", "", info(0xA2)));
    unacknowledged.register_modem(voice, 5684);
    modem.reply(encode(ACK, 0, modem.expect_request(COMMAND)));
    Process stranger("--wait=1 --at " + address(4));
    stranger.expect(RESULT + "0.00\nERROR:app_main:No modem has answered\n");
    EXPECT_EQ(stranger.exit_status(), 3);
    unanswered.skip_to(RESULT + "0.00\n", milliseconds(22'000)); // of the first of two requests
    EXPECT_EQ(unanswered.exit_status(), 2);
    unacknowledged.expect(RESULT + "0.00\n");
    EXPECT_EQ(unacknowledged.exit_status(), 2);
    EXPECT_GT(std::chrono::steady_clock::now() - begin, milliseconds(19'900));
}

TEST(At, ActsBesideARunningToolWhichHearsEverything)
{
    Peer modem, voice(1, 5684), other(2);
    Process tool("--all -c 5");
    tool.register_modem(voice, 5684);
    modem.reply(encode(ACK, CHANGED, modem.expect_request("POST command_req 5")));
    tool.expect(RESULT + "2.04\n");
    const struct {
        std::string arguments;
        int code, status;
        Bytes payload;
        std::string printed, errors{};
    } cases[] = {
        {"-g 101 --modem a1b2c3", CONTENT, 0, info(), SHOWN},
        {"-g 101 --modem a1b2c4", CONTENT, 2, info(),
         "ERROR:app_main:The modem is a1b2c3, not a1b2c4\n"},
        {"", CONTENT, 0, info(), "INFO:No action requested\n"},
        {"-g 101", CONTENT, 2, "short", "ERROR:app_main:What has answered is no modem\n"},
        {"-g 101", NOT_FOUND, 2, "", "ERROR:app_main:What has answered is no modem\n", "4.04\n"},
    };
    std::uint32_t number = 0;
    for (const auto &[arguments, code, status, payload, printed, errors] : cases) {
        SCOPED_TRACE(arguments);
        Process question(arguments + " --at=" + address(1));
        modem.reply(encode(ACK, code, modem.expect_request("GET info_req"), "", "", payload));
        other.report("rx_msg_req", frame(numbered(++number)));
        tool.expect(frame_lines(numbered(number), 0));
        if (printed == SHOWN) {
            modem.reply(encode(ACK, CONTENT, modem.expect_request(READ), "", "", VALUE));
        }
        std::string all;
        EXPECT_EQ(question.exit_status(all), status);
        EXPECT_NE(all.find(printed), std::string::npos) << all;
        question.expect_errors(errors);
    }
}

// A modem of --all -r 16 and what the tool prints about it.
struct Started : Peer {
    std::uint32_t serial;
    Peer voice; // reports, while a request waits for its answer
    explicit Started(unsigned host) : Peer(host), serial(0xA0 + host), voice(host, 5684) {}

    void announce(Process &tool, int state, const std::string &also = "")
    {
        voice.report("info_ind", info(serial, state));
        tool.expect(info_line(serial, state) + also);
    }
    std::string state_line(const std::string &state) const
    {
        return text("DEBUG:app_lan:Modem %x is in %s state\n", serial, state.c_str());
    }
    // Answers the request, of which there is no other.
    void serve(Process &tool, const std::string &request, int code = CHANGED)
    {
        reply(encode(ACK, code, expect_request(request)));
        tool.expect(RESULT + text("%d.%02d\n", code >> 5, code & 31));
    }
};

TEST(All, ActsOnEachModemWhenItComesFailsOrComesBack)
{
    Started one(1), two(2), three(3);
    Process tool("--all -r 16");
    tool.expect("INFO:Start CoAP server on 0.0.0.0:5683\n");
    const auto come = [&tool](Started &modem, unsigned host) {
        modem.voice.report("info_ind", info(modem.serial));
        tool.expect(register_lines(modem.serial, host, 5684));
    };
    const auto configure = [&tool](Started &modem) {
        modem.serve(tool, N2_2400);
        modem.serve(tool, START);
    };
    const auto is_left_alone = [](Started &modem) {
        EXPECT_EQ(hex(modem.receive(milliseconds(100))), "");
    };
    // They come while the first one's action runs, and wait in the order in which they came.
    come(one, 1);
    tool.expect(perform_line(one.serial));
    const int held = one.expect_request(N2_2400);
    come(three, 3);
    come(two, 2);
    three.announce(tool, 1); // not twice in the line
    is_left_alone(three);
    one.reply(encode(ACK, CHANGED, held));
    tool.expect(RESULT + "2.04\n");
    one.serve(tool, START);
    tool.expect(perform_line(three.serial));
    configure(three);
    tool.expect(perform_line(two.serial));
    const int id = two.expect_request(N2_2400);
    two.announce(tool, 2, two.state_line("RUNNING")); // by what the action does itself
    two.reply(encode(ACK, CHANGED, id));
    tool.expect(RESULT + "2.04\n");
    two.serve(tool, START);
    one.announce(tool, 2, one.state_line("RUNNING"));
    one.announce(tool, 2);
    is_left_alone(two);

    // It has started anew, and refuses; then it goes on announcing itself.
    one.announce(tool, 1, one.state_line("READY") + perform_line(one.serial));
    one.serve(tool, N2_2400, UNAVAILABLE);
    tool.expect("WARNING:app_main:Action on modem a1 failed, tried again when it announces "
                "itself\n");
    is_left_alone(one);
    one.announce(tool, 1, perform_line(one.serial));
    configure(one);
    one.announce(tool, 1);
    is_left_alone(one);

    // An action that brings it through READY by itself is done once more, not for ever.
    two.announce(tool, 1, two.state_line("READY"));
    for (int i = 0; i < 2; ++i) {
        tool.expect(perform_line(two.serial));
        const int asked = two.expect_request(N2_2400);
        two.announce(tool, 2, two.state_line("RUNNING"));
        two.announce(tool, 1, two.state_line("READY"));
        two.reply(encode(ACK, CHANGED, asked));
        tool.expect(RESULT + "2.04\n");
        two.serve(tool, START);
    }
    is_left_alone(two);
    tool.expect_errors("5.03\n");
}

TEST(All, EndsWhenItsReaderHasGone)
{
    FILE *pipe = popen("exec 3>&1; { timeout 10 " WMBUSCTL_TOOL
                       " --all -c 3 2>&3; echo $? >&3; } | head -n 1 >/dev/null",
                       "re");
    char said[200] = "";
    said[fread(said, 1, sizeof said - 1, pipe)] = '\0';
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_STREQ(said, "wmbusctl: the reader of standard output has gone\n1\n");
}
} // namespace
} // namespace e2e
