#include "tests/unit/unitkit.h"

#include "src/service.h"

// Answers go back to the asker, recorded at the seam (plain answers, defences
// and node status are also driven byte for byte end to end, in
// Wire.ClaimsAnswersDefencesStatusAndReleasesByteForByte). Our interfaces:
// 10.88.0.1/24 and 127.0.1.1/24; askers at 127.0.0.9 (on neither subnet),
// 127.0.1.9 (on the second) and 127.0.1.1 (ourselves).
namespace {

const Bytes corp{4, 'c', 'o', 'r', 'p', 0};

// Another station's query (RFC 1002 4.2.12; qtype NBSTAT for a status
// request, b3 0 when directed) and registration or other request (4.2.2).
Bytes query(const char* name, const Bytes& labels = {0}, uint8_t qtype = 0x20, uint8_t b3 = 0x10)
{
    return ns_packet(0x1234, 0x01, b3, {1, 0, 0, 0}, ns_name(name), labels, {0, qtype, 0, 1});
}
Bytes request(uint8_t b2, const char* name, bool group, const Bytes& labels = {0})
{
    return ns_request(0x1234, b2, name, group ? 0x80 : 0, "127.0.0.9", labels);
}
// A response with one record of type rtype.
Bytes response(uint8_t b2, uint8_t rtype)
{
    return ns_packet(0x1234, b2, 0, {0, 1, 0, 0}, ns_name("SERVER"), {0},
                     {0, rtype, 0, 1, 0, 0, 0, 0, 0, 6, 0, 0, 10, 88, 0, 5});
}
TEST(Service, EachDatagramGetsItsAnswerFromTheAskersSubnetOrNone)
{
    if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("127.0.0.2"), inet_addr("255.255.255.0")},
                       {inet_addr("127.0.1.1"), inet_addr("127.0.1.255"), inet_addr("255.255.255.0")}};
    const char* asker_addr[3] = {"127.0.0.9", "127.0.1.9", "127.0.1.1"};
    dg_set_sender(record_dg);
    dg_set_clock(fake_time, fake_alarm);
    my_addr = ifs, my_addr_ct = 2, nda_ct = 1;
    for (const if_entry& f : ifs)
        ASSERT_EQ(ens_a_add(f.addr, nullptr), 0);  // our own addresses, as at start
    EnsHost* far = ens_create();   // a host an agent told us of
    ASSERT_EQ(ens_a_add(inet_addr("10.88.0.20"), far) + ens_n_add(ns_name("FAR").data(), 0, far), 0);
    for (auto [name, flags] : {std::pair{"SERVER", 0u}, {"TEAM", NT_GROUP}, {"NEW", NT_PENDING}}) {
        ASSERT_EQ(nt_add(ns_name(name).data(), 0), 0);
        nt_search(ns_name(name).data())->flags = flags;   // claimed, unless pending
    }
    FILE* trace = tmpfile();
    const Bytes none = {};
    // Each datagram, the asker, the one answer or none, and a trace line
    // that handlers which send nothing leave.
    const struct { const char *why, *scope; Bytes pkt; int asker; Bytes want; const char* line; } cases[] = {
        {"query from the second subnet", "", query("SERVER"), 1, ns_answer(0x85, 0, "SERVER", 0, "127.0.1.1"), ""},
        {"query from no subnet", "", query("SERVER"), 0, ns_answer(0x85, 0, "SERVER", 0, "10.88.0.1"), ""},
        {"scope differing in case", "corp", query("SERVER", {4, 'C', 'O', 'R', 'P', 0}), 0,
         ns_answer(0x85, 0, "SERVER", 0, "10.88.0.1", corp), ""},
        {"query for a name an agent told us of", "", query("FAR"), 0, ns_answer(0x85, 0, "FAR", 0, "10.88.0.20"), ""},
        {"query, the name in another case", "", query("server"), 0, none, ""},
        {"query, name being claimed", "", query("NEW"), 0, none, ""},
        {"query, another scope", "corp", query("SERVER", {4, 'c', 'o', 'r', 'q', 0}), 0, none, ""},
        {"query, a scope against none", "", query("SERVER", corp), 0, none,
         "check_query: NetBIOS scopes don't match: corp, \n"},
        {"our own query back", "", query("SERVER"), 2, none, "check_query: ignoring my own query\n"},
        {"unique claim, unique name", "", request(0x29, "SERVER", false), 1, ns_answer(0xAD, 0x86, "SERVER", 0, "127.0.1.1"), ""},
        {"group claim, unique name", "", request(0x29, "SERVER", true), 0, ns_answer(0xAD, 0x86, "SERVER", 0, "10.88.0.1"), ""},
        {"unique claim, group name", "", request(0x29, "TEAM", false), 0, ns_answer(0xAD, 0x86, "TEAM", 0x80, "10.88.0.1"), ""},
        {"claim, another scope", "", request(0x29, "SERVER", false, corp), 0, none,
         "check_claim: NetBIOS scopes don't match: corp, \n"},
        {"our own claim back", "", request(0x29, "SERVER", false), 2, none, "check_claim: ignoring my own claim\n"},
        {"release from another scope", "", request(0x30, "SERVER", false, corp), 0, none,
         "check_delete: NetBIOS scopes don't match: corp, \n"},
        {"release from a station we do not know: asked for its status", "", request(0x30, "SERVER", false), 0, none,
         "adapstat_query called"},
        {"status response that does not parse", "", response(0x84, 0x21), 0, none,
         "check_adapstat: find_adapstat failed\n"},
        {"query response nobody waits for", "", response(0x85, 0x20), 0, none, "check_lookup: unknown name\n"},
        {"refresh", "", request(0x40, "SERVER", false), 0, none, "Ratline: ignoring packet.\n"},
    };
    auto answers = [&](const Bytes& pkt, const char* asker) {
        npkt rec;
        EXPECT_EQ(decode_npack(&rec, pkt.data(), int(pkt.size())), int(pkt.size()));
        iantoua(&rec.addr, inet_addr(asker), 1009);
        process_npkt(&rec);
        return sent_to(DgWay::name, asker, 1009);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        snprintf(nb_scope, sizeof nb_scope, "%s", c.scope);
        tcfile = trace, tc_proc = 3;
        fake_now += 100;   // past the minute in which a station is asked for its status once
        std::vector<Bytes> got = answers(c.pkt, asker_addr[c.asker]);
        EXPECT_NE(trace_taken().find(c.line), std::string::npos) << c.line;
        EXPECT_EQ(got, c.want.empty() ? std::vector<Bytes>{} : std::vector<Bytes>{c.want});
    }
    EXPECT_TRUE(n_table && n_table->next && n_table->next->next) << "a release removes nothing";
    my_addr_ct = 1;
    EXPECT_TRUE(answers(query("FAR"), asker_addr[0]).empty()) << "with one interface the host answers for itself";
    nda_ct = 0;
    my_addr_ct = 0;
    EXPECT_EQ(matching_addr(inet_addr("10.88.0.1")), 0u) << "no interface, no address";
}

}  // namespace
