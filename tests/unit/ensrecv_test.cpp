#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <unistd.h>

#include "misc/pktasm.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/cache.h"
#include "src/cust.h"
#include "src/dorequest.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/ensrecv.h"
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
        EXPECT_GE(ens_fd, 0);
        EXPECT_GE(agent, 0);
        iantoua(&agent_ua, inet_addr("127.0.0.2"), port);
        nda_addr[0] = inet_addr("127.0.0.2");
        nda_ct = 1;
        ndport = port;
        my_addr = ifs;
        my_addr_ct = 1;
        EXPECT_EQ(ens_a_add(ifs[0].addr, nullptr), 0);
        tcfile = tmpfile();
        tc_proc = 5;
    }
    // A datagram from the agent.
    void from_agent(const Bytes& d)
    {
        Bytes exact(d);   // no spare capacity for a read past the end to hide in
        exact.shrink_to_fit();
        ens_recv(ens_fd, exact.empty() ? nullptr : exact.data(), int(exact.size()), &agent_ua);
    }
    // What the agent has received since the last call.
    std::vector<Bytes> sent()
    {
        WriteDG(&agent_ua, reinterpret_cast<const uint8_t*>("end"), 3);
        return ns_received(agent);
    }
    // The trace written since the last call.
    std::string trace()
    {
        fflush(tcfile);
        std::string t;
        rewind(tcfile);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, tcfile)) > 0)
            t.append(buf, n);
        rewind(tcfile);
        EXPECT_EQ(ftruncate(fileno(tcfile), 0), 0);
        return t;
    }
};

TEST(EnsRecv, BadDatagramsAreDroppedWithTheirTraceLine)
{
    IN_CHILD(true, {
        Ens e;
        std::mt19937 rnd(1234);
        auto random_bytes = [&](size_t n) {
            Bytes b(n);
            for (uint8_t& x : b)
                x = uint8_t(rnd());
            return b;
        };
        for (size_t len = 0; len <= 100; len++) {
            SCOPED_TRACE(len);
            Bytes b = random_bytes(len);
            if (len > 0)
                b[0] = 2;   // never the version
            e.from_agent(b);
            EXPECT_EQ(e.trace(), "ens_recv: pktd_hdr returned -4\n");
        }
        Bytes hdr = header(1, 2);
        for (size_t len = 4; len < 20; len++) {
            SCOPED_TRACE(len);
            e.from_agent(Bytes(hdr.begin(), hdr.begin() + long(len)));
            int code = len < 8 ? -2 : len < 12 ? -5 : -2;
            EXPECT_EQ(e.trace(), "ens_recv: pktd_hdr returned " + std::to_string(code) + "\n");
        }
        // Good headers with random bodies: requests of both kinds we serve
        // and of others, and responses that match nothing.
        const uint32_t actions[] = {2, 5, 3, 0x80000001, 0x80000003};
        for (size_t len = 20; len <= 100; len++) {
            for (uint32_t action : actions) {
                SCOPED_TRACE(len);
                Bytes b = cat({header(uint32_t(rnd()) | 0x40000000, action), random_bytes(len - 20)});
                e.from_agent(b);
                std::string t = e.trace();
                if (action == 3) {
                    EXPECT_NE(t.find("ens_recv: unexpected request action: 3\n"), std::string::npos);
                }
                if (action & 0x80000000) {
                    EXPECT_NE(t.find("ens_recv: no corresponding request\n"), std::string::npos);
                }
            }
        }
        e.sent();   // whatever random EQUIV lists made of it
    });
}

TEST(EnsRecv, RequestsCutShortAreDroppedAndAnswerNothing)
{
    IN_CHILD(true, {
        Ens e;
        Bytes verify = cat({name_item(ns_name("SERVER")), ip_item("127.0.0.1")});
        for (size_t len = 0; len < 25; len++) {   // 25: the ip's pad may be missing
            SCOPED_TRACE(len);
            e.from_agent(cat({header(9, 2), Bytes(verify.begin(), verify.begin() + long(len))}));
            std::string t = e.trace();
            EXPECT_NE(t.find("ens_recv (verify_req): bad packet\n"), std::string::npos) << t;
        }
        // int 1, ip at 4, int 1 at 10, ip at 14, int 0 at 20.
        Bytes equiv = addr_list({"10.88.0.1", "10.88.0.2"});
        for (size_t len = 0; len < equiv.size(); len++) {
            SCOPED_TRACE(len);
            e.from_agent(cat({header(9, 5), Bytes(equiv.begin(), equiv.begin() + long(len))}));
            bool in_ip = (len >= 4 && len < 9) || (len >= 14 && len < 19);
            EXPECT_EQ(e.trace(), std::string("ens_recv: packet header: id 9, type 0, action 5\n") +
                                     (in_ip ? "ens_recv (equiv_req): bad ip in packet\n"
                                            : "ens_recv (equiv_req): bad int in packet\n"));
        }
        e.from_agent(cat({header(9, 5), {4, 0, 0, 0, 3, 10, 88, 0, 1, 0}}));
        EXPECT_EQ(e.trace(), "ens_recv: packet header: id 9, type 0, action 5\n"
                             "ens_recv (equiv_req): bad ip in packet\n") << "an ip of length 3";
        EXPECT_TRUE(e.sent().empty());
    });
}

