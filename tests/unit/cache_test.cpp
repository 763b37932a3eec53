#include <gtest/gtest.h>

#include <cstring>

#include "src/cache.h"
#include "tests/support/privnet.h"

// The cache is module state: each test runs in its own child, starting empty
// with the rover at bucket 0.
namespace {

// A name in bucket b (the bucket sums bytes 0, 1, 12, 13 and 15); tag goes
// to byte 2, which the bucket ignores.
struct Name {
    uint8_t n[16] = {};
    Name(int b, uint8_t tag) { n[15] = uint8_t(b); n[2] = tag; }
};

int get(const Name& nm, time_t now, uint32_t* addr = nullptr, int* group = nullptr)
{
    uint32_t a = 0xdeadbeef;
    int g = -7;
    int r = nda_getcache(&a, &g, nm.n, now);
    if (addr)
        *addr = a;
    if (group)
        *group = g;
    return r;
}

TEST(Cache, AnswersLiveSixtySecondsAndTheNewestDecides)
{
    IN_CHILD(false, {
        Name neg(3, 1), pos(3, 2), both(3, 3), other(19, 2);  // 19 is bucket 3 too
        nda_putncache(neg.n, 1000);
        nda_putpcache(pos.n, 0x0500580a, 1, 1000);
        uint32_t a;
        int g;
        const struct { const char* why; const Name& nm; time_t now; int want; } cases[] = {
            {"negative at once", neg, 1000, 0},
            {"negative at its expiry second", neg, 1060, 0},
            {"positive at its expiry second", pos, 1060, 1},
            {"same bucket, never stored", other, 1000, -1},
            {"negative a second later", neg, 1061, -1},
            {"positive a second later", pos, 1061, -1},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            EXPECT_EQ(get(c.nm, c.now, &a, &g), c.want);
            if (c.want == 1) {
                EXPECT_EQ(a, 0x0500580au);
                EXPECT_EQ(g, 1);
            } else {
                EXPECT_EQ(a, 0xdeadbeefu) << "outputs untouched";
                EXPECT_EQ(g, -7);
            }
        }

        nda_putpcache(both.n, 0x0100000a, 0, 2000);
        nda_putncache(both.n, 2010);
        EXPECT_EQ(get(both, 2020), 0) << "the newer negative shadows the older positive";
        EXPECT_EQ(get(both, 2065), 0) << "the positive expired first";
        EXPECT_EQ(get(both, 2071), -1);
        nda_putncache(both.n, 3000);
        nda_putpcache(both.n, 0x0200000a, 0, 3001);
        EXPECT_EQ(get(both, 3002, &a, &g), 1);
        EXPECT_EQ(a, 0x0200000au);
        EXPECT_EQ(g, 0);
    });
}

TEST(Cache, SixteenReleasedEntriesAreKeptForReuse)
{
    IN_CHILD(false, {
        Name nm(7, 0);
        for (int i = 0; i < 17; i++)
            nda_putncache(nm.n, 100);
        EXPECT_EQ(nda_cache_free_ct(), 0);
        EXPECT_EQ(get(nm, 161), -1);
        EXPECT_EQ(nda_cache_free_ct(), 16) << "the 17th went back to the allocator";
        for (int i = 0; i < 16; i++)
            nda_putncache(nm.n, 200);
        EXPECT_EQ(nda_cache_free_ct(), 0) << "reused before allocating";
        nda_putncache(nm.n, 200);
        EXPECT_EQ(nda_cache_free_ct(), 0);
        EXPECT_EQ(get(nm, 200), 0);
    });
}

TEST(Cache, EveryInsertionAlsoSweepsTheRoversBucket)
{
    IN_CHILD(false, {
        Name stale(5, 0);
        nda_putncache(stale.n, 0);  // rover 0 swept, now at 1
        for (int i = 1; i <= 5; i++) {
            SCOPED_TRACE(i);
            Name fresh(0, uint8_t(i));
            nda_putncache(fresh.n, 100);  // sweeps bucket 0 and the rover's i
            EXPECT_EQ(nda_cache_free_ct(), i == 5 ? 1 : 0);
        }
        EXPECT_EQ(get(stale, 0), -1) << "gone, even asked at its own time";
        for (int i = 1; i <= 5; i++)
            EXPECT_EQ(get(Name(0, uint8_t(i)), 160), 0);
    });
}

}  // namespace
