#include "app_options.h"

#include "support.h"

namespace
{
// What is printed; then, when the line is accepted, the fields that have limits.
std::string parse(const std::string &line)
{
    std::istringstream stream("prog " + line);
    std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
    std::vector<char *> arguments(words.size());
    std::transform(words.begin(), words.end(), arguments.begin(), [](auto &w) { return w.data(); });
    AppOptions o;
    int result = 0;
    const auto count = static_cast<int>(arguments.size());
    std::ostringstream seen;
    seen << lines_of([&] { result = app_parse_options(count, arguments.data(), &o); });
    if (result == APP_OPTIONS_OK) {
        seen << 'r' << o.rx_mode << " d" << o.packet_size << " c" << o.command << " p"
             << o.set_param_id << ' ' << o.param_value_length << ' ' << int{o.param_value[11]}
             << " g" << o.get_param_id;
    }
    return seen.str();
}

TEST(Options, FieldsAndLimits)
{
    const std::string usage = "|Usage: prog -?|";
    const std::string defaults = "r0 d256 c-1 p0 0 0 g0";
    const std::string f1023(1023, 'f');
    const std::string t1024 = "-t 0 0 0 0 0 0 " + std::string(2048, 'A');
    const Table<std::string, std::string> rows = {
        {"", defaults},
        {"-r 99999999999 -c -99999999999", "r2147483647 d256 c-2147483648 p0 0 0 g0"},
        {"-c 1 -cX 3 -g 101 -x", "Unused argument -x|r0 d256 c3 p0 0 0 g257"},
        {"-p 0x101 0A051", "r0 d256 c-1 p257 2 0 g0"},
        {"-p 1 000102030405060708090A0B", "r0 d256 c-1 p1 12 11 g0"},
        {"-p 1 000102030405060708090A0B0C", "param value too long: 13 bytes, at most 12" + usage},
        {t1024, defaults},
        {t1024 + "AA", "tx frame too long: 1025 bytes, at most 1024" + usage},
        {"-u " + f1023, defaults},
        {"-u f" + f1023, "firmware name too long: 1024 bytes, at most 1023" + usage},
        {"-d " + f1023 + " 64 5", "r0 d64 c-1 p0 0 0 g0"},
        {"-d f" + f1023 + " 64 5", "file name too long: 1024 bytes, at most 1023" + usage},
        {"-d f 1 -1", "inter-packet delay negative: -1" + usage}};
    for (const auto &[line, expected] : rows) {
        EXPECT_EQ(parse(line), expected);
    }
}
} // namespace