TEST(EnsRecv, VerifyForOwnAddressIsAnsweredAtOnceFromTheLocalTable)
{
    IN_CHILD(true, {
        Ens e;
        ASSERT_EQ(nt_add(ns_name("SERVER").data(), 0), 0);
        const struct { const char* why; const char* name; Bytes want; } cases[] = {
            {"a name we hold", "SERVER", header(0x55, 0x80000002, 0, 0)},
            {"a name we do not hold", "OTHER", header(0x55, 0x80000002, -1, 3)},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            e.from_agent(cat({header(0x55, 2), name_item(ns_name(c.name)), ip_item("127.0.0.1")}));
            EXPECT_EQ(e.sent(), std::vector<Bytes>{c.want});
            std::string t = e.trace();
            EXPECT_NE(t.find("verify_req called, nda I(127.0.0.2."), std::string::npos) << t;
            EXPECT_NE(t.find("id 85\n"), std::string::npos) << t;
            EXPECT_NE(t.find("verify_req: name "), std::string::npos) << t;
        }
    });
}

TEST(EnsRecv, EquivRequestsForwardTheFirstTwentyAddresses)
{
    IN_CHILD(true, {
        Ens e;
        std::vector<std::string> addrs;
        for (int i = 1; i <= 25; i++)
            addrs.push_back("10.88.1." + std::to_string(i));
        e.from_agent(cat({header(3, 5), addr_list(addrs)}));
        auto got = e.sent();
        ASSERT_EQ(got.size(), 1u) << "one EQUIV to the agent, no response to the asker";
        EXPECT_EQ(got[0], cat({header(id_of(got[0]), 5), addr_list({addrs.begin(), addrs.begin() + 20})}));
        EXPECT_EQ(got[0].size(), 20u + 20 * 10 + 4);

        e.from_agent(cat({header(4, 5), int_item(0)}));
        got = e.sent();
        ASSERT_EQ(got.size(), 1u) << "an empty list is passed on too";
        EXPECT_EQ(got[0], cat({header(id_of(got[0]), 5), int_item(0)}));
    });
}

