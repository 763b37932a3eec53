#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/claim.h"
#include "src/query.h"
#include "src/service.h"
#include "tests/support/privnet.h"

using Bytes = std::vector<uint8_t>;

namespace {

Bytes name16(const char* text, uint8_t type = 0x20)
{
    Bytes n(16, ' ');
    memcpy(n.data(), text, strlen(text));
    n[15] = type;
    return n;
}

uint32_t ip(const char* text) { return inet_addr(text); }

npkt decoded(Bytes& b, const char* sender)
{
    npkt rec{};
    int len = int(b.size());
    b.resize(NPKT_AREA);
    EXPECT_EQ(decode_npack(&rec, b.data(), len), len);
    iantoua(&rec.addr, ip(sender), 137);
    return rec;
}

// A request built by our own builder: status (stat 1) or query, B bit as given.
Bytes request(const Bytes& name, int stat, bool bcast)
{
    uint8_t area[NPKT_AREA];
    npkt rec;
    init_outpkt(&rec, area, NT_QUERY, name.data());
    build_query(&rec, 0x1234, stat);
    area[3] = bcast ? 0x10 : 0x00;
    return Bytes(area, area + rec.size);
}

uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

void clear_table()
{
    while (n_table != nullptr)
        nt_del(n_table->name);
}

}  // namespace

TEST(BuildQuery, NameQueryAndStatusRequestBytes)
{
    const struct { const char* scope; int stat; size_t len; } cases[] = {
        {"", 0, 50}, {"", 1, 50}, {"sales.corp", 0, 61}, {"sales.corp", 1, 61},
    };
    Bytes name = name16("FRED");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.scope) + (c.stat ? " status" : " query"));
        strcpy(nb_scope, c.scope);
        uint8_t area[NPKT_AREA];
        npkt rec;
        init_outpkt(&rec, area, NT_QUERY, name.data());
        ASSERT_EQ(build_query(&rec, 0x10203, c.stat), int(c.len));
        ASSERT_EQ(rec.size, int(c.len));
        Bytes head(area, area + 12);
        Bytes want = {0x02, 0x03, uint8_t(c.stat ? 0 : 1), uint8_t(c.stat ? 0 : 0x10), 0, 1, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(head, want) << "id low 16 bits high byte first, flags, QDCOUNT 1";
        EXPECT_EQ(area[12], 32);
        EXPECT_EQ(memcmp(area + 13, "EGFCEFEECACACACACACACACACACACACA", 32), 0);
        if (c.scope[0] != '\0') {
            EXPECT_EQ(memcmp(area + 45, "\5sales\4corp", 11), 0);
        }
        EXPECT_EQ(area[c.len - 5], 0) << "the name's zero byte";
        EXPECT_EQ(be16(area + c.len - 4), c.stat ? 0x21 : 0x20);
        EXPECT_EQ(be16(area + c.len - 2), 1);
    }
    nb_scope[0] = '\0';
}

TEST(AdapterStatus, PositiveResponseLayoutAndCounters)
{
    static if_entry ifs[2] = {{ip("10.88.0.1"), 0, 0}, {ip("10.88.1.1"), 0, 0}};
    my_addr = ifs;
    my_addr_ct = 2;
    ASSERT_EQ(nt_add(name16("ALPHA").data(), 0), 0);
    ASSERT_EQ(nt_add(name16("TEAM", 0x1C).data(), NT_GROUP), 0);
    Bytes req = request(name16("ALPHA"), 1, false);
    npkt in = decoded(req, "10.88.0.9");
    uint32_t sends[2];
    for (uint32_t& s : sends) {
        uint8_t area[NPKT_AREA];
        npkt out;
        init_outpkt(&out, area, NT_QUERY_RESP, in.name);
        ASSERT_EQ(pos_adapstat(&out, &in), 12 + 34 + 10 + 1 + 18 * 4 + 46);
        EXPECT_EQ(Bytes(area, area + 12), (Bytes{0x12, 0x34, 0x84, 0x00, 0, 0, 0, 1, 0, 0, 0, 0}));
        EXPECT_EQ(memcmp(area + 12, req.data() + 12, 34), 0) << "question name copied";
        const uint8_t* rr = area + 46;
        EXPECT_EQ(Bytes(rr, rr + 10), (Bytes{0, 0x21, 0, 1, 0, 0, 0, 0, 0, 119}));
        EXPECT_EQ(rr[10], 4) << "NUM_NAMES: two local names, two permanent";
        const uint8_t* e = rr + 11;
        EXPECT_EQ(Bytes(e, e + 16), name16("ALPHA"));
        EXPECT_EQ(be16(e + 16), 0x0400);
        EXPECT_EQ(Bytes(e + 18, e + 34), name16("TEAM", 0x1C));
        EXPECT_EQ(be16(e + 34), 0x8400);
        EXPECT_EQ(Bytes(e + 36, e + 52), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 88, 0, 1, 0, 0}));
        EXPECT_EQ(be16(e + 52), 0x0600);
        EXPECT_EQ(Bytes(e + 54, e + 70), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 88, 1, 1, 0, 0}));
        const uint8_t* st = e + 72;
        EXPECT_EQ(Bytes(st, st + 10), (Bytes{10, 88, 0, 1, 0, 0, 0, 0, 1, 1}));
        EXPECT_EQ(be16(st + 10) + 0u, (uint32_t(st[20]) << 24 | st[21] << 16 | st[22] << 8 | st[23]) & 0xFFFF);
        EXPECT_EQ(Bytes(st + 20, st + 24), Bytes(st + 24, st + 28)) << "sends and receives alike";
        EXPECT_EQ(Bytes(st + 28, st + 46), (Bytes{0, 0, 0, 0, 0, 16, 0, 16, 0, 32, 0, 2, 0, 32, 0, 32, 0x20, 0}));
        s = uint32_t(st[20]) << 24 | st[21] << 16 | st[22] << 8 | st[23];
    }
    EXPECT_EQ(sends[1], sends[0] + 1) << "one more positive response built";
    clear_table();
    my_addr_ct = 0;
}

