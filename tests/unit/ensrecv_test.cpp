#include "tests/unit/unitkit.h"

#include "src/cache.h"
#include "src/cust.h"
#include "src/ensrecv.h"
#include "src/namecust.h"
#include "src/notifier.h"

// Our own address is 127.0.0.1, the one agent is at 127.0.0.2, a station at
// 127.0.0.9; what the daemon sends is recorded at the seam.
namespace {

using namespace ndasim;

// ADD answers: our own name refused is lost (logged, removed); a name
// registered for another host only teaches its owner. A station's claim
// refused for another owner is defended for it; accepted, the claimer is
// learned.
TEST(EnsRecv, AddResponsesForOurNamesAndForStationsClaims)
{
    dg_set_clock(fake_time, fake_alarm);
    dg_set_sender(record_dg);
    UniAddr agent{}, station{};
    iantoua(&agent, inet_addr("127.0.0.2"), 1002);
    iantoua(&station, inet_addr("127.0.0.9"), 1009);
    nda_addr[0] = inet_addr("127.0.0.2"), nda_ct = 1, ndport = 1002;
    static if_entry ifs[1] = {{inet_addr("127.0.0.1"), 0, inet_addr("255.0.0.0")}};
    my_addr = ifs, my_addr_ct = 1;
    ASSERT_EQ(ens_a_add(ifs[0].addr, nullptr), 0);
    ASSERT_EQ(ens_a_add(inet_addr("10.88.0.20"), ens_create()), 0);
    const Bytes owner = cat({int_item(1), ip_item("10.88.0.9")});
    const Bytes reg = ns_request(0x1234, 0x29, "SERVER", 0, "127.0.0.9");
    const Bytes defence = ns_answer(0xAD, 0x86, "SERVER", 0x80, "10.88.0.9");
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
            rec.addr = station;
            nda_claim(&rec);
        }
        std::vector<Bytes> command = sent_to(DgWay::ens, "127.0.0.2", 1002);
        ASSERT_EQ(command.size(), 1u);
        // The answer in a buffer of its exact size.
        Bytes answer = cat({header(decode(command[0]).id, 0x80000003, c.ans), c.body});
        answer.shrink_to_fit();
        auto log = logged([&] { ens_recv(-1, answer.data(), int(answer.size()), &agent); });
        EXPECT_EQ(log.size() == 2 ? log[1] : "", c.lost_to ? std::string("        at address ") + c.lost_to : "");
        EXPECT_EQ(n_table == nullptr, c.lost_to != nullptr || c.for_addr == nullptr);
        EXPECT_EQ(sent_to(DgWay::name, "127.0.0.9", 1009), c.for_addr == nullptr && c.ans < 0 ? std::vector<Bytes>{defence} : std::vector<Bytes>{});
        uint32_t a = 0;
        int g = -1;
        EXPECT_EQ(nda_getcache(&a, &g, name.data(), fake_now), c.cached != nullptr ? 1 : -1);
        EXPECT_EQ(a, c.cached != nullptr ? inet_addr(c.cached) : 0);
        nt_del(name.data());
        fake_now += 100;   // past the cache's minute
    }
    // A positive QUERY answer counts only with its marker set.
    for (int32_t marker : {0, 1}) {
        nda_lquery(ns_name("FAR").data(), 1, 11);
        std::vector<Bytes> query = sent_to(DgWay::ens, "127.0.0.2", 1002);
        ASSERT_EQ(query.size(), 1u);
        Bytes answer = cat({header(decode(query[0]).id, 0x80000001, 0), int_item(0), int_item(marker),
                            ip_item("10.88.0.5")});
        ens_recv(-1, answer.data(), int(answer.size()), &agent);
        uint32_t a = 0;
        int g = -1;
        EXPECT_EQ(nda_getcache(&a, &g, ns_name("FAR").data(), fake_now), marker != 0 ? 1 : -1) << marker;
    }
    const EnsAddr* known = ens_a_lookup(inet_addr("127.0.0.9"));
    ASSERT_TRUE(known != nullptr && known->host != nullptr && known->host->names != nullptr);
    EXPECT_EQ(Bytes(known->host->names->name, known->host->names->name + 16), ns_name("SERVER"));
}

}  // namespace
