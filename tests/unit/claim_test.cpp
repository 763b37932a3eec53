#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>

#include "shr/uniinet.h"
#include "src/claim.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "tests/support/nswire.h"
#include "tests/support/nsfixture.h"
#include "tests/unit/unitkit.h"

// The test sends, so it runs in a child in its own network namespace:
// the two interfaces broadcast to 127.0.0.2 and 127.0.0.3 on loopback.
namespace {

struct Net {
    int rx[2];
    if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("127.0.0.2"), 0},
                       {inet_addr("10.89.0.7"), inet_addr("127.0.0.3"), 0}};
    Net()
    {
        uint16_t any = 0;
        dg_fd = ns_socket("127.0.0.1", &any);
        rx[0] = ns_socket("127.0.0.2", &nmport);
        rx[1] = ns_socket("127.0.0.3", &nmport);
        EXPECT_TRUE(dg_fd >= 0 && rx[0] >= 0 && rx[1] >= 0);
        my_addr = ifs, my_addr_ct = 2;
        dg_set_clock(fake_time, fake_alarm);
    }
    std::vector<Bytes> sent(int i)
    {
        dg_bsend(reinterpret_cast<const uint8_t*>("end"), 3, i);
        return ns_received(rx[i]);
    }
};

// RFC 1002 4.2.2 as we send it: the question, then a record pointing at it.
Bytes request(uint16_t id, uint8_t b2, uint8_t nbflags_hi, const char* addr, const Bytes& labels)
{
    Bytes rest{0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, nbflags_hi, 0};
    Bytes a = ip_bytes(addr);
    rest.insert(rest.end(), a.begin(), a.end());
    return ns_packet(id, b2, 0x10, {1, 0, 0, 1}, ns_name("SERVER"), labels, rest);
}

TEST(Claim, OneRequestPerInterfaceWithItsOwnAddressClaimIdsFromTheClockReleaseIdsFromOne)
{
    run_in_private_net([&] {
        Net net;
        const struct { bool claim; uint16_t id; uint32_t flags; uint8_t nbflags_hi; const char* scope; } cases[] = {
            {true, 0xA1B2, NT_PENDING, 0x00, ""}, {true, 0xA1B2, NT_GROUP | NT_PENDING, 0x80, ""},
            {true, 0xA1B2, 0x104, 0x00, "Corp"},  {false, 1, 0, 0x00, ""},
            {false, 2, NT_GROUP, 0x80, ""},       {false, 3, 0, 0x00, "Corp"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(c.id) + " " + c.scope);
            snprintf(nb_scope, sizeof nb_scope, "%s", c.scope);
            fake_now = 0x6543A1B2;
            nt_entry e{nullptr, {}, c.flags, 0, nullptr};
            memcpy(e.name, ns_name("SERVER").data(), 16);
            c.claim ? name_claim(&e) : name_release(&e);
            for (int i = 0; i < 2; i++) {
                Bytes want = request(c.id, c.claim ? 0x29 : 0x30, c.nbflags_hi, i == 0 ? "10.88.0.1" : "10.89.0.7",
                                     c.scope[0] ? Bytes{4, 'C', 'o', 'r', 'p', 0} : Bytes{0});
                EXPECT_EQ(net.sent(i), std::vector<Bytes>{want});
            }
        }
        nb_scope[0] = '\0';
        uint8_t area[NPKT_AREA];
        npkt rec;
        init_outpkt(&rec, area, NT_REGISTER, ns_name("A").data());
        EXPECT_EQ(build_claim(&rec, 1, 2, 0), -1) << "no interface 2";
        EXPECT_EQ(build_claim(&rec, 1, -1, 0), -1);
        EXPECT_EQ(build_release(&rec, 0x0102, 1, NT_GROUP), 68);
        EXPECT_TRUE(rec.size == 68 && rec.flags == NPKT_GROUP && rec.pktid[0] == 0x0201u);
    });
}

}  // namespace
