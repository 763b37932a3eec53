#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "src/enstable.h"

namespace {

uint32_t ip(const char* text) { return inet_addr(text); }
std::string dotted(const EnsAddr* a) { return a == nullptr ? "(none)" : inet_ntoa(in_addr{a->address}); }

struct Nb {
    uint8_t b[16];
};
Nb nb(const char* text, uint8_t type)
{
    Nb n;
    memset(n.b, ' ', 16);
    memcpy(n.b, text, strlen(text));
    n.b[15] = type;
    return n;
}

template <typename F>
std::string captured(F write)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    write(f);
    fclose(f);
    std::string s(buf, len);
    free(buf);
    return s;
}

// The table is process-wide: every test ends with it empty again.
class EnsTable : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (EnsHost* h : hosts)
            ens_free(h);
        for (uint32_t a : own)
            EXPECT_EQ(ens_a_del(a), 0);
        EXPECT_EQ(captured(dump_enstable), "\nENS table --\n\n");
    }
    // A host heard of at t; addresses and names added in the order given.
    EnsHost* host(time_t t, std::vector<const char*> addrs, std::vector<Nb> names)
    {
        EnsHost* h = ens_create();
        h->time = t;
        hosts.push_back(h);
        for (const char* a : addrs)
            EXPECT_EQ(ens_a_add(ip(a), h), 0);
        for (const Nb& n : names)
            EXPECT_EQ(ens_n_add(n.b, n.b[15] == 0x1e ? ENS_GROUP : 0, h), 0);
        return h;
    }
    void own_addr(const char* a)
    {
        ASSERT_EQ(ens_a_add(ip(a), nullptr), 0);
        own.push_back(ip(a));
    }
    std::vector<EnsHost*> hosts;
    std::vector<uint32_t> own;
};

}  // namespace

TEST_F(EnsTable, DumpGoesByNameBucketNewestFirstWithTheHostsAddresses)
{
    // Buckets: SALES<20> 5, SALESX<20> 5 (bytes 3 to 11 are not hashed), B<00> 2.
    host(100, {"10.88.0.2", "10.89.0.2"}, {nb("SALES", 0x20)});
    host(100, {"192.168.1.5"}, {nb("SALESX", 0x20), nb("B", 0x00)});
    own_addr("10.88.0.1");
    EXPECT_EQ(captured(dump_enstable), "\nENS table --\n"
                                       "\t               b<00>  192.168.1.5\n"
                                       "\t              salesx  192.168.1.5\n"
                                       "\t               sales  10.89.0.2 10.88.0.2\n"
                                       "\n");
}

TEST_F(EnsTable, LookupDeleteAndFree)
{
    Nb group = nb("WORKGROUP", 0x1e);
    EnsHost* older = host(100, {"10.88.0.2", "10.88.0.3", "10.88.0.4"}, {group, nb("ONE", 0)});
    host(100, {"10.88.0.5"}, {nb("WORKGROUPX", 0x1e)});  // same bucket, another name
    EnsHost* newer = host(100, {"10.88.0.6", "192.168.1.2"}, {nb("TWO", 0), group, nb("THREE", 0)});

    EnsName* e = ens_n_lookup(group.b);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->host, newer);
    EXPECT_EQ(e->flags, ENS_GROUP);
    ASSERT_NE(e = ens_n_next(group.b, e), nullptr);
    EXPECT_EQ(e->host, older);
    EXPECT_EQ(ens_n_next(group.b, e), nullptr);
    EXPECT_EQ(ens_n_lookup(nb("WORKGROUP", 0x1d).b), nullptr) << "all 16 bytes compared";

    EXPECT_EQ(ens_n_del(group.b, older), 0);
    EXPECT_EQ(ens_n_del(group.b, older), -1);
    EXPECT_EQ(ens_n_lookup(nb("ONE", 0).b), older->names);
    EXPECT_EQ(older->names->host_next, nullptr);
    EXPECT_EQ(ens_a_del(ip("10.88.0.3")), 0) << "the middle of the host's list";
    EXPECT_EQ(ens_a_del(ip("10.88.0.3")), -1);
    EXPECT_EQ(dotted(older->addrs) + " " + dotted(older->addrs->host_next), "10.88.0.4 10.88.0.2");
    EXPECT_EQ(older->addrs->host_next->host_next, nullptr);

    ens_free(newer);
    hosts.pop_back();
    for (const char* n : {"TWO", "THREE"})
        EXPECT_EQ(ens_n_lookup(nb(n, 0).b), nullptr) << n;
    EXPECT_EQ(ens_n_lookup(group.b), nullptr);
    EXPECT_EQ(ens_a_lookup(ip("10.88.0.6")), nullptr);
    EXPECT_EQ(ens_a_lookup(ip("192.168.1.2")), nullptr);
    EXPECT_EQ(ens_a_lookup(ip("10.88.0.4"))->host, older);
}

