#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <vector>

#include "src/ensunk.h"
#include "src/service.h"

namespace {

struct Sent {
    std::vector<uint8_t> name;
    uint32_t address;
};
std::vector<Sent> sent;

time_t fake_now = 1000000;
time_t fake_clock() { return fake_now; }

uint32_t ip(const char* text) { return inet_addr(text); }

std::vector<uint8_t> nb(const char* text, uint8_t type)
{
    std::vector<uint8_t> n(16, ' ');
    memcpy(n.data(), text, strlen(text));
    n[15] = type;
    return n;
}

std::vector<uint8_t> perm(const uint8_t (&a)[4])
{
    std::vector<uint8_t> n(16, 0);
    memcpy(n.data() + 10, a, 4);
    return n;
}

class Unk : public ::testing::Test {
protected:
    void SetUp() override
    {
        sent.clear();
        unk_set_clock(fake_clock);
    }
    void TearDown() override
    {
        for (uint32_t a : used)
            unk_remove(a);
        unk_set_clock(nullptr);
    }
    // Asks at fake time t; the number of requests that went out.
    size_t ask_at(time_t t, const uint8_t* name, uint32_t address)
    {
        used.push_back(address);
        fake_now = t;
        size_t before = sent.size();
        unk_as_query(name, address);
        return sent.size() - before;
    }
    std::vector<uint32_t> used;
};

}  // namespace

void adapstat_query(const uint8_t* name, uint32_t address)
{
    sent.push_back({std::vector<uint8_t>(name, name + 16), address});
}

TEST_F(Unk, FirstRequestAsksThePermanentNameThenTheGivenOne)
{
    const uint8_t a[4] = {10, 88, 0, 7};
    uint32_t addr;
    memcpy(&addr, a, 4);
    auto name = nb("SALES", 0x20);
    ASSERT_EQ(ask_at(5000, name.data(), addr), 1u);
    ASSERT_EQ(ask_at(5000, name.data(), addr), 1u);
    ASSERT_EQ(ask_at(5061, nullptr, addr), 1u);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].name, perm(a));
    EXPECT_EQ(sent[0].address, addr);
    EXPECT_EQ(sent[1].name, name);
    EXPECT_EQ(sent[2].name, perm(a)) << "no name given: the permanent name";
}

TEST_F(Unk, AtMostTwoRequestsPerMinuteThenPerFourHoursAfter25)
{
    uint32_t addr = ip("10.88.0.9");
    time_t t = 100000;
    EXPECT_EQ(ask_at(t, nullptr, addr), 1u);
    EXPECT_EQ(ask_at(t, nullptr, addr), 1u);
    EXPECT_EQ(ask_at(t, nullptr, addr), 0u) << "a third at once";
    EXPECT_EQ(ask_at(t + 60, nullptr, addr), 0u) << "60 seconds after the first is not yet more than 60";
    EXPECT_EQ(ask_at(t + 61, nullptr, addr), 1u);
    // 3 sent; the 4th after the 2nd's minute ran out, and so on up to 26.
    time_t last = t + 61;
    for (int n = 4; n <= 26; n++) {
        last += 61;
        ASSERT_EQ(ask_at(last, nullptr, addr), 1u) << "request " << n;
    }
    // prev is now the 25th request, last - 61.
    EXPECT_EQ(ask_at(last + 61, nullptr, addr), 0u) << "count 26: the 4-hour interval";
    EXPECT_EQ(ask_at(last - 61 + 14400, nullptr, addr), 0u);
    EXPECT_EQ(ask_at(last - 61 + 14401, nullptr, addr), 1u);
}

TEST_F(Unk, RemovedSenderStartsAfresh)
{
    uint32_t addr = ip("10.88.0.10");
    uint32_t other = ip("10.88.0.11");
    auto name = nb("HOST", 0x00);
    EXPECT_EQ(ask_at(7000, name.data(), addr), 1u);
    EXPECT_EQ(ask_at(7000, name.data(), addr), 1u);
    EXPECT_EQ(ask_at(7000, name.data(), other), 1u) << "each sender has its own limit";
    EXPECT_EQ(ask_at(7000, name.data(), addr), 0u);
    unk_remove(addr);
    unk_remove(addr);  // a second time: nothing there, nothing broken
    EXPECT_EQ(ask_at(7000, name.data(), addr), 1u);
    EXPECT_EQ(sent.back().name, perm({10, 88, 0, 10})) << "a new record asks for the permanent name again";
    EXPECT_EQ(ask_at(7000, name.data(), other), 1u) << "the other record was kept";
    EXPECT_EQ(sent.back().name, name);
}

TEST(UnkAllowed, IntervalBoundaries)
{
    const struct { int count; time_t prev, now; bool ok; } cases[] = {
        {0, 0, 61, true},        {0, 0, 60, false},       {25, 1000, 1061, true},
        {25, 1000, 1060, false}, {26, 1000, 15400, false}, {26, 1000, 15401, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "count " << c.count << " now " << c.now);
        UnkRec r{};
        r.count = c.count;
        r.prev = c.prev;
        EXPECT_EQ(allowed(&r, c.now), c.ok);
    }
}
