#include "tests/unit/unitkit.h"

#include "src/cache.h"

namespace {

// A name in bucket b (the bucket sums bytes 0, 1, 12, 13 and 15); tag goes
// to byte 2, which the bucket ignores.
struct Name {
    uint8_t n[16] = {};
    Name(int b, uint8_t tag) { n[15] = uint8_t(b), n[2] = tag; }
};

// nda_getcache's result, and the address and group it gave ("-" untouched).
std::string get(const Name& nm, time_t now)
{
    uint32_t a = 0xdeadbeef;
    int g = -7;
    int r = nda_getcache(&a, &g, nm.n, now);
    return std::to_string(r) + (a == 0xdeadbeef && g == -7 ? " -" : " " + std::to_string(a) + "/" + std::to_string(g));
}

// Answers live sixty seconds and the newest decides.
TEST(Cache, AnswersLiveSixtySecondsAndTheNewestDecides)
{
    Name neg(3, 1), pos(3, 2), both(3, 3), other(19, 2);  // 19 is bucket 3 too
    nda_putncache(neg.n, 1000);
    nda_putpcache(pos.n, 5, 1, 1000);
    const struct { const Name& nm; time_t now; const char* want; } cases[] = {
        {neg, 1060, "0 -"}, {pos, 1060, "1 5/1"}, {other, 1000, "-1 -"}, {neg, 1061, "-1 -"}, {pos, 1061, "-1 -"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(get(c.nm, c.now), c.want) << c.now;
    nda_putpcache(both.n, 6, 0, 2000);
    nda_putncache(both.n, 2010);
    EXPECT_EQ(get(both, 2020), "0 -") << "the newer negative shadows the older positive";
    EXPECT_EQ(get(both, 2065), "0 -") << "the positive expired first";
    EXPECT_EQ(get(both, 2071), "-1 -");
    nda_putncache(both.n, 3000);
    nda_putpcache(both.n, 7, 0, 3001);
    EXPECT_EQ(get(both, 3002), "1 7/0");
}

}  // namespace
