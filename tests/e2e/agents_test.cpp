// ENS as a scripted agent at a station sees it (a real agent is in nda_test).

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "client/nsclient.h"
#include "src/stats.h"

namespace {

using ndasim::Agent, ndasim::cat, ndasim::int_item, ndasim::ip_item;
using Addrs = std::vector<std::string>;

Bytes nb(const char* text, uint8_t type = 0x20) { return ndasim::nb_name(text, type); }
std::string dump(const Bytes& b) { return ::testing::PrintToString(b); }
const Bytes wildcard{'*', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// A registration (b2 0x29) or release (0x30) of another station.
Bytes registration(uint16_t id, uint8_t b2, const Bytes& name, const Bytes& addr)
{
    Bytes rest{0x00, 0x20, 0x00, 0x01, 0xC0, 0x0C, 0x00, 0x20, 0x00, 0x01, 0, 0, 0, 0, 0, 6, 0, 0};
    for (uint8_t b : addr)  // (an insert here trips a false array-bounds warning of g++ 12)
        rest.push_back(b);
    return ns_packet(id, b2, 0x10, {1, 0, 0, 1}, name, {0}, rest);
}
// A broadcast name query.
Bytes name_query(uint16_t id, const Bytes& n) { return ns_packet(id, 1, 0x10, {1, 0, 0, 0}, n, {0}, {0, 0x20, 0, 1}); }
bool is_status_request(const Bytes& b) { return b.size() >= 50 && b[2] == 0x00 && b[b.size() - 3] == 0x21; }
bool is_refusal(const Bytes& b) { return b.size() > 3 && b[2] == 0xAD; }
Bytes question_name(const Bytes& b)
{
    Bytes n;
    for (size_t i = 13; i + 1 < 45 && i + 1 < b.size(); i += 2)
        n.push_back(uint8_t((b[i] - 'A') << 4 | (b[i + 1] - 'A')));
    return n;
}
// The agent on an address of its own (10.88.0.5): the station's 10.88.0.2 is another host.
class EnsLab : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 2); }

    // One agent on station 1, a station socket at port 137, the start-up EQUIV answered.
    ::testing::AssertionResult start_with_agent(const std::string& config = "")
    {
        if (lab.run(lab_station1, {"/sbin/ip", "addr", "add", "10.88.0.5/24", "dev", "hs0"}) != 0 ||
            !agent.open(lab, lab_station1, "10.88.0.5") || (station = lab.udp_socket(lab_station1, 137)) < 0 ||
            !lab.write_config(lab.default_config() + config + "NB-nd-addr 10.88.0.5\n") ||
            lab.start_daemon({"-z", "proc=5"}) <= 0)
            return ::testing::AssertionFailure() << "station or daemon: " << lab.last_error();
        return answer(ndasim::equiv, {}, {"10.88.0.1", "10.89.0.1"});
    }

    // The next request of `action`, its name (when given) and addresses checked, answered with 0.
    ::testing::AssertionResult answer(int32_t action, const Bytes& name, const Addrs& addrs)
    {
        auto m = agent.next(20.0, action);
        if (!m || (!name.empty() && m->name != name) || m->addrs != addrs || !agent.reply(*m, 0, 0))
            return ::testing::AssertionFailure() << "expected action " << action << ", got "
                                                 << (m ? dump(m->raw) : "nothing\n" + lab.trace());
        return ::testing::AssertionSuccess();
    }

    // A VERIFY answered from the table: its response shows all sent before was read.
    ::testing::AssertionResult sync(uint32_t id, const char* name = "NOSUCHNAME", int32_t ans = -1)
    {
        if (!agent.send_verify("10.88.0.1", id, nb(name), "10.88.0.1"))
            return ::testing::AssertionFailure() << "send failed";
        for (int i = 0; i < 100; ++i) {
            auto r = agent.next_response(20.0, ndasim::verify);
            if (!r || r->id == id)
                return r && r->ans == ans ? ::testing::AssertionSuccess()
                                          : ::testing::AssertionFailure() << "VERIFY " << id << ": "
                                                                          << (r ? dump(r->raw) : lab.trace());
        }
        return ::testing::AssertionFailure() << "no VERIFY response " << id;
    }

    Lab lab;
    Agent agent;
    int station = -1;
};

