#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "shr/uniconv.h"

namespace {

// The address bytes in use, as lower-case hexadecimal.
std::string hex_of(const UniAddr& ua)
{
    char buf[2 * UNI_MAXADDR];
    int n = hex_put(buf, ua.addr, ua.len > UNI_MAXADDR ? UNI_MAXADDR : ua.len);
    return std::string(buf, size_t(n));
}

UniAddr make(uint16_t family, const std::vector<uint8_t>& bytes, int len = -1)
{
    UniAddr ua{};  // std::copy, not memcpy: no null source for no bytes
    ua.family = family;
    std::copy(bytes.begin(), bytes.end(), ua.addr);
    ua.len = uint16_t(len < 0 ? int(bytes.size()) : len);
    return ua;
}

std::vector<uint8_t> name16(const char* name, int type = ' ')
{
    std::vector<uint8_t> b(16, ' ');
    memcpy(b.data(), name, strlen(name));
    b[15] = uint8_t(type);
    return b;
}

// A small deterministic generator for the property tests.
struct Lcg {
    uint32_t s;
    uint32_t next() { s = s * 1103515245u + 12345u; return s >> 8; }
};

}  // namespace

TEST(UniAton, ReadsEveryFamily) {
    const struct { std::string text; char family; std::string hex; } cases[] = {
        {"10.0.0.1", 'I', "0a000001"},
        {std::string(120, '0') + "1.2.3.4", 'I', "01020304"},    // 127 characters
        {"10.0.0.1.137", 'I', "0a0000010089"},
        {"I(10.0.0.1)", 'I', "0a000001"},
        {"I(10.0.0.1", 'I', "0a000001"},               // no closing parenthesis
        {"I(10.0.0.1)junk", 'I', "0a000001"},          // cut at the last ")"
        {"0x0a.010.0.255", 'I', "0a0800ff"},           // hexadecimal and octal parts
        {"1.2.3.4.65535", 'I', "01020304ffff"},
        {"0.0.0.0.0", 'I', "000000000000"},
        {"FOO", 'N', "464f4f20202020202020202020202020"},
        {"foo<20>", 'N', "464f4f20202020202020202020202020"},
        {"foo<00>/3/4", 'N', "464f4f202020202020202020202020" "00" "00030004"},
        {"N(foo/0x10)", 'N', "464f4f20202020202020202020202020" "0010"},
        {"N(foo/70000)", 'N', "464f4f20202020202020202020202020" "1170"},  // low 16 bits
        {"N(a\\x41\\/b\\<\\\\)", 'N', "41412f423c5c20202020202020202020"},
        {"N(\\xfF)", 'N', "ff202020202020202020202020202020"},
        {"\xc3\xa9", 'N', "c3a9202020202020202020202020" "2020"},  // non-ASCII not upper-cased
        {"N()", 'N', "20202020202020202020202020202020"},
        {"<1>", 'N', "20202020202020202020202020202001"},
        {"<123>", 'N', "20202020202020202020202020200123"},  // right-aligned
        {"ABCDEFGHIJKLMNO<1>", 'N', "4142434445464748494a4b4c4d4e4f01"},
        {"abc:def", 'X', "00000abc000000000def0000"},
        {"1:2:3", 'X', "000000010000000000020003"},
        {"X(::5)", 'X', "000000050000000000000000"},   // runs of ":" count as one
        {"X(123456789:1)", 'X', "12345678" "000000000001" "0000"},  // first 8 digits
        {"X(0102)", 'X', "0102"},                       // no ":": raw bytes
        {"A(1.2.3)", 'A', "00010203"},
        {"A(65537..300)", 'A', "00012c00"},             // truncated, missing part 0
        {"A(x.0x10.9.9)", 'A', "00001009"},            // never fails
        {"abcdefabcdefabcdef", 'O', "abcdefabcdefabcdef"},  // 18 letters: not a name
        {"O(abc)", 'O', "0abc"},                       // odd count: right-aligned
        {"Z(zz12)", 'Z', "0012"},                      // non-digits read as 0
        {"O()", 'O', ""},
        {std::string(100000, 'e'), 'O', std::string(120, 'e')},  // at most sixty raw bytes
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 200));
        const UniAddr* ua = uni_aton(c.text.c_str());
        ASSERT_NE(ua, nullptr);
        EXPECT_EQ(uni_type(ua), c.family);
        EXPECT_EQ(ua->len * 2u, c.hex.size());
        EXPECT_EQ(hex_of(*ua), c.hex);
    }
}

