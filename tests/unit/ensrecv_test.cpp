#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/dorequest.h"
#include "src/enstable.h"
#include "src/ensrecv.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/notifier.h"
#include "src/ntable.h"
#include "tests/support/lab.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

// Each test runs in a child in its own network namespace: ens_fd on
// 127.0.0.1 (our own address), the one agent on 127.0.0.2. What the agent
// receives is read up to an "end" marker that the test sends after it.
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

uint32_t id_of(const Bytes& d) { return ndasim::decode(d).id; }

struct Ens {
    int agent = -1;
    UniAddr agent_ua{};
    if_entry ifs[1] = {{inet_addr("127.0.0.1"), 0, inet_addr("255.0.0.0")}};
    Ens()
    {
        dg_set_clock(fake_time, fake_alarm);
        uint16_t port = 0;
        ens_fd = ns_socket("127.0.0.1", &port);
        port = 0;
        agent = ns_socket("127.0.0.2", &port);
        EXPECT_TRUE(ens_fd >= 0 && agent >= 0);
        iantoua(&agent_ua, inet_addr("127.0.0.2"), port);
        nda_addr[0] = inet_addr("127.0.0.2"), nda_ct = 1, ndport = port;
        my_addr = ifs, my_addr_ct = 1;
        EXPECT_EQ(ens_a_add(ifs[0].addr, nullptr), 0);
        tcfile = tmpfile(), tc_proc = 3;
    }
    // A datagram from the agent, in a buffer of its exact size; the trace it left.
    std::string from_agent(const Bytes& d)
    {
        Bytes exact(d);
        exact.shrink_to_fit();
        rewind(tcfile);
        EXPECT_EQ(ftruncate(fileno(tcfile), 0), 0);
        ens_recv(ens_fd, exact.empty() ? nullptr : exact.data(), int(exact.size()), &agent_ua);
        std::string t(4096, '\0');
        rewind(tcfile);
        t.resize(fread(t.data(), 1, t.size(), tcfile));
        return t;
    }
    // What the agent has received since the last call.
    std::vector<Bytes> sent()
    {
        WriteDG(&agent_ua, reinterpret_cast<const uint8_t*>("end"), 3);
        return ns_received(agent);
    }
    // The command that f sends: its one datagram's id.
    uint32_t command(const std::function<void()>& f)
    {
        f();
        auto got = sent();
        EXPECT_EQ(got.size(), 1u);
        return got.empty() ? 0 : id_of(got[0]);
    }
};

int cached(const Bytes& name, uint32_t* a, int* g) { return nda_getcache(a, g, name.data(), fake_now); }