TEST_F(EnsLab, ClaimsOfOtherStationsAreCheckedAtTheAgent)
{
    ASSERT_TRUE(start_with_agent());

    // Refused: the owner's address in the answer; the claimer's status asked later.
    ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, registration(0x2101, 0x29, nb("TAKEN"), {10, 88, 0, 2})));
    auto m = agent.next(20.0, ndasim::add);
    ASSERT_TRUE(m.has_value()) << lab.trace();
    EXPECT_TRUE(m->body_ok && m->name == nb("TAKEN") && m->ints == std::vector<int32_t>{0} &&
                m->addrs == Addrs{"10.88.0.2"}) << dump(m->raw);
    ASSERT_TRUE(agent.reply_add_refused(*m, "10.88.0.9"));
    auto d = lab.collect(station, 1, 10.0, is_refusal);
    ASSERT_EQ(d.size(), 1u) << lab.trace();
    EXPECT_EQ(Bytes(d[0].bytes.end() - 4, d[0].bytes.end()), (Bytes{10, 88, 0, 9}));
    ASSERT_EQ(lab.collect(station, 1, 20.0, is_status_request).size(), 1u) << lab.trace();

    // Accepted: the name enters the table; a status request follows seconds later.
    ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, registration(0x2102, 0x29, nb("FREE"), {10, 88, 0, 2})));
    m = agent.next(20.0, ndasim::add);
    ASSERT_TRUE(m && m->name == nb("FREE")) << lab.trace();
    auto accepted = ndasim::Clock::now();
    ASSERT_TRUE(agent.reply_add_accepted(*m));
    ASSERT_TRUE(sync(9001));
    auto table = lab.ens_table();
    EXPECT_TRUE(table.find("\nfree 10.88.0.2\n") != std::string::npos) << table;
    EXPECT_TRUE(lab.collect(station, 1, 0.2, is_refusal).empty());
    auto s = lab.collect(station, 1, 20.0, is_status_request);
    ASSERT_EQ(s.size(), 1u) << lab.trace();
    EXPECT_GE(ndasim::seconds(accepted, ndasim::Clock::now()), 3.0);
    EXPECT_EQ(question_name(s[0].bytes), nb("FREE"));
}

// A new address: EQUIV of the new set, then the local names again.
TEST_F(EnsLab, AnAddressThatAppearsIsToldToTheAgents)
{
    ASSERT_TRUE(start_with_agent("NB-interfaces 10.90.0.0/24\nNB-name OURS<20>\n"));  // the EQUIV of two
    Addrs both{"10.88.0.1", "10.89.0.1"}, three{"10.88.0.1", "10.89.0.1", "10.90.0.1"};
    ASSERT_TRUE(answer(ndasim::add, nb("OURS"), both));
    ASSERT_EQ(lab.run(lab_daemon, {"/sbin/ip", "addr", "add", "10.90.0.1/24", "dev", "hd0"}), 0);
    ASSERT_TRUE(answer(ndasim::equiv, {}, three));
    ASSERT_TRUE(answer(ndasim::add, nb("OURS"), three));
}

