#include "support.h"
#include "wmbusctl_frames_records.h"
#include "wmbusctl_frames_table.h"
#include "wmbusctl_frames_unique.h"

namespace
{
using namespace frames;
using Texts = ::Table<std::string, std::string>;

const std::string at = "\n20261122-212040:";

// What comes out of the input, cut in two there, and what is counted.
std::string records_of(const std::string &in, size_t cut, Format format, const Filter &filter)
{
    std::string out;
    EventHandler events = [&](const Event &event) {
        out += matches(filter, event) ? std::string(event.record) + '\n' : "";
    };
    Parser parser(
        [&](const Frame &frame) {
            if (matches(filter, frame)) {
                append_record(out, format, frame);
            }
        },
        format == Format::events ? events : nullptr);
    parser.feed(std::string_view(in).substr(0, cut));
    parser.feed(std::string_view(in).substr(cut));
    parser.finish();
    out += std::to_string(parser.counts().broken_frames) + '/';
    return out + std::to_string(parser.counts().stray_lines);
}

// As a journal or a terminal hands it on.
std::string each_line(const std::string &in, const std::string &before, const std::string &after,
                      int times = 1)
{
    std::istringstream lines(in);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        line.erase(line.find_last_not_of(' ') + 1);
        for (int i = 0; i < times; ++i) {
            out += before;
            out += line + after + '\n';
        }
    }
    return out;
}

TEST(Frames, AreFoundAmongOtherLinesHoweverTheInputIsCut)
{
    const std::string rule = "\n################", id = "10203040";
    const std::string radio = "\n RTC:-1,1119, FREQ:868, RSSI:-65, FREQ_OFFSET:-6, RF_MOD:1";
    const std::string begin = at + "DEBUG:app_lan:1:" + rule + "\n PACKET RECEIVED " + rule +
                              radio + ", RF_RECEIVER:0" + at + "DEBUG:app_lan:2:WMBUS Data len : ";
    const std::string bytes = "0B 44 21 06 40 30 20 10 01 07 ", dump = at + "DUMP:app_lan:3:";
    const std::string last = at + "DEBUG:app_lan:4:Receive RF frame from EndPoint [";
    const std::string end = last + "21 06 / 40 30 20 10 01 07] on modem [a1b2c3]";
    const std::string data = dump + bytes + "7A 01 ", good = begin + "12" + data + end + "\r\n";
    const std::string other = at + "DUMP:app_lan:5:" + bytes + bytes + at + "DUMP:x:3:FF";
    const std::string mixed = begin + "12" + other + dump + bytes + other + dump + "7A 01";
    const std::string record =
        R"({"time":"2106-02-07T06:28:16.119Z","modem":"a1b2c3","manufacturer":"AQA",)"
        R"("identification":"10203040","version":1,"device_type":7,"device_type_name":"Water",)"
        R"("rssi":-65,"frequency":868,"frequency_offset":-6,"mode":1,"receiver":0,)"
        R"("received":"2026-11-22T21:20:40Z","length_ok":true,)"
        "\"frame\":\"0B4421064030201001077A01\"}\n";
    const std::string journal = "2026-11-22T21:20:40+0000 gateway wmbusctl[4711]: ";
    const ::Table<std::string, std::string, std::string> rows = {
        {"21 06 / 40 30 20 10 01 07", good + mixed + end, record + record + "0/0"},
        {id, each_line(good + mixed + end, "", "\r"), record + record + "0/0"},
        {id, each_line((mixed + end + good).substr(1), journal, ""), record + record + "0/0"},
        {id, each_line(good + good, "", "", 2), record + record + "0/2"}, // the last lines, too
        {id, record + "wmbus/gw1/10203040 " + record + good, record + record + record + "0/0"},
        {"10203041", good + begin + "2" + dump + "02 44" + last + "] on modem [a1b2c3]", "0/0"},
        {id, begin + "13" + data + end + begin + "11" + data + end + good, record + "2/0"},
        {id, begin + "20" + other + end + begin + "12" + dump + bytes + good, record + "2/0"},
        {id, mixed + "x" + end + begin + "12" + dump + bytes + "7A 0" + end + mixed, "3/0"},
        {id, begin + "12" + dump + "0B 44 21 06 41 30 20 10 01 07 7A 01" + end + begin, "2/0"},
        {id, std::string(9999, '\0') + good + begin + "65536" + end + end, record + "1/2"}};
    for (const auto &[endpoint, in, expected] : rows) {
        Filter filter;
        ASSERT_TRUE(set_modem(filter, "A1B2C3") && set_endpoint(filter, endpoint));
        for (size_t cut = 0; cut < in.size(); ++cut) {
            ASSERT_EQ(records_of(in, cut, Format::json, filter), expected) << in << cut;
        }
    }
}

