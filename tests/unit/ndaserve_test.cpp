// The agent's request reader and its answers, with the directory in memory:
// requests go straight into nda_datagram from stations on the loopback of a
// private network namespace, whose sockets receive what the agent sends.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "misc/pktasm.h"
#include "nda/ndareq.h"
#include "nda/ndaserve.h"
#include "nda/ndastore.h"
#include "shr/uniinet.h"
#include "src/namecust.h"
#include "tests/support/ndasim.h"
#include "tests/support/privnet.h"

namespace {

using ndasim::addr_list;
using ndasim::Bytes;
using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

const Bytes FS = ndasim::nb_name("FS", 0x20), TEAM = ndasim::nb_name("TEAM", 0x1e);

// A station that talks to the agent: a socket at 127.0.0.N:228.
struct Station {
    int fd = -1;
    UniAddr addr{};
    explicit Station(const char* ip)
    {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_port = htons(228);
        inet_pton(AF_INET, ip, &sin.sin_addr);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin), 0);
        iantoua(&addr, sin.sin_addr.s_addr, 228);
    }
    ~Station() { close(fd); }
    std::optional<ndasim::Message> next()
    {
        uint8_t buf[2048];
        ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0)
            return std::nullopt;
        return ndasim::decode(Bytes(buf, buf + n));
    }
};

int64_t clock_ms = 100000;

void to_agent(const Station& s, const Bytes& b)
{
    nda_datagram(b.data(), int(b.size()), &s.addr, clock_ms, 5000);
}

Bytes add(uint32_t id, const Bytes& name, int flags, const std::vector<std::string>& addrs)
{
    return cat({header(id, ndasim::add), name_item(name), int_item(flags), addr_list(addrs)});
}

Bytes query(uint32_t id, const Bytes& name)
{
    return cat({header(id, ndasim::query), name_item(name), int_item(0)});
}

// The agent's answer waiting for s, past any request of the agent's own
// (empty when none came).
Bytes answer_to(Station& s)
{
    for (auto m = s.next(); m; m = s.next())
        if (m->response)
            return m->raw;
    return {};
}

Bytes response(uint32_t id, int32_t action, int32_t ans, const Bytes& body = {})
{
    return ndasim::datagram(id, uint32_t(action) | ndasim::response_bit, ans, 0, body);
}

Bytes found(uint32_t id, int group, const char* ip)
{
    return response(id, ndasim::query, 0, cat({int_item(group), int_item(1), ip_item(ip)}));
}

Bytes refused(uint32_t id, int group, const char* ip)
{
    return response(id, ndasim::add, -1, cat({int_item(group), ip_item(ip)}));
}

void start_agent(Station& agent_side)
{
    ASSERT_EQ(nda_sqlite.open(":memory:"), 0) << nda_sqlite.error();
    nda_serve_init(&nda_sqlite);
    ens_fd = agent_side.fd;
}

