#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "src/enstable.h"
#include "tests/support/nswire.h"

namespace {

uint32_t ip(const char* text) { return inet_addr(text); }
std::string dotted(const EnsAddr* a) { return a == nullptr ? "(none)" : inet_ntoa(in_addr{a->address}); }

EnsHost* host(time_t t, std::vector<const char*> addrs, std::vector<const char*> names, uint32_t flags = 0)
{
    EnsHost* h = ens_create();
    h->time = t;
    for (const char* a : addrs)
        EXPECT_EQ(ens_a_add(ip(a), h), 0);
    for (const char* n : names)
        EXPECT_EQ(ens_n_add(ns_name(n).data(), flags, h), 0);
    return h;
}

TEST(EnsTable, LookupsDeletesAndTheStaleScan)
{
    ASSERT_EQ(ens_a_add(ip("192.168.1.1"), nullptr), 0);  // own: never stale, nobody else's
    EnsHost* older = host(500, {"10.1.1.1", "10.1.1.2", "10.1.1.3"}, {"WORKGROUP", "ONE"}, ENS_GROUP);
    host(900, {"10.88.0.2"}, {"WORKGROUPX"});                                   // bucket of 10.1.1.1
    EnsHost* newer = host(300, {"192.168.1.7", "172.16.0.9"}, {"TWO", "WORKGROUP"}, ENS_GROUP);
    EnsName* e = ens_n_lookup(ns_name("WORKGROUP").data());
    ASSERT_TRUE(e != nullptr && e->host == newer && e->flags == ENS_GROUP);
    ASSERT_EQ((e = ens_n_next(ns_name("WORKGROUP").data(), e))->host, older);
    EXPECT_EQ(ens_n_next(ns_name("WORKGROUP").data(), e), nullptr);
    EXPECT_EQ(ens_n_lookup(ns_name("WORKGROUP", 0x1d).data()), nullptr) << "all 16 bytes compared";
    EXPECT_EQ(ens_a_add(ip("192.168.1.1"), older), -1) << "an own address is nobody else's";
    const struct { const char* why; uint32_t start; time_t cutoff; const char* found; } cases[] = {
        {"from 0: bucket 0 first", 0, 1000, "192.168.1.7"},
        {"a time at the cutoff is stale", 0, 300, "192.168.1.7"},
        {"nothing old enough", 0, 299, "(none)"},
        {"the start entry is examined first", ip("10.88.0.2"), 1000, "10.88.0.2"},
        {"a start not in the table: its bucket's head", ip("10.9.9.9"), 1000, "10.88.0.2"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dotted(ens_a_old(c.start, c.cutoff)), c.found) << c.why;
    }
    EXPECT_EQ(ens_n_del(ns_name("WORKGROUP").data(), older), 0);
    EXPECT_EQ(ens_n_del(ns_name("WORKGROUP").data(), older), -1);
    EXPECT_EQ(ens_a_del(ip("10.1.1.2")), 0) << "the middle of the host's list";
    EXPECT_EQ(dotted(older->addrs) + " " + dotted(older->addrs->host_next), "10.1.1.3 10.1.1.1");
    ens_free(newer);
    for (const char* n : {"TWO", "WORKGROUP"})
        EXPECT_EQ(ens_n_lookup(ns_name(n).data()), nullptr) << n;
    EXPECT_EQ(ens_a_lookup(ip("172.16.0.9")), nullptr);
}

// Any station can make us learn hosts: at a cap the least recently heard
// host goes with all its entries, never the one being added to.
TEST(EnsTable, AFullTableForgetsTheHostsHeardOfLeastRecently)
{
    auto addr = [](int i) { return htonl(0x0a590000u + uint32_t(i)); };
    std::vector<EnsHost*> made;
    for (int i = 0; i < ENS_MAX_HOSTS; i++) {
        EnsHost* h = ens_create();
        ens_touch(h, 1000 + i);
        ASSERT_EQ(ens_a_add(addr(i), h), 0);
        for (int k = 0; k < ENS_MAX_NAMES / ENS_MAX_HOSTS; k++)
            ASSERT_EQ(ens_n_add(ns_name(("H" + std::to_string(i) + "N" + std::to_string(k)).c_str()).data(), 0, h), 0);
        made.push_back(h);
    }
    ens_touch(made[0], 90000);  // heard again: now the most recent
    EnsHost* extra = ens_create();
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(ens_a_lookup(addr(1)), nullptr) << "the least recently heard is forgotten";
    EXPECT_EQ(ens_n_lookup(ns_name("H1N0").data()), nullptr);
    ASSERT_EQ(ens_a_add(addr(1), extra), 0);
    for (int k = 0; k < 5; k++)  // three fit where host 1's were; the fourth needs room
        ASSERT_EQ(ens_n_add(ns_name(("X" + std::to_string(k)).c_str()).data(), 0, extra), 0);
    EXPECT_EQ(ens_host_count(), ENS_MAX_HOSTS - 1) << "host 2 went for the names";
    EXPECT_EQ(ens_a_lookup(addr(2)), nullptr);
    EXPECT_EQ(ens_n_lookup(ns_name("X4").data())->host, extra);
}

}  // namespace