TEST(EnsRecv, BadDatagramsAreDroppedWithTheirTraceLineAndAnswerNothing)
{
    IN_CHILD(true, {
        Ens e;
        const Bytes verify = cat({header(9, 2), name_item(ns_name("SERVER")), ip_item("127.0.0.1")});
        const struct { const char* why; Bytes d; const char* line; } cases[] = {
            {"empty", {}, "ens_recv: pktd_hdr returned -4\n"},
            {"another version", cat({{2, 0, 1, 0}, Bytes(16, 0)}), "ens_recv: pktd_hdr returned -4\n"},
            {"header cut short", Bytes(verify.begin(), verify.begin() + 19), "ens_recv: pktd_hdr returned -2\n"},
            {"a request we do not serve", header(9, 3), "ens_recv: unexpected request action: 3\n"},
            {"a response to nothing", header(0x777, 0x80000004), "ens_recv: no corresponding request\n"},
            {"VERIFY without its name", header(9, 2), "ens_recv (verify_req): bad packet\n"},
            {"VERIFY cut in its ip", Bytes(verify.begin(), verify.end() - 2), "ens_recv (verify_req): bad packet\n"},
            {"EQUIV cut in an int", cat({header(9, 5), {1, 0}}), "ens_recv (equiv_req): bad int in packet\n"},
            {"EQUIV cut in an ip", cat({header(9, 5), int_item(1), {4, 10}}), "ens_recv (equiv_req): bad ip in packet\n"},
            {"EQUIV, an ip of length 3", cat({header(9, 5), int_item(1), {3, 10, 88, 0, 1, 0}}),
             "ens_recv (equiv_req): bad ip in packet\n"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            EXPECT_NE(e.from_agent(c.d).find(c.line), std::string::npos);
        }
        EXPECT_TRUE(e.sent().empty());
    });
}

// VERIFY for our own address is answered at once from the local table;
// EQUIV is passed on with at most 20 addresses, an empty list too.
TEST(EnsRecv, RequestsOfTheAgent)
{
    IN_CHILD(true, {
        Ens e;
        ASSERT_EQ(nt_add(ns_name("SERVER").data(), 0), 0);
        std::vector<std::string> addrs;
        for (int i = 1; i <= 25; i++)
            addrs.push_back("10.88.1." + std::to_string(i));
        const struct { Bytes req; Bytes want; } cases[] = {
            {cat({header(0x55, 2), name_item(ns_name("SERVER")), ip_item("127.0.0.1")}), header(0x55, 0x80000002, 0, 0)},
            {cat({header(0x55, 2), name_item(ns_name("OTHER")), ip_item("127.0.0.1")}), header(0x55, 0x80000002, -1, 3)},
            {cat({header(3, 5), addr_list(addrs)}), cat({header(1, 5), addr_list({addrs.begin(), addrs.begin() + 20})})},
            {cat({header(4, 5), int_item(0)}), cat({header(2, 5), int_item(0)})},
        };
        for (const auto& c : cases) {
            e.from_agent(c.req);
            EXPECT_EQ(e.sent(), std::vector<Bytes>{c.want});
        }
    });
}

// A response finishes its command once; DELETE, EQUIV and PURGE responses
// are only traced, a negative QUERY answer is cached for the command's name.
TEST(EnsRecv, ResponsesMatchTheirCommandOnce)
{
    IN_CHILD(true, {
        Ens e;
        uint32_t addr = inet_addr("127.0.0.1");
        const Bytes name = ns_name("GONE");
        uint32_t id = e.command([&] { nda_delete(name.data(), &addr, 1); });
        EXPECT_NE(e.from_agent(header(id, 0x80000004, 2, 5)).find("ens_recv: got DELETE response, ans 2, err 5\n"),
                  std::string::npos);
        EXPECT_NE(e.from_agent(header(id, 0x80000004)).find("ens_recv: no corresponding request\n"), std::string::npos);
        check_calls(fake_now += 100);
        EXPECT_TRUE(e.sent().empty()) << "an answered command is not sent again";
        id = e.command([&] { nda_delete(name.data(), &addr, 1); });
        e.from_agent(header(id, 0x80000001, -1));
        uint32_t a = 0;
        int g = 0;
        EXPECT_EQ(cached(name, &a, &g), 0);
        id = e.command([&] { nda_equiv(&addr, 1); });
        EXPECT_NE(e.from_agent(header(id, 0x80000005, 1, 2)).find("got EQUIV response, ans 1, err 2\n"), std::string::npos);
        id = e.command([&] { nda_purge(addr); });
        EXPECT_NE(e.from_agent(header(id, 0x80000007, 1, 2)).find("got PURGE response, ans 1, err 2\n"), std::string::npos);
    });
}

// A local client's lookup waits in the lookup list; the agent's answer to
// its QUERY finishes it through the pipe to the notifier.
TEST(EnsRecv, QueryResponsesAnswerTheWaitingLookupAndAreCached)
{
    IN_CHILD(true, {
        Ens e;
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        to_ntf = p[1];
        fcntl(p[0], F_SETFL, O_NONBLOCK);
        const struct { const char* why; Bytes body; int32_t ans; int cached; } cases[] = {
            // The group flag goes to the cache and the client as the agent sent it.
            {"positive, group", cat({int_item(3), int_item(1), ip_item("10.88.0.9")}), 0, 1},
            {"positive, marker 0", cat({int_item(1), int_item(0), ip_item("10.88.0.9")}), 0, -1},
            {"positive, no ip", cat({int_item(0), int_item(1)}), 0, -1},
            {"negative", {}, -1, 0},
        };
        int32_t lu = 40;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            Bytes name = ns_name(("HOST" + std::to_string(++lu)).c_str());
            ASSERT_EQ(add_lu(name.data(), 0, NS_LOOKUP, lu, 700 + uint32_t(lu)), 0);
            uint32_t id = e.command([&] { EXPECT_EQ(nda_lquery(name.data(), lu, 700 + uint32_t(lu)), -1); });
            e.from_agent(cat({header(id, 0x80000001, c.ans), c.body}));
            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(cached(name, &a, &g), c.cached);
            int32_t lid = 0;
            uint32_t xid = 0;
            EXPECT_EQ(get_luname(name.data(), &lid, &xid), c.cached == 1 ? -1 : 0);
            uint8_t msg[NS_HDRSIZE + 72];
            ssize_t n = read(p[0], msg, sizeof msg);
            if (c.cached != 1) {
                EXPECT_EQ(n, -1) << "no answer to the client yet";
                rm_lu(lu);
                continue;
            }
            EXPECT_TRUE(a == inet_addr("10.88.0.9") && g == 3);
            ASSERT_EQ(n, ssize_t(sizeof msg));
            ns_hdr h;
            memcpy(&h, msg, sizeof h);
            EXPECT_TRUE(h.xid == 700 + uint32_t(lu) && h.op == (NS_LOOKUP | NS_RESPONSE));
            EXPECT_EQ(Bytes(msg + NS_HDRSIZE, msg + NS_HDRSIZE + 12), (Bytes{0, 0, 0, 0, 'I', 0, 4, 0, 10, 88, 0, 9}));
            EXPECT_EQ(Bytes(msg + NS_HDRSIZE + 68, msg + NS_HDRSIZE + 72), int_item(3));
        }
    });
}

