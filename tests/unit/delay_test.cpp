#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "shr/uniinet.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/nsfixture.h"
#include "tests/unit/unitkit.h"

// In a child in its own network namespace: the ENS socket on 127.0.0.1, the
// agents on 127.0.0.2 and 127.0.0.3. What arrived is read up to an "end"
// marker sent after it.
namespace {

using ndasim::addr_list;
using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::name_item;

const Bytes SERVER = ns_name("SERVER");

struct Net {
    int agent;
    UniAddr agent_ua{};
    Net()
    {
        uint16_t any = 0, nd = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        agent = ns_socket("127.0.0.2", &nd);
        EXPECT_TRUE(ens_fd >= 0 && agent >= 0);
        ndport = nd, nda_ct = 2;
        nda_addr[0] = inet_addr("127.0.0.2"), nda_addr[1] = inet_addr("127.0.0.3");
        iantoua(&agent_ua, nda_addr[0], ndport);
        dg_set_clock(fake_time, fake_alarm);
        tcfile = tmpfile(), tc_proc = 3;
    }
    static std::vector<Bytes> got(int fd, int from, const UniAddr& to)
    {
        put_ddg(from, reinterpret_cast<const uint8_t*>("end"), 3, &to);
        return ns_received(fd);
    }
    std::vector<Bytes> at_agent() { return got(agent, ens_fd, agent_ua); }
};

// The second agent is asked only when the first stays silent: each twice,
// three seconds apart, then the command is given up.
TEST(Delay, SilentAgentsGetTwoSendsEachThreeSecondsApartAndTheListIsCapped)
{
    run_in_private_net([&] {
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