TEST_F(EnsLab, VerifyAndEquivRequestsOfTheAgent)
{
    ASSERT_TRUE(start_with_agent());
    ASSERT_EQ(lab.halyardctl({"add", "fileserv<20>"}), 0);
    ASSERT_TRUE(answer(ndasim::add, nb("fileserv"), {"10.88.0.1", "10.89.0.1"}));

    // Own addresses: answered from the table; another host: its node status decides, or the time-out.
    struct { const char *address, *name; bool own, answers; int32_t ans, err; } cases[] = {
        {"10.88.0.1", "fileserv", true, false, 0, 0}, {"10.89.0.1", "fileserv", true, false, 0, 0},
        {"10.88.0.1", "other", true, false, -1, 3},   {"10.88.0.2", "STATION1", false, true, 0, 0},
        {"10.88.0.2", "STRANGER", false, true, -1, 3}, {"10.88.0.2", "STATION1", false, false, -1, 3}};
    uint32_t id = 100;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " at " + c.address + (c.answers ? ", answered" : ""));
        ASSERT_TRUE(agent.send_verify("10.88.0.1", ++id, nb(c.name), c.address));
        auto asked = ndasim::Clock::now();
        auto req = lab.collect(station, 1, c.own ? 0.5 : 10.0, is_status_request);
        ASSERT_EQ(req.size(), c.own ? 0u : 1u) << lab.trace();
        EXPECT_TRUE(c.own || (req[0].from == "10.88.0.1" && question_name(req[0].bytes) == nb(c.name)));
        if (c.answers) {
            ASSERT_TRUE(lab.send_to(station, req[0].from, req[0].port,
                                    ns_status_answer(uint16_t(req[0].bytes[0] << 8 | req[0].bytes[1]), nb(c.name),
                                                    {{nb("STATION1"), 0x0400}, {nb("WORKGROUP", 0x1e), 0x8400}})));
        }
        auto r = agent.next_response(20.0, ndasim::verify);
        ASSERT_TRUE(r.has_value()) << lab.trace();
        EXPECT_TRUE(r->id == id && r->ans == c.ans && r->err == c.err && r->from == "10.88.0.1" && r->port == 228)
            << dump(r->raw);
        EXPECT_TRUE(c.own || c.answers || ndasim::seconds(asked, r->when) >= 0.5);
    }

    // EQUIV of 25: 20 passed on, no response; an answer of an unasked action ends the command.
    Addrs many;
    for (int i = 1; i <= 25; ++i)
        many.push_back("10.77.0." + std::to_string(i));
    agent.drain(0.5);
    ASSERT_TRUE(agent.send_raw("10.88.0.1", 228, ndasim::datagram(77, ndasim::equiv, 0, 0, ndasim::addr_list(many))));
    auto e = agent.next(20.0, ndasim::equiv);
    ASSERT_TRUE(e.has_value()) << lab.trace();
    EXPECT_TRUE(e->body_ok && e->id != 77u) << dump(e->raw);
    EXPECT_EQ(e->addrs, Addrs(many.begin(), many.begin() + 20));
    EXPECT_FALSE(agent.next_response(0.5, ndasim::equiv).has_value());
    ASSERT_TRUE(agent.send_raw("10.88.0.1", 228, ndasim::datagram(e->id, 6 | ndasim::response_bit, 0, 0, {})));
    EXPECT_TRUE(lab.wait_trace("ens_recv: unexpected response action: 6")) << lab.trace();
    EXPECT_FALSE(agent.next(4.0, ndasim::equiv).has_value());
}

