#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/query.h"
#include "src/service.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

// Answers go back to the asker, so each test runs in a child in its own
// network namespace, on loopback. Our interfaces: 10.88.0.1/24 and
// 127.0.1.1/24; askers at 127.0.0.9 (on neither subnet), 127.0.1.9 (on the
// second) and 127.0.1.1 (ourselves).
namespace {

const Bytes corp{4, 'c', 'o', 'r', 'p', 0};
const Bytes CORP{4, 'C', 'O', 'R', 'P', 0};

// Another station's query (RFC 1002 4.2.12; qtype NBSTAT for a status
// request, b3 0 when directed) and registration or other request with an NB
// record (4.2.2).
Bytes query(const char* name, const Bytes& labels = {0}, uint8_t qtype = 0x20, uint8_t b3 = 0x10)
{
    return ns_packet(0x1234, 0x01, b3, {1, 0, 0, 0}, ns_name(name), labels, {0, qtype, 0, 1});
}
Bytes request(uint8_t b2, const char* name, bool group, const Bytes& labels = {0})
{
    Bytes rest{0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, uint8_t(group ? 0x80 : 0), 0,
               127, 0, 0, 9};
    return ns_packet(0x1234, b2, 0x10, {1, 0, 0, 1}, ns_name(name), labels, rest);
}
// A response with one record of type rtype; and what we answer: the id as
// it came, the answer record only, TTL 0.
Bytes response(uint8_t b2, uint8_t rtype)
{
    return ns_packet(0x1234, b2, 0, {0, 1, 0, 0}, ns_name("SERVER"), {0},
                     {0, rtype, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 10, 88, 0, 5});
}
Bytes answer(uint8_t b2, uint8_t b3, const char* name, uint8_t nbflags_hi, const char* own,
             const Bytes& labels = {0})
{
    Bytes rest{0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, nbflags_hi, 0};
    Bytes a = ip_bytes(own);
    rest.insert(rest.end(), a.begin(), a.end());
    return ns_packet(0x1234, b2, b3, {0, 1, 0, 0}, ns_name(name), labels, rest);
}

struct Net {
    if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("127.0.0.2"), inet_addr("255.255.255.0")},
                       {inet_addr("127.0.1.1"), inet_addr("127.0.1.255"), inet_addr("255.255.255.0")}};
    const char* asker_addr[3] = {"127.0.0.9", "127.0.1.9", "127.0.1.1"};
    int asker[3];
    uint16_t asker_port[3] = {};
    Net()
    {
        uint16_t any = 0;
        dg_fd = ns_socket("127.0.0.1", &any);
        for (int i = 0; i < 3; i++)
            EXPECT_GE(asker[i] = ns_socket(asker_addr[i], &asker_port[i]), 0);
        my_addr = ifs, my_addr_ct = 2;
        for (const if_entry& f : ifs)
            EXPECT_EQ(ens_a_add(f.addr, nullptr), 0);  // our own addresses, as at start
        for (auto [name, flags] : {std::pair{"SERVER", 0u}, {"TEAM", NT_GROUP}, {"NEW", NT_PENDING}}) {
            EXPECT_EQ(nt_add(ns_name(name).data(), 0), 0);
            nt_search(ns_name(name).data())->flags = flags;   // claimed, unless pending
        }
    }
    // Processes the packet as received from asker i; what came back to it.
    std::vector<Bytes> handle(const Bytes& pkt, int i)
    {
        npkt rec;
        EXPECT_EQ(decode_npack(&rec, pkt.data(), int(pkt.size())), int(pkt.size()));
        iantoua(&rec.addr, inet_addr(asker_addr[i]), asker_port[i]);
        process_npkt(&rec);
        dg_dsend(reinterpret_cast<const uint8_t*>("end"), 3, &rec.addr);
        return ns_received(asker[i]);
    }
};

TEST(Service, QueriesAndClaimsOfClaimedLocalNamesAreAnsweredFromTheAskersSubnet)
{
    IN_CHILD(true, {
        Net net;
        const struct {
            const char* why;
            const char* scope;
            Bytes pkt;
            int asker;
            std::vector<Bytes> want;
        } cases[] = {
            {"query from the second subnet", "", query("SERVER"), 1, {answer(0x85, 0, "SERVER", 0, "127.0.1.1")}},
            {"query from no subnet", "", query("SERVER"), 0, {answer(0x85, 0, "SERVER", 0, "10.88.0.1")}},
            {"query for a group", "", query("TEAM"), 0, {answer(0x85, 0, "TEAM", 0x80, "10.88.0.1")}},
            {"scope differing in case", "corp", query("SERVER", CORP), 0,
             {answer(0x85, 0, "SERVER", 0, "10.88.0.1", corp)}},
            {"query, name being claimed", "", query("NEW"), 0, {}},
            {"query, no such name", "", query("server"), 0, {}},
            {"query, another scope", "corp", query("SERVER", Bytes{4, 'c', 'o', 'r', 'q', 0}), 0, {}},
            {"query, no scope against ours", "corp", query("SERVER"), 0, {}},
            {"query, a scope against none", "", query("SERVER", corp), 0, {}},
            {"our own query back", "", query("SERVER"), 2, {}},
            {"unique claim, unique name", "", request(0x29, "SERVER", false), 1,
             {answer(0xAD, 0x86, "SERVER", 0, "127.0.1.1")}},
            {"group claim, unique name", "", request(0x29, "SERVER", true), 0,
             {answer(0xAD, 0x86, "SERVER", 0, "10.88.0.1")}},
            {"unique claim, group name", "", request(0x29, "TEAM", false), 0,
             {answer(0xAD, 0x86, "TEAM", 0x80, "10.88.0.1")}},
            {"group claim, group name", "", request(0x29, "TEAM", true), 0, {}},
            {"claim, name being claimed", "", request(0x29, "NEW", false), 0, {}},
            {"claim, no such name", "", request(0x29, "OTHER", false), 0, {}},
            {"claim, another scope", "", request(0x29, "SERVER", false, corp), 0, {}},
            {"our own claim back", "", request(0x29, "SERVER", false), 2, {}},
            {"release", "", request(0x30, "SERVER", false), 0, {}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.why);
            snprintf(nb_scope, sizeof nb_scope, "%s", c.scope);
            EXPECT_EQ(net.handle(c.pkt, c.asker), c.want);
        }
        EXPECT_TRUE(n_table && n_table->next && n_table->next->next) << "a release removes nothing";
        my_addr_ct = 0;
        EXPECT_EQ(matching_addr(inet_addr("10.88.0.1")), 0u) << "no interface, no address";
    });
}

