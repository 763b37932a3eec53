// The peer name directory as its agents and the other stations see it: the
// real daemon in the lab, a simulated name-directory agent at the agent port
// of a station, ENS datagrams on the wire both ways.

#include "tests/support/lab.h"
#include "tests/support/ndasim.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using ndasim::Agent;
using ndasim::Bytes;
using ndasim::Message;

// ---------------------------------------------------------------------------
// The simulator itself, against a plain socket in the daemon's namespace and
// bytes written out here: what it sends and how it reads.

class AgentSim : public ::testing::Test {
protected:
    void SetUp() override { LAB_SETUP_OR_SKIP(lab, 1); }
    Lab lab;
};

TEST_F(AgentSim, EncodesAndDecodesTheWireForm)
{
    Agent agent;
    ASSERT_TRUE(agent.open(lab, lab_station1, "10.88.0.2")) << lab.last_error();
    int peer = lab.udp_socket(lab_daemon, 228, "10.88.0.1");
    ASSERT_GE(peer, 0) << lab.last_error();

    // An ADD for one name with one address: 20 + 20 + 4 + 4 + 6 + 4 = 58 bytes.
    const Bytes add = {
        0x01, 0x00, 0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // version, id 7, ADD
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                          // ans, err
        0x10, 0x00, 0x00, 0x00, 'F', 'S', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ', 0x20,                                                     // name
        0x01, 0x00, 0x00, 0x00,                                                  // flags: group
        0x01, 0x00, 0x00, 0x00, 0x04, 10, 88, 0, 1, 0x00,                        // 1, ip
        0x00, 0x00, 0x00, 0x00,                                                  // end of list
    };
    ASSERT_EQ(add.size(), 58u);
    ASSERT_TRUE(lab.send_to(peer, "10.88.0.2", 227, add));
    auto m = agent.next(10.0);
    ASSERT_TRUE(m.has_value());
    EXPECT_TRUE(m->body_ok) << m->describe();
    EXPECT_EQ(m->from, "10.88.0.1");
    EXPECT_EQ(m->port, 228);
    EXPECT_EQ(m->version, 0x00010001u);
    EXPECT_EQ(m->id, 7u);
    EXPECT_EQ(m->action, ndasim::add);
    EXPECT_FALSE(m->response);
    EXPECT_EQ(ndasim::name_text(m->name), "FS<20>");
    EXPECT_EQ(m->ints, std::vector<int32_t>{1});
    EXPECT_EQ(m->addrs, std::vector<std::string>{"10.88.0.1"});

    // The refusal naming another owner.
    ASSERT_TRUE(agent.reply_add_refused(*m, false, "10.88.0.9"));
    auto r = lab.recv(peer, 10.0);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->bytes, (Bytes{0x01, 0x00, 0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00,
                               0x80, 0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                               0x00, 0x00, 0x04, 10, 88, 0, 9, 0x00}));

    // A QUERY (name, int 0) answered positively: group, marker 1, ip.
    Bytes q = ndasim::header(0x01020304, ndasim::query);
    ndasim::put_name(q, ndasim::nb_name("X", 0x1b));
    ndasim::put_int(q, 0);
    ASSERT_TRUE(lab.send_to(peer, "10.88.0.2", 227, q));
    m = agent.next(10.0, ndasim::query);
    ASSERT_TRUE(m.has_value());
    EXPECT_TRUE(m->body_ok) << m->describe();
    EXPECT_EQ(m->id, 0x01020304u);
    EXPECT_EQ(ndasim::name_text(m->name), "X<1b>");
    ASSERT_TRUE(agent.reply_query_positive(*m, true, "10.88.0.7"));
    r = lab.recv(peer, 10.0);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->bytes, (Bytes{0x01, 0x00, 0x01, 0x00, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0x00,
                               0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,
                               0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x04, 10, 88, 0, 7, 0x00}));

    // A request of another action waits in the queue while a QUERY is asked
    // for; a datagram too short for a header is recorded and never matches.
    Bytes eq = ndasim::header(9, ndasim::equiv);
    ndasim::put_addr_list(eq, {"10.88.0.1", "10.89.0.1"});
    ASSERT_TRUE(lab.send_to(peer, "10.88.0.2", 227, Bytes{1, 0, 1}));
    ASSERT_TRUE(lab.send_to(peer, "10.88.0.2", 227, eq));
    EXPECT_FALSE(agent.next(0.5, ndasim::query).has_value());
    m = agent.next(1.0);
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->action, ndasim::equiv);
    EXPECT_TRUE(m->body_ok) << m->describe();
    EXPECT_EQ(m->addrs, (std::vector<std::string>{"10.88.0.1", "10.89.0.1"}));
    EXPECT_FALSE(agent.history()[2].header_ok);

    // Its own VERIFY and EQUIV requests, and a VERIFY response read back.
    ASSERT_TRUE(agent.send_verify("10.88.0.1", 5, ndasim::permanent_name("10.88.0.1"), "10.88.0.1"));
    r = lab.recv(peer, 10.0);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->bytes, (Bytes{0x01, 0x00, 0x01, 0x00, 0x05, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0, 0,
                               0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 88,
                               0, 1, 0, 0, 0x04, 10, 88, 0, 1, 0x00}));
    ASSERT_TRUE(agent.send_equiv("10.88.0.1", 6, {"10.88.0.5"}));
    r = lab.recv(peer, 10.0);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->bytes, (Bytes{0x01, 0x00, 0x01, 0x00, 0x06, 0, 0, 0, 0x05, 0, 0, 0, 0, 0, 0, 0,
                               0, 0, 0, 0, 1, 0, 0, 0, 0x04, 10, 88, 0, 5, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(lab.send_to(peer, "10.88.0.2", 227,
                            Bytes{0x01, 0x00, 0x01, 0x00, 0x05, 0, 0, 0, 0x02, 0, 0, 0x80, 0xff,
                                  0xff, 0xff, 0xff, 3, 0, 0, 0}));
    m = agent.next_response(10.0, ndasim::verify);
    ASSERT_TRUE(m.has_value());
    EXPECT_TRUE(m->response);
    EXPECT_EQ(m->ans, -1);
    EXPECT_EQ(m->err, 3);
    EXPECT_TRUE(m->body_ok);
    // Strings are padded to even lengths, odd blocks too.
    Bytes s;
    ndasim::put_string(s, "ab");
    ndasim::put_block(s, {7, 7});
    EXPECT_EQ(s, (Bytes{'a', 'b', 0, 0, 7, 7}));
}

}  // namespace
