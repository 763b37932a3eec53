#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nmtrace.h"
#include "src/namelogin.h"
#include "src/netaddr.h"
#include "src/netif.h"

namespace {

uint32_t ip(const char* text)
{
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
    return a.s_addr;
}

std::string text(uint32_t addr)
{
    in_addr a{};
    a.s_addr = addr;
    return inet_ntoa(a);
}

TEST(ClassfulRules, DefaultMaskFollowsTheFirstOctet)
{
    const struct { const char* addr; const char* mask; } cases[] = {
        {"0.0.0.0", "255.0.0.0"},       {"10.1.2.3", "255.0.0.0"},
        {"127.255.255.255", "255.0.0.0"}, {"128.0.0.1", "255.255.0.0"},
        {"191.255.1.1", "255.255.0.0"}, {"192.0.0.1", "255.255.255.0"},
        {"223.1.1.1", "255.255.255.0"}, {"224.0.0.9", "255.255.255.0"},
        {"255.255.255.255", "255.255.255.0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.addr);
        uint32_t mask = 0;
        EXPECT_EQ(dflt_netmask(&mask, ip(c.addr)), 0);
        EXPECT_EQ(text(mask), c.mask);
    }
}

TEST(ClassfulRules, SameNetComparesTheNetworkOctets)
{
    const struct { const char* a; const char* b; int same; } cases[] = {
        {"192.168.1.5", "192.168.1.200", 1},
        {"192.168.1.5", "192.168.2.5", 0},
        {"10.1.1.1", "10.200.3.4", 1},
        {"10.1.1.1", "11.1.1.1", 0},
        {"172.16.1.1", "172.16.200.9", 1},
        {"172.16.1.1", "172.17.1.1", 0},
        {"192.168.1.5", "193.168.1.5", 0},
        {"224.0.0.1", "224.0.0.1", 0},   // class D has no network
        {"240.1.1.1", "240.1.1.1", 0},
        {"0.0.0.0", "0.9.9.9", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + c.b);
        EXPECT_EQ(same_net(ip(c.a), ip(c.b)), c.same);
        EXPECT_EQ(same_net(ip(c.b), ip(c.a)), c.same);
    }
}

TEST(ClassfulRules, WithoutTheSystemTheBroadcastComesFromThePattern)
{
    const struct { const char* addr; const char* pattern; const char* bcast; } cases[] = {
        {"10.1.2.3", "0.0.0.0", "10.0.0.0"},
        {"10.1.2.3", "255.255.255.255", "10.255.255.255"},
        {"172.16.5.9", "0.0.0.255", "172.16.0.255"},
        {"192.168.7.33", "1.2.3.4", "192.168.7.4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.addr) + " with " + c.pattern);
        broadcast_addr = ip(c.pattern);
        uint32_t bcast = 1;
        EXPECT_EQ(find_bcast(&bcast, -1, ip(c.addr)), 0);
        EXPECT_EQ(text(bcast), c.bcast);
    }
    name_settings_clear();
}

// Shared with the forked child, which runs in a network namespace of its own.
struct NsResult {
    char skip[200];          // why the child could not set up, "" when it could
    if_entry entries[7];
    int tun_ok;              // the point-to-point link could be made
    uint32_t tun_bcast;
    int found_of_25;         // how many of 25 addresses get_if found
    int first_found;         // get_if of the first of them
    char trace[4096];
};

using NsBody = void (*)(NsResult* r, const std::string& dir);

bool sh(const char* cmd)
{
    std::string quiet = std::string(cmd) + " >/dev/null 2>&1";
    return system(quiet.c_str()) == 0;
}

// Runs body in a forked child inside a fresh network namespace: nothing it
// asks or changes reaches the machine's own interfaces.
bool in_netns(NsBody body, NsResult* out, std::string* why)
{
    void* mem = mmap(nullptr, sizeof(NsResult), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        *why = "no shared memory";
        return false;
    }
    auto* r = static_cast<NsResult*>(mem);
    memset(r, 0, sizeof *r);
    char tmpl[] = "/tmp/halyard-netaddr-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        munmap(mem, sizeof(NsResult));
        *why = "no temporary directory";
        return false;
    }
    std::string dir = tmpl;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            snprintf(r->skip, sizeof r->skip, "cannot enter a network namespace: %s",
                     strerror(errno));
            _exit(0);
        }
        body(r, dir);
        _exit(0);
    }
    int status = 0;
    bool ok = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
              WEXITSTATUS(status) == 0;
    *out = *r;
    munmap(mem, sizeof(NsResult));
    unlink((dir + "/trace").c_str());
    rmdir(dir.c_str());
    if (!ok)
        *why = "the child in the namespace failed";
    return ok;
}

