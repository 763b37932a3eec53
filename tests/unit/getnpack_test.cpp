#include "tests/unit/unitkit.h"

namespace {

const Bytes kName = ns_name("FILESRV");

// A header with the given counts, then the bytes.
Bytes packet(int type, std::vector<int> counts, std::initializer_list<Bytes> parts)
{
    Bytes b = {0x12, 0x34, uint8_t(type), 0};
    for (int c : counts)
        b.push_back(uint8_t(c >> 8)), b.push_back(uint8_t(c));
    for (const Bytes& p : parts)
        b.insert(b.end(), p.begin(), p.end());
    return b;
}

Bytes encoded_name() { return wire_name(kName); }

const Bytes nb_rr = {0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 1};

}  // namespace

TEST(DecodeNpack, OneTableOfDatagrams) {
    Bytes name = encoded_name();
    Bytes nb_q = {0, 0x20, 0, 1}, stat_q = {0, 0x21, 0, 1};
    Bytes nb_fields(nb_rr.begin() + 2, nb_rr.end());
    Bytes null_fields = {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 2, 0xAA, 0xBB};
    Bytes label16 = {16, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P', 0};
    Bytes escaped = wire_name(kName, {3, 'a', '.', 'b', 0});
    Bytes scoped = wire_name(kName, {5, 's', 'a', 'l', 'e', 's', 4, 'c', 'o', 'r', 'p', 0});
    const struct { const char* why; Bytes pkt; bool ok; uint32_t flags; const char* scope; } cases[] = {
        {"registration: group flags behind the pointer", packet(0x29, {1, 0, 0, 1}, {name, nb_q, nb_rr}), true,
         NPKT_GROUP, ""},
        {"a scope", packet(0, {1, 0, 0, 0}, {scoped, nb_q}), true, 0, "sales.corp"},
        {"status request", packet(0, {1, 0, 0, 0}, {name, stat_q}), true, NPKT_STAT, ""},
        {"no question: group from an additional record, never STAT", packet(0x28, {0, 0, 0, 1}, {name, nb_fields}),
         true, NPKT_GROUP, ""},
        {"a NULL record is stepped over to the NB record", packet(0x80, {0, 2, 0, 0}, {name, null_fields, nb_rr}),
         true, NPKT_GROUP, ""},
        {"labels past the end with all counts 0 pass", packet(0, {0, 0, 0, 0}, {{32, 'E', 'B'}}), true, 0, ""},
        {"labels past the end with a question", packet(0, {1, 0, 0, 0}, {{32, 'E', 'B'}}), false, 0, ""},
        {"a length byte and nothing after it", packet(0, {1, 0, 0, 0}, {{63}}), false, 0, ""},
        {"a pointer byte as the last byte", packet(0, {0, 1, 0, 0}, {name, {0xC0}}), false, 0, ""},
        {"record ends inside its fixed fields", packet(0x80, {0, 1, 0, 0}, {name, {0, 0x20, 0, 1}}), false, 0, ""},
        {"question type missing", packet(0, {1, 0, 0, 0}, {name}), false, 0, ""},
        {"a first label of 16 characters", packet(0, {1, 0, 0, 0}, {label16, nb_q}), true, 0, ""},
        {"an escaped dot in the scope stays escaped", packet(0, {1, 0, 0, 0}, {escaped, nb_q}), true, 0, "a\\.b"},
        {"a first label longer than the name area", packet(0, {0, 0, 0, 0}, {Bytes(300, 0xFF)}), false, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Bytes p = c.pkt;
        int len = int(p.size());
        npkt rec;
        ASSERT_EQ(decode_npack(&rec, p.data(), len), c.ok ? len : -1);
        if (c.ok) {
            EXPECT_EQ(rec.flags, c.flags);
            EXPECT_STREQ(rec.scope, c.scope);
            EXPECT_EQ(rec.type, p[2] & 0xF8);
            EXPECT_EQ(rec.pktid[0], 0x3412u);  // first id byte low
            EXPECT_TRUE(c.pkt.size() < 46 || c.pkt[12] != 32 || memcmp(rec.name, kName.data(), 16) == 0);
        }
    }
    // find_flags refuses a question name running past the end on its own.
    Bytes past = packet(0, {1, 0, 0, 0}, {{32, 'E', 'B'}});
    EXPECT_EQ(find_flags(past.data(), int(past.size())), -1);
    // Every cut of a registration that loses its NB flags is refused; exact
    // sizes let the sanitizer see any read past the datagram.
    Bytes full = packet(0x29, {1, 0, 0, 1}, {name, nb_q, nb_rr});
    each_cut(full, full.size(), [](const uint8_t* cut, int len) {
        npkt rec;
        EXPECT_EQ(decode_npack(&rec, cut, len), len >= 64 ? len : -1);
    });
}

TEST(FindIpRfc, ReadsTheFirstAddressAndRefusesShortAnswers) {
    auto response = [&](Bytes rdata, int rdlength) {
        return packet(0x85, {0, 1, 0, 0},
                      {encoded_name(), {0, 0x20, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength)}, rdata});
    };
    Bytes one = response({0, 0, 10, 88, 0, 9}, 6), long_name;
    for (int i = 0; i < 10; i++)
        long_name.push_back(63), long_name.insert(long_name.end(), 63, 'A');
    Bytes far = packet(0x85, {0, 1, 0, 0}, {long_name, {0}, Bytes(20, 0)});
    far[far.size() - 12] = 6;
    const struct { const char* why; Bytes pkt; int group; uint8_t last; } cases[] = {  // group -1: refused
        {"two addresses: the first", response({0x80, 0, 10, 88, 0, 7, 0, 0, 10, 88, 0, 8}, 12), 1, 7},
        {"one address", one, 0, 9},
        {"a negative answer", response({}, 0), -1, 0},
        {"a question", packet(0x85, {1, 1, 0, 0}, {encoded_name(), {0, 0x20, 0, 1}}), -1, 0},
        {"a name running past the 576th byte", far, -1, 0},
    };
    for (const auto& c : cases) {
        uint32_t addr = 0;
        int group = -1;
        ASSERT_EQ(find_ip_rfc(c.pkt.data(), int(c.pkt.size()), &addr, &group), c.group < 0 ? -1 : 0) << c.why;
        EXPECT_TRUE(c.group < 0 || (group == c.group && addr == (uint32_t{c.last} << 24 | 0x580a))) << c.why;
    }
    each_cut(one, one.size() - 1, [](const uint8_t* cut, int len) {
        uint32_t addr = 0;
        int group = -1;
        EXPECT_EQ(find_ip_rfc(cut, len, &addr, &group), -1);
    });
}

// A WACK's wait, whatever the record's data; refused once the TTL is cut.
TEST(FindTtlRfc, ReadsTheAnswersTtl) {
    Bytes wack = packet(0xBC, {0, 1, 0, 0}, {encoded_name(), {0, 0x20, 0, 1, 0, 1, 2, 3, 0, 2, 0x29, 0}});
    uint32_t ttl = 0;
    ASSERT_EQ(find_ttl_rfc(wack.data(), int(wack.size()), &ttl), 0);
    EXPECT_EQ(ttl, 0x00010203u);
    each_cut(wack, wack.size() - 5, [&](const uint8_t* cut, int len) { EXPECT_EQ(find_ttl_rfc(cut, len, &ttl), -1); });
}

TEST(FindAsRfc, NamesAndStatisticsRoundTrip) {
    as_stats st{};
    memcpy(st.unit_id, "\x0a\x58\x00\x01\x00\x00", 6);
    st.version = 0x0101, st.period = 7, st.good_sends = 0x01020304, st.session_size = 8192;
    Bytes stats(AS_STATSLEN);
    ASSERT_EQ(adapstat_out(stats.data(), &st), AS_STATSLEN);
    EXPECT_EQ(Bytes(stats.begin() + 8, stats.begin() + 12), (Bytes{1, 1, 0, 7})) << "big-endian";
    auto response = [&](int n, int rdlength, int entries) {
        Bytes rdata = {uint8_t(n)};
        for (int i = 0; i < entries; i++) {
            rdata.insert(rdata.end(), kName.begin(), kName.end());
            rdata.push_back(i % 2 ? 0x84 : 0x06), rdata.push_back(0);
        }
        return packet(0x84, {0, 1, 0, 0},
                      {encoded_name(), {0, 0x21, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength)},
                       rdata, stats});
    };
    std::vector<as_name> recs(AS_MAXNAMES);
    as_stats got{};
    Bytes two = response(2, 18 * 2 + 47, 2);
    ASSERT_EQ(find_as_rfc(two.data(), int(two.size()), &got, recs.data()), 2);
    EXPECT_EQ(recs[0].flags, AS_PERMANENT);
    EXPECT_EQ(recs[1].flags, AS_GROUP);
    EXPECT_EQ(memcmp(recs[1].name, kName.data(), 16), 0);
    EXPECT_EQ(memcmp(&got, &st, sizeof st), 0);
    const struct { const char* why; Bytes pkt; int want; } cases[] = {
        {"RDLENGTH 46", response(0, 46, 0), -1},
        {"201 names", response(201, 1500, 201), -1},
        {"NUM_NAMES beyond the names present", response(3, 18 * 3 + 47, 2), -1},
        {"statistics cut short", Bytes(two.begin(), two.end() - 1), -1},
        {"200 names", response(200, 18 * 200 + 47, 200), 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Bytes p = c.pkt;
        EXPECT_EQ(find_as_rfc(p.data(), int(p.size()), &got, recs.data()), c.want);
    }
}
