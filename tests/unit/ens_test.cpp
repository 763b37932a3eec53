#include "tests/unit/unitkit.h"

#include "src/cust.h"
#include "src/ens.h"

// Every 300 seconds a host heard of more than 20 minutes ago is asked for
// its status, a new name each time; at the fourth it is purged at the
// agent (127.0.0.2). The host is 127.0.0.5.
TEST(EnsProbe, AStaleHostIsProbedWithANewNameEachTickAndPurgedAtTheFourth)
{
    dg_set_clock(fake_time, fake_alarm);
    dg_set_sender(record_dg);
    nda_addr[0] = inet_addr("127.0.0.2"), nda_ct = 1, ndport = 1002, nmport = 137;
    EnsHost* h = ens_create();
    h->time = fake_now - 1800;
    ASSERT_EQ(ens_a_add(inet_addr("127.0.0.5"), h), 0);
    for (const char* n : {"ONE", "TWO"})
        ASSERT_EQ(ens_n_add(ns_name(n).data(), 0, h), 0);
    set_probe_timer();
    // The name each status request asks for: its encoded form at 13.
    auto asked = [&] {
        std::vector<Bytes> names;
        for (const Bytes& d : sent_to(DgWay::name, "127.0.0.5", nmport))
            names.push_back(Bytes(d.begin() + 13, d.begin() + 45));
        return names;
    };
    auto enc = [](const Bytes& name) {
        Bytes w = wire_name(name);
        return Bytes(w.begin() + 1, w.begin() + 33);
    };
    const std::vector<Bytes> want[] = {{enc(ndasim::permanent_name("127.0.0.5"))}, {enc(ns_name("TWO"))},
                                       {enc(ns_name("ONE"))}, {}};
    for (const auto& w : want) {
        SCOPED_TRACE(int(&w - want));
        check_calls(fake_now += 299);
        EXPECT_TRUE(asked().empty());
        check_calls(fake_now += 1);
        EXPECT_EQ(asked(), w);
        std::vector<Bytes> purges = sent_to(DgWay::ens, "127.0.0.2", 1002);
        EXPECT_EQ(purges.size(), w.empty() ? 1u : 0u);
        if (!purges.empty()) {
            ndasim::Message m = ndasim::decode(purges[0]);
            EXPECT_TRUE(m.action == ndasim::purge && m.addrs == std::vector<std::string>{"127.0.0.5"});
        }
    }
    EXPECT_EQ(ens_a_lookup(inet_addr("127.0.0.5")), nullptr);
    EXPECT_EQ(ens_n_lookup(ns_name("ONE").data()), nullptr);
    EXPECT_TRUE(sent_dgs.empty()) << "nothing else sent";
}

// Without agents, a host of two addresses tells them once, in one EQUIV to
// the first interface's broadcast at the agents' port.
TEST(EnsProbe, TwoAddressesAreBroadcastOnceWhenNoAgentIsNamed)
{
    dg_set_sender(record_dg);
    static if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("10.88.0.255"), 0}, {inet_addr("10.89.0.1"), 0, 0}};
    my_addr = ifs, my_addr_ct = 2, nda_ct = 0, ens_client = 1, ensport = 0, ndport = 1002;
    ens_bcast();
    ens_bcast();
    std::vector<Bytes> sent = sent_to(DgWay::ens, "10.88.0.255", 1002);
    ASSERT_EQ(sent.size(), 1u);
    ndasim::Message m = ndasim::decode(sent[0]);
    EXPECT_EQ(m.action, ndasim::equiv);
    EXPECT_EQ(m.addrs, (std::vector<std::string>{"10.88.0.1", "10.89.0.1"}));
    EXPECT_TRUE(sent_dgs.empty()) << "nothing else sent";
}