// Forged answers and requests from a station (agent port or agent's address) are not heard.
TEST_F(EnsLab, OnlyTheAgentAskedIsHeard)
{
    using ndasim::response_bit;
    ASSERT_TRUE(start_with_agent());
    const int forgers[2] = {lab.udp_socket(lab_station1, 227, "10.88.0.2"),
                            lab.udp_socket(lab_station1, 1227, "10.88.0.5")};
    ASSERT_TRUE(forgers[0] >= 0 && forgers[1] >= 0) << lab.last_error();
    auto forge = [&](const Bytes& d) {
        for (int f : forgers)
            ASSERT_TRUE(lab.send_to(f, "10.88.0.1", 228, d));
    };
    ASSERT_EQ(lab.halyardctl({"add", "mine<20>"}), 0);
    auto add = agent.next(20.0, ndasim::add);
    ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, name_query(0x0a0a, nb("FAR"))));
    auto query = agent.next(20.0, ndasim::query);
    ASSERT_TRUE(add && query) << lab.trace();
    for (uint32_t id = 1; id <= 40; ++id) {
        forge(ndasim::datagram(id, ndasim::add | response_bit, -1, 0, cat({int_item(0), ip_item("10.88.0.66")})));
        forge(ndasim::datagram(id, ndasim::query | response_bit, 0, 0,
                               cat({int_item(0), int_item(1), ip_item("10.88.0.66")})));
    }
    forge(cat({ndasim::header(77, ndasim::verify), ndasim::name_item(nb("mine")), ip_item("10.88.0.1")}));
    forge(cat({ndasim::header(78, ndasim::equiv), ndasim::addr_list({"10.88.0.66"})}));

    ASSERT_TRUE(agent.reply_add_accepted(*add));
    ASSERT_TRUE(agent.reply(*query, 0, 0, cat({int_item(0), int_item(1), ip_item("10.88.0.7")})));
    ASSERT_TRUE(sync(9201, "mine", 0));  // all of it read, and the name still ours
    EXPECT_FALSE(agent.next(0.5, ndasim::equiv).has_value());
    for (int f : forgers)
        EXPECT_FALSE(lab.recv(f, 0.5).has_value());
    std::string out;
    EXPECT_EQ(lab.halyardctl({"lookup", "FAR<20>"}, &out), 0) << out;
    EXPECT_NE(out.find("10.88.0.7"), std::string::npos) << out;
    EXPECT_EQ(lab.log().find("already exists"), std::string::npos) << lab.log();
    EXPECT_NE(lab.trace().find("not an agent asked: dropped"), std::string::npos);
}

TEST_F(EnsLab, HostsAreLearnedFromStatusAnswersAndForgottenByTheirReleases)
{
    ASSERT_TRUE(start_with_agent());
    const Bytes perm2 = ndasim::permanent_name("10.88.0.2"), perm3 = ndasim::permanent_name("10.88.0.3");
    const Addrs both{"10.88.0.2", "10.88.0.3"}, one{"10.88.0.2"};

    // Permanent names give the host's addresses: an EQUIV, then an ADD of each name.
    std::vector<std::pair<Bytes, uint16_t>> names{
        {nb("STATION1"), 0x0400}, {nb("WORKGROUP", 0x1e), 0x8400}, {perm2, 0x0600}, {perm3, 0x0600}};
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137, ns_status_answer(1, wildcard, names)));
    ASSERT_TRUE(answer(ndasim::equiv, {}, both));
    for (const auto& [name, flags] : names) {
        auto m = agent.next(20.0, ndasim::add);
        ASSERT_TRUE(m.has_value()) << lab.trace();
        EXPECT_TRUE(m->name == name && m->addrs == both &&
                    m->ints.size() == 1 && (m->ints[0] & 1) == ((flags & 0x8000) ? 1 : 0)) << dump(m->raw);
        // A host learned from its status: another owner is only remembered.
        if (m->name == nb("STATION1"))
            agent.reply_add_refused(*m, "10.88.0.9");
        else
            agent.reply_add_accepted(*m);
    }
    ASSERT_TRUE(sync(9101));
    auto table = lab.ens_table();
    EXPECT_TRUE(table.find("\nstation1 10.88.0.3 10.88.0.2\n") != std::string::npos) << table;
    EXPECT_TRUE(table.find("\nworkgroup<1e> 10.88.0.3 10.88.0.2\n") != std::string::npos) << table;
    EXPECT_EQ(lab.log().find("already exists"), std::string::npos) << lab.log();
    std::string out;
    EXPECT_EQ(lab.halyardctl({"lookup", "WORKGROUP<1e>"}, &out), 0) << out;
    EXPECT_NE(out.find("10.88.0.3"), std::string::npos) << out;
    int other = lab.udp_socket(lab_station2, 0);
    ASSERT_TRUE(other >= 0 && lab.send_to(other, "10.89.0.255", 137, name_query(0x0d0d, nb("WORKGROUP", 0x1e))));
    auto proxy = lab.collect(other, 1, 10.0, [](const Bytes& b) { return b.size() > 6 && b[2] == 0x85; });
    ASSERT_EQ(proxy.size(), 1u) << lab.trace();
    EXPECT_EQ(Bytes(proxy[0].bytes.end() - 6, proxy[0].bytes.end()), (Bytes{0x80, 0, 10, 88, 0, 3}));
    // A claim of STATION1 by that owner passes from the cache: no ADD.
    ASSERT_EQ(lab.run(lab_station1, {"/sbin/ip", "addr", "add", "10.88.0.9/24", "dev", "hs0"}), 0);
    int owner = lab.udp_socket(lab_station1, 0, "10.88.0.9");
    ASSERT_GE(owner, 0);
    ASSERT_TRUE(lab.send_to(owner, "10.88.0.1", 137, registration(0x0909, 0x29, nb("STATION1"), {10, 88, 0, 9})));
    ASSERT_TRUE(lab.wait_trace("nda_claim: found cached NDA response, addr")) << lab.trace();
    EXPECT_FALSE(agent.next(1.0, ndasim::add).has_value());

    names = {{nb("NEWNAME"), 0x0400}, {nb("WORKGROUP", 0x1e), 0x8400}, {perm2, 0x0600}, {perm3, 0x0600}};
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137, ns_status_answer(2, wildcard, names)));
    ASSERT_TRUE(answer(ndasim::add, nb("NEWNAME"), both));
    ASSERT_TRUE(answer(ndasim::del, nb("STATION1"), both));
    EXPECT_FALSE(agent.next(0.5, ndasim::equiv).has_value());

    names = {{nb("NEWNAME"), 0x0400}, {perm2, 0x0600}};
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137, ns_status_answer(3, wildcard, names)));
    ASSERT_TRUE(answer(ndasim::equiv, {}, one));
    for (const auto& [name, flags] : names)
        ASSERT_TRUE(answer(ndasim::add, name, one));
    ASSERT_TRUE(sync(9102));
    table = lab.ens_table();
    EXPECT_TRUE(table.find("\nnewname 10.88.0.2\n") != std::string::npos) << table;
    EXPECT_EQ(table.find("10.88.0.3"), std::string::npos) << table;
    EXPECT_EQ(table.find("\nworkgroup"), std::string::npos) << table;

    // Releases delete its names; the last one frees the host.
    uint16_t id = 0x5000;
    for (const Bytes& n : {nb("NEWNAME"), perm2}) {
        ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, registration(++id, 0x30, n, {10, 88, 0, 2})));
        ASSERT_TRUE(answer(ndasim::del, n, one));
    }
    ASSERT_TRUE(lab.wait_trace("check_delete: host 10.88.0.2 has no name -- deleting it")) << lab.trace();
    ASSERT_TRUE(sync(9103));
    table = lab.ens_table();
    EXPECT_EQ(table.find("10.88.0.2"), std::string::npos) << table;
}