// Our own name refused by the agent is lost: logged and removed. A name
// registered on another host's behalf only teaches us its owner.
TEST(EnsRecv, AddRefusalsForOwnNamesAreLoggedAndRemoveTheName)
{
    IN_CHILD(true, {
        Ens e;
        ASSERT_EQ(ens_a_add(inet_addr("10.88.0.20"), ens_create()), 0);
        std::string log = "/tmp/halyard-ensrecv-" + std::to_string(getpid());
        const Bytes owner = cat({int_item(0), ip_item("10.88.0.9")});
        const struct { const char* why; const char* for_addr; int32_t ans; Bytes body; const char* lost_to; } cases[] = {
            {"own address, owner given", "127.0.0.1", -1, owner, "10.88.0.9"},
            {"own address, no owner", "127.0.0.1", -1, {}, "unknown"},
            {"own address, accepted", "127.0.0.1", 0, {}, nullptr},
            {"another host's name", "10.88.0.20", -1, owner, nullptr},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            Bytes name = ns_name("SERVER");
            ASSERT_EQ(open_log(log.c_str()), 0);
            ASSERT_EQ(nt_add(name.data(), 0), 0);
            uint32_t addr = inet_addr(c.for_addr);
            uint32_t id = e.command([&] { nda_add(name.data(), 0, &addr, 1); });
            e.from_agent(cat({header(id, 0x80000003, c.ans), c.body}));
            close_log();
            auto groups = lab_parse_log(lab_read_file(log));
            unlink(log.c_str());
            EXPECT_EQ(n_table == nullptr, c.lost_to != nullptr);
            ASSERT_EQ(groups.size(), c.lost_to != nullptr ? 1u : 0u);
            if (c.lost_to != nullptr) {
                EXPECT_EQ(groups[0].messages[1], std::string("        at address ") + c.lost_to);
            }
            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(cached(name, &a, &g), c.body.empty() ? -1 : 1);
            EXPECT_EQ(a, c.body.empty() ? 0 : inet_addr("10.88.0.9"));
            nt_del(name.data());
            fake_now += 100;   // past the cache's minute
        }
    });
}

// Another station's claim checked at the agent: a refusal naming another
// owner is defended on the owner's behalf; an acceptance enters the claimer
// in the ENS table.
TEST(EnsRecv, ClaimsRefusedByTheAgentAreDefendedForTheOwner)
{
    IN_CHILD(true, {
        Ens e;
        uint16_t any = 0, claimer_port = 0;
        dg_fd = ns_socket("127.0.0.1", &any);
        int claimer = ns_socket("127.0.0.9", &claimer_port);
        ASSERT_GE(claimer, 0);
        // RFC 1002 4.2.2: a unique registration of SERVER from 127.0.0.9, and
        // the negative registration response (RCODE 6) we send for the owner.
        Bytes reg = ns_packet(0x1234, 0x29, 0x10, {1, 0, 0, 1}, ns_name("SERVER"), {0},
                              {0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 127, 0, 0, 9});
        Bytes defence = ns_packet(0x1234, 0xAD, 0x86, {0, 1, 0, 0}, ns_name("SERVER"), {0},
                                  {0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 9});
        const struct { int32_t ans; Bytes body; std::vector<Bytes> want; uint32_t cached; } cases[] = {
            {-1, cat({int_item(1), ip_item("10.88.0.9")}), {defence}, inet_addr("10.88.0.9")},
            {0, {}, {}, inet_addr("127.0.0.9")},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.ans);
            npkt rec{};
            ASSERT_EQ(decode_npack(&rec, reg.data(), int(reg.size())), int(reg.size()));
            iantoua(&rec.addr, inet_addr("127.0.0.9"), claimer_port);
            uint32_t id = e.command([&] { nda_claim(&rec); });
            e.from_agent(cat({header(id, 0x80000003, c.ans), c.body}));
            dg_dsend(reinterpret_cast<const uint8_t*>("end"), 3, &rec.addr);
            EXPECT_EQ(ns_received(claimer), c.want);
            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(cached(ns_name("SERVER"), &a, &g), 1);
            EXPECT_EQ(a, c.cached);
            const EnsAddr* known = ens_a_lookup(inet_addr("127.0.0.9"));
            ASSERT_EQ(known != nullptr, c.ans >= 0);
            if (known != nullptr) {
                ASSERT_TRUE(known->host != nullptr && known->host->names != nullptr);
                EXPECT_EQ(Bytes(known->host->names->name, known->host->names->name + 16), ns_name("SERVER"));
            }
            fake_now += 100;   // past the cache's minute
        }
    });
}

}  // namespace