TEST(AdapterStatus, TheResponseStaysInsideItsAreaForAnyTable)
{
    static if_entry ifs[2] = {{ip("10.88.0.1"), 0, 0}, {ip("10.88.1.1"), 0, 0}};
    my_addr = ifs;
    my_addr_ct = 2;
    for (int i = 0; i < 300; i++)
        ASSERT_EQ(nt_add(name16(("N" + std::to_string(i)).c_str()).data(), 0), 0);
    const struct { const char* scope; int names; } cases[] = {
        {"", 77},                        // (1500 - 12 - 34 - 57) / 18
        {"a.rather.long.scope.of.sixty.characters.for.the.test.here", 74},  // N 92
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scope);
        strcpy(nb_scope, c.scope);
        Bytes req = request(name16("N5"), 1, true);
        int n_len = int(req.size()) - 16;
        npkt in = decoded(req, "10.88.0.9");
        uint8_t area[NPKT_AREA + 64];
        memset(area, 0xEE, sizeof area);
        npkt out;
        init_outpkt(&out, area, NT_QUERY_RESP, in.name);
        int size = pos_adapstat(&out, &in);
        EXPECT_EQ(size, 12 + n_len + 57 + 18 * c.names);
        EXPECT_LE(size, NPKT_AREA);
        EXPECT_EQ(area[NPKT_AREA], 0xEE) << "nothing written past the area";
        const uint8_t* rr = area + 12 + n_len;
        EXPECT_EQ(rr[10], c.names);
        EXPECT_EQ(be16(rr + 8), 18 * c.names + 47);
        const uint8_t* last = rr + 11 + 18 * (c.names - 1);
        EXPECT_EQ(be16(last + 16), 0x0600) << "the permanent names are kept";
        EXPECT_EQ(Bytes(last - 36, last - 20), name16(("N" + std::to_string(c.names - 3)).c_str()))
            << "the local names in table order, the rest left out";
    }
    nb_scope[0] = '\0';
    clear_table();
    my_addr_ct = 0;
}

// Every send goes through the real socket layer, inside a private network.
TEST(AdapterStatus, AnswersAndRequestsOnTheWire)
{
    IN_CHILD(true, {
        uint16_t sport = 0, rport = 0;
        dg_fd = init_sock(ip("127.0.0.1"), &sport, 0);
        int r = init_sock(ip("127.0.0.5"), &rport, 0);
        ASSERT_GE(r, 0);
        nmport = rport;
        static if_entry ifs[1] = {{ip("127.0.0.1"), ip("127.0.0.5"), ip("255.0.0.0")}};
        my_addr = ifs;
        my_addr_ct = 1;
        ASSERT_EQ(nt_add(name16("LOCAL").data(), 0), 0);
        auto next = [r]() {
            struct pollfd p = {r, POLLIN, 0};
            uint8_t buf[NPKT_AREA];
            ssize_t n = poll(&p, 1, 5000) == 1 ? recv(r, buf, sizeof buf, MSG_DONTWAIT) : -1;
            return n < 0 ? Bytes() : Bytes(buf, buf + n);
        };
        auto answer = [&](const Bytes& name, bool bcast) {
            Bytes req = request(name, 1, bcast);
            npkt in = decoded(req, "127.0.0.5");
            in.addr = {};
            iantoua(&in.addr, ip("127.0.0.5"), rport);
            answer_adapstat(&in);
        };
        answer(name16("LOCAL"), true);
        Bytes got = next();
        ASSERT_EQ(got.size(), 12u + 34 + 57 + 36);
        EXPECT_EQ(got[56], 2) << "a broadcast request for a local name is answered";
        answer(name16("OTHER"), true);   // silence: checked by the next datagram being the directed one
        // The negative answer is still an adapter-status response in the
        // out-level dump, although its record carries no status.
        tcfile = tmpfile();
        tc_out = 1;
        answer(name16("OTHER"), false);
        std::string dump(4096, '\0');
        rewind(tcfile);
        dump.resize(fread(dump.data(), 1, dump.size(), tcfile));
        EXPECT_NE(dump.find("\ttype Adapter Status Response\n"), std::string::npos) << dump;
        EXPECT_NE(dump.find(" STAT\n"), std::string::npos) << dump;
        fclose(tcfile);
        tcfile = nullptr;
        tc_out = 0;
        got = next();
        ASSERT_EQ(got.size(), 12u + 34 + 10);
        EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), (Bytes{0x12, 0x34, 0x84, 0x03}));
        EXPECT_EQ(Bytes(got.end() - 10, got.end()), (Bytes{0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 0}));

        name_query(name16("A").data());
        name_query(name16("B").data());
        adapstat_query(name16("C").data(), ip("127.0.0.5"));
        adapstat_query(name16("D").data(), ip("127.0.0.5"));
        std::vector<std::string> ids;
        for (int i = 0; i < 4; i++) {
            got = next();
            ASSERT_EQ(got.size(), 50u);
            ids.push_back(std::to_string(be16(got.data())) + "/" + std::to_string(got[2]) + "/" +
                          std::to_string(be16(got.data() + 46)));
        }
        EXPECT_EQ(ids, (std::vector<std::string>{"0/1/32", "1/1/32", "0/0/33", "1/0/33"}))
            << "each kind counts its own ids from 0";
    });
}