void complete_entries(NsResult* r, const std::string& dir)
{
    // hy0 carries 10.88.0.1/24 with its broadcast; hy1 a /16 whose broadcast
    // is not the computed one, and its alias hy1:1 a /24 without a broadcast
    // (the interface controls answer by name, so an alias needs its label);
    // hy0:2 a /0, whose mask the system gives as 0.
    if (!sh("ip link add hy0 type veth peer name hy1") ||
        !sh("ip addr add 10.88.0.1/24 brd + dev hy0") ||
        !sh("ip addr add 10.89.5.1/16 broadcast 10.89.5.255 dev hy1") ||
        !sh("ip addr add 10.88.1.1/24 dev hy1 label hy1:1") ||
        !sh("ip addr add 10.90.0.1/0 dev hy0 label hy0:2") ||
        !sh("ip link set hy0 up") || !sh("ip link set hy1 up")) {
        snprintf(r->skip, sizeof r->skip, "cannot make veth interfaces with ip");
        return;
    }
    r->tun_ok = sh("ip tuntap add dev hyt0 mode tun") &&
                sh("ip addr add 10.88.3.1 peer 10.88.3.2 dev hyt0") &&
                sh("ip link set hyt0 up");

    static if_entry table[8];
    table[0] = {ip("10.88.0.1"), 0, 0};
    table[1] = {ip("10.89.5.1"), 0, 0};
    table[2] = {ip("10.1.2.3"), 0, 0};                      // on no interface
    table[3] = {ip("10.1.2.3"), 0, ip("255.255.255.0")};    // configured mask only
    table[4] = {ip("10.88.0.1"), ip("10.88.0.127"), 0};     // configured broadcast only
    table[5] = {ip("10.88.1.1"), 0, 0};
    table[6] = {ip("10.90.0.1"), 0, 0};                     // the system's mask is 0
    table[7] = {ip("10.88.3.1"), 0, 0};
    my_addr = table;
    my_addr_ct = r->tun_ok ? 8 : 7;
    broadcast_addr = ip("255.255.255.255");

    tcfile = fopen((dir + "/trace").c_str(), "w");
    tc_proc = 5;
    prepare_addresses();
    fclose(tcfile);
    tcfile = nullptr;

    memcpy(r->entries, table, sizeof r->entries);
    r->tun_bcast = table[7].bcast;
    FILE* f = fopen((dir + "/trace").c_str(), "r");
    if (f != nullptr) {
        size_t n = fread(r->trace, 1, sizeof r->trace - 1, f);
        r->trace[n] = '\0';
        fclose(f);
    }
}

TEST(PrepareAddresses, TakesWhatTheSystemKnowsAndComputesTheRest)
{
    NsResult r;
    std::string why;
    ASSERT_TRUE(in_netns(complete_entries, &r, &why)) << why;
    if (r.skip[0] != '\0')
        GTEST_SKIP() << r.skip;

    const struct { const char* why; const char* bcast; const char* mask; } want[] = {
        {"system broadcast and mask", "10.88.0.255", "255.255.255.0"},
        {"system broadcast wins over the pattern", "10.89.5.255", "255.255.0.0"},
        {"no such interface: classful, pattern", "10.255.255.255", "255.0.0.0"},
        {"configured mask not used for the broadcast", "10.255.255.255", "255.255.255.0"},
        {"configured broadcast kept", "10.88.0.127", "255.255.255.0"},
        {"no system broadcast: system mask, pattern", "10.88.1.255", "255.255.255.0"},
        {"a zero system mask is not taken: classful", "10.255.255.255", "255.0.0.0"},
    };
    for (size_t i = 0; i < std::size(want); i++) {
        SCOPED_TRACE(want[i].why);
        EXPECT_EQ(text(r.entries[i].bcast), want[i].bcast);
        EXPECT_EQ(text(r.entries[i].mask), want[i].mask);
    }
    if (r.tun_ok) {
        EXPECT_EQ(text(r.tun_bcast), "10.88.3.2");  // a point-to-point link's peer
    }

    std::string trace = r.trace;
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
         }) {
        EXPECT_NE(trace.find(line), std::string::npos) << line << "in:\n" << trace;
    }
}

void search_long_list(NsResult* r, const std::string&)
{
    if (!sh("ip link add hy0 type veth peer name hy1")) {
        snprintf(r->skip, sizeof r->skip, "cannot make veth interfaces with ip");
        return;
    }
    for (int i = 1; i <= 25; i++) {
        std::string cmd = "ip addr add 10.88.10." + std::to_string(i) + "/32 dev hy0";
        if (!sh(cmd.c_str())) {
            snprintf(r->skip, sizeof r->skip, "cannot add addresses with ip");
            return;
        }
    }
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    char name[NETIF_NAMESIZE];
    for (int i = 1; i <= 25; i++) {
        std::string a = "10.88.10." + std::to_string(i);
        int found = get_if(name, sock, ip(a.c_str())) == 0 && strcmp(name, "hy0") == 0;
        r->found_of_25 += found;
        if (i == 1)
            r->first_found = found;
    }
    close(sock);
}

TEST(GetIf, SearchesOnlyTheFirstTwentyRecords)
{
    NsResult r;
    std::string why;
    ASSERT_TRUE(in_netns(search_long_list, &r, &why)) << why;
    if (r.skip[0] != '\0')
        GTEST_SKIP() << r.skip;
    EXPECT_EQ(r.first_found, 1);
    EXPECT_EQ(r.found_of_25, 20);
}

}  // namespace