TEST_F(EnsTable, StaleScanOrderAndItsOneRoundOfBuckets)
{
    own_addr("192.168.1.1");  // bucket 0, like every 192.168 address
    own_addr("10.88.0.1");
    EXPECT_EQ(ens_a_old(0, 1000), nullptr) << "own addresses never qualify";
    EnsHost* old10 = host(500, {"10.1.1.1"}, {});   // bucket 10, second
    host(900, {"10.88.0.2"}, {});                    // bucket 10, head
    EnsHost* old192 = host(300, {"192.168.1.7"}, {});  // bucket 0
    host(2000, {"172.16.0.1"}, {});                  // bucket 44, fresh

    const struct { const char* why; uint32_t start; time_t cutoff; const char* found; } cases[] = {
        {"from 0: bucket 0 first", 0, 1000, "192.168.1.7"},
        {"a time at the cutoff is stale", 0, 300, "192.168.1.7"},
        {"nothing old enough", 0, 299, "(none)"},
        {"the start entry is examined first", ip("10.88.0.2"), 1000, "10.88.0.2"},
        {"then the rest of its bucket", ip("10.88.0.2"), 800, "10.1.1.1"},
        {"wraps past 63 to bucket 0", ip("172.16.0.1"), 1000, "192.168.1.7"},
        {"a start not in the table: its bucket's head", ip("10.9.9.9"), 1000, "10.88.0.2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(dotted(ens_a_old(c.start, c.cutoff)), c.found);
    }
    // The 65th run: the start's bucket once more, with the entries before it.
    old192->time = 5000;
    old10->time = 5000;
    EXPECT_EQ(dotted(ens_a_old(ip("10.1.1.1"), 1000)), "10.88.0.2");
}

// Any station can make us learn hosts: at a cap the least recently heard
// host goes with all its entries, never the one being added to, never an
// own address.
TEST_F(EnsTable, AFullTableForgetsTheHostsHeardOfLeastRecently)
{
    own_addr("10.88.0.1");
    auto addr = [](int i) { return htonl(0x0a590000u + uint32_t(i)); };  // 10.89.x.x, one bucket
    std::vector<EnsHost*> made;
    for (int i = 0; i < ENS_MAX_HOSTS; i++) {
        EnsHost* h = ens_create();
        ASSERT_NE(h, nullptr);
        ens_touch(h, 1000 + i);
        ASSERT_EQ(ens_a_add(addr(i), h), 0);
        for (int k = 0; k < ENS_MAX_NAMES / ENS_MAX_HOSTS; k++)
            ASSERT_EQ(ens_n_add(nb(("H" + std::to_string(i) + "N" + std::to_string(k)).c_str(), 0).b, 0, h), 0);
        made.push_back(h);
    }
    EXPECT_EQ(ens_name_count(), ENS_MAX_NAMES);
    ens_touch(made[0], 90000);  // heard again: now the most recent
    EnsHost* extra = ens_create();
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(ens_host_count(), ENS_MAX_HOSTS);
    EXPECT_EQ(ens_a_lookup(addr(1)), nullptr) << "the least recently heard is forgotten";
    EXPECT_EQ(ens_n_lookup(nb("H1N0", 0).b), nullptr);
    EXPECT_EQ(ens_a_lookup(addr(0))->host, made[0]);
    ASSERT_EQ(ens_a_add(addr(1), extra), 0);
    for (int k = 0; k < 5; k++)  // three fit where host 1's were; the fourth needs room
        ASSERT_EQ(ens_n_add(nb(("X" + std::to_string(k)).c_str(), 0).b, 0, extra), 0);
    EXPECT_EQ(ens_name_count(), ENS_MAX_NAMES - 1);
    EXPECT_EQ(ens_host_count(), ENS_MAX_HOSTS - 1) << "host 2 went for the names";
    EXPECT_EQ(ens_a_lookup(addr(2)), nullptr);
    EXPECT_EQ(ens_n_lookup(nb("X4", 0).b)->host, extra);
    EXPECT_TRUE(ens_a_own(ip("10.88.0.1")));
    EXPECT_EQ(ens_a_add(ip("10.88.0.1"), extra), -1) << "an own address is nobody else's";
    for (int i = 0; i < ENS_MAX_HOSTS; i++) {
        const EnsAddr* a = ens_a_lookup(addr(i));
        if (a != nullptr && a->host != nullptr)
            ens_free(a->host);
    }
    EXPECT_EQ(ens_host_count(), 0);
    EXPECT_EQ(ens_name_count(), 0);
    EXPECT_EQ(ens_addr_count(), 1);
}

TEST_F(EnsTable, AddingTracesAtProcLevel5)
{
    FILE* saved = tcfile;
    int saved_proc = tc_proc;
    EnsHost* h = host(0, {}, {});
    std::string lines = captured([&](FILE* f) {
        tcfile = f;
        for (tc_proc = 4; tc_proc <= 5; tc_proc++) {
            ens_a_add(ip(tc_proc == 4 ? "10.88.0.1" : "10.88.0.2"), h);
            ens_n_add(nb(tc_proc == 4 ? "HIDDEN" : "TRACED", 1).b, 0, h);
        }
    });
    tcfile = saved;
    tc_proc = saved_proc;
    EXPECT_EQ(lines, "ens_a_add called, address 10.88.0.2\nens_n_add: adding name traced<01>\n");
}
