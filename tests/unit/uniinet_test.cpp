#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>

#include "shr/uniinet.h"

TEST(Iantoua, BuildsWithAndWithoutAPort) {
    const uint32_t addr = htonl(0x0a000001);   // 10.0.0.1
    const struct { int32_t port; uint16_t len; const char* text; int32_t back; } cases[] = {
        {-1, 4, "I(10.0.0.1)", -1},
        {137, 6, "I(10.0.0.1.137)", 137},
        {0, 6, "I(10.0.0.1.0)", 0},
        {65535, 6, "I(10.0.0.1.65535)", 65535},
        {0x12345, 6, "I(10.0.0.1.9029)", 0x2345},    // low 16 bits
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        UniAddr ua;
        memset(&ua, 0xa5, sizeof ua);
        EXPECT_EQ(iantoua(&ua, addr, c.port), 0);
        EXPECT_EQ(ua.len, c.len);
        EXPECT_STREQ(uni_ntoa(&ua), c.text);
        // the whole record, unused bytes included, equals the parsed text
        const UniAddr* parsed = uni_aton(c.text);
        ASSERT_NE(parsed, nullptr);
        EXPECT_EQ(memcmp(parsed, &ua, sizeof ua), 0);

        uint32_t a = 0;
        int32_t p = 7;
        EXPECT_EQ(uatoian(&a, &p, &ua), 0);
        EXPECT_EQ(a, addr);
        EXPECT_EQ(p, c.back);
        // the names the ENS commands use do the same
        UniAddr twin;
        iahtoua(&twin, addr, c.port);
        EXPECT_EQ(memcmp(&twin, &ua, sizeof ua), 0);
        EXPECT_EQ(uatoiah(&a, &p, &twin), 0);
        EXPECT_EQ(p, c.back);
    }
}

TEST(Uatoian, RefusesOtherFamiliesAndLengthsAndChangesNothing) {
    const char* texts[] = {"N(foo)", "O(0a000001)", "X(1:2:3)", "A(1.2.3)"};
    for (const char* t : texts) {
        SCOPED_TRACE(t);
        const UniAddr* ua = uni_aton(t);
        ASSERT_NE(ua, nullptr);
        uint32_t a = 99;
        int32_t p = 98;
        EXPECT_EQ(uatoian(&a, &p, ua), -1);
        EXPECT_EQ(uatoiah(&a, &p, ua), -1);
        EXPECT_EQ(a, 99u);
        EXPECT_EQ(p, 98);
    }
    for (uint16_t len : {0, 3, 5, 7, 60}) {
        SCOPED_TRACE(len);
        UniAddr ua;
        iantoua(&ua, 0x01020304, 80);
        ua.len = len;
        uint32_t a = 99;
        EXPECT_EQ(uatoian(&a, nullptr, &ua), -1);
        EXPECT_EQ(a, 99u);
    }
}
