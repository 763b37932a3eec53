// The universal address: its text forms, and the conversions to and from
// internet addresses and NetBIOS names that the FIFO requests carry.
#include "tests/unit/unitkit.h"

#include "nb/nbladdr.h"
#include "shr/uniconv.h"

namespace {

std::string hex_of(const UniAddr& ua)
{
    char buf[2 * UNI_MAXADDR];
    return std::string(buf, size_t(hex_put(buf, ua.addr, ua.len)));
}

UniAddr make(uint16_t family, const std::vector<uint8_t>& bytes, int len = -1)
{
    UniAddr ua{};
    ua.family = family;
    std::copy(bytes.begin(), bytes.end(), ua.addr);
    ua.len = uint16_t(len < 0 ? int(bytes.size()) : len);
    return ua;
}

}  // namespace

// Family 0: refused.
TEST(UniAton, ReadsEveryFamilyAndRefusesBadTexts) {
    const std::string foo = "464f4f20202020202020202020202020";
    const struct { std::string text; char family; std::string hex; } cases[] = {
        {"10.0.0.1", 'I', "0a000001"}, {"I(10.0.0.1)junk", 'I', "0a000001"}, {"0x0a.010.0.255", 'I', "0a0800ff"},
        {std::string(120, '0') + "1.2.3.4", 'I', "01020304"}, {"1.2.3.4.65535", 'I', "01020304ffff"},
        {"foo<20>", 'N', foo}, {"foo<00>/3/4", 'N', foo.substr(0, 30) + "00" "00030004"},
        {"N(foo/70000)", 'N', foo + "1170"}, {"N(a\\x41\\/b\\<\\\\)", 'N', "41412f423c5c20202020202020202020"},
        {"\xc3\xa9", 'N', "c3a9202020202020202020202020" "2020"},  // not upper-cased
        {"<123>", 'N', "20202020202020202020202020200123"},  // right-aligned
        {"X(::5)", 'X', "000000050000000000000000"}, {"X(0102)", 'X', "0102"}, {"A(65537..300)", 'A', "00012c00"},
        {"abcdefabcdefabcdef", 'O', "abcdefabcdefabcdef"}, {"O(abc)", 'O', "0abc"}, {"Z(zz12)", 'Z', "0012"},
        {std::string(100000, 'e'), 'O', std::string(120, 'e')},
    };
    for (const auto& c : cases) {
        const UniAddr* ua = uni_aton(c.text.c_str());
        ASSERT_NE(ua, nullptr) << c.text.substr(0, 200);
        EXPECT_TRUE(uni_type(ua) == c.family && hex_of(*ua) == c.hex) << c.text.substr(0, 200) << " " << hex_of(*ua);
    }
    for (const std::string& bad : {std::string(), std::string(121, '0') + "1.2.3.4"})
        EXPECT_EQ(uni_aton(bad.c_str()), nullptr);
    for (const char* bad : {"10.0.0", "1.2.3.4.5.6", "256.0.0.1", "1.2.3.4.65536", "1..2.3", "1.2.3.4x", "08.1.1.1",
                            "-1.0.0.1", "4294967296.0.0.1", "I(abc)", "N(ABCDEFGHIJKLMNOP)", "N(ABCDEFGHIJKLMNO<0000>)",
                            "N(foo<123456>)", "N(foo<20)", "N(foo\\)", "N(\\x4g)", "N(foo/)", "N(foo/1/2/3)",
                            "N(foo<20>x)", "X(1:2:3:4)"})
        EXPECT_EQ(uni_aton(bad), nullptr) << bad;
}

