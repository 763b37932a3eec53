// The classful rules used where the system knows no mask or broadcast
// address (the system's own answers are driven end to end).
#include "tests/unit/unitkit.h"

#include "src/netaddr.h"

TEST(ClassfulRules, MaskAndNetworkFollowTheFirstOctetAndTheBroadcastThePattern)
{
    const struct { const char *addr, *mask, *pattern, *bcast, *other; int same; } cases[] = {
        {"10.1.2.3", "255.0.0.0", "0.0.0.0", "10.0.0.0", "10.200.3.4", 1},
        {"127.255.255.255", "255.0.0.0", "255.255.255.255", "127.255.255.255", "126.255.255.255", 0},
        {"128.0.0.1", "255.255.0.0", "0.0.0.255", "128.0.0.255", "128.0.200.9", 1},
        {"191.255.1.1", "255.255.0.0", "0.0.0.0", "191.255.0.0", "191.254.1.1", 0},
        {"192.168.7.33", "255.255.255.0", "1.2.3.4", "192.168.7.4", "192.168.7.200", 1},
        {"223.1.1.1", "255.255.255.0", "255.255.255.255", "223.1.1.255", "223.1.2.1", 0},
        {"224.0.0.9", "255.255.255.0", "0.0.0.0", "224.0.0.0", "224.0.0.9", 0},  // D and E: no network
        {"240.1.1.1", "255.255.255.0", "0.0.0.0", "240.1.1.0", "240.1.1.1", 0},
    };
    for (const auto& c : cases) {
        uint32_t mask = 0, bcast = 1;
        broadcast_addr = inet_addr(c.pattern);
        EXPECT_EQ(dflt_netmask(&mask, inet_addr(c.addr)) + find_bcast(&bcast, -1, inet_addr(c.addr)), 0);
        EXPECT_TRUE(mask == inet_addr(c.mask) && bcast == inet_addr(c.bcast)) << c.addr << " with " << c.pattern;
        EXPECT_EQ(same_net(inet_addr(c.addr), inet_addr(c.other)), c.same) << c.addr;
        EXPECT_EQ(same_net(inet_addr(c.other), inet_addr(c.addr)), c.same) << c.addr;
    }
    name_settings_clear();
}