TEST(NdaRequest, ReadsWhatTheDaemonSendsAndRefusesTheRest)
{
    NdaRequest r;
    Bytes full = add(7, TEAM, 1, {"10.1.0.2", "10.1.0.3"});
    ASSERT_EQ(nda_read_request(full.data(), int(full.size()), &r), 0);
    EXPECT_EQ(r.id, 7u);
    EXPECT_EQ(r.flags, 1);
    EXPECT_EQ(r.addr_ct, 2);
    EXPECT_EQ(r.addrs[1], inet_addr("10.1.0.3"));
    // Every cut of it: no header below 20 bytes, else a body cut short.
    for (size_t n = 0; n < full.size(); n++) {
        SCOPED_TRACE("cut to " + std::to_string(n));
        EXPECT_EQ(nda_read_request(full.data(), int(n), &r), n < 20 ? NDA_BADHDR : NDA_BADBODY);
    }
    std::vector<std::string> many(25, "10.1.0.9");
    many[19] = "10.1.0.20";
    const struct {
        const char* why;
        Bytes bytes;
        int want;
        int addr_ct;
    } cases[] = {
        {"QUERY without the trailing int", cat({header(1, 1), name_item(FS)}), 0, 0},
        {"EQUIV of 25 addresses: the first 20", cat({header(1, 5), addr_list(many)}), 0, 20},
        {"PURGE", cat({header(1, 7), ip_item("10.1.0.2")}), 0, 1},
        {"DELETE with an empty list", cat({header(1, 4), name_item(FS), int_item(0)}), 0, 0},
        {"ADD without an address", cat({header(1, 3), name_item(FS), int_item(0), int_item(0)}), NDA_BADBODY, 0},
        {"EQUIV without an address", cat({header(1, 5), int_item(0)}), NDA_BADBODY, 0},
        {"a name item of 15 bytes", cat({header(1, 1), int_item(15), Bytes(16, 'A')}), NDA_BADBODY, 0},
        {"an ip item of length 3", cat({header(1, 7), Bytes{3, 10, 1, 0, 2, 0}}), NDA_BADBODY, 0},
        {"action 6", cat({header(1, 6), int_item(0)}), NDA_NOTOURS, 0},
        {"a VERIFY request", cat({header(1, 2), name_item(FS), ip_item("10.1.0.2")}), NDA_NOTOURS, 0},
        {"an ADD response", response(1, ndasim::add, 0), NDA_NOTOURS, 0},
        {"a VERIFY response", response(1, ndasim::verify, -1), 0, 0},
        {"another version", cat({Bytes{1, 0, 2, 0}, Bytes(16, 0), name_item(FS)}), NDA_BADHDR, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(nda_read_request(c.bytes.data(), int(c.bytes.size()), &r), c.want);
        if (c.want == 0) {
            EXPECT_EQ(r.addr_ct, c.addr_ct);
        }
    }
}

// One directory through a session of requests, each answered as the daemon
// reads it; a repeated request gets the first answer again.
TEST(NdaServe, AnswersFromTheDirectory)
{
    IN_CHILD(true, {
        Station agent("127.0.0.1"), a("127.0.0.2"), b("127.0.0.3"), c("127.0.0.4");
        start_agent(agent);
        const struct {
            const char* why;
            Station* from;
            Bytes request;
            Bytes want;
        } steps[] = {
            {"ADD of a new name", &a, add(1, FS, 0, {"10.1.0.2"}), response(1, ndasim::add, 0)},
            {"QUERY of it", &c, query(2, FS), found(2, 0, "10.1.0.2")},
            {"QUERY of an unknown name", &c, query(3, TEAM), response(3, ndasim::query, -1)},
            {"a group name from A", &a, add(4, TEAM, 1, {"10.1.0.2"}), response(4, ndasim::add, 0)},
            {"the same group name from B", &b, add(5, TEAM, 1, {"10.1.0.3"}), response(5, ndasim::add, 0)},
            {"QUERY of the group: its latest member", &c, query(6, TEAM), found(6, 1, "10.1.0.3")},
            {"a unique claim of the group is refused unasked", &c, add(7, TEAM, 0, {"10.1.0.4"}),
             refused(7, 1, "10.1.0.3")},
            {"B repeats its ADD (same id, same bytes)", &b, add(5, TEAM, 1, {"10.1.0.3"}),
             response(5, ndasim::add, 0)},
            {"a group claim of the unique name waits for a VERIFY", &b, add(8, FS, 1, {"10.1.0.3"}), {}},
            {"DELETE of B's membership", &b, cat({header(9, 4), name_item(TEAM), addr_list({"10.1.0.3"})}),
             response(9, ndasim::del, 0)},
            {"QUERY of the group: A", &c, query(10, TEAM), found(10, 1, "10.1.0.2")},
            {"EQUIV joins 10.1.0.5 to A's host", &a, cat({header(11, 5), addr_list({"10.1.0.2", "10.1.0.5"})}),
             response(11, ndasim::equiv, 0)},
            {"so A's other address re-registers without a VERIFY", &a, add(12, FS, 0, {"10.1.0.5"}),
             response(12, ndasim::add, 0)},
            {"PURGE of A's host", &c, cat({header(13, 7), ip_item("10.1.0.5")}), response(13, ndasim::purge, 0)},
            {"its names are gone", &c, query(14, FS), response(14, ndasim::query, -1)},
            {"all of them", &c, query(15, TEAM), response(15, ndasim::query, -1)},
            {"C repeats its refused ADD: refused again", &c, add(7, TEAM, 0, {"10.1.0.4"}),
             refused(7, 1, "10.1.0.3")},
            {"with other bytes the same id is a new request", &c, add(7, TEAM, 0, {"10.1.0.6"}),
             response(7, ndasim::add, 0)},
        };
        for (const auto& s : steps) {
            SCOPED_TRACE(s.why);
            to_agent(*s.from, s.request);
            EXPECT_EQ(answer_to(*s.from), s.want);
        }
        EXPECT_EQ(nda_pending(), 1);
    });
}

// A's unique name claimed by B: A's station is asked twice, a second
// apart; its answer, or its silence, decides.
TEST(NdaServe, AsksTheHolderBeforeGivingAUniqueNameAway)
{
    IN_CHILD(true, {
        const struct {
            const char* why;
            int holder_ans;  // 1: no answer
            Bytes want;
            const char* owner;
        } cases[] = {
            {"the holder confirms", 0, refused(7, 0, "10.1.0.2"), "10.1.0.2"},
            {"the holder denies", -1, response(7, ndasim::add, 0), "10.1.0.3"},
            {"the holder is silent", 1, response(7, ndasim::add, 0), "10.1.0.3"},
        };
        Station agent("127.0.0.1"), a("127.0.0.2"), b("127.0.0.3");
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            start_agent(agent);
            to_agent(a, add(1, FS, 0, {"10.1.0.2"}));
            ASSERT_EQ(answer_to(a), response(1, ndasim::add, 0));
            Bytes claim = add(7, FS, 0, {"10.1.0.3"});
            to_agent(b, claim);
            to_agent(b, claim);  // the daemon's retry starts nothing more
            auto v = a.next();
            ASSERT_TRUE(v.has_value());
            EXPECT_EQ(v->raw, cat({header(v->id, ndasim::verify), name_item(FS), ip_item("10.1.0.2")}));
            EXPECT_FALSE(a.next().has_value());
            EXPECT_FALSE(b.next().has_value());
            EXPECT_EQ(nda_due(clock_ms + 999, 5000), 1);
            clock_ms += 1000;
            EXPECT_EQ(nda_due(clock_ms, 5000), 1000);
            auto again = a.next();
            ASSERT_TRUE(again.has_value());
            EXPECT_EQ(again->raw, v->raw);
            if (c.holder_ans != 1) {
                // An answer from another station with the same id is not the holder's.
                to_agent(b, response(v->id, ndasim::verify, 0));
                to_agent(a, ndasim::datagram(v->id, ndasim::verify | ndasim::response_bit, c.holder_ans,
                                             c.holder_ans == 0 ? 0 : 3, {}));
            } else {
                clock_ms += 1000;
                EXPECT_EQ(nda_due(clock_ms, 5000), -1);
            }
            EXPECT_EQ(answer_to(b), c.want);
            EXPECT_EQ(nda_pending(), 0);
            to_agent(b, claim);
            EXPECT_EQ(answer_to(b), c.want);
            to_agent(b, query(9, FS));
            EXPECT_EQ(answer_to(b), found(9, 0, c.owner));
        }
        nda_sqlite.close();
    });
}

}  // namespace
