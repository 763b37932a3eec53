#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nmtrace.h"
#include "src/namelogin.h"
#include "src/netaddr.h"
#include "src/netif.h"
#include "tests/support/privnet.h"

namespace {

std::string text(uint32_t addr)
{
    in_addr a{};
    a.s_addr = addr;
    return inet_ntoa(a);
}

bool sh(const std::string& cmd)
{
    return system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

// Without the system (no socket): the classful mask, and the broadcast
// address with the pattern's bits in the host part.
TEST(ClassfulRules, MaskFollowsTheFirstOctetAndTheBroadcastThePattern)
{
    const struct { const char *addr, *mask, *pattern, *bcast; } cases[] = {
        {"0.0.0.0", "255.0.0.0", "0.0.0.0", "0.0.0.0"},
        {"10.1.2.3", "255.0.0.0", "0.0.0.0", "10.0.0.0"},
        {"127.255.255.255", "255.0.0.0", "255.255.255.255", "127.255.255.255"},
        {"128.0.0.1", "255.255.0.0", "0.0.0.255", "128.0.0.255"},
        {"191.255.1.1", "255.255.0.0", "0.0.0.0", "191.255.0.0"},
        {"192.168.7.33", "255.255.255.0", "1.2.3.4", "192.168.7.4"},
        {"223.1.1.1", "255.255.255.0", "255.255.255.255", "223.1.1.255"},
        {"224.0.0.9", "255.255.255.0", "0.0.0.0", "224.0.0.0"},
        {"255.255.255.255", "255.255.255.0", "0.0.0.0", "255.255.255.0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.addr) + " with " + c.pattern);
        uint32_t mask = 0, bcast = 1;
        EXPECT_EQ(dflt_netmask(&mask, inet_addr(c.addr)), 0);
        EXPECT_EQ(text(mask), c.mask);
        broadcast_addr = inet_addr(c.pattern);
        EXPECT_EQ(find_bcast(&bcast, -1, inet_addr(c.addr)), 0);
        EXPECT_EQ(text(bcast), c.bcast);
    }
    name_settings_clear();
}

TEST(ClassfulRules, SameNetComparesTheNetworkOctets)
{
    const struct { const char *a, *b; int same; } cases[] = {
        {"192.168.1.5", "192.168.1.200", 1}, {"192.168.1.5", "192.168.2.5", 0},
        {"10.1.1.1", "10.200.3.4", 1},       {"10.1.1.1", "11.1.1.1", 0},
        {"172.16.1.1", "172.16.200.9", 1},   {"172.16.1.1", "172.17.1.1", 0},
        {"192.168.1.5", "193.168.1.5", 0},   {"0.0.0.0", "0.9.9.9", 1},
        {"224.0.0.1", "224.0.0.1", 0},       {"240.1.1.1", "240.1.1.1", 0},  // D, E: no network
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(same_net(inet_addr(c.a), inet_addr(c.b)), c.same);
        EXPECT_EQ(same_net(inet_addr(c.b), inet_addr(c.a)), c.same);
    }
}

TEST(PrepareAddresses, TakesWhatTheSystemKnowsAndComputesTheRest)
{
    IN_CHILD(true, {
        // hy0 carries 10.88.0.1/24 with its broadcast; hy1 a /16 whose broadcast
        // is not the computed one, and its alias hy1:1 a /24 without a broadcast
        // (the interface controls answer by name, so an alias needs its label);
        // hy0:2 a /0, whose mask the system gives as 0.
        for (const char* cmd : {"ip link add hy0 type veth peer name hy1",
                                "ip addr add 10.88.0.1/24 brd + dev hy0",
                                "ip addr add 10.89.5.1/16 broadcast 10.89.5.255 dev hy1",
                                "ip addr add 10.88.1.1/24 dev hy1 label hy1:1",
                                "ip addr add 10.90.0.1/0 dev hy0 label hy0:2",
                                "ip link set hy0 up", "ip link set hy1 up"})
            if (!sh(cmd))
                child_skip("cannot make veth interfaces with ip");
        bool tun = sh("ip tuntap add dev hyt0 mode tun") &&
                   sh("ip addr add 10.88.3.1 peer 10.88.3.2 dev hyt0") && sh("ip link set hyt0 up");

        const struct { const char* why; if_entry e; const char *bcast, *mask; } want[] = {
            {"system broadcast and mask", {inet_addr("10.88.0.1"), 0, 0}, "10.88.0.255", "255.255.255.0"},
            {"system broadcast wins over the pattern", {inet_addr("10.89.5.1"), 0, 0}, "10.89.5.255", "255.255.0.0"},
            {"no such interface: classful, pattern", {inet_addr("10.1.2.3"), 0, 0}, "10.255.255.255", "255.0.0.0"},
            {"configured mask not used for the broadcast", {inet_addr("10.1.2.3"), 0, inet_addr("255.255.255.0")},
             "10.255.255.255", "255.255.255.0"},
            {"configured broadcast kept", {inet_addr("10.88.0.1"), inet_addr("10.88.0.127"), 0}, "10.88.0.127", "255.255.255.0"},
            {"no system broadcast: system mask, pattern", {inet_addr("10.88.1.1"), 0, 0}, "10.88.1.255", "255.255.255.0"},
            {"a zero system mask is not taken: classful", {inet_addr("10.90.0.1"), 0, 0}, "10.255.255.255", "255.0.0.0"},
            {"a point-to-point link's peer", {inet_addr("10.88.3.1"), 0, 0}, "10.88.3.2", "255.255.255.255"},
        };
        if_entry table[std::size(want)];
        for (size_t i = 0; i < std::size(want); i++)
            table[i] = want[i].e;
        my_addr = table;
        my_addr_ct = tun ? 8 : 7;
        broadcast_addr = inet_addr("255.255.255.255");
        tcfile = tmpfile();
        ASSERT_NE(tcfile, nullptr);
        tc_proc = 5;
        prepare_addresses();
        for (int i = 0; i < my_addr_ct; i++) {
            SCOPED_TRACE(want[i].why);
            EXPECT_EQ(text(table[i].bcast), want[i].bcast);
            EXPECT_EQ(text(table[i].mask), want[i].mask);
        }

        std::string trace;
        rewind(tcfile);
        for (int ch; (ch = getc(tcfile)) != EOF;)
            trace += static_cast<char>(ch);
        for (const char* line : {
                 "find_bcast: found bcast (10.88.0.255) for 10.88.0.1\n",
                 "find_netmask: found mask (255.255.255.0) for 10.88.0.1\n",
                 "get_if: address 10.1.2.3 not found\n",
                 "find_netmask: using default mask (255.0.0.0) for 10.1.2.3\n",
                 "find_bcast: using default bcast (10.255.255.255) for 10.1.2.3\n",
                 "prepare_addresses: using netmask 255.255.255.0 for 10.1.2.3\n",
                 "prepare_addresses: using broadcast addr 10.88.0.127 for 10.88.0.1\n",
                 "get_bcast: Can't find network interface hy1:1\n",
                 "get_mask: Can't find netmask for interface hy0:2\n",
                 "find_netmask: using default mask (255.0.0.0) for 10.90.0.1\n",
             })
            EXPECT_NE(trace.find(line), std::string::npos) << line << "in:\n" << trace;
    });
}

TEST(GetIf, SearchesOnlyTheFirstTwentyRecords)
{
    IN_CHILD(true, {
        if (!sh("ip link add hy0 type veth peer name hy1"))
            child_skip("cannot make veth interfaces with ip");
        for (int i = 1; i <= 25; i++)
            if (!sh("ip addr add 10.88.10." + std::to_string(i) + "/32 dev hy0"))
                child_skip("cannot add addresses with ip");
        int sock = socket(AF_INET, SOCK_DGRAM, 0);
        char name[NETIF_NAMESIZE];
        int found = 0;
        for (int i = 1; i <= 25; i++) {
            std::string a = "10.88.10." + std::to_string(i);
            found += get_if(name, sock, inet_addr(a.c_str())) == 0 && strcmp(name, "hy0") == 0;
            EXPECT_EQ(found, i <= 19 ? i : 19) << a;
        }
        close(sock);  // the first record is lo's 127.0.0.1
    });
}

}  // namespace
