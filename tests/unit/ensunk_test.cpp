#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <vector>

#include "src/ensunk.h"
#include "src/query.h"

namespace {

std::vector<std::vector<uint8_t>> sent;  // names asked for, in order
uint32_t sent_to;
time_t fake_now;
time_t fake_clock() { return fake_now; }

// The number of requests (0 or 1) that one call sends at time t.
size_t ask_at(time_t t, const uint8_t* name, uint32_t address)
{
    fake_now = t;
    size_t before = sent.size();
    unk_set_clock(fake_clock);
    unk_as_query(name, address);
    unk_set_clock(nullptr);
    return sent.size() - before;
}

}  // namespace

void adapstat_query(const uint8_t* name, uint32_t address)
{
    sent.emplace_back(name, name + 16);
    sent_to = address;
}

TEST(Unk, PermanentNameFirstAndAFreshStartAfterRemoval)
{
    uint32_t addr = inet_addr("10.88.0.7");
    const std::vector<uint8_t> perm = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 88, 0, 7, 0, 0};
    std::vector<uint8_t> name(16, ' ');
    memcpy(name.data(), "SALES", 5);
    EXPECT_EQ(ask_at(5000, name.data(), addr), 1u);
    EXPECT_EQ(ask_at(5000, name.data(), addr), 1u);
    EXPECT_EQ(ask_at(5061, nullptr, addr), 1u);
    EXPECT_EQ(sent_to, addr);
    EXPECT_EQ(sent, (std::vector<std::vector<uint8_t>>{perm, name, perm}));
    unk_remove(addr);
    unk_remove(addr);  // nothing left to remove
    EXPECT_EQ(ask_at(5061, name.data(), addr), 1u) << "forgotten: no limit";
    EXPECT_EQ(sent.back(), perm) << "and the permanent name again";
    unk_remove(addr);
}

TEST(Unk, TwoRequestsPerMinuteThenPerFourHoursAfter25)
{
    uint32_t addr = inet_addr("10.88.0.9");
    time_t t = 100000;
    EXPECT_EQ(ask_at(t, nullptr, addr), 1u);
    EXPECT_EQ(ask_at(t, nullptr, addr), 1u);
    EXPECT_EQ(ask_at(t, nullptr, addr), 0u) << "a third at once";
    EXPECT_EQ(ask_at(t + 60, nullptr, addr), 0u) << "not more than 60 seconds after the first";
    EXPECT_EQ(ask_at(t += 61, nullptr, addr), 1u);
    for (int n = 4; n <= 26; n++)
        ASSERT_EQ(ask_at(t += 61, nullptr, addr), 1u) << "request " << n;
    // 26 sent, the one before the last at t - 61: now 4 hours from that.
    EXPECT_EQ(ask_at(t + 61, nullptr, addr), 0u);
    EXPECT_EQ(ask_at(t - 61 + 14400, nullptr, addr), 0u);
    EXPECT_EQ(ask_at(t - 61 + 14401, nullptr, addr), 1u);
    unk_remove(addr);
}

// Any station can send from as many addresses as it likes: the records stay
// at UNK_MAX, and the sender heard from least recently goes first.
TEST(Unk, RecordsAreCappedAndTheLeastRecentlyHeardGoesFirst)
{
    const uint32_t base = inet_addr("10.88.0.0");
    for (uint32_t i = 0; i < UNK_MAX; i++)
        ask_at(1000, nullptr, base + htonl(i));
    EXPECT_EQ(unk_count(), UNK_MAX);
    EXPECT_EQ(ask_at(1000, nullptr, base), 1u) << "its second request: the first is heard again";
    EXPECT_EQ(ask_at(1000, nullptr, base + htonl(UNK_MAX)), 1u);  // one more sender
    EXPECT_EQ(unk_count(), UNK_MAX);
    EXPECT_EQ(ask_at(1000, nullptr, base), 0u) << "kept: a third within the minute is refused";
    EXPECT_EQ(ask_at(1000, nullptr, base + htonl(1)), 1u) << "the least recently heard was forgotten";
    for (uint32_t i = 0; i <= UNK_MAX; i++)
        unk_remove(base + htonl(i));
    EXPECT_EQ(unk_count(), 0);
}