TEST(UniNtoa, WritesEveryFamily) {
    const std::string sixty = [] { std::string s; for (int i = 0; i < 60; i++) s += "5a"; return s; }();
    const struct { UniAddr ua; std::string text; } cases[] = {
        {make('I', {192, 168, 1, 255, 0x12, 0x34}), "I(192.168.1.255.4660)"},
        {make('I', {1, 2, 3, 4, 5}), "I(0102030405)"},
        {make('A', {0x01, 0x00, 7, 255}), "A(256.7.255)"},
        {make('X', {0, 0, 0x0a, 0xbc, 0, 0, 0, 0, 0x0d, 0xef, 0, 1}), "X(00000abc:000000000def:0001)"},
        {make('N', ns_name("ABCDEFGHIJKLMNO", 0)), "N(abcdefghijklmn<4f00>)"},
        {make('N', ns_name("A B/<\\>a()", 0x1b)), "N(a\\x20b\\/\\<\\\\>\\x61()<1b>)"},
        {make('N', ns_name("FOO"), 17), "N(464f4f2020202020202020202020202000)"},
        {make(0x01, {0xab}), "?(ab)"},
        {make('Q', std::vector<uint8_t>(60, 0x5a), 200), "Q(" + sixty + ")"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(uni_ntoa(&c.ua), c.text);
}

// Every 16-byte name with up to two numbers, whatever its bytes, reads back
// from its text form.
TEST(UniAton, EveryNameSurvivesItsTextForm) {
    uint32_t s = 7;
    const uint8_t alphabet[] = {' ', ' ', 'A', 'z', '0', '/', '<', '>', '\\', ')', '.', ':', 0, 0x7f, 0xff};
    for (int round = 0; round < 3000; round++) {
        UniAddr orig{};
        orig.family = 'N';
        orig.len = uint16_t(16 + 2 * (round % 3));
        for (int i = 0; i < orig.len; i++) {
            s = s * 1103515245u + 12345u;
            orig.addr[i] = round % 2 ? uint8_t(s >> 8) : alphabet[(s >> 8) % sizeof alphabet];
        }
        std::string text = uni_ntoa(&orig);
        const UniAddr* back = uni_aton(text.c_str());
        ASSERT_TRUE(back != nullptr && memcmp(back, &orig, sizeof orig) == 0) << text;
    }
}

// The internet addresses and NetBIOS names of requests, both ways; other
// families and lengths are refused with the result untouched.
TEST(UniConvert, InternetAndNameAddressesConvertBothWays) {
    const uint32_t addr = htonl(0x0a000001);
    for (int32_t port : {-1, 0, 0x12345}) {
        UniAddr ua;
        memset(&ua, 0xa5, sizeof ua);
        EXPECT_EQ(iantoua(&ua, addr, port), 0);
        uint32_t a = 0;
        int32_t p = 7;
        EXPECT_EQ(uatoian(&a, &p, &ua), 0);
        EXPECT_TRUE(a == addr && p == (port < 0 ? -1 : port & 0xffff)) << port;
        EXPECT_EQ(memcmp(uni_aton(uni_ntoa(&ua)), &ua, sizeof ua), 0);  // unused bytes zeroed
    }
    for (const char* t : {"N(foo<00>)", "N(foo<00>/0/5)", "N(foo<00>/4660/0)"}) {
        UniAddr ua = *uni_aton(t), back;
        NbAddr na;
        memset(&back, 0xa5, sizeof back);
        EXPECT_EQ(vznb_uatona(&na, &ua) + vznb_natoua(&back, &na), 0);
        EXPECT_EQ(memcmp(&back, &ua, sizeof back), 0) << t;  // numbers only when one is set
    }
    for (const UniAddr& ua : {make('N', ns_name("FOO")), make('O', {10, 0, 0, 1}), make('I', {1, 2, 3, 4, 5})}) {
        uint32_t a = 99;
        EXPECT_TRUE(uatoian(&a, nullptr, &ua) == -1 && a == 99u) << uni_ntoa(&ua);
    }
    EXPECT_TRUE(hex_get(nullptr, 0, "ab") == 0 && hex_get(nullptr, -1, "ab") == 0) << "no room: nothing read";
    for (const UniAddr& ua : {make('N', ns_name("FOO"), 17), make('I', ns_name("FOO")), make('N', ns_name("FOO"), 15)}) {
        NbAddr na{}, untouched{};
        EXPECT_TRUE(vznb_uatona(&na, &ua) == VZNB_BADADDR && memcmp(&na, &untouched, sizeof na) == 0);
    }
}
