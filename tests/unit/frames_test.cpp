#include "support.h"
#include "wmbusctl_frames_records.h"

namespace
{
using namespace frames;
TEST(Frames, AreFoundAmongOtherLinesHoweverTheInputIsCut)
{
    const std::string at = "\n20261122-212040:", rule = "\n################", id = "10203040";
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
        "\"frame\":\"0B4421064030201001077A01\"}\n";
    const Table<std::string, std::string, std::string> rows = {
        {"21 06 / 40 30 20 10 01 07", good + mixed + end, record + record + "0/0"},
        {"10203041", good + begin + "2" + dump + "02 44" + last + "] on modem [a1b2c3]", "0/0"},
        {id, begin + "13" + data + end + begin + "11" + data + end + good, record + "2/0"},
        {id, begin + "20" + other + end + begin + "12" + dump + bytes + good, record + "2/0"},
        {id, mixed + "x" + end + begin + "12" + dump + bytes + "7A 0" + end + mixed, "3/0"},
        {id, begin + "12" + dump + "0B 44 21 06 41 30 20 10 01 07 7A 01" + end + begin, "2/0"},
        {id, std::string(9999, '\0') + good + begin + "65536" + end + end, record + "1/2"}};
    for (const auto &[endpoint, in, expected] : rows) {
        for (size_t cut = 0; cut < in.size(); ++cut) {
            std::string out;
            Filter filter;
            ASSERT_TRUE(set_modem(filter, "A1B2C3") && set_endpoint(filter, endpoint));
            Parser parser([&](const Frame &frame) {
                if (matches(filter, frame)) {
                    append_record(out, Format::json, frame);
                }
            });
            parser.feed(std::string_view(in).substr(0, cut));
            parser.feed(std::string_view(in).substr(cut));
            parser.finish();
            out += std::to_string(parser.counts().broken_frames) + '/';
            ASSERT_EQ(out + std::to_string(parser.counts().stray_lines), expected) << in << cut;
        }
    }
}
} // namespace