TEST(UniAton, RefusesBadTexts) {
    const std::string long_inet = std::string(121, '0') + "1.2.3.4";   // 128 characters
    const struct { std::string text; const char* why; } cases[] = {
        {"", "empty"},
        {"10.0.0", "three parts"},
        {"1.2.3.4.5.6", "six parts"},
        {"256.0.0.1", "byte over 255"},
        {"1.2.3.4.65536", "port over 65535"},
        {"1..2.3", "empty part"},
        {"1.2.3.4.", "empty last part"},
        {".1.2.3", "empty first part"},
        {"1.2.3.x", "not a number"},
        {"1.2.3.4x", "characters after the digits"},
        {"08.1.1.1", "8 is not octal"},
        {"0x.1.1.1", "prefix without digits"},
        {"-1.0.0.1", "negative"},
        {"4294967296.0.0.1", "wraps to 0 in 32 bits"},
        {"-4294967295.0.0.1", "negated to 1 in 32 bits"},
        {long_inet, "128 characters"},
        {"10.0.0.1:5", "a dot makes it internet"},
        {"I(abc)", "internet without dots"},
        {"I()", "empty internet"},
        {"N(ABCDEFGHIJKLMNOP)", "16 name characters"},
        {"N(ABCDEFGHIJKLMNO<0000>)", "15 characters and a 2-byte suffix"},
        {"N(foo<123456>)", "3-byte suffix"},
        {"N(foo<20)", "suffix not closed"},
        {"N(foo\\)", "backslash at the end"},
        {"N(\\x4)", "one hex digit"},
        {"N(\\x4g)", "not a hex digit"},
        {"N(\\x)", "no hex digit"},
        {"N(foo/)", "number without digits"},
        {"N(foo/1/2/3)", "three numbers"},
        {"N(foo/1x)", "characters after a number"},
        {"N(foo<20>x)", "characters after the suffix"},
        {"X(1:2:3:4)", "four XNS parts"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(uni_aton(c.text.c_str()), nullptr) << c.text;
    }
}

TEST(UniNtoa, WritesEveryFamily) {
    std::string sixty;
    for (int i = 0; i < 60; i++)
        sixty += "5a";
    const struct { UniAddr ua; std::string text; } cases[] = {
        {make('I', {10, 0, 0, 1}), "I(10.0.0.1)"},
        {make('I', {192, 168, 1, 255, 0x12, 0x34}), "I(192.168.1.255.4660)"},
        {make('I', {1, 2, 3, 4, 5}), "I(0102030405)"},          // no internet length
        {make('A', {0x01, 0x00, 7, 255}), "A(256.7.255)"},
        {make('X', {0, 0, 0x0a, 0xbc, 0, 0, 0, 0, 0x0d, 0xef, 0, 1}), "X(00000abc:000000000def:0001)"},
        {make('N', name16("FOO")), "N(foo)"},
        {make('N', name16("FOO", 0)), "N(foo<00>)"},
        {make('N', name16("ABCDEFGHIJKLMNO", 0)), "N(abcdefghijklmn<4f00>)"},
        {make('N', name16("ABCDEFGHIJKLMNO")), "N(abcdefghijklmno)"},
        {make('N', name16("A B/<\\>a()", 0x1b)), "N(a\\x20b\\/\\<\\\\>\\x61()<1b>)"},
        {make('N', name16("\x01\xff")), "N(\\x01\\xff)"},
        {make('N', {'F', 'O', 'O', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0, 0, 3, 0, 4}),
         "N(foo<00>/3/4)"},
        {make('N', name16("FOO"), 17), "N(464f4f2020202020202020202020202000)"},  // odd length: raw
        {make('O', {}), "O()"},
        {make(0x01, {0xab}), "?(ab)"},                           // unprintable family
        {make('Q', std::vector<uint8_t>(60, 0x5a), 200), "Q(" + sixty + ")"},  // length read as 60
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const char* text = uni_ntoa(&c.ua);
        EXPECT_EQ(text, c.text);
        EXPECT_LT(strlen(text), UNI_TEXTSIZE);
    }
}

// Every 16-byte name, whatever its bytes, comes back from its text form.
TEST(UniAton, EveryNameSurvivesItsTextForm) {
    Lcg g{7};
    const uint8_t alphabet[] = {' ', ' ', ' ', 'A', 'z', '0', '/', '<', '>', '\\', ')', '.', ':', 0, 0x7f, 0xff};
    for (int round = 0; round < 3000; round++) {
        std::vector<uint8_t> name(20);
        for (auto& b : name)
            b = round % 2 ? uint8_t(g.next()) : alphabet[g.next() % sizeof alphabet];
        static const int lengths[] = {16, 18, 20};
        UniAddr orig = make('N', name, lengths[round % 3]);
        memset(orig.addr + orig.len, 0, sizeof orig.addr - orig.len);
        std::string text = uni_ntoa(&orig);
        SCOPED_TRACE(text);
        const UniAddr* back = uni_aton(text.c_str());
        ASSERT_NE(back, nullptr);
        ASSERT_EQ(memcmp(back, &orig, sizeof orig), 0);
    }
}

// Hostile texts: whatever parses must format within the buffer and read
// back to the same record (families shown as "?" aside).
TEST(UniAton, ArbitraryTextsParseOrFailCleanly) {
    Lcg g{11};
    const char alphabet[] = "IN(X)A.:<>/\\xX0f9g-+ \x80\xff";
    for (int round = 0; round < 5000; round++) {
        size_t n = g.next() % 150;
        auto text = std::make_unique<char[]>(n + 1);   // exact size for the sanitizer
        for (size_t i = 0; i < n; i++)
            text[i] = round % 3 ? alphabet[g.next() % (sizeof alphabet - 1)] : char(g.next() | 1);
        text[n] = '\0';
        const UniAddr* ua = uni_aton(text.get());
        if (ua == nullptr)
            continue;
        UniAddr first = *ua;
        ASSERT_LE(first.len, UNI_MAXADDR);
        std::string shown = uni_ntoa(&first);
        ASSERT_LT(shown.size(), UNI_TEXTSIZE);
        if (first.family <= 0x20 || first.family >= 0x7f)
            continue;
        SCOPED_TRACE(shown);
        const UniAddr* back = uni_aton(shown.c_str());
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(memcmp(back, &first, sizeof first), 0);
    }
}

TEST(UniCmp, OrdersByFamilyThenLengthThenBytes) {
    UniAddr plain = make('I', {10, 0, 0, 1});
    UniAddr port137 = make('I', {10, 0, 0, 1, 0, 137});
    UniAddr port138 = make('I', {10, 0, 0, 1, 0, 138});
    UniAddr high = make('I', {10, 0, 0, 2});
    UniAddr name = make('N', name16("A"));
    EXPECT_LT(uni_cmp(&plain, &port137), 0);          // shorter first
    EXPECT_EQ(uni_cmp(&port137, &plain), 2);          // difference of the lengths
    EXPECT_LT(uni_cmp(&port137, &port138), 0);
    EXPECT_GT(uni_cmp(&high, &plain), 0);
    EXPECT_LT(uni_cmp(&high, &port137), 0);           // length before bytes
    EXPECT_EQ(uni_cmp(&name, &plain), 'N' - 'I');     // family before length
    UniAddr same = plain;
    same.addr[10] = 0x55;                             // beyond the length
    EXPECT_EQ(uni_cmp(&plain, &same), 0);
    UniAddr huge_a = make('O', std::vector<uint8_t>(60, 1), 0xffff);
    UniAddr huge_b = huge_a;
    EXPECT_EQ(uni_cmp(&huge_a, &huge_b), 0);          // compares 60 bytes, no more
    huge_b.addr[59] = 2;
    EXPECT_LT(uni_cmp(&huge_a, &huge_b), 0);
}

TEST(HexGet, RightAlignsAndReadsOnlyWhatFits) {
    const struct { int n; const char* text; std::vector<uint8_t> want; } cases[] = {
        {2, "abc", {0x0a, 0xbc}},
        {1, "F", {0x0f}},
        {2, "", {0, 0}},
        {2, "aBcD", {0xab, 0xcd}},
        {2, "123456", {0x12, 0x34}},      // first 2n characters only
        {1, "zz", {0}},                   // non-digits read as 0
        {3, "g1-2", {0x00, 0x01, 0x02}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t out[4] = {0xee, 0xee, 0xee, 0xee};
        EXPECT_EQ(hex_get(out, c.n, c.text), c.n);
        EXPECT_EQ(std::vector<uint8_t>(out, out + c.n), c.want);
        EXPECT_EQ(out[c.n], 0xee);
    }
    uint8_t out[2] = {0xee, 0xee};
    EXPECT_EQ(hex_get(out, 0, "12"), 0);
    EXPECT_EQ(hex_get(out, -3, "12"), 0);
    EXPECT_EQ(out[0], 0xee);
    // four digits with no terminating zero: nothing past them is read
    auto digits = std::make_unique<char[]>(4);
    memcpy(digits.get(), "beef", 4);
    EXPECT_EQ(hex_get(out, 2, digits.get()), 2);
    EXPECT_EQ(out[0], 0xbe);
    EXPECT_EQ(out[1], 0xef);
}

TEST(HexPutAndHexbyte, WriteAndReadPairsOfDigits) {
    const uint8_t bytes[] = {0x00, 0xff, 0x7f, 0xa0};
    char out[10];
    memset(out, '#', sizeof out);
    EXPECT_EQ(hex_put(out, bytes, 4), 8);
    EXPECT_EQ(std::string(out, 9), "00ff7fa0#");        // no terminating zero
    EXPECT_EQ(hex_put(out, bytes, -1), 0);
    EXPECT_EQ(out[0], '0');

    const struct { const char* text; int want; } cases[] = {
        {"4f", 0x4f}, {"FF", 255}, {"00x", 0}, {"4", -1}, {"g0", -1}, {"0g", -1}, {"", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(hexbyte(c.text), c.want);
    }
}
