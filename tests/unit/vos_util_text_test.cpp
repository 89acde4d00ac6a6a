#include <cstdarg>

#include "support.h"
#include "vos_mem.h"
#include "vos_str.h"
#include "vos_util.h"

namespace
{
// What a writer leaves in a buffer of exactly that size: a byte more is the sanitizer's to find.
template<typename F> std::string written(size_t size, const F &write)
{
    std::vector<char> output(size, '#');
    write(output.data());
    return output.data();
}

TEST(Text, NumbersAreWrittenIntoTheRoomThatIsAskedFor)
{
    const Table<uint32_t, uint32_t, std::string> rows = {
        {0x1F, 4, "001F"}, {5, 12, "00000005"}, {0, 0, "0"}, {~0U, 1, "FFFFFFFF"}};
    for (const auto &[value, width, text] : rows) {
        const auto write = [v = value, w = width](char *to) { vos_util_u32_to_hex(to, v, w); };
        EXPECT_EQ(written(text.size() + 1, write), text);
    }
    const uint8_t bytes[] = {1, 0xAB};
    EXPECT_EQ(written(5, [&](char *to) { vos_util_bytes_to_hexstr(to, bytes, 2); }), "01AB");
    for (const int32_t value : {INT32_MIN, -45, 0, 7, INT32_MAX}) {
        const std::string text = std::to_string(value);
        EXPECT_EQ(written(text.size() + 1, [=](char *to) { vos_util_itoa(value, to); }), text);
    }
    EXPECT_EQ(written(11, [](char *to) { EXPECT_EQ(vos_util_utoa(~0U, to), 10U); }), "4294967295");
    for (const auto &[text, value] : Table<const char *, uint32_t>{
             {"12ab", 12}, {"-3", 0}, {" 3", 0}, {"", 0}, {"4294967298", 2}, {nullptr, 0}}) {
        EXPECT_EQ(vos_util_atou(text), value);
    }
}

TEST(Text, IsTestedAndComparedByteByByte)
{
    for (const auto &[text, plus] :
         Table<const char *, int>{{"", 1}, {"+", 1}, {"+0", 1}, {"1+", 0}, {nullptr, 0}}) {
        EXPECT_EQ(vos_util_is_dec_str_plus(text), plus);
    }
    EXPECT_EQ(vos_util_is_hex_str("09afAF") * 2 + vos_util_is_hex_str("0g"), 2);
    EXPECT_EQ(vos_util_is_printable("ab\n", 2) * 2 + vos_util_is_printable("\x7F", 2), 2);
    EXPECT_EQ(vos_util_is_printable("\xE9", 9), 0);
    const Table<const char *, const char *, uint32_t, int> pairs = {
        {"aBc", "AbC", 9, 0}, {"ab", "abc", 9, -'c'},       {"abc", "ABd", 2, 0},
        {"a", "b", 0, 0},     {"a", "\xE9", 9, 'a' - 0xE9}, {"[", "Z", 9, '[' - 'z'},
        {nullptr, "", 0, -1}, {"", nullptr, 9, -1}};
    for (const auto &[a, b, limit, difference] : pairs) {
        EXPECT_EQ(vos_util_strncasecmp(a, b, limit), difference) << a << ' ' << b;
    }
    EXPECT_EQ(vos_util_strcasecmp("Abc", "aBD"), -1);
    EXPECT_EQ(vos_util_match_keyword("Start=1", "stop", "START", "st", nullptr), 2);
    EXPECT_EQ(vos_util_match_keyword("St", "start", nullptr), 0);
    for (const auto &[change, text] : Table<decltype(&vos_util_to_upper), const char *>{
             {vos_util_to_upper, "AZ{@[`Z"}, {vos_util_to_lower, "az{@[`z"}}) {
        std::string mixed = "aZ{@[`z";
        change(mixed.data());
        EXPECT_EQ(mixed, text);
    }
    EXPECT_EQ(written(7, [](char *to) { vos_util_strip_crlf(to, "on\r\ne\n!", 6); }), "one");
    EXPECT_EQ(written(1, [](char *to) { vos_util_strip_crlf(to, "x", -1); }), "");
}

TEST(Text, FieldsOfALine)
{
    using Fields = std::vector<std::string>;
    const Table<std::string, Fields> rows = {
        {"K: 21,99", {"21", "99"}},
        {"K 12\n", {"12\n"}},
        {"A b=c:d", {"c:d"}},
        {"K:,,x\r\n", {"", "", "x"}},
        {"K:\"a,b\",c", {"a,b", "c"}},
        {"K:\"a\"", {"a"}},
        {"K:\"a\"\r\n", {"a"}},
        {"K:\"q\"\nx", {"q", "x"}},
        {"K:1,2,3,\"q,\"\r\nfree, text\r\n", {"1", "2", "3", "q,", "free, text"}},
        {"K:" + std::string(65534, '1'), {}},
        {"K:1" + std::string(65537, ','), {"1"}}};
    for (const auto &[text, fields] : rows) {
        std::vector<char> output(text.size() + 1, '#');
        Fields found;
        for (int32_t n = 1; vos_util_get_field(output.data(), text.c_str(), n) != nullptr; ++n) {
            found.emplace_back(output.data());
        }
        EXPECT_EQ(found, fields) << text.substr(0, 40);
        EXPECT_STREQ(output.data(), "");
        EXPECT_EQ(vos_util_get_field(output.data(), text.c_str(), -7) != nullptr, !fields.empty());
    }
    EXPECT_EQ(written(3, [](char *to) { vos_util_get_field(to, 3, "K:1234", 1); }), "12");
    EXPECT_EQ(vos_util_get_field(nullptr, 0, "K:1", 1), nullptr);
}

TEST(Str, JoinsAndCopiesWithinTheRoom)
{
    const auto joined = [](const char *one, const char *other, uint32_t limit, uint32_t size) {
        std::vector<char> output(size, '#');
        output.resize(vos_str_concat(one, limit, other, limit, output.data(), size));
        return std::string(output.begin(), output.end());
    };
    EXPECT_EQ(joined("abc", "de", 10, 10), std::string("abcde\0", 6));
    EXPECT_EQ(joined("abc", "de", 10, 4), "abcd");
    EXPECT_EQ(joined("abc", "de", 1, 10), std::string("ad\0", 3));
    EXPECT_EQ(joined(nullptr, nullptr, 1, 1), "");
    char *block = vos_str_concat_new("abc", 2, "defg", ~0U);
    EXPECT_STREQ(block, "abdefg");
    vos_mem_free(&block);
    EXPECT_EQ(written(3, [](char *to) { vos_str_copy("abc", to, 3); }), "ab");
    EXPECT_EQ(written(1, [](char *to) { vos_str_copy("abc", to, 1); }), "");
    EXPECT_EQ(lines_of([joined] {
                  (joined("a", "b", 1, 0), vos_str_copy("abc", nullptr, 0),
                   vos_str_concat_new(nullptr, 1, nullptr, 1));
              }),
              "ERROR:vos_str:Invalid destinaton buffer|WARNING:vos_str:No room in dst buffer|"
              "WARNING:vos_str:Null strings|");
}
} // namespace
