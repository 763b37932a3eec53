#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "misc/nencode.h"

namespace {

std::vector<uint8_t> wire(const char* text)
{
    std::vector<uint8_t> out(strlen(text) + 3, 0xEE);
    vd_to_d(out.data(), text);
    return out;
}

const uint8_t* name16(const char* s)
{
    static uint8_t n[NB_NAMELEN];
    memcpy(n, s, NB_NAMELEN);
    return n;
}

}  // namespace

TEST(NEncode, HalfBytesBecomeLettersAndDecodeBack) {
    const struct { uint8_t byte; const char* pair; } cases[] = {
        {0x20, "CA"}, {0x00, "AA"}, {0xFF, "PP"}, {0x4E, "EO"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pair);
        uint8_t name[NB_NAMELEN];
        memset(name, c.byte, sizeof name);
        char enc[NB_ENCLEN + 1];
        memset(enc, 'x', sizeof enc);
        n_encode(enc, name);
        std::string want;
        for (int i = 0; i < NB_NAMELEN; i++)
            want += c.pair;
        EXPECT_EQ(std::string(enc), want);
        uint8_t back[NB_NAMELEN];
        n_decode(back, enc);
        EXPECT_EQ(memcmp(back, name, NB_NAMELEN), 0);
    }
    // letters outside 'A'..'P' are not refused: 'Q' - 'A' = 16 carries into the high half
    char odd[NB_ENCLEN + 1];
    memset(odd, 'A', NB_ENCLEN);
    odd[0] = 'B';
    odd[1] = 'Q';
    uint8_t out[NB_NAMELEN];
    n_decode(out, odd);
    EXPECT_EQ(out[0], 0x20);
}

TEST(VdToD, WritesLabelsAndTheEndingZeroAndDToVdReadsThemBack) {
    const struct { const char* text; std::vector<uint8_t> bytes; const char* back; } cases[] = {
        {"abc.def", {3, 'a', 'b', 'c', 3, 'd', 'e', 'f', 0}, "abc.def"},
        {"abc.def.", {3, 'a', 'b', 'c', 3, 'd', 'e', 'f', 0}, "abc.def"},
        {"", {0}, ""},
        {"a\\.b.c", {3, 'a', '.', 'b', 1, 'c', 0}, "a\\.b.c"},
        {"a\\\\b", {3, 'a', '\\', 'b', 0}, "a\\\\b"},
        {"ab\\", {2, 'a', 'b', 0}, "ab"},  // a trailing backslash is dropped
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto out = wire(c.text);
        ASSERT_EQ(out.size(), strlen(c.text) + 3);  // the most ever written
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + c.bytes.size()), c.bytes);
        char text[300];
        ASSERT_EQ(d_to_vd(text, out.data(), sizeof text), 0);
        EXPECT_STREQ(text, c.back);
    }
    std::string enc(NB_ENCLEN, 'C');
    auto w = wire((enc + ".sales.corp").c_str());
    char out[300];
    ASSERT_EQ(d_to_vd(out, w.data(), sizeof out), 0);
    EXPECT_STREQ(out + 33, "sales.corp");  // the scope from the 34th character
}

TEST(DToVd, RefusesWhatDoesNotFitAndNeverWritesPastSize) {
    std::string enc(NB_ENCLEN, 'E');
    const struct { std::string text; int size; int result; } cases[] = {
        {enc, 34, 0},
        {enc, 33, -1},  // the label's room is size - 1 and must exceed the text
        {enc + ".x", 34, -1},
        {enc + ".x", 35, -1},
        {enc + ".x", 36, 0},
        {"a\\.b", 4, -1},  // the escape makes 4 characters
        {"a\\.b", 5, -1},
        {"a\\.b", 6, 0},
        {"", 1, 0},
        {"", 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " in " << c.size);
        auto w = wire(c.text.c_str());
        std::vector<char> out(c.size + 8, '#');
        EXPECT_EQ(d_to_vd(out.data(), w.data(), c.size), c.result);
        for (size_t i = c.size; i < out.size(); i++)
            EXPECT_EQ(out[i], '#') << "byte " << i;
    }
}

TEST(LToVl, UsesTheLengthByteAsItStands) {
    // 0xC0 is a length here, not a pointer: 192 bytes do not fit in 100
    std::vector<uint8_t> in(200, 'a');
    in[0] = 0xC0;
    char out[100];
    EXPECT_EQ(l_to_vl(out, in.data(), nullptr, nullptr, sizeof out), -1);
    in[0] = 70;  // above 63 and accepted
    char* end = nullptr;
    const uint8_t* next = nullptr;
    ASSERT_EQ(l_to_vl(out, in.data(), &end, &next, sizeof out), 0);
    EXPECT_EQ(end, out + 70);
    EXPECT_EQ(next, in.data() + 71);
}

TEST(NmText, NamesToTextAndBack) {
    EXPECT_STREQ(nm_printable(name16("HOST           \x20")), "host");
    EXPECT_STREQ(nm_printable(name16("HOST           \x03")), "host<03>");
    const uint8_t* n = name16("Ho.st          \x1b");
    char text[NM_TEXTSIZE];
    ASSERT_EQ(nm_nbtostr(text, n), 0);
    uint8_t back[NB_NAMELEN];
    ASSERT_EQ(nm_strtonb(back, text), 0);
    EXPECT_EQ(memcmp(back, n, NB_NAMELEN), 0);
    // every byte the escaped form: the longest text still fits
    uint8_t worst[NB_NAMELEN];
    memset(worst, 0x01, sizeof worst);
    ASSERT_EQ(nm_nbtostr(text, worst), 0);
    ASSERT_EQ(nm_strtonb(back, text), 0);
    EXPECT_EQ(memcmp(back, worst, NB_NAMELEN), 0);

    std::string long_text(124, 'a');
    long_text += 'a';
    EXPECT_EQ(nm_strtonb(back, long_text.c_str()), -1);
}

TEST(NUpcase, OnlyAsciiLowerCase) {
    char s[] = "abc.Z-9\xe4x";
    n_upcase(s);
    EXPECT_STREQ(s, "ABC.Z-9\xe4X");
}