// Every counter after a known exchange, the same exact values in every format.
TEST_F(EnsLab, CountsExactlyWhatItDid)
{
    ASSERT_TRUE(start_with_agent());
    const Addrs both{"10.88.0.1", "10.89.0.1"};
    ASSERT_EQ(lab.halyardctl({"add", "MINE<20>"}), 0);
    ASSERT_TRUE(answer(ndasim::add, nb("MINE"), both));
    ASSERT_EQ(lab.halyardctl({"add", "TAKEN<20>"}), 0);
    auto m = agent.next(20.0, ndasim::add);
    ASSERT_TRUE(m && agent.reply_add_refused(*m, "10.88.0.9")) << lab.trace();
    ASSERT_TRUE(lab.wait_log("already exists"));

    ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, name_query(0x0a0a, nb("FAR"))));
    m = agent.next(20.0, ndasim::query);
    ASSERT_TRUE(m && agent.reply(*m, 0, 0, cat({int_item(0), int_item(1), ip_item("10.88.0.7")})));
    ASSERT_TRUE(lab.send_to(station, "10.88.0.255", 137, registration(0x2102, 0x29, nb("FREE"), {10, 88, 0, 2})));
    ASSERT_TRUE(answer(ndasim::add, nb("FREE"), {"10.88.0.2"}));
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137, registration(0x2103, 0x29, nb("MINE"), {10, 88, 0, 2})));
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137,
                            ns_packet(0x0b0b, 1, 0x00, {1, 0, 0, 0}, nb("MINE"), {0}, {0, 0x20, 0, 1})));
    ASSERT_TRUE(lab.send_to(station, "10.88.0.1", 137,
                            ns_packet(0x0c0c, 0, 0x00, {1, 0, 0, 0}, nb("MINE"), {0}, {0, 0x21, 0, 1})));
    ASSERT_TRUE(sync(9301));
    ASSERT_EQ(lab.collect(station, 4, 10.0, [](const Bytes& b) { return b.size() > 3 && (b[2] & 0x80); }).size(),
              4u) << lab.trace();

    // Lookups: local, learned, cached, by broadcast, and none (the agent silent: QUERY sent twice).
    for (const char* name : {"MINE<20>", "FREE<20>", "FAR<20>"})
        ASSERT_EQ(lab.halyardctl({"lookup", name}), 0) << name;
    NscLookup near{};
    std::thread asking([&] {
        NscConn c;
        nsc_setup(&c, nullptr, 20);
        nsc_lookup(&c, nb("NEAR").data(), &near);
    });
    m = agent.next(20.0, ndasim::query);
    bool replied = m && agent.reply(*m, -1, 0);
    auto asked = lab.collect(station, 1, 10.0, [](const Bytes& b) { return question_name(b) == nb("NEAR"); });
    if (asked.size() == 1)
        lab.send_to(station, "10.88.0.1", 137,
                    ns_packet(uint16_t(asked[0].bytes[0] << 8 | asked[0].bytes[1]), 0x85, 0x00, {0, 1, 0, 0},
                              nb("NEAR"), {0}, {0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 10, 88, 0, 2}));
    asking.join();
    ASSERT_TRUE(replied && near.status == 0) << lab.trace();
    EXPECT_EQ(lab.halyardctl({"lookup", "NONE<20>"}), 1);
    ASSERT_TRUE(lab.wait_trace("send_cmd: No response from any NDA")) << lab.trace();
    ASSERT_EQ(lab.halyardctl({"del", "MINE<20>"}), 0);
    ASSERT_TRUE(answer(ndasim::del, nb("MINE"), both));

    std::map<std::string, uint64_t> want;
    for (int i = 0; i < ST_COUNT; i++)
        want[stat_defs()[i].name] = 0;
    for (auto [name, value] : std::map<std::string, uint64_t>{
             {"queries_received", 2}, {"queries_answered_own", 1}, {"queries_answered_proxy", 1},
             {"status_answered", 1}, {"lookups_local", 1}, {"lookups_learned", 1}, {"lookups_agent", 1},
             {"lookups_broadcast", 1}, {"lookups_not_found", 1}, {"names_claimed", 2}, {"claims_defended", 1},
             {"conflicts_agent", 1}, {"releases", 1}, {"agent_commands_sent", 8}, {"agent_commands_retried", 1},
             {"agent_commands_unanswered", 1}, {"requests_addname", 2}, {"requests_delname", 1},
             {"requests_lookup", 5}}) {
        ASSERT_TRUE(want.count(name)) << name;
        want[name] = value;
    }
    std::string text, read, prometheus, jq = " --json stats | /usr/bin/jq -r 'to_entries[] | \"\\(.key) \\(.value)\"'";
    ASSERT_EQ(lab.halyardctl({"stats"}, &text), 0) << text;
    ASSERT_EQ(lab.run(lab_daemon, {"/bin/sh", "-c", HALYARDCTL_BINARY + jq}, &read), 0) << read;
    ASSERT_EQ(lab.halyardctl({"--prometheus", "stats"}, &prometheus), 0) << prometheus;
    const struct { const char* format; const std::string& out; bool prometheus; } formats[] = {
        {"text", text, false}, {"json", read, false}, {"prometheus", prometheus, true}};
    for (const auto& f : formats) {
        SCOPED_TRACE(f.format);
        want["requests_stats"]++;  // each asking counts before its answer
        EXPECT_EQ(lab_counters(f.out, f.prometheus ? "halyard_" : nullptr), want) << f.out;
    }
}

}  // namespace
