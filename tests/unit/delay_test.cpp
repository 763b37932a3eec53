#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/dorequest.h"
#include "src/enstable.h"
#include "src/ensrecv.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "src/notifier.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

namespace {

using ndasim::addr_list;
using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

time_t fake_now = 1000;
time_t fake_time() { return fake_now; }
unsigned fake_alarm(unsigned) { return 0; }
void tick(int seconds) { check_calls(fake_now += seconds); }

const Bytes SERVER = ns_name("SERVER"), TEAM = ns_name("TEAM", 0x1C);
const uint32_t HOST = inet_addr("127.0.0.9");  // the station, and the host verified

// Two agents at one ndport on loopback, the ENS and name-service sockets and
// a station at nmport; the test's clock; the trace in a file.
struct Lab {
    int agent[2], station;
    UniAddr agent_ua{}, station_ua{};
    Lab()
    {
        uint16_t any = 0, any2 = 0, nd = 0;
        ens_fd = ns_socket("127.0.0.1", &any);
        dg_fd = ns_socket("127.0.0.1", &any2);
        agent[0] = ns_socket("127.0.0.2", &nd);
        agent[1] = ns_socket("127.0.0.3", &nd);
        station = ns_socket("127.0.0.9", &(nmport = 0));
        EXPECT_TRUE(ens_fd >= 0 && dg_fd >= 0 && agent[0] >= 0 && agent[1] >= 0 && station >= 0);
        ndport = nd, nda_ct = 2;
        nda_addr[0] = inet_addr("127.0.0.2"), nda_addr[1] = inet_addr("127.0.0.3");
        iantoua(&agent_ua, nda_addr[0], ndport);
        iantoua(&station_ua, HOST, nmport);
        dg_set_clock(fake_time, fake_alarm);
        tcfile = tmpfile(), tc_proc = 3;
    }
    // What reached fd so far: an "end" marker sent after it closes the
    // batch, so there is no wait on time.
    static std::vector<Bytes> got(int fd, int from, const UniAddr& to)
    {
        put_ddg(from, reinterpret_cast<const uint8_t*>("end"), 3, &to);
        return ns_received(fd);
    }
    std::vector<Bytes> at_agent(int i)
    {
        UniAddr to{};
        iantoua(&to, nda_addr[i], ndport);
        return got(agent[i], ens_fd, to);
    }
    std::vector<Bytes> at_station() { return got(station, dg_fd, station_ua); }
    std::string trace()
    {
        fseek(tcfile, 0, SEEK_END);
        std::string s(size_t(ftell(tcfile)), '\0');
        rewind(tcfile);
        s.resize(fread(s.data(), 1, s.size(), tcfile));
        return s;
    }
};

// A name query (0x01) or claim (0x29, with an NB record for 127.0.0.9) as
// received from the station.
npkt from_station(const Lab& lab, uint8_t b2, const Bytes& name, bool group = false)
{
    Bytes rest{0, 0x20, 0, 1};
    if (b2 == 0x29)
        rest = cat({rest, {0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, uint8_t(group ? 0x80 : 0), 0}, ip_bytes("127.0.0.9")});
    Bytes q = ns_packet(0x1234, b2, 0x10, {1, 0, 0, uint8_t(b2 == 0x29)}, name, {0}, rest);
    npkt rec;
    EXPECT_EQ(decode_npack(&rec, q.data(), int(q.size())), int(q.size()));
    rec.addr = lab.station_ua;
    return rec;
}

TEST(Delay, EachCommandSendsItsExactRequestWithIdsFromOne)
{
    IN_CHILD(true, {
        Lab lab;
        uint32_t two[2] = {inet_addr("10.88.0.1"), inet_addr("10.88.1.1")};
        std::vector<uint32_t> many(25, two[1]);
        many[19] = two[0], many[20] = two[0];
        std::vector<std::string> first20(20, "10.88.1.1");
        first20[19] = "10.88.0.1";
        nda_putpcache(TEAM.data(), HOST, 1, fake_now);
        npkt claims[3] = {from_station(lab, 0x29, TEAM, true), from_station(lab, 0x29, TEAM, false),
                          from_station(lab, 0x29, SERVER, true)};
        const struct {
            const char* why;
            std::function<void()> make;
            std::vector<Bytes> want;
        } cases[] = {
            {"ADD, one name, one address", [&] { nda_add(SERVER.data(), 0, two, 1); },
             {cat({header(1, 3), name_item(SERVER), int_item(0), addr_list({"10.88.0.1"})})}},
            {"ADD of a group name", [&] { nda_add(SERVER.data(), 1, two, 2); },
             {cat({header(2, 3), name_item(SERVER), int_item(1), addr_list({"10.88.0.1", "10.88.1.1"})})}},
            {"DELETE", [&] { nda_delete(SERVER.data(), two, 1); },
             {cat({header(3, 4), name_item(SERVER), addr_list({"10.88.0.1"})})}},
            {"EQUIV", [&] { nda_equiv(two, 2); },
             {cat({header(4, 5), addr_list({"10.88.0.1", "10.88.1.1"})})}},
            {"EQUIV of 25 addresses keeps the first 20", [&] { nda_equiv(many.data(), 25); },
             {cat({header(5, 5), addr_list(first20)})}},
            {"PURGE", [&] { nda_purge(two[0]); }, {cat({header(6, 7), ip_item("10.88.0.1")})}},
            {"QUERY, local lookup", [&] { EXPECT_EQ(nda_lquery(SERVER.data(), 5, 6), -1); },
             {cat({header(7, 1), name_item(SERVER), int_item(0)})}},
            {"QUERY, station's query for the name already asked: merged, nothing sent",
             [&] { auto q = from_station(lab, 0x01, SERVER); nda_query(&q); }, {}},
            {"claim by the cached owner", [&] { nda_claim(&claims[0]); }, {}},
            {"claim by the cached owner, other group flag", [&] { nda_claim(&claims[1]); },
             {cat({header(9, 3), name_item(TEAM), int_item(0), addr_list({"127.0.0.9"})})}},
            {"claim of a name not cached", [&] { nda_claim(&claims[2]); },
             {cat({header(10, 3), name_item(SERVER), int_item(1), addr_list({"127.0.0.9"})})}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            c.make();
            EXPECT_EQ(lab.at_agent(0), c.want);
        }
        EXPECT_EQ(cases[0].want[0].size(), 58u);
        EXPECT_TRUE(lab.at_agent(1).empty()) << "the second agent is asked only after the first";
        DelayCmd* claim = find_delay(10);
        ASSERT_NE(claim, nullptr);
        EXPECT_EQ(claim->ctx1, 0x3412) << "the claim's pktid, for the defence";
        EXPECT_EQ(same_addr(HOST, &claim->peer), 1);
    });
}

TEST(Delay, TwoSilentAgentsGetTwoSendsEachThreeSecondsApartAnAnsweredCommandNone)
{
    IN_CHILD(true, {
        Lab lab;
        DelayCmd stranger{};
        nda_add(SERVER.data(), 0, &nda_addr[0], 1);
        nda_purge(nda_addr[0]);  // answered at once
        Bytes add = cat({header(1, 3), name_item(SERVER), int_item(0), addr_list({"127.0.0.2"})});
        EXPECT_EQ(rm_delay(find_delay(2)), 0);
        EXPECT_EQ(rm_delay(&stranger), -1);
        EXPECT_EQ(find_delay(2), nullptr);
        EXPECT_EQ(lab.at_agent(0).size(), 2u);
        const struct {
            int after;  // seconds since the previous row
            size_t first, second;
        } rows[] = {{2, 0, 0}, {1, 1, 0}, {3, 0, 1}, {3, 0, 1}, {3, 0, 0}, {30, 0, 0}};
        int at = 0;
        for (const auto& r : rows) {
            SCOPED_TRACE("at " + std::to_string(at += r.after) + " s");
            tick(r.after);
            EXPECT_EQ(lab.at_agent(0), std::vector<Bytes>(r.first, add));
            EXPECT_EQ(lab.at_agent(1), std::vector<Bytes>(r.second, add));
            EXPECT_EQ(find_delay(1) != nullptr, at < 12);
            EXPECT_EQ(lab.trace().find("send_cmd: No response from any NDA\n") != std::string::npos, at >= 12);
        }
        EXPECT_EQ(dg_timer_count(), 0) << "no timer while the list is empty";
    });
}

TEST(Delay, CachedAnswersAreGivenAtOnceAndNothingIsAsked)
{
    IN_CHILD(true, {
        Lab lab;
        int resp[2];
        ASSERT_EQ(pipe(resp), 0);
        to_ntf = resp[1];
        fcntl(resp[0], F_SETFL, O_NONBLOCK);
        const Bytes NOBODY = ns_name("NOBODY");
        nda_putncache(NOBODY.data(), fake_now);
        nda_putpcache(TEAM.data(), inet_addr("10.88.0.7"), 1, fake_now);

        EXPECT_EQ(nda_lquery(NOBODY.data(), 4, 77), -1);
        EXPECT_EQ(nda_lquery(TEAM.data(), 4, 78), 0);
        uint8_t m[24 + 72 + 1];
        ASSERT_EQ(read(resp[0], m, sizeof m), 24 + 72) << "one answer, to the positive one";
        UniAddr owner{};
        iantoua(&owner, inet_addr("10.88.0.7"), -1);
        const uint8_t* o = reinterpret_cast<const uint8_t*>(&owner);
        Bytes want = cat({int_item(0), Bytes(o, o + sizeof owner), int_item(1)});
        EXPECT_EQ(Bytes(m + 12, m + 16), int_item(78)) << "the client's xid";
        EXPECT_EQ(Bytes(m + 24, m + 96), want) << "status 0, the owner, group";

        for (const Bytes* name : {&TEAM, &NOBODY}) {
            npkt q = from_station(lab, 0x01, *name);
            nda_query(&q);
        }
        Bytes rest = cat({{0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0}, ip_bytes("10.88.0.7")});
        EXPECT_EQ(lab.at_station(), std::vector<Bytes>{ns_packet(0x1234, 0x85, 0, {0, 1, 0, 0}, TEAM, {0}, rest)});
        EXPECT_TRUE(lab.at_agent(0).empty()) << "no agent was asked";
        EXPECT_EQ(find_delay(1), nullptr);
        EXPECT_NE(lab.trace().find("nda_query: found cached NDA response, addr 10.88.0.7\n"), std::string::npos);
    });
}

// Many stations asking for one name made one record and one QUERY each,
// thousands of them; the list also stays at DC_MAX whatever is started.
TEST(Delay, IdenticalQueriesAreAskedOnceAndAnsweredTogetherAndTheListIsCapped)
{
    IN_CHILD(true, {
        Lab lab;
        for (uint32_t id : {0x1111u, 0x2222u}) {
            npkt q = from_station(lab, 0x01, SERVER);
            q.pktid[0] = id;
            nda_query(&q);
        }
        EXPECT_EQ(lab.at_agent(0), std::vector<Bytes>{cat({header(1, 1), name_item(SERVER), int_item(0)})});
        EXPECT_EQ(delay_count(), 2);
        Bytes resp = cat({header(1, 0x80000001, 0, 0), int_item(0), int_item(1), ip_item("10.88.0.7")});
        ens_recv(ens_fd, resp.data(), int(resp.size()), &lab.agent_ua);
        std::vector<Bytes> answers = lab.at_station();
        ASSERT_EQ(answers.size(), 2u) << "both askers answered";
        EXPECT_EQ(Bytes(answers[0].begin(), answers[0].begin() + 2) == Bytes({0x11, 0x11}) ||
                      Bytes(answers[1].begin(), answers[1].begin() + 2) == Bytes({0x11, 0x11}),
                  true);
        EXPECT_EQ(delay_count(), 0);

        for (int i = 0; i <= DC_MAX; i++)
            nda_purge(nda_addr[0]);
        EXPECT_EQ(delay_count(), DC_MAX);
        EXPECT_EQ(find_delay(3), nullptr) << "the one due first was given up";
        EXPECT_NE(find_delay(4), nullptr);
        EXPECT_NE(find_delay(3 + DC_MAX), nullptr);
        EXPECT_NE(lab.trace().find("dc_start: command list full, id 3 given up\n"), std::string::npos);
    });
}

TEST(Delay, VerificationsAreAnsweredFromTheTableOrNegativelyAfterTwoSeconds)
{
    IN_CHILD(true, {
        Lab lab;
        const struct {
            const char* why;
            bool known, holds;
            int32_t ans;  // of check_verify's response, when known
        } cases[] = {
            {"the host holds the name", true, true, 0},
            {"the host lacks it, another host holds it", true, false, -1},
            {"the address has no host: the time-out answers", false, false, 0},
        };
        uint32_t id = 0x55;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            EnsHost *host = ens_create(), *other = ens_create();
            if (c.known) {  // other, entered later, is met first in the walk
                ASSERT_EQ(ens_a_add(HOST, host), 0);
                ASSERT_EQ(ens_n_add(c.holds ? SERVER.data() : TEAM.data(), 0, host), 0);
                ASSERT_EQ(ens_a_add(inet_addr("10.88.0.3"), other), 0);
                ASSERT_EQ(ens_n_add(SERVER.data(), 0, other), 0);
            }
            delay_verify(&lab.agent_ua, ++id, SERVER.data(), HOST);
            EXPECT_EQ(lab.at_station().size(), 1u) << "the status request";
            uint32_t learned[2] = {inet_addr("10.88.0.3"), HOST};
            check_verify(learned, 1);  // not the address waited for
            EXPECT_TRUE(lab.at_agent(0).empty());
            check_verify(learned, 2);
            Bytes neg = header(id, 0x80000002, -1, 3);
            EXPECT_EQ(neg.size(), 20u);
            std::vector<Bytes> now, later{neg};
            if (c.known)
                now = {c.ans == 0 ? header(id, 0x80000002, 0, 0) : neg}, later = {};
            EXPECT_EQ(lab.at_agent(0), now);
            tick(2);
            EXPECT_EQ(lab.at_agent(0), later);
            ens_free(host);
            ens_free(other);
        }
    });
}

TEST(Delay, TheEquivBroadcastGoesOutOnceForAnAgentlessClientWithTwoInterfaces)
{
    IN_CHILD(true, {
        Lab lab;
        uint16_t any = 0;
        int marker = ns_socket("127.0.0.1", &any);
        close(ens_fd);
        ens_fd = -1, ensport = 2280;
        static if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("127.0.0.2"), 0},
                                  {inet_addr("10.88.1.1"), inet_addr("10.88.1.255"), 0}};
        my_addr = ifs;
        const struct {
            const char* why;
            int client, agents, interfaces;
            std::vector<Bytes> want;
        } cases[] = {
            {"not an ENS client", 0, 0, 2, {}},
            {"agents configured", 1, 1, 2, {}},
            {"one interface", 1, 0, 1, {}},
            {"an agentless client with two", 1, 0, 2,
             {cat({header(0, 5), addr_list({"10.88.0.1", "10.88.1.1"})})}},
            {"only once", 1, 0, 2, {}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            ens_client = c.client, nda_ct = c.agents, my_addr_ct = c.interfaces;
            ens_bcast();
            EXPECT_EQ(Lab::got(lab.agent[0], marker, lab.agent_ua), c.want);
            EXPECT_EQ(ens_fd, -1) << "the socket is closed again";
        }
    });
}

}  // namespace
