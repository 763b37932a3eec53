#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "misc/nencode.h"

// RFC 1001 14.1: each half byte becomes a letter from 'A'; 'Q' is not
// refused, 16 carries into the high half.
TEST(NEncode, HalfBytesBecomeLettersAndDecodeBack) {
    const uint8_t name[NB_NAMELEN] = {0x20, 0x00, 0xFF, 0x4E, 'a', 'Z', 0x1b, 0, 0, 0, 0, 0, 0, 0, 0, 0x1c};
    char enc[NB_ENCLEN + 1];
    n_encode(enc, name);
    EXPECT_STREQ(enc, "CAAAPPEOGBFKBLAAAAAAAAAAAAAAAABM");
    uint8_t back[NB_NAMELEN];
    n_decode(back, enc);
    EXPECT_EQ(memcmp(back, name, NB_NAMELEN), 0);
    n_decode(back, "BQAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    EXPECT_EQ(back[0], 0x20);
}

// Labels from dotted text and back; d_to_vd never writes past its size.
TEST(VdToD, LabelsAndBack) {
    const std::string enc(NB_ENCLEN, 'E');
    const struct { std::string text; std::vector<uint8_t> bytes; std::string back; int size, result; } cases[] = {
        {"abc.def", {3, 'a', 'b', 'c', 3, 'd', 'e', 'f', 0}, "abc.def", 300, 0},
        {"abc.def.", {3, 'a', 'b', 'c', 3, 'd', 'e', 'f', 0}, "abc.def", 300, 0},
        {"a\\.b.c", {3, 'a', '.', 'b', 1, 'c', 0}, "a\\.b.c", 300, 0},
        {"ab\\", {2, 'a', 'b', 0}, "ab", 300, 0},  // a trailing backslash is dropped
        {"", {0}, "", 1, 0}, {"", {0}, "", 0, -1},
        {enc, {}, enc, 34, 0}, {enc, {}, "", 33, -1},  // the label's room is size - 1
        {enc + ".x", {}, "", 35, -1}, {enc + ".x", {}, enc + ".x", 36, 0},
        {"a\\.b", {}, "", 5, -1}, {"a\\.b", {}, "a\\.b", 6, 0},  // the escape makes 4 characters
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " in " << c.size);
        std::vector<uint8_t> w(c.text.size() + 3, 0xEE);  // the most ever written
        vd_to_d(w.data(), c.text.c_str());
        if (!c.bytes.empty()) {
            EXPECT_EQ(std::vector<uint8_t>(w.begin(), w.begin() + long(c.bytes.size())), c.bytes);
        }
        std::vector<char> out(size_t(c.size) + 8, '#');
        ASSERT_EQ(d_to_vd(out.data(), w.data(), c.size), c.result);
        if (c.result == 0) {
            EXPECT_EQ(std::string(out.data()), c.back);
        }
        EXPECT_EQ(std::string(out.begin() + c.size, out.end()), std::string(8, '#'));
    }
}