TEST(EnsRecv, ResponsesMatchTheirCommandOnce)
{
    IN_CHILD(true, {
        Ens e;
        e.from_agent(header(0x777, 0x80000004));
        EXPECT_EQ(e.trace(), "ens_recv: packet header: id 1911, type 1, action 4\n"
                             "ens_recv: no corresponding request\n");
        uint32_t addr = inet_addr("127.0.0.1");
        nda_delete(ns_name("SERVER").data(), &addr, 1);
        auto got = e.sent();
        ASSERT_EQ(got.size(), 1u);
        uint32_t id = id_of(got[0]);
        e.trace();
        e.from_agent(header(id, 0x80000004, 2, 5));
        EXPECT_NE(e.trace().find("ens_recv: got DELETE response, ans 2, err 5\n"), std::string::npos);
        e.from_agent(header(id, 0x80000004));
        EXPECT_NE(e.trace().find("ens_recv: no corresponding request\n"), std::string::npos);
        fake_now += 100;
        check_calls(fake_now);
        EXPECT_TRUE(e.sent().empty()) << "an answered command is not sent again";

        // QUERY answers under the id of another kind of command: a negative
        // one is cached for that command's name, a bad body is reported.
        const struct { int32_t ans; Bytes body; int cached; const char* line; } cases[] = {
            {-1, {}, 0, "ens_recv: got QUERY response, ans -1, err 0\n"},
            {0, int_item(1), -1, "ens_recv (query_resp): bad packet\n"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.line);
            Bytes name = ns_name(c.ans < 0 ? "GONE" : "KEPT");
            nda_delete(name.data(), &addr, 1);
            got = e.sent();
            ASSERT_EQ(got.size(), 1u);
            e.trace();
            e.from_agent(cat({header(id_of(got[0]), 0x80000001, c.ans), c.body}));
            EXPECT_NE(e.trace().find(c.line), std::string::npos);
            uint32_t a = 0;
            int g = 0;
            EXPECT_EQ(nda_getcache(&a, &g, name.data(), fake_now), c.cached);
        }
        for (uint32_t action : {0x80000005u, 0x80000007u}) {
            uint32_t one = addr;
            if (action == 0x80000005u)
                nda_equiv(&one, 1);
            else
                nda_purge(one);
            got = e.sent();
            ASSERT_EQ(got.size(), 1u);
            e.trace();
            e.from_agent(header(id_of(got[0]), action, 1, 2));
            EXPECT_NE(e.trace().find(action == 0x80000005u ? "ens_recv: got EQUIV response, ans 1, err 2\n"
                                                           : "ens_recv: got PURGE response, ans 1, err 2\n"),
                      std::string::npos);
        }
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
        const struct {
            const char* why;
            const char* name;
            Bytes body;
            int32_t ans;
            int cached;      // nda_getcache afterwards
            bool answered;   // the client got its answer
            const char* line;
        } cases[] = {
            // The group flag goes to the cache and the client as the agent sent it.
            {"positive, group", "HOST1", cat({int_item(3), int_item(1), ip_item("10.88.0.9")}), 0, 1,
             true, "query_resp: answering local query\n"},
            {"positive, marker 0", "HOST2", cat({int_item(1), int_item(0), ip_item("10.88.0.9")}), 0,
             -1, false, "ens_recv (query_resp): bad packet\n"},
            {"positive, no ip", "HOST3", cat({int_item(0), int_item(1)}), 0, -1, false,
             "ens_recv (query_resp): bad packet\n"},
            {"negative", "HOST4", {}, -1, 0, false, "ens_recv: got QUERY response, ans -1, err 0\n"},
        };
        int32_t lu = 40;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            Bytes name = ns_name(c.name);
            ++lu;
            ASSERT_EQ(add_lu(name.data(), 0, NS_LOOKUP, lu, 700 + uint32_t(lu)), 0);
            EXPECT_EQ(nda_lquery(name.data(), lu, 700 + uint32_t(lu)), -1);
            auto got = e.sent();
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got[0], cat({header(id_of(got[0]), 1), name_item(name), int_item(0)}));
            e.trace();
            e.from_agent(cat({header(id_of(got[0]), 0x80000001, c.ans), c.body}));
            EXPECT_NE(e.trace().find(c.line), std::string::npos);

            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(nda_getcache(&a, &g, name.data(), fake_now), c.cached);
            if (c.cached == 1) {
                EXPECT_EQ(a, inet_addr("10.88.0.9"));
                EXPECT_EQ(g, 3);
            }
            int32_t id = 0;
            uint32_t xid = 0;
            EXPECT_EQ(get_luname(name.data(), &id, &xid), c.answered ? -1 : 0);
            uint8_t msg[NS_HDRSIZE + 72];
            ssize_t n = read(p[0], msg, sizeof msg);
            if (c.answered) {
                ASSERT_EQ(n, ssize_t(sizeof msg));
                ns_hdr h;
                memcpy(&h, msg, sizeof h);
                EXPECT_EQ(h.xid, 700 + uint32_t(lu));
                EXPECT_EQ(h.op, NS_LOOKUP | NS_RESPONSE);
                const uint8_t* d = msg + NS_HDRSIZE;
                EXPECT_EQ(Bytes(d, d + 4), int_item(0));
                EXPECT_EQ(Bytes(d + 4, d + 12), Bytes({'I', 0, 4, 0, 10, 88, 0, 9}));
                EXPECT_EQ(Bytes(d + 68, d + 72), int_item(3));
            } else {
                EXPECT_EQ(n, -1) << "no answer to the client yet";
                rm_lu(lu);
            }
        }
    });
}

