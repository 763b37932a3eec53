#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>

#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/enstable.h"
#include "src/ensrecv.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/notifier.h"
#include "src/ntable.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/unit/unitkit.h"

// Our own address is 127.0.0.1, the one agent is at 127.0.0.2, a station at
// 127.0.0.9; what the daemon sends is recorded at the seam.
namespace {

using ndasim::addr_list;
using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

struct Ens {
    UniAddr agent_ua{}, station_ua{};
    if_entry ifs[1] = {{inet_addr("127.0.0.1"), 0, inet_addr("255.0.0.0")}};
    Ens()
    {
        dg_set_clock(fake_time, fake_alarm);
        dg_set_sender(record_dg);
        iantoua(&agent_ua, inet_addr("127.0.0.2"), 1002);
        iantoua(&station_ua, inet_addr("127.0.0.9"), 1009);
        nda_addr[0] = inet_addr("127.0.0.2"), nda_ct = 1, ndport = 1002;
        my_addr = ifs, my_addr_ct = 1;
        EXPECT_EQ(ens_a_add(ifs[0].addr, nullptr), 0);
    }
    // A datagram from the agent, in a buffer of its exact size.
    void from_agent(const Bytes& d)
    {
        Bytes exact(d);
        exact.shrink_to_fit();
        ens_recv(-1, exact.data(), int(exact.size()), &agent_ua);
    }
    std::vector<Bytes> at_agent() { return sent_to(DgWay::ens, "127.0.0.2", 1002); }
    std::vector<Bytes> at_station() { return sent_to(DgWay::name, "127.0.0.9", 1009); }
    // The id of the one command the agent got.
    uint32_t command()
    {
        auto got = at_agent();
        EXPECT_EQ(got.size(), 1u);
        return got.empty() ? 0 : ndasim::decode(got[0]).id;
    }
};

// ADD answers: our own name refused is lost (logged, removed); a name
// registered for another host only teaches its owner. A station's claim
// refused for another owner is defended for it; accepted, the claimer is
// learned.
TEST(EnsRecv, AddResponsesForOurNamesAndForStationsClaims)
{
    Ens e;
    ASSERT_EQ(ens_a_add(inet_addr("10.88.0.20"), ens_create()), 0);
    const Bytes owner = cat({int_item(1), ip_item("10.88.0.9")});
    const Bytes reg = ns_packet(0x1234, 0x29, 0x10, {1, 0, 0, 1}, ns_name("SERVER"), {0},
                                {0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 127, 0, 0, 9});
    const Bytes defence = ns_packet(0x1234, 0xAD, 0x86, {0, 1, 0, 0}, ns_name("SERVER"), {0},
                                    {0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 9});
    const struct { const char* for_addr; int32_t ans; Bytes body; const char* lost_to; const char* cached; } cases[] = {
        {"127.0.0.1", -1, owner, "10.88.0.9", "10.88.0.9"},
        {"127.0.0.1", -1, {}, "unknown", nullptr},
        {"127.0.0.1", 0, {}, nullptr, nullptr},
        {"10.88.0.20", -1, owner, nullptr, "10.88.0.9"},
        {nullptr, -1, owner, nullptr, "10.88.0.9"},  // a station's claim
        {nullptr, 0, {}, nullptr, "127.0.0.9"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int(&c - cases));
        Bytes name = ns_name("SERVER");
        ASSERT_EQ(nt_add(name.data(), 0), 0);
        uint32_t addr = c.for_addr != nullptr ? inet_addr(c.for_addr) : 0;
        npkt rec{};
        if (c.for_addr != nullptr) {
            nda_add(name.data(), 0, &addr, 1);
        } else {
            nt_del(name.data());
            ASSERT_EQ(decode_npack(&rec, reg.data(), int(reg.size())), int(reg.size()));
            rec.addr = e.station_ua;
            nda_claim(&rec);
        }
        uint32_t id = e.command();
        auto log = logged([&] { e.from_agent(cat({header(id, 0x80000003, c.ans), c.body})); });
        EXPECT_EQ(log.size() == 2 ? log[1] : "", c.lost_to ? std::string("        at address ") + c.lost_to : "");
        EXPECT_EQ(n_table == nullptr, c.lost_to != nullptr || c.for_addr == nullptr);
        EXPECT_EQ(e.at_station(), c.for_addr == nullptr && c.ans < 0 ? std::vector<Bytes>{defence} : std::vector<Bytes>{});
        uint32_t a = 0;
        int g = -1;
        EXPECT_EQ(nda_getcache(&a, &g, name.data(), fake_now), c.cached != nullptr ? 1 : -1);
        EXPECT_EQ(a, c.cached != nullptr ? inet_addr(c.cached) : 0);
        nt_del(name.data());
        fake_now += 100;   // past the cache's minute
    }
    const EnsAddr* known = ens_a_lookup(inet_addr("127.0.0.9"));
    ASSERT_TRUE(known != nullptr && known->host != nullptr && known->host->names != nullptr);
    EXPECT_EQ(Bytes(known->host->names->name, known->host->names->name + 16), ns_name("SERVER"));
}

}  // namespace
