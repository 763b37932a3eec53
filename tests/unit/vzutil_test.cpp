#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "shr/vzmkkvcv.h"
#include "shr/vzstrdup.h"
#include "shr/vzstrtoul.h"

TEST(VzStrtoul, FollowsTheCLibraryContract) {
    const struct { const char* text; int base; unsigned long value; size_t used; } cases[] = {
        {"  42xyz", 10, 42, 4},
        {"0x1F", 0, 31, 4},
        {"0X1f", 16, 31, 4},
        {"017", 0, 15, 3},
        {"09", 0, 0, 1},          // octal stops at the 9
        {"-1", 10, ULONG_MAX, 2}, // a minus negates
        {"+7", 0, 7, 2},
        {"0x", 0, 0, 1},          // a prefix without digits reads the 0 only
        {"zz", 36, 35 * 36 + 35, 2},
        {"", 10, 0, 0},
        {"   -", 10, 0, 0},       // no digits: end is the start of the text
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        char* end = nullptr;
        errno = 0;
        EXPECT_EQ(vz_strtoul(c.text, &end, c.base), c.value);
        EXPECT_EQ(size_t(end - c.text), c.used);
        EXPECT_EQ(errno, 0);
    }
}

TEST(VzStrtoul, OverflowGivesTheLargestValueAndErange) {
    char* end = nullptr;
    errno = 0;
    const char* text = "999999999999999999999999999 rest";
    EXPECT_EQ(vz_strtoul(text, &end, 10), ULONG_MAX);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_STREQ(end, " rest");
}

TEST(VzKvcv, GrowsPastSixteenAndKeepsEveryCopy) {
    vz_kvc* v = nullptr;
    vz_kvcstate st = 0;
    ASSERT_EQ(vz_kvcv_init(&v, &st), 0);
    EXPECT_EQ(st, 15u);
    char key[16];
    for (int i = 0; i < 40; i++) {
        snprintf(key, sizeof key, "k%d", i);
        ASSERT_EQ(vz_kvcv_add(&v, &st, key, i % 2 ? "odd" : nullptr, nullptr), 0);
    }
    EXPECT_EQ(st >> 4, 40u);
    // 15 fit at first, each growth adds 16: 15 + 16 + 9, so 7 spare are left.
    EXPECT_EQ(st & 0xf, 7u);
    int n = 0;
    for (vz_kvc* t = v; t->key != nullptr; t++, n++) {
        snprintf(key, sizeof key, "k%d", n);
        EXPECT_STREQ(t->key, key);
        if (n % 2)
            EXPECT_STREQ(t->value, "odd");
        else
            EXPECT_EQ(t->value, nullptr);
    }
    EXPECT_EQ(n, 40);
    vz_kvcv_free(v);
    vz_kvcv_free(nullptr);
    EXPECT_EQ(vz_strdup(nullptr), nullptr);
}
