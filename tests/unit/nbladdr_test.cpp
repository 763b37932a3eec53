#include <gtest/gtest.h>

#include <cstring>

#include "nb/nbladdr.h"

namespace {

NbAddr sentinel()
{
    NbAddr na;
    memset(&na, 0x77, sizeof na);
    return na;
}

}  // namespace

TEST(VznbUatona, TakesTheNameAndItsNumbersOrRefusesWithMinusFour) {
    const struct { const char* text; uint16_t family, len; int result; uint16_t port1, port2; } cases[] = {
        {"N(foo<20>)", 'N', 16, 0, 0, 0},
        {"N(foo/3)", 'N', 18, 0, 3, 0},
        {"N(foo/0xffff/0x1234)", 'N', 20, 0, 0xffff, 0x1234},
        {"N(foo)", 'I', 16, VZNB_BADADDR, 0, 0},
        {"N(foo)", 'n', 16, VZNB_BADADDR, 0, 0},
        {"N(foo)", 'N', 15, VZNB_BADADDR, 0, 0},
        {"N(foo/3)", 'N', 17, VZNB_BADADDR, 0, 0},
        {"N(foo/3/4)", 'N', 19, VZNB_BADADDR, 0, 0},
        {"N(foo/3/4)", 'N', 21, VZNB_BADADDR, 0, 0},
        {"N(foo)", 'N', 0, VZNB_BADADDR, 0, 0},
    };
    static_assert(VZNB_BADADDR == -4);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " as " << char(c.family) << " " << c.len);
        const UniAddr* parsed = uni_aton(c.text);
        ASSERT_NE(parsed, nullptr);
        UniAddr ua = *parsed;
        ua.family = c.family;
        ua.len = c.len;
        NbAddr na = sentinel();
        EXPECT_EQ(vznb_uatona(&na, &ua), c.result);
        if (c.result != 0) {
            NbAddr untouched = sentinel();
            EXPECT_EQ(memcmp(&na, &untouched, sizeof na), 0);
            continue;
        }
        EXPECT_EQ(memcmp(na.name, "FOO             ", 16), 0);
        EXPECT_EQ(na.port1, c.port1);
        EXPECT_EQ(na.port2, c.port2);
    }
}

TEST(VznbNatoua, CarriesNumbersOnlyWhenOneIsSet) {
    const struct { uint16_t port1, port2; uint16_t len; const char* text; } cases[] = {
        {0, 0, 16, "N(foo<00>)"},
        {0, 5, 20, "N(foo<00>/0/5)"},
        {0x1234, 0, 20, "N(foo<00>/4660/0)"},
        {65535, 65535, 20, "N(foo<00>/65535/65535)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        NbAddr na;
        memcpy(na.name, "FOO            \0", 16);
        na.port1 = c.port1;
        na.port2 = c.port2;
        UniAddr ua;
        memset(&ua, 0xa5, sizeof ua);
        EXPECT_EQ(vznb_natoua(&ua, &na), 0);
        EXPECT_EQ(ua.len, c.len);
        EXPECT_STREQ(uni_ntoa(&ua), c.text);
        const UniAddr* parsed = uni_aton(c.text);
        ASSERT_NE(parsed, nullptr);
        EXPECT_EQ(memcmp(parsed, &ua, sizeof ua), 0);   // unused bytes zeroed

        NbAddr back = sentinel();
        EXPECT_EQ(vznb_uatona(&back, &ua), 0);
        EXPECT_EQ(memcmp(&back, &na, sizeof na), 0);
    }
}
