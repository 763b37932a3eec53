#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "shr/uniinet.h"
#include "src/ens.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/nsfixture.h"
#include "tests/unit/unitkit.h"

// Every 300 seconds a host heard of more than 20 minutes ago is asked for
// its status, a new name each time; at the fourth it is purged at the
// agent. In a child in its own network namespace: our sockets on
// 127.0.0.1, the agent at 127.0.0.2, the host at 127.0.0.5.
TEST(EnsProbe, AStaleHostIsProbedWithANewNameEachTickAndPurgedAtTheFourth)
{
    run_in_private_net([&] {
        dg_set_clock(fake_time, fake_alarm);
        uint16_t any = 0, any2 = 0, agent_port = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        dg_fd = ns_socket("127.0.0.1", &any2);
        int agent = ns_socket("127.0.0.2", &agent_port);
        int host = ns_socket("127.0.0.5", &(nmport = 0));
        ASSERT_TRUE(ens_fd >= 0 && dg_fd >= 0 && agent >= 0 && host >= 0);
        nda_addr[0] = inet_addr("127.0.0.2"), nda_ct = 1, ndport = agent_port;
        UniAddr agent_ua{}, host_ua{};
        iantoua(&agent_ua, nda_addr[0], ndport);
        iantoua(&host_ua, inet_addr("127.0.0.5"), nmport);
        EnsHost* h = ens_create();
        h->time = fake_now - 1800;
        ASSERT_EQ(ens_a_add(inet_addr("127.0.0.5"), h), 0);
        for (const char* n : {"ONE", "TWO"})
            ASSERT_EQ(ens_n_add(ns_name(n).data(), 0, h), 0);
        set_probe_timer();
        // The name each status request asks for: its encoded form at 13.
        auto asked = [&] {
            put_ddg(dg_fd, reinterpret_cast<const uint8_t*>("end"), 3, &host_ua);
            std::vector<Bytes> names;
            for (const Bytes& d : ns_received(host))
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
            put_ddg(ens_fd, reinterpret_cast<const uint8_t*>("end"), 3, &agent_ua);
            std::vector<Bytes> purges = ns_received(agent);
            EXPECT_EQ(purges.size(), w.empty() ? 1u : 0u);
            if (!purges.empty()) {
                ndasim::Message m = ndasim::decode(purges[0]);
                EXPECT_TRUE(m.action == ndasim::purge && m.addrs == std::vector<std::string>{"127.0.0.5"});
            }
        }
        EXPECT_EQ(ens_a_lookup(inet_addr("127.0.0.5")), nullptr);
        EXPECT_EQ(ens_n_lookup(ns_name("ONE").data()), nullptr);
    });
}