TEST(Frames, AreReadFromRecordsOfAnyMaker)
{
    const Texts rows = {
        {R"( { "a" : [1, {"b\"\u00e9": -1.5e+3}, []], "rssi" : null, "frame" : "02 44" } )",
         "1970-01-01 00:00:00.000;0;0;;0x0244\n0/0"},
        {R"({"frame":"0B4421064030201001077A","time":"2026-11-22T21:20:40.119Z","rssi":-7})",
         "2026-11-22 21:20:40.119;-7;0;10203040;0x0B4421064030201001077A\n0/0"},
        {R"({"event":"state","modem":"a1"})", "0/0"},
        {R"({"frame":"024"})", "0/1"},
        {R"({"frame":""})", "0/1"},
        {R"({"frame":"0244","rssi":1})", "0/1"},
        {R"({"frame":"0244","time":"2026-02-30T21:20:40Z"})", "0/1"},
        {R"({"frame":"0244","modem":12})", "0/1"},
        {R"({"frame":"0244",})", "0/1"},
        {R"({"frame":"0244","a":01}})", "0/1"},
        {R"({"frame":"0244","a":"\x"})", "0/1"},
        {R"({"frame":"0244","a":)" + std::string(99, '[') + std::string(99, ']') + '}', "0/1"}};
    for (const auto &[in, expected] : rows) {
        std::string out = records_of(in, 5, Format::rtlwmbus, {});
        out.erase(0, out.find('T') == 0 ? strlen("T1;1;1;") : 0);
        EXPECT_EQ(out, expected) << in;
    }
}

TEST(Frames, ComeWithTheEventsOfTheirModems)
{
    const std::string length = at + "DEBUG:app_lan:2:WMBUS Data len : 2", dump = "DUMP:app_lan:";
    const std::string banner = "\n PACKET RECEIVED\n RTC:0,0, FREQ:0, RSSI:-0, FREQ_OFFSET:0, "
                               "RF_MOD:0, RF_RECEIVER:0" +
                               length;
    const std::string frame = at + dump + "3:01 44" + at +
                              "DEBUG:app_lan:4:Receive RF frame from EndPoint [] on modem [a1]";
    const std::string action = at + "INFO:Perform action on modem LAN:a1", other = at + dump + "9:";
    const std::string parameter = at + "INFO:Param req : 0x101 len:2, value:";
    const std::string told = R"(parameter,"modem":"a1","parameter":"101","value":)";
    const Texts rows = {
        {"INFO:Modem INFO :protocol:1, serial number:a1, tmsp:-1, hw_ver:1.2, sw_ver:2.3, type:1, "
         "location:4, state:3, wakeup:5, nb RF receiver:2, RF:1f/2/0/0/0/0/0",
         R"(announcement,"modem":"a1","time":"2106-02-07T06:28:15Z","protocol":1,"hw_ver":"1.2",)"
         R"("sw_ver":"2.3","type":1,"location":4,"state":"3","wakeup":5,"receivers":["1f","2"]})"},
        {"INFO:Modem INFO :protocol:1, serial number:a1, tmsp:1, hw_ver:1", ""},
        {"INFO:New modem detected b2 (IP:10.0.0.1:5683)", ""}, // is not the modem asked for
        {"INFO:New modem detected a1 (IP:10.0.0.1:5683)",
         R"(detection,"modem":"a1","address":"10.0.0.1:5683"})"},
        {"DEBUG:app_lan:7:Modem a1 is in RUNNING state",
         R"(state,"modem":"a1","state":"RUNNING"})"},
        {"DEBUG:app_lan:7:Update statistics of Modem a1", R"(statistics,"modem":"a1"})"},
        {"DEBUG:app_lan:7:Firmware install (name:) of modem \x1B\") of modem a1 is KO ",
         R"(installation,"modem":"a1","name":") of modem \u001B\u0022","result":"KO"})"},
        {"DEBUG:coap_client:7:COAP RES:4.04", ""}, // nobody was asked
        {action.substr(at.size()) + at + "DEBUG:coap_client:7:COAP RES:4.04",
         R"(action,"modem":"a1"}response,"modem":"a1","code":"4.04"})"},
        {action.substr(at.size()) + at + "INFO:Start CoAP server on 0.0.0.0:5683" + parameter +
             other + "0A 00",
         R"(action,"modem":"a1"})"},
        {action.substr(at.size()) + banner + frame + parameter + banner + frame + other + "0A 00 ",
         R"(action,"modem":"a1"}frameframe)" + told + R"("0A00","length_ok":true})"},
        {action.substr(at.size()) + parameter + at +
             "WARNING:app_lan:8:Param value cut, announced:2 received:1" + other + "0A",
         R"(action,"modem":"a1"})" + told + R"("0A","length_ok":false})"}};
    Filter filter;
    ASSERT_TRUE(set_modem(filter, "a1"));
    for (const auto &[in, expected] : rows) {
        std::string out = records_of(at + in + "\n", 0, Format::events, filter);
        EXPECT_EQ(records_of(out.substr(0, out.size() - 3), 0, Format::events, filter), out);
        for (const std::string same :
             {R"({"event":")", R"(","received":"2026-11-22T21:20:40Z")", "\n"}) {
            for (size_t i = 0; (i = out.find(same)) != std::string::npos;) {
                out.erase(i, same.size());
            }
        }
        for (size_t i = 0; (i = out.find("frame\",")) != std::string::npos;) {
            out.erase(i + 5, out.find('}', i) - i - 4);
        }
        EXPECT_EQ(out, expected + "0/0") << in;
    }
}

