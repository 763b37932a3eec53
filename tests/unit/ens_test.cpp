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
#include "tests/unit/unitkit.h"

// Each test runs in a child in its own network namespace: the ENS and
// name-service sockets on 127.0.0.1 (our own address), the agent at
// 127.0.0.2, a probed host's name-service socket at 127.0.0.5.
namespace {

using Texts = std::vector<std::string>;

uint32_t ip(const char* dotted) { return inet_addr(dotted); }

as_name entry(const char* text, uint32_t flags = 0)
{
    as_name e{};
    memcpy(e.name, ns_name(text).data(), 16);
    e.flags = flags;
    return e;
}
as_name perm(const char* dotted)  // the permanent node name of an address
{
    as_name e{};
    memcpy(e.name, ndasim::permanent_name(dotted).data(), 16);
    e.flags = AS_PERMANENT;
    return e;
}

// "NAME<20>", or "*a.b.c.d" for the permanent name of an address.
std::string text(const Bytes& n)
{
    return n[0] != 0 ? ndasim::name_text(n) : "*" + std::string(inet_ntoa(in_addr{*reinterpret_cast<const uint32_t*>(&n[10])}));
}

struct Net {
    int agent = -1, host = -1;
    Net()
    {
        dg_set_clock(fake_time, fake_alarm);
        uint16_t any = 0, agent_port = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        any = 0;
        dg_fd = ns_socket("127.0.0.1", &any);
        agent = ns_socket("127.0.0.2", &agent_port);
        nda_addr[0] = ip("127.0.0.2"), nda_ct = 1, ndport = agent_port, nmport = 0;
        host = ns_socket("127.0.0.5", &nmport);
        if (ens_fd < 0 || dg_fd < 0 || agent < 0 || host < 0)
            child_skip("no loopback sockets");
        EXPECT_EQ(ens_a_add(ip("127.0.0.1"), nullptr), 0);
    }
    // What reached fd since the last call, sent from `from`: each ENS
    // request as "ADD name flags addrs", "DELETE name addrs", "EQUIV addrs",
    // "PURGE addr"; each status request as the name asked for.
    Texts got(int fd, int from, const char* addr, uint16_t port)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET, to.sin_addr.s_addr = ip(addr), to.sin_port = htons(port);
        sendto(from, "end", 3, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        Texts out;
        for (const Bytes& d : ns_received(fd)) {
            if (fd == host) {  // RFC 1002 4.2.17: the encoded name at 13, NBSTAT
                uint8_t n[16];
                for (int i = 0; i < 16; i++)
                    n[i] = uint8_t((d[size_t(13 + 2 * i)] - 'A') << 4 | (d[size_t(14 + 2 * i)] - 'A'));
                out.push_back(d.size() == 50 && d[47] == 0x21 ? text(Bytes(n, n + 16)) : "bad");
                continue;
            }
            ndasim::Message m = ndasim::decode(d);
            const char* action[] = {"?", "?", "?", "ADD ", "DELETE ", "EQUIV", "?", "PURGE"};
            std::string s = action[m.action & 7];
            if (!m.name.empty())
                s += text(m.name);
            if (m.action == ndasim::add)
                s += " " + std::to_string(m.ints[0]);
            for (const std::string& a : m.addrs)
                s += " " + a;
            out.push_back(m.body_ok && !m.response ? s : "bad");
        }
        return out;
    }
    Texts at_agent() { return got(agent, ens_fd, "127.0.0.2", ndport); }
    Texts asked() { return got(host, dg_fd, "127.0.0.5", nmport); }
};

// A status answer teaches the host's addresses (its permanent names, else
// the sender's) and names, registered at the agent; a later answer changes
// them. Our own addresses never become a host's.
TEST(EnsGotnames, StatusAnswersMakeAndChangeHosts)
{
    IN_CHILD(true, {
        Net net;
        const struct { std::vector<as_name> names; const char* from; Texts sent; } steps[] = {
            {{entry("SRV"), entry("TEAM", AS_GROUP)}, "127.0.0.5",
             {"ADD SRV<20> 0 127.0.0.5", "ADD TEAM<20> 1 127.0.0.5"}},
            {{entry("SRV"), entry("NEW", AS_GROUP), entry("NEW", AS_GROUP)}, "127.0.0.5",
             {"ADD NEW<20> 1 127.0.0.5", "DELETE TEAM<20> 127.0.0.5"}},
            {{perm("127.0.0.6"), entry("SRV"), perm("127.0.0.7")}, "127.0.0.6",
             {"EQUIV 127.0.0.6 127.0.0.7", "ADD *127.0.0.6 8 127.0.0.6 127.0.0.7",
              "ADD SRV<20> 0 127.0.0.6 127.0.0.7", "ADD *127.0.0.7 8 127.0.0.6 127.0.0.7"}},
            {{perm("127.0.0.6"), entry("SRV")}, "127.0.0.6",
             {"EQUIV 127.0.0.6", "ADD *127.0.0.6 8 127.0.0.6", "ADD SRV<20> 0 127.0.0.6"}},
            {{entry("ME"), perm("127.0.0.1")}, "127.0.0.1", {}},
            {{perm("127.0.0.8"), perm("127.0.0.1")}, "127.0.0.9", {}},
            {{}, "127.0.0.5", {"DELETE NEW<20> 127.0.0.5", "DELETE SRV<20> 127.0.0.5"}},
        };
        for (const auto& s : steps) {
            SCOPED_TRACE(int(&s - steps));
            fake_now += 10;
            ens_gotnames(s.names.data(), int(s.names.size()), ip(s.from));
            EXPECT_EQ(net.at_agent(), s.sent);
        }
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.5")), nullptr) << "no names left: the host went";
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.7")), nullptr);
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.6"))->host->time, fake_now - 30);
        EXPECT_EQ(ens_host_count(), 1);
        EXPECT_TRUE(ens_a_own(ip("127.0.0.1")));
    });
}

// Unasked answers: at most 16 at once, 4 a second after, one new host per
// unknown sender a minute; an answer to our own request always counts.
TEST(EnsGotnames, UnaskedAnswersAreLearnedAtALimitedRate)
{
    IN_CHILD(true, {
        Net net;
        auto learned = [](uint32_t from, uint32_t to) {
            int n = 0;
            for (uint32_t i = from; i < to; i++)
                n += ens_may_learn(htonl(0x0a580000 + i)) ? 1 : 0;
            return n;
        };
        EXPECT_EQ(learned(0, 40), 16) << "the burst";
        ens_asked(ip("10.88.1.1"));
        EXPECT_TRUE(ens_may_learn(ip("10.88.1.1"))) << "asked for";
        EXPECT_FALSE(ens_may_learn(ip("10.88.1.1"))) << "asked once, answered once";
        fake_now += 1;
        EXPECT_EQ(learned(100, 140), 4) << "a second later";
        fake_now += 30;
        EXPECT_FALSE(ens_may_learn(htonl(0x0a580000))) << "the same unknown sender within the minute";
        fake_now += 31;
        EXPECT_TRUE(ens_may_learn(htonl(0x0a580000)));
    });
}

// Every 300 seconds a host heard of more than 20 minutes ago is asked for
// its status, a new name each time; at the fourth it is purged.
TEST(EnsProbe, AStaleHostIsProbedWithANewNameEachTickAndPurgedAtTheFourth)
{
    IN_CHILD(true, {
        Net net;
        EnsHost* h = ens_create();
        h->time = fake_now - 1800;
        ASSERT_EQ(ens_a_add(ip("127.0.0.5"), h), 0);
        for (const char* n : {"ONE", "TWO"})
            ASSERT_EQ(ens_n_add(entry(n).name, 0, h), 0);
        set_probe_timer();
        const Texts asked[] = {{"*127.0.0.5"}, {"TWO<20>"}, {"ONE<20>"}, {}};
        for (const Texts& a : asked) {
            SCOPED_TRACE(int(&a - asked));
            check_calls(fake_now += 299);
            EXPECT_EQ(net.asked(), Texts{});
            check_calls(fake_now += 1);
            EXPECT_EQ(net.asked(), a);
            EXPECT_EQ(net.at_agent(), a.empty() ? Texts{"PURGE 127.0.0.5"} : Texts{});
        }
        EXPECT_EQ(ens_a_lookup(ip("127.0.0.5")), nullptr);
        EXPECT_EQ(ens_n_lookup(entry("ONE").name), nullptr);
    });
}

}  // namespace