// Our own name refused by the agent is lost: logged and removed. A name
// registered on another host's behalf only teaches us its owner.
TEST(EnsRecv, AddRefusalsForOwnNamesAreLoggedAndRemoveTheName)
{
    IN_CHILD(true, {
        Ens e;
        EnsHost* other = ens_create();
        ASSERT_EQ(ens_a_add(inet_addr("10.88.0.20"), other), 0);
        std::string log = "/tmp/halyard-ensrecv-" + std::to_string(getpid());
        const struct {
            const char* why;
            const char* for_addr;
            int32_t ans;
            Bytes body;
            bool removed;
            const char* owner;   // the second log line's address; null: no log
            int cached;
        } cases[] = {
            {"own address, owner given", "127.0.0.1", -1, cat({int_item(0), ip_item("10.88.0.9")}), true,
             "10.88.0.9", 1},
            {"own address, no owner", "127.0.0.1", -1, {}, true, "unknown", -1},
            {"own address, accepted", "127.0.0.1", 0, {}, false, nullptr, -1},
            {"another host's name", "10.88.0.20", -1, cat({int_item(0), ip_item("10.88.0.9")}), false,
             nullptr, 1},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            Bytes name = ns_name("SERVER");
            ASSERT_EQ(open_log(log.c_str()), 0);
            ASSERT_EQ(nt_add(name.data(), 0), 0);
            uint32_t addr = inet_addr(c.for_addr);
            nda_add(name.data(), 0, &addr, 1);
            auto got = e.sent();
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got[0].size(), 58u);
            e.trace();
            e.from_agent(cat({header(id_of(got[0]), 0x80000003, c.ans), c.body}));
            close_log();
            auto groups = lab_parse_log(lab_read_file(log));
            unlink(log.c_str());
            std::string t = e.trace();
            EXPECT_NE(t.find("ens_recv: got ADD response, ans " + std::to_string(c.ans) + ", err 0, name "),
                      std::string::npos);
            EXPECT_EQ(n_table == nullptr, c.removed);
            if (c.owner != nullptr) {
                ASSERT_EQ(groups.size(), 1u);
                EXPECT_EQ(groups[0].messages,
                          (std::vector<std::string>{"Halyard: name already exists on network: server",
                                                    std::string("        at address ") + c.owner}));
                EXPECT_NE(t.find(std::string("add_resp: name conflict found: server, addr ") + c.owner),
                          std::string::npos) << t;
            } else {
                EXPECT_TRUE(groups.empty());
            }
            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(nda_getcache(&a, &g, name.data(), fake_now), c.cached);
            if (c.cached == 1) {
                EXPECT_EQ(a, inet_addr("10.88.0.9"));
                EXPECT_EQ(g, 0);
            }
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
        // RFC 1002 4.2.2: a unique registration of SERVER from 127.0.0.9.
        Bytes rest{0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 127, 0, 0, 9};
        Bytes reg = ns_packet(0x1234, 0x29, 0x10, {1, 0, 0, 1}, ns_name("SERVER"), {0}, rest);
        // The negative registration response (RCODE 6) we send for the owner.
        Bytes drest{0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 9};
        Bytes defence = ns_packet(0x1234, 0xAD, 0x86, {0, 1, 0, 0}, ns_name("SERVER"), {0}, drest);
        const struct { const char* why; int32_t ans; Bytes body; std::vector<Bytes> want; uint32_t cached; } cases[] = {
            {"refused, owner a group", -1, cat({int_item(1), ip_item("10.88.0.9")}), {defence},
             inet_addr("10.88.0.9")},
            {"accepted", 0, {}, {}, inet_addr("127.0.0.9")},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            npkt rec{};
            ASSERT_EQ(decode_npack(&rec, reg.data(), int(reg.size())), int(reg.size()));
            iantoua(&rec.addr, inet_addr("127.0.0.9"), claimer_port);
            nda_claim(&rec);
            auto got = e.sent();
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got[0], cat({header(id_of(got[0]), 3), name_item(ns_name("SERVER")), int_item(0),
                                   addr_list({"127.0.0.9"})}));
            e.from_agent(cat({header(id_of(got[0]), 0x80000003, c.ans), c.body}));
            dg_dsend(reinterpret_cast<const uint8_t*>("end"), 3, &rec.addr);
            EXPECT_EQ(ns_received(claimer), c.want);
            uint32_t a = 0;
            int g = -1;
            EXPECT_EQ(nda_getcache(&a, &g, ns_name("SERVER").data(), fake_now), 1);
            EXPECT_EQ(a, c.cached);
            const EnsAddr* known = ens_a_lookup(inet_addr("127.0.0.9"));
            EXPECT_EQ(known != nullptr, c.ans >= 0);
            if (known != nullptr) {
                ASSERT_NE(known->host, nullptr);
                ASSERT_NE(known->host->names, nullptr);
                EXPECT_EQ(Bytes(known->host->names->name, known->host->names->name + 16), ns_name("SERVER"));
            }
            fake_now += 100;   // past the cache's minute
        }
    });
}

}  // namespace