Frame make_frame(const std::string &digits, int64_t received, int rssi = -60)
{
    Frame frame{};
    frame.size = parse_bytes(digits, frame.bytes, sizeof frame.bytes);
    frame.received = received;
    frame.rssi = rssi;
    frame.modem = 0xA1B2C3;
    return frame;
}

TEST(Frames, AreNewOnceInASpan)
{
    const ::Table<const char *, int64_t, bool> rows = {
        {"0244", 1000, true}, {"0244", 1000, false}, {"0244", 1060, false},
        {"0244", 1061, true}, {"0245", 1061, true},  {"024400", 1061, true},
        {"0244", 939, true},  {"0244", 940, false},  {"0244", 1121, false},
        {"0244", 1122, true}, {"0244", 1300, true},  {"0244", 1240, false}};
    Unique unique{};
    ASSERT_TRUE(prepare_unique(unique, 60));
    for (const auto &[digits, received, expected] : rows) {
        EXPECT_EQ(is_new(unique, make_frame(digits, received)), expected) << digits << received;
    }
    EXPECT_EQ(unique.left_out + unique.forgotten, 5);
    for (size_t i = 0; i < 2 * UNIQUE_MAX; ++i) {
        Frame frame = make_frame("00112233", 2000);
        memcpy(frame.bytes, &i, sizeof(uint32_t));
        ASSERT_TRUE(is_new(unique, frame));
    }
    EXPECT_EQ(unique.forgotten, UNIQUE_MAX);
    EXPECT_EQ(unique.entries.size(), UNIQUE_MAX);
}

TEST(Frames, MakeATableOfTheirMeters)
{
    const std::string water = "0B4421064030201001077A", heat = "0B44F4211705232011087A";
    frames::Table table;
    EXPECT_EQ(table_text(table, {0, 0}).substr(0, 22), "Meters: 0, frames: 0\nM");
    for (int i = 0; i < 21; ++i) { // every 16 s, by two modems, and once much later
        add_frame(table,
                  make_frame(water + "0" + "0123456789ABCDEF"[i / 2], 86390 + i / 2 * 16, -60 - i));
    }
    add_frame(table, make_frame(heat + "01", INT32_MAX, -255)); // by a clock that was ahead
    add_frame(table, make_frame(heat + "01", 40, -255));
    add_repeated(table, make_frame(heat + "01", 40));
    add_frame(table, make_frame("0244", 50));
    const std::string head = "Man Ident    Ver Type                 Modem Frames       Seen Every "
                             "RSSI  Low Mean High Rep\n";
    const std::string text =
        "Meters: 2, frames: 24, last: 1970-01-02 00:02:30 UTC, 1 too short for "
        "a meter\n" +
        head +
        "AQA 10203040   1 Water               a1b2c3     21   00:02:30   16s "
        " -80  -80  -70  -60  10\n"
        "HOT 20230517  17 Heat cost allocator a1b2c3      2 1970-01-01     - "
        "-255 -255 -255 -255   1\n";
    EXPECT_EQ(table_text(table, {0, 0}), text);
    EXPECT_EQ(table_text(table, {30, 3}), "Meters: 2, frames: 24, last: 1\n"
                                          "Man Ident Ver Type Modem Frame\n"
                                          "... and 2 more\n");
    EXPECT_EQ(table_text(table, {30, 1}), "Meters: 2, frames: 24, last: 1\n");
    for (unsigned i = 0; i < TABLE_SIZE_MAX + 1; ++i) {
        Frame frame = make_frame(heat, 86400);
        memcpy(frame.bytes + 4, &i, sizeof i);
        add_frame(table, frame);
    }
    EXPECT_EQ(table.rows.size() + table.forgotten, TABLE_SIZE_MAX + 3);
    EXPECT_EQ(table_text(table, {0, 0}).find("10203040"), std::string::npos);
}
} // namespace
