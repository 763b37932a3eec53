#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "src/ens.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

// Every test body runs in a child in its own network namespace: the ENS
// socket and the name-service socket on 127.0.0.1, one agent at 127.0.0.2,
// the probed hosts' name-service sockets at 127.0.0.5 and 127.0.0.6.
namespace {

time_t clk = 1000000;
time_t fake_now() { return clk; }
unsigned fake_alarm(unsigned) { return 0; }

uint32_t ip(const char* dotted) { return inet_addr(dotted); }

as_name entry(const char* text, uint32_t flags = 0, uint8_t type = 0x20)
{
    as_name e{};
    memcpy(e.name, ns_name(text, type).data(), 16);
    e.flags = flags;
    return e;
}
// The permanent node name of an address, as a status answer lists it.
as_name perm(const char* dotted)
{
    as_name e{};
    memcpy(e.name, ndasim::permanent_name(dotted).data(), 16);
    e.flags = AS_PERMANENT;
    return e;
}

std::string dotted(const uint8_t* b)
{
    char t[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, b, t, sizeof t);
}
std::string name_text(const uint8_t* n)
{
    if (n[0] == 0)
        return "*" + dotted(n + 10);  // a permanent node name
    std::string s(reinterpret_cast<const char*>(n), 15);
    s.erase(s.find_last_not_of(' ') + 1);
    char t[8];
    snprintf(t, sizeof t, "<%02x>", n[15]);
    return s + t;
}

// One ENS request as text, through the simulated agent's decoder:
// "ADD NAME<20> 0 a b", "DELETE NAME<20> a", "EQUIV a b", "PURGE a"; "bad"
// for anything else.
std::string ens_text(const Bytes& d)
{
    ndasim::Message m = ndasim::decode(d);
    if (!m.body_ok || m.version != ndasim::version || m.response || m.ans != 0 || m.err != 0)
        return "bad";
    std::string s;
    switch (m.action) {
    case ndasim::add: s = "ADD " + name_text(m.name.data()) + " " + std::to_string(m.ints[0]); break;
    case ndasim::del: s = "DELETE " + name_text(m.name.data()); break;
    case ndasim::equiv: s = "EQUIV"; break;
    case ndasim::purge: s = "PURGE"; break;
    default: return "bad";
    }
    for (const std::string& a : m.addrs)
        s += " " + a;
    return s;
}

struct Net {
    int agent = -1, host5 = -1, host6 = -1;
    Net()
    {
        dg_set_clock(fake_now, fake_alarm);
        uint16_t any = 0, agent_port = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        any = 0;
        dg_fd = ns_socket("127.0.0.1", &any);
        agent = ns_socket("127.0.0.2", &agent_port);
        nda_addr[0] = ip("127.0.0.2"), nda_ct = 1, ndport = agent_port;
        nmport = 0;
        host5 = ns_socket("127.0.0.5", &nmport);
        host6 = ns_socket("127.0.0.6", &nmport);
        if (ens_fd < 0 || dg_fd < 0 || agent < 0 || host5 < 0 || host6 < 0)
            child_skip("no loopback sockets");
        EXPECT_EQ(ens_a_add(ip("127.0.0.1"), nullptr), 0);  // our own address
    }
    // What the agent received since the last call, as text.
    std::vector<std::string> agent_got()
    {
        sockaddr_in to{};
        to.sin_family = AF_INET, to.sin_addr.s_addr = ip("127.0.0.2"), to.sin_port = htons(ndport);
        sendto(ens_fd, "end", 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        std::vector<std::string> got;
        for (const Bytes& d : ns_received(agent))
            got.push_back(ens_text(d));
        return got;
    }
    // The names asked for by the status requests a host's socket received.
    std::vector<std::string> asked(int fd, const char* addr)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET, to.sin_addr.s_addr = ip(addr), to.sin_port = htons(nmport);
        sendto(dg_fd, "end", 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        std::vector<std::string> got;
        for (const Bytes& d : ns_received(fd)) {
            // RFC 1002 4.2.17: header, the encoded name, NBSTAT (0x21)
            if (d.size() < 50 || d[12] != 32 || d[45] != 0 || d[46] != 0 || d[47] != 0x21) {
                got.push_back("bad");
                continue;
            }
            uint8_t n[16];
            for (int i = 0; i < 16; i++)
                n[i] = uint8_t((d[size_t(13 + 2 * i)] - 'A') << 4 | (d[size_t(14 + 2 * i)] - 'A'));
            got.push_back(name_text(n));
        }
        return got;
    }
};

using Texts = std::vector<std::string>;

// The names of the host at address, newest first; empty when it has none.
Texts host_names(const char* addr)
{
    Texts t;
    const EnsAddr* a = ens_a_lookup(ip(addr));
    if (a != nullptr && a->host != nullptr) {
        for (const EnsName* e = a->host->names; e != nullptr; e = e->host_next)
            t.push_back(name_text(e->name));
    }
    return t;
}

TEST(EnsGotnames, NewHostsTakeThePermanentNamesAddressesAndRegisterEveryName)
{
    const struct {
        const char* why;
        std::vector<as_name> names;
        Texts sent;
        Texts hosts;  // addresses now of one host, the first one's names
    } cases[] = {
        {"no permanent name: the sender alone",
         {entry("SRV"), entry("TEAM", AS_GROUP)},
         {"ADD SRV<20> 0 127.0.0.5", "ADD TEAM<20> 1 127.0.0.5"},
         {"127.0.0.5"}},
        {"one permanent name: its address, not the sender's",
         {entry("SRV"), perm("127.0.0.6")},
         {"ADD SRV<20> 0 127.0.0.6", "ADD *127.0.0.6 8 127.0.0.6"},
         {"127.0.0.6"}},
        {"two: an EQUIV first, the names for both addresses",
         {perm("127.0.0.6"), entry("SRV"), perm("127.0.0.7")},
         {"EQUIV 127.0.0.6 127.0.0.7", "ADD *127.0.0.6 8 127.0.0.6 127.0.0.7",
          "ADD SRV<20> 0 127.0.0.6 127.0.0.7", "ADD *127.0.0.7 8 127.0.0.6 127.0.0.7"},
         {"127.0.0.6", "127.0.0.7"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        IN_CHILD(true, {
            Net net;
            ens_gotnames(c.names.data(), int(c.names.size()), ip("127.0.0.5"));
            EXPECT_EQ(net.agent_got(), c.sent);
            const EnsAddr* first = ens_a_lookup(ip(c.hosts[0].c_str()));
            ASSERT_NE(first, nullptr);
            ASSERT_NE(first->host, nullptr);
            EXPECT_EQ(first->host->time, clk);
            EXPECT_EQ(int(host_names(c.hosts[0].c_str()).size()), int(c.names.size()));
            for (const std::string& h : c.hosts)
                EXPECT_EQ(ens_a_lookup(ip(h.c_str()))->host, first->host) << h;
            if (c.hosts[0] != "127.0.0.5") {
                EXPECT_EQ(ens_a_lookup(ip("127.0.0.5")), nullptr);
            }
        });
    }
}

// Our own status answer (a client asked one of our addresses) or a forged
// one must not make us a host of the table: our address would no longer be
// ours for the own-sender test and the conflict check.
TEST(EnsGotnames, AnAnswerNamingAnOwnAddressIsNotLearned)
{
    const struct {
        const char* why;
        std::vector<as_name> names;
        const char* sender;
    } cases[] = {
        {"our own answer: names and our permanent name", {entry("ME"), perm("127.0.0.1")}, "127.0.0.1"},
        {"from us, no permanent name", {entry("ME")}, "127.0.0.1"},
        {"forged: a stranger lists our address beside its own", {perm("127.0.0.6"), perm("127.0.0.1")}, "127.0.0.5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        IN_CHILD(true, {
            Net net;
            ens_gotnames(c.names.data(), int(c.names.size()), ip(c.sender));
            EXPECT_TRUE(net.agent_got().empty());
            const EnsAddr* own = ens_a_lookup(ip("127.0.0.1"));
            ASSERT_NE(own, nullptr);
            EXPECT_EQ(own->host, nullptr);
            EXPECT_TRUE(ens_a_own(ip("127.0.0.1")));
            EXPECT_EQ(ens_host_count(), 0);
            // Nor can any other path put our address under a host.
            EnsHost* h = ens_create();
            EXPECT_EQ(ens_a_add(ip("127.0.0.1"), h), -1);
            add_name_to_host(entry("ME").name, ip("127.0.0.1"), 0, clk);
            EXPECT_EQ(ens_a_lookup(ip("127.0.0.1"))->host, nullptr);
            ens_free(h);
        });
    }
}

// Unasked answers: at most 16 at once, 4 a second after, one new host per
// unknown sender a minute; an answer to our own request always counts.
TEST(EnsGotnames, UnaskedAnswersAreLearnedAtALimitedRate)
{
    IN_CHILD(true, {
        Net net;
        int learned = 0;
        for (uint32_t i = 0; i < 40; i++)
            learned += ens_may_learn(htonl(0x0a580000 + i)) ? 1 : 0;
        EXPECT_EQ(learned, 16) << "the burst";
        ens_asked(ip("10.88.1.1"));
        EXPECT_TRUE(ens_may_learn(ip("10.88.1.1"))) << "asked for";
        EXPECT_FALSE(ens_may_learn(ip("10.88.1.1"))) << "asked once, answered once";
        clk += 1;
        learned = 0;
        for (uint32_t i = 100; i < 140; i++)
            learned += ens_may_learn(htonl(0x0a580000 + i)) ? 1 : 0;
        EXPECT_EQ(learned, 4) << "a second later";
        clk += 30;
        EXPECT_FALSE(ens_may_learn(htonl(0x0a580000))) << "the same unknown sender within the minute";
        clk += 31;
        EXPECT_TRUE(ens_may_learn(htonl(0x0a580000)));
    });
}

TEST(EnsGotnames, AKnownHostIsRefreshedAndItsNamesFollowTheAnswer)
{
    IN_CHILD(true, {
        Net net;
        as_name first[] = {entry("OLD"), entry("KEEP")};
        ens_gotnames(first, 2, ip("127.0.0.5"));
        net.agent_got();
        EnsHost* host = ens_a_lookup(ip("127.0.0.5"))->host;
        host->probes = 2;
        clk += 500;

        as_name second[] = {entry("KEEP"), entry("NEW", AS_GROUP), entry("NEW", AS_GROUP)};
        ens_gotnames(second, 3, ip("127.0.0.5"));
        EXPECT_EQ(net.agent_got(), (Texts{"ADD NEW<20> 1 127.0.0.5", "DELETE OLD<20> 127.0.0.5"}));
        ASSERT_EQ(ens_a_lookup(ip("127.0.0.5"))->host, host);
        EXPECT_EQ(host->time, clk);
        EXPECT_EQ(host->probes, 0);
        EXPECT_EQ(host_names("127.0.0.5"), (Texts{"NEW<20>", "KEEP<20>"}));
        EXPECT_EQ(ens_n_lookup(first[0].name), nullptr);
        for (const EnsName* e = host->names; e != nullptr; e = e->host_next)
            EXPECT_EQ(e->flags & ENS_MARK, 0u);

        // An answer without names leaves the host nothing: it goes.
        ens_gotnames(nullptr, 0, ip("127.0.0.5"));
        EXPECT_EQ(net.agent_got(), (Texts{"DELETE NEW<20> 127.0.0.5", "DELETE KEEP<20> 127.0.0.5"}));
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.5")), nullptr);
    });
}

TEST(EnsGotnames, AHostWhoseAddressesChangedIsRebuilt)
{
    const struct {
        const char* why;
        std::vector<as_name> now;
        Texts sent;
        const char* gone;
    } cases[] = {
        {"lost one of two: a one-address EQUIV, the names again",
         {perm("127.0.0.6"), entry("SRV")},
         {"EQUIV 127.0.0.6", "ADD *127.0.0.6 8 127.0.0.6", "ADD SRV<20> 0 127.0.0.6"},
         "127.0.0.7"},
        {"one of two replaced: the new pair grouped",
         {perm("127.0.0.6"), perm("127.0.0.8")},
         {"EQUIV 127.0.0.6 127.0.0.8", "ADD *127.0.0.6 8 127.0.0.6 127.0.0.8",
          "ADD *127.0.0.8 8 127.0.0.6 127.0.0.8"},
         "127.0.0.7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        IN_CHILD(true, {
            Net net;
            as_name before[] = {perm("127.0.0.6"), perm("127.0.0.7"), entry("SRV")};
            ens_gotnames(before, 3, ip("127.0.0.6"));
            net.agent_got();
            ens_gotnames(c.now.data(), int(c.now.size()), ip("127.0.0.6"));
            EXPECT_EQ(net.agent_got(), c.sent);
            EXPECT_EQ(ens_a_lookup(ip(c.gone)), nullptr);
            EXPECT_EQ(host_names("127.0.0.6").size(), c.now.size());
        });
    }
}

// A host made in the table as a status answer would have made it.
EnsHost* make_host(const char* addr, time_t heard, std::initializer_list<const char*> names)
{
    EnsHost* h = ens_create();
    h->time = heard;
    EXPECT_EQ(ens_a_add(ip(addr), h), 0);
    for (const char* n : names)
        EXPECT_EQ(ens_n_add(entry(n).name, 0, h), 0);
    return h;
}

TEST(EnsProbe, AStaleHostIsProbedWithANewNameEachTickAndPurgedAtTheFourth)
{
    IN_CHILD(true, {
        Net net;
        make_host("127.0.0.5", clk - 1800, {"ONE", "TWO"});  // listed TWO, ONE
        make_host("127.0.0.6", clk, {"FRESH"});              // never stale in 1200 s
        set_probe_timer();
        const struct {
            Texts asked;
            Texts sent;
        } ticks[] = {
            {{"*127.0.0.5"}, {}},
            {{"TWO<20>"}, {}},
            {{"ONE<20>"}, {}},
            {{}, {"PURGE 127.0.0.5"}},
        };
        for (const auto& t : ticks) {
            SCOPED_TRACE(int(&t - ticks) + 1);
            clk += 299;
            check_calls(clk);
            EXPECT_EQ(net.asked(net.host5, "127.0.0.5"), Texts{});  // not before 300 s
            clk += 1;
            check_calls(clk);
            EXPECT_EQ(net.asked(net.host5, "127.0.0.5"), t.asked);
            EXPECT_EQ(net.asked(net.host6, "127.0.0.6"), Texts{});
            EXPECT_EQ(net.agent_got(), t.sent);
            if (t.sent.empty()) {
                EXPECT_EQ(dg_timer_count(), 1);  // the next probe; a PURGE arms its own retry
            }
        }
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.5")), nullptr);
        EXPECT_EQ(ens_n_lookup(entry("ONE").name), nullptr);
        ASSERT_NE(ens_a_lookup(ip("127.0.0.6")), nullptr);
    });
}

TEST(EnsAddNameToHost, MakesUnknownHostsAndLeavesOwnAddressesAndKnownNames)
{
    IN_CHILD(false, {
        EXPECT_EQ(ens_a_add(ip("127.0.0.1"), nullptr), 0);
        add_name_to_host(entry("MINE").name, ip("127.0.0.1"), 0, clk);
        EXPECT_EQ(ens_n_lookup(entry("MINE").name), nullptr);

        add_name_to_host(entry("SRV").name, ip("127.0.0.5"), 0, clk - 7);
        add_name_to_host(entry("TEAM").name, ip("127.0.0.5"), AS_GROUP, clk);
        add_name_to_host(entry("SRV").name, ip("127.0.0.5"), 0, clk);
        EXPECT_EQ(host_names("127.0.0.5"), (Texts{"TEAM<20>", "SRV<20>"}));
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.5"))->host->time, clk - 7);
        EXPECT_EQ(ens_n_lookup(entry("TEAM").name)->flags, AS_GROUP);
    });
}

}  // namespace
