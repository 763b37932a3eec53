#include "tests/unit/unitkit.h"

#include "src/claim.h"

namespace {

TEST(Claim, OneRequestPerInterfaceWithItsOwnAddressClaimIdsFromTheClockReleaseIdsFromOne)
{
    if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("10.88.0.255"), 0},
                       {inet_addr("10.89.0.7"), inet_addr("10.89.0.255"), 0}};
    my_addr = ifs, my_addr_ct = 2, nmport = 137;
    dg_set_clock(fake_time, fake_alarm);
    dg_set_sender(record_dg);
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
            Bytes want = ns_request(c.id, c.claim ? 0x29 : 0x30, "SERVER", c.nbflags_hi,
                                    i == 0 ? "10.88.0.1" : "10.89.0.7", c.scope[0] ? Bytes{4, 'C', 'o', 'r', 'p', 0} : Bytes{0});
            const char* bcast = i == 0 ? "10.88.0.255" : "10.89.0.255";
            EXPECT_EQ(sent_to(DgWay::name, bcast, nmport), std::vector<Bytes>{want});
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
}

}  // namespace
