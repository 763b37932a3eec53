#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "misc/initsock.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/claim.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/query.h"
#include "tests/support/lab.h"
#include "tests/support/privnet.h"

// Responses to our own requests are not this module's: the dispatcher that
// the table lookup links in hands them here.
void answer_adapstat(const npkt*) {}
void check_adapstat(const npkt*) {}
void check_lookup(const npkt*) {}

// Every test sends, so every test runs in a child inside its own network
// namespace, on loopback: the two interfaces broadcast to 127.0.0.2 and
// 127.0.0.3, where a socket each listens at the name-service port.
namespace {

using Bytes = std::vector<uint8_t>;

uint32_t ip(const char* text) { return inet_addr(text); }

time_t fake_now;
time_t fake_clock() { return fake_now; }

struct Net {
    int rx[2];
    if_entry ifs[2] = {{ip("10.88.0.1"), ip("127.0.0.2"), ip("255.255.255.0")},
                       {ip("10.89.0.7"), ip("127.0.0.3"), ip("255.255.255.0")}};
    Net()
    {
        uint16_t sport = 0, port = 0;
        dg_fd = init_sock(ip("127.0.0.1"), &sport, 0);
        rx[0] = init_sock(ip("127.0.0.2"), &port, 0);
        rx[1] = init_sock(ip("127.0.0.3"), &port, 0);
        EXPECT_TRUE(dg_fd >= 0 && rx[0] >= 0 && rx[1] >= 0);
        nmport = port;
        my_addr = ifs;
        my_addr_ct = 2;
        claim_set_clock(fake_clock);
    }
    // What arrived on interface i's broadcast address: a marker datagram
    // from the same socket ends the collection, so nothing waits on time.
    std::vector<Bytes> sent(int i)
    {
        dg_bsend(reinterpret_cast<const uint8_t*>("end"), 3, i);
        std::vector<Bytes> got;
        for (;;) {
            Bytes b(1600);
            ssize_t n = recv(rx[i], b.data(), b.size(), 0);
            if (n < 0 || (n == 3 && memcmp(b.data(), "end", 3) == 0))
                return got;
            b.resize(size_t(n));
            got.push_back(b);
        }
    }
};

Bytes nb(const char* text, uint8_t type = 0x20)
{
    Bytes n(16, ' ');
    memcpy(n.data(), text, strlen(text));
    n[15] = type;
    return n;
}

// The first-level encoding written out: length 32, two letters a byte.
Bytes wire_name(const Bytes& n, const Bytes& scope_labels = {0})
{
    Bytes w{32};
    for (uint8_t b : n) {
        w.push_back(uint8_t('A' + (b >> 4)));
        w.push_back(uint8_t('A' + (b & 15)));
    }
    w.insert(w.end(), scope_labels.begin(), scope_labels.end());
    return w;
}

// A request as we send it, from the RFC 1002 4.2.2 layout.
Bytes request(uint16_t id, uint8_t b2, const Bytes& name, uint8_t nbflags_hi, uint32_t addr,
              const Bytes& scope_labels = {0})
{
    Bytes p{uint8_t(id >> 8), uint8_t(id), b2, 0x10, 0, 1, 0, 0, 0, 0, 0, 1};
    Bytes w = wire_name(name, scope_labels);
    p.insert(p.end(), w.begin(), w.end());
    const Bytes tail{0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, nbflags_hi, 0};
    p.insert(p.end(), tail.begin(), tail.end());
    const uint8_t* a = reinterpret_cast<const uint8_t*>(&addr);
    p.insert(p.end(), a, a + 4);
    return p;
}

nt_entry entry(const Bytes& name, uint32_t flags)
{
    nt_entry e{};
    memcpy(e.name, name.data(), 16);
    e.flags = flags;
    return e;
}

TEST(Claim, EveryInterfaceGetsOneRequestWithTheSameIdAndItsOwnAddress)
{
    IN_CHILD(true, {
        Net net;
        const struct {
            const char* why;
            const char* scope;
            Bytes labels;
            uint32_t flags;
            uint8_t nbflags_hi;
        } cases[] = {
            {"unique, no scope", "", {0}, NT_PENDING, 0x00},
            {"group", "", {0}, NT_GROUP | NT_PENDING, 0x80},
            {"other flag bits", "", {0}, 0x104, 0x00},
            {"scope", "Corp.example", {4, 'C', 'o', 'r', 'p', 7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 0}, 0, 0x00},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            snprintf(nb_scope, sizeof nb_scope, "%s", c.scope);
            fake_now = 0x6543A1B2;
            nt_entry e = entry(nb("SERVER"), c.flags);
            name_claim(&e);
            for (int i = 0; i < 2; i++) {
                auto got = net.sent(i);
                ASSERT_EQ(got.size(), 1u);
                EXPECT_EQ(got[0], request(0xA1B2, 0x29, nb("SERVER"), c.nbflags_hi, net.ifs[i].addr, c.labels));
            }
        }
        nb_scope[0] = '\0';
        EXPECT_EQ(request(0, 0x29, nb("X"), 0, 0).size(), 68u);
    });
}

TEST(Claim, ReleasesCountTheirIdsFromOne)
{
    IN_CHILD(true, {
        Net net;
        for (uint16_t id = 1; id <= 3; id++) {
            SCOPED_TRACE(id);
            nt_entry e = entry(nb("GONE", uint8_t(id)), id == 2 ? NT_GROUP : 0);
            name_release(&e);
            for (int i = 0; i < 2; i++) {
                auto got = net.sent(i);
                ASSERT_EQ(got.size(), 1u);
                EXPECT_EQ(got[0], request(id, 0x30, nb("GONE", uint8_t(id)), id == 2 ? 0x80 : 0, net.ifs[i].addr));
            }
        }
    });
}

TEST(Claim, BuildersRefuseAnInterfaceThatIsNotThere)
{
    uint8_t area[NPKT_AREA];
    npkt rec;
    if_entry one = {ip("10.88.0.1"), 0, 0};
    my_addr = &one;
    my_addr_ct = 1;
    init_outpkt(&rec, area, NT_REGISTER, nb("A").data());
    EXPECT_EQ(build_claim(&rec, 1, 1, 0), -1);
    EXPECT_EQ(build_release(&rec, 1, -1, 0), -1);
    EXPECT_EQ(build_release(&rec, 0x0102, 0, NT_GROUP), 68);
    EXPECT_EQ(rec.size, 68);
    EXPECT_EQ(rec.flags, NPKT_GROUP);
    EXPECT_EQ(rec.pktid[0], 0x0201u) << "first id byte low, as the decoder keeps it";
    my_addr = nullptr;
    my_addr_ct = 0;
}

// A registration response from another station within 10 seconds of the
// latest claim takes the name away; later, from ourselves, or for a name
// we do not hold, it changes nothing.
TEST(Claim, RegistrationResponsesWithinTenSecondsRemoveTheName)
{
    IN_CHILD(true, {
        Net net;
        EnsHost* other = ens_create();
        ASSERT_EQ(ens_a_add(ip("10.88.0.9"), other), 0);
        ASSERT_EQ(ens_a_add(ip("10.88.0.1"), nullptr), 0);
        const struct {
            const char* why;
            int type;
            int after;
            const char* from;
            const char* name;
            bool removed;
        } cases[] = {
            {"another station, at once", NT_REGISTER_RESP, 0, "10.88.0.5", "SERVER", true},
            {"a known host, at 10 seconds", NT_REGISTER_RESP, 10, "10.88.0.9", "SERVER", true},
            {"11 seconds", NT_REGISTER_RESP, 11, "10.88.0.5", "SERVER", false},
            {"our own address", NT_REGISTER_RESP, 0, "10.88.0.1", "SERVER", false},
            {"a name we do not hold", NT_REGISTER_RESP, 0, "10.88.0.5", "OTHER", false},
            {"a query response", NT_QUERY_RESP, 0, "10.88.0.5", "SERVER", false},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            std::string log = "/tmp/halyard-claim-" + std::to_string(getpid());
            ASSERT_EQ(open_log(log.c_str()), 0);
            ASSERT_EQ(nt_add(nb("SERVER").data(), 0), 0);
            fake_now = 5000;
            name_claim(n_table);
            net.sent(0), net.sent(1);
            fake_now += c.after;
            npkt rec{};
            rec.type = c.type;
            memcpy(rec.name, nb(c.name).data(), 16);
            iantoua(&rec.addr, ip(c.from), 137);
            check_conflict(&rec);
            close_log();
            auto groups = lab_parse_log(lab_read_file(log));
            unlink(log.c_str());
            EXPECT_EQ(n_table == nullptr, c.removed);
            if (c.removed) {
                ASSERT_EQ(groups.size(), 1u);
                EXPECT_EQ(groups[0].messages,
                          (std::vector<std::string>{"Halyard: name already exists on network: server",
                                                    std::string("        at address I(") + c.from + ".137)"}));
            } else {
                EXPECT_TRUE(groups.empty());
                EXPECT_EQ(nt_del(nb("SERVER").data()), 0);
            }
            EXPECT_TRUE(net.sent(0).empty()) << "no release for a name that was never ours";
        }
    });
}

}  // namespace
