#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <functional>
#include <string>

#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/ensrecv.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"
#include "tests/unit/unitkit.h"

// Each test runs in a child in its own network namespace: the ENS and
// name-service sockets on 127.0.0.1, the first agent on 127.0.0.2, a
// station at 127.0.0.9. What arrived is read up to an "end" marker.
namespace {

using ndasim::addr_list;
using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

const Bytes SERVER = ns_name("SERVER"), TEAM = ns_name("TEAM", 0x1C);

struct Net {
    int agent, station;
    UniAddr agent_ua{}, station_ua{};
    Net()
    {
        uint16_t any = 0, any2 = 0, nd = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        dg_fd = ns_socket("127.0.0.1", &any2);
        agent = ns_socket("127.0.0.2", &nd);
        station = ns_socket("127.0.0.9", &(nmport = 0));
        EXPECT_TRUE(ens_fd >= 0 && dg_fd >= 0 && agent >= 0 && station >= 0);
        ndport = nd, nda_ct = 2;
        nda_addr[0] = inet_addr("127.0.0.2"), nda_addr[1] = inet_addr("127.0.0.3");
        iantoua(&agent_ua, nda_addr[0], ndport);
        iantoua(&station_ua, inet_addr("127.0.0.9"), nmport);
        dg_set_clock(fake_time, fake_alarm);
        tcfile = tmpfile(), tc_proc = 3;
    }
    static std::vector<Bytes> got(int fd, int from, const UniAddr& to)
    {
        put_ddg(from, reinterpret_cast<const uint8_t*>("end"), 3, &to);
        return ns_received(fd);
    }
    std::vector<Bytes> at_agent() { return got(agent, ens_fd, agent_ua); }
    std::vector<Bytes> at_station() { return got(station, dg_fd, station_ua); }
    // A name query (0x01) or claim (0x29, with an NB record) from the station.
    npkt from_station(uint8_t b2, const Bytes& name, bool group = false, uint16_t id = 0x1234)
    {
        Bytes rest{0, 0x20, 0, 1};
        if (b2 == 0x29)
            rest = cat({rest, {0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, uint8_t(group ? 0x80 : 0), 0}, ip_bytes("127.0.0.9")});
        Bytes q = ns_packet(id, b2, 0x10, {1, 0, 0, uint8_t(b2 == 0x29)}, name, {0}, rest);
        npkt rec;
        EXPECT_EQ(decode_npack(&rec, q.data(), int(q.size())), int(q.size()));
        rec.addr = station_ua;
        return rec;
    }
};

// Each command's request to the first agent, ids from 1; queries for a name
// already asked are merged, claims by the cached owner not asked.
TEST(Delay, EachCommandSendsItsExactRequest)
{
    IN_CHILD(true, {
        Net net;
        uint32_t two[2] = {inet_addr("10.88.0.1"), inet_addr("10.88.1.1")};
        std::vector<uint32_t> many(25, two[1]);
        nda_putpcache(TEAM.data(), inet_addr("127.0.0.9"), 1, fake_now);
        npkt claims[3] = {net.from_station(0x29, TEAM, true), net.from_station(0x29, TEAM, false),
                          net.from_station(0x29, SERVER, true)};
        npkt q[2] = {net.from_station(0x01, SERVER, false, 0x1111), net.from_station(0x01, SERVER, false, 0x2222)};
        const struct { std::function<void()> make; std::vector<Bytes> want; } cases[] = {
            {[&] { nda_add(SERVER.data(), 1, two, 2); },
             {cat({header(1, 3), name_item(SERVER), int_item(1), addr_list({"10.88.0.1", "10.88.1.1"})})}},
            {[&] { nda_delete(SERVER.data(), two, 1); }, {cat({header(2, 4), name_item(SERVER), addr_list({"10.88.0.1"})})}},
            {[&] { nda_equiv(many.data(), 25); }, {cat({header(3, 5), addr_list(std::vector<std::string>(20, "10.88.1.1"))})}},
            {[&] { nda_purge(two[0]); }, {cat({header(4, 7), ip_item("10.88.0.1")})}},
            {[&] { nda_query(&q[0]); }, {cat({header(5, 1), name_item(SERVER), int_item(0)})}},
            {[&] { nda_query(&q[1]); }, {}},
            {[&] { nda_claim(&claims[0]); }, {}},
            {[&] { nda_claim(&claims[1]); }, {cat({header(7, 3), name_item(TEAM), int_item(0), addr_list({"127.0.0.9"})})}},
            {[&] { nda_claim(&claims[2]); }, {cat({header(8, 3), name_item(SERVER), int_item(1), addr_list({"127.0.0.9"})})}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(int(&c - cases));
            c.make();
            EXPECT_EQ(net.at_agent(), c.want);
        }
        // The agent's answer to the merged query answers both askers.
        Bytes resp = cat({header(5, 0x80000001, 0, 0), int_item(0), int_item(1), ip_item("10.88.0.7")});
        ens_recv(ens_fd, resp.data(), int(resp.size()), &net.agent_ua);
        std::vector<Bytes> answers = net.at_station();
        ASSERT_EQ(answers.size(), 2u);
        EXPECT_EQ(answers[0][0] + answers[1][0], 0x11 + 0x22);
    });
}

// The second agent is asked only when the first stays silent: each twice,
// three seconds apart, then the command is given up.
TEST(Delay, SilentAgentsGetTwoSendsEachThreeSecondsApartAndTheListIsCapped)
{
    IN_CHILD(true, {
        Net net;
        uint16_t nd = ndport;
        int second = ns_socket("127.0.0.3", &nd);
        UniAddr second_ua{};
        iantoua(&second_ua, nda_addr[1], ndport);
        nda_add(SERVER.data(), 0, &nda_addr[0], 1);
        Bytes add = cat({header(1, 3), name_item(SERVER), int_item(0), addr_list({"127.0.0.2"})});
        EXPECT_EQ(net.at_agent().size(), 1u);
        const struct { int after; size_t first, second; } rows[] = {{2, 0, 0}, {1, 1, 0}, {3, 0, 1}, {3, 0, 1}, {3, 0, 0}};
        for (const auto& r : rows) {
            check_calls(fake_now += r.after);
            EXPECT_EQ(net.at_agent(), std::vector<Bytes>(r.first, add));
            EXPECT_EQ(Net::got(second, ens_fd, second_ua), std::vector<Bytes>(r.second, add));
        }
        EXPECT_EQ(find_delay(1), nullptr);
        EXPECT_EQ(dg_timer_count(), 0) << "no timer while the list is empty";
        for (int i = 0; i <= DC_MAX; i++)
            nda_purge(nda_addr[0]);
        EXPECT_EQ(delay_count(), DC_MAX);
        EXPECT_EQ(find_delay(2), nullptr) << "the one due first was given up";
        EXPECT_NE(find_delay(3), nullptr);
    });
}

}  // namespace