TEST(Service, DispatchByTypeAndStatusWithItsTraceLines)
{
    IN_CHILD(true, {
        Net net;
        FILE* trace = tmpfile();
        ASSERT_NE(trace, nullptr);
        // Each handler shows by what it sends or traces: a status request
        // gets a status response, a status response that does not parse and
        // a query response that no lookup waits for leave their trace lines.
        const Bytes stat_prefix = ns_packet(0x1234, 0x84, 0x00, {0, 1, 0, 0}, ns_name("SERVER"), {0},
                                            {0, 0x21, 0, 1, 0, 0, 0, 0});
        const struct {
            Bytes pkt;
            int asker;
            const char* lines;
            std::vector<Bytes> want;   // exact answers; a status response by its start
            bool status_answer;
            const char* name = "server";   // as traced
        } cases[] = {
            {query("SERVER", {0}, 0x21), 0, "", {}, true},
            {query("OTHER", {0}, 0x21, 0x00), 0, "",
             {ns_packet(0x1234, 0x84, 0x03, {0, 1, 0, 0}, ns_name("OTHER"), {0}, {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 0})},
             false, "other"},
            {query("OTHER", {0}, 0x21), 0, "", {}, false, "other"},  // broadcast, for another station
            {response(0x84, 0x21), 0, "check_adapstat: find_adapstat failed\n", {}, false},
            {response(0x85, 0x20), 0, "check_lookup: unknown name\n", {}, false},
            {response(0xAD, 0x20), 0, "", {}, false},  // no claim lately
            {response(0xBC, 0x0A), 0, "Ratline: ignoring packet.\n", {}, false},
            {request(0x40, "SERVER", false), 0, "Ratline: ignoring packet.\n", {}, false},
            {response(0xB4, 0x20), 0, "Ratline: ignoring packet.\n", {}, false},
            {query("SERVER"), 2, "check_query: ignoring my own query\n", {}, false},
            {request(0x29, "SERVER", false), 2, "check_claim: ignoring my own claim\n", {}, false},
            {query("SERVER", corp), 0, "check_query: NetBIOS scopes don't match: corp, \n", {}, false},
            {request(0x29, "SERVER", 0, corp), 0, "check_claim: NetBIOS scopes don't match: corp, \n", {}, false},
            {request(0x30, "SERVER", 0, corp), 0, "check_delete: NetBIOS scopes don't match: corp, \n", {},
             false},
            {query("SERVER"), 0, "check_query: answering request for local name\n",
             {answer(0x85, 0, "SERVER", 0, "10.88.0.1")}, false},
            {request(0x29, "SERVER", true), 0, "check_claim: defending local name\n",
             {answer(0xAD, 0x86, "SERVER", 0, "10.88.0.1")}, false},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.name) + ", flags " + std::to_string(c.pkt[2]) + "/" +
                         std::to_string(c.pkt[3]) + ": " + c.lines);
            ASSERT_EQ(ftruncate(fileno(trace), 0), 0);
            rewind(trace);
            tcfile = trace, tc_proc = 3;
            std::vector<Bytes> got = net.handle(c.pkt, c.asker);
            tcfile = nullptr;
            std::string text(4096, '\0');
            rewind(trace);
            text.resize(fread(text.data(), 1, text.size(), trace));
            EXPECT_EQ(text, std::string("process_npkt called, name ") + c.name + "\n" + c.lines);
            if (!c.status_answer) {
                EXPECT_EQ(got, c.want);
                continue;
            }
            // Our three names and the permanent names of our two addresses.
            ASSERT_EQ(got.size(), 1u);
            ASSERT_GT(got[0].size(), stat_prefix.size() + 2);
            EXPECT_EQ(Bytes(got[0].begin(), got[0].begin() + long(stat_prefix.size())), stat_prefix);
            EXPECT_EQ(got[0][stat_prefix.size() + 2], 5);
        }
        // The packet as received, then the answer and its dump.
        ASSERT_EQ(ftruncate(fileno(trace), 0), 0);
        rewind(trace);
        tcfile = trace, tc_proc = 0, tc_in = 5, tc_out = 1;
        net.handle(request(0x29, "SERVER", true), 0);
        tcfile = nullptr;
        std::string text(8192, '\0');
        rewind(trace);
        text.resize(fread(text.data(), 1, text.size(), trace));
        std::string head = "process_npkt: pkt contains:\n\tnb_ver 0, type 40, size 68, flags 0x00000001\n"
                           "\taddr I(127.0.0.9." + std::to_string(net.asker_port[0]) +
                           "), scope \ndefend_name: sending response\n\nName Service Packet --\n";
        EXPECT_EQ(text.substr(text.find("process_npkt:"), head.size()), head);
    });
}

}  // namespace
