#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "misc/nencode.h"
#include "src/getnpack.h"
#include "src/namelogin.h"

namespace {

using Bytes = std::vector<uint8_t>;

const uint8_t kName[16] = {'F', 'I', 'L', 'E', 'S', 'R', 'V', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0x20};
constexpr uint32_t kAddr = 0x0100580a;  // 10.88.0.1 in network order on this host

struct Scope {  // sets nb_scope for one test
    explicit Scope(const char* s) { snprintf(nb_scope, sizeof nb_scope, "%s", s); }
    ~Scope() { nb_scope[0] = '\0'; }
};

// A registration request laid out the way every builder does it.
Bytes reg_request(int nb_flags)
{
    Bytes b(NPKT_AREA, 0xEE);
    b[0] = 0x12, b[1] = 0x34, b[2] = 0x29, b[3] = 0x10;
    fill_counts(b.data(), 1, 0, 0, 1);
    int len = fill_nbname(b.data() + 12, kName);
    len += fill_quest_hdr(b.data() + 12 + len, RR_NB, RR_IN);
    b[12 + len++] = 0xC0;
    b[12 + len++] = 0x0C;
    len += fill_rr_header(b.data() + 12 + len, RR_NB, RR_IN, 0, 6);
    len += fill_rr_nb(b.data() + 12 + len, nb_flags, kAddr);
    b.resize(12 + len);
    return b;
}

// A header with the given counts, then the bytes.
Bytes packet(int type, std::vector<int> counts, const Bytes& body)
{
    Bytes b = {0, 1, uint8_t(type), 0};
    for (int c : counts)
        b.push_back(uint8_t(c >> 8)), b.push_back(uint8_t(c));
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

Bytes encoded_name()
{
    Bytes b(NPKT_NAMETEXT);
    b.resize(fill_nbname(b.data(), kName));
    return b;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

}  // namespace

TEST(Builders, RegistrationRequestBytes) {
    Bytes b = reg_request(NB_GROUP_BIT);
    ASSERT_EQ(b.size(), 68u);
    const Bytes head = {0x12, 0x34, 0x29, 0x10, 0, 1, 0, 0, 0, 0, 0, 1, 32, 'E', 'G', 'E', 'J'};
    EXPECT_EQ(Bytes(b.begin(), b.begin() + head.size()), head);
    EXPECT_EQ(b[44], 'A');  // the type byte 0x20 ends "CA"
    EXPECT_EQ(b[45], 0);
    const Bytes tail = {0, 0x20, 0, 1, 0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 1};
    EXPECT_EQ(Bytes(b.end() - tail.size(), b.end()), tail);

    Scope s("sales.corp");
    EXPECT_EQ(encoded_name().size(), 45u);
}

TEST(DecodeNpack, RegistrationRequestRoundTrips) {
    Scope s("sales.corp");
    Bytes b = reg_request(NB_GROUP_BIT);
    npkt rec;
    ASSERT_EQ(decode_npack(&rec, b.data(), int(b.size())), int(b.size()));
    EXPECT_EQ(rec.type, NT_REGISTER);
    EXPECT_EQ(rec.flags, NPKT_GROUP);  // flags found behind the pointer
    EXPECT_EQ(rec.pktid[0], 0x3412u);  // first id byte low
    EXPECT_EQ(rec.pktid[1], 0u);
    EXPECT_EQ(memcmp(rec.name, kName, 16), 0);
    EXPECT_STREQ(rec.scope, "sales.corp");
    EXPECT_EQ(rec.raw, b.data());
}

TEST(DecodeNpack, RefusesEveryCutThatLosesTheNbFlags) {
    Bytes full = reg_request(0);
    npkt rec;
    for (int len = 0; len <= int(full.size()); len++) {
        SCOPED_TRACE(len);
        Bytes cut(full.begin(), full.begin() + len);  // exactly len bytes: ASan sees any overread
        cut.shrink_to_fit();
        EXPECT_EQ(decode_npack(&rec, cut.data(), len), len >= 64 ? len : -1);
    }
}

TEST(DecodeNpack, OddButReadablePackets) {
    Bytes name = encoded_name();
    Bytes nb_rr = {0xC0, 0x0C, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 6, 0x80, 0, 10, 88, 0, 1};
    Bytes stat_q = {0, 0x21, 0, 1};
    Bytes nb_fields(nb_rr.begin() + 2, nb_rr.end());
    Bytes null_fields = {0, 0x0A, 0, 1, 0, 0, 0, 0, 0, 2, 0xAA, 0xBB};
    Bytes label16 = {16, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P', 0};
    Bytes escaped = cat({Bytes(name.begin(), name.end() - 1), {3, 'a', '.', 'b', 0}});
    const struct {
        const char* why;
        Bytes pkt;
        int result;  // 0 for the whole length
        uint32_t flags;
        const char* scope;
    } cases[] = {
        {"status request", packet(0, {1, 0, 0, 0}, cat({name, stat_q})), 0, NPKT_STAT, ""},
        {"no question or answer: group from an additional record, never STAT",
         packet(0x28, {0, 0, 0, 1}, cat({name, nb_fields})), 0, NPKT_GROUP, ""},
        {"a NULL record is stepped over to the NB record",
         packet(0x80, {0, 2, 0, 0}, cat({name, null_fields, nb_rr})), 0, NPKT_GROUP, ""},
        {"labels past the end with all counts 0 pass", packet(0, {0, 0, 0, 0}, {32, 'E', 'B'}), 0, 0, ""},
        {"labels past the end with a question", packet(0, {1, 0, 0, 0}, {32, 'E', 'B'}), -1, 0, ""},
        {"a length byte and nothing after it", packet(0, {1, 0, 0, 0}, {63}), -1, 0, ""},
        {"a pointer byte as the last byte", packet(0, {0, 1, 0, 0}, cat({name, {0xC0}})), -1, 0, ""},
        {"record ends inside its fixed fields", packet(0x80, {0, 1, 0, 0}, cat({name, {0, 0x20, 0, 1}})), -1, 0, ""},
        {"question type missing", packet(0, {1, 0, 0, 0}, name), -1, 0, ""},
        {"a first label of 16 characters", packet(0, {1, 0, 0, 0}, cat({label16, {0, 0x20, 0, 1}})), 0, 0, ""},
        {"an escaped dot in the scope stays escaped", packet(0, {1, 0, 0, 0}, cat({escaped, {0, 0x20, 0, 1}})),
         0, 0, "a\\.b"},
        {"a first label longer than the name area", packet(0, {0, 0, 0, 0}, Bytes(300, 0xFF)), -1, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Bytes p = c.pkt;
        int len = int(p.size());
        npkt rec;
        ASSERT_EQ(decode_npack(&rec, p.data(), len), c.result == 0 ? len : -1);
        if (c.result == 0) {
            EXPECT_EQ(rec.flags, c.flags);
            EXPECT_STREQ(rec.scope, c.scope);
        }
    }
}

// Most names arrive as one label of 32 letters A-P and go a shorter way
// than the rest; the result must not depend on the way taken.
TEST(DecodeNpack, EveryNameDecodesAsItsTextForm) {
    srand(7);
    for (int round = 0; round < 2000; round++) {
        SCOPED_TRACE(round);
        uint8_t want[16];
        for (uint8_t& b : want)
            b = uint8_t(rand());
        Bytes name(NPKT_NAMETEXT);
        name.resize(fill_nbname(name.data(), want));
        // The text form, as every builder with a scope makes it.
        char text[NPKT_NAMETEXT];
        n_encode(text, want);
        uint8_t wire[NPKT_NAMETEXT];
        vd_to_d(wire, text);
        ASSERT_EQ(name, Bytes(wire, wire + NB_ENCLEN + 2));
        if (round % 4 == 1)
            name[1 + rand() % NB_ENCLEN] = uint8_t("@Qaz.\\\x80"[rand() % 7]);  // outside A-P: the long way
        if (round % 4 == 2)
            name.insert(name.end() - 1, {3, 'c', 'o', 'm'});
        Bytes p = packet(0, {1, 0, 0, 0}, cat({name, {0, 0x20, 0, 1}}));
        npkt rec;
        ASSERT_EQ(decode_npack(&rec, p.data(), int(p.size())), int(p.size()));
        uint8_t expect[16];
        std::string label(name.begin() + 1, name.begin() + 1 + NB_ENCLEN);
        n_decode(expect, label.c_str());
        if (round % 4 != 1) {
            EXPECT_EQ(memcmp(expect, want, 16), 0);
        }
        if (label.find_first_of(".\\") == std::string::npos) {  // else the text form escapes
            EXPECT_EQ(memcmp(rec.name, expect, 16), 0);
        }
        EXPECT_STREQ(rec.scope, round % 4 == 2 ? "com" : "");
    }
}

TEST(SkipName, PointerAndLabelBounds) {
    const Bytes b = {3, 'a', 'b', 'c', 0, 0xC0, 0x0C, 0x41, 'x'};
    const uint8_t* last = b.data() + b.size() - 1;
    EXPECT_EQ(skip_name(b.data(), last), b.data() + 5);
    EXPECT_EQ(skip_name(b.data() + 5, last), b.data() + 7);
    EXPECT_EQ(skip_name(b.data() + 6, last), nullptr);           // 0x0C as a length: 12 bytes, past the end
    EXPECT_EQ(skip_name(b.data() + 7, last), nullptr);           // 0x41: low six bits, 1 byte, then past
    EXPECT_EQ(skip_name(b.data() + 5, b.data() + 5), nullptr);   // pointer cut after its first byte
}

TEST(FindIpRfc, ReadsTheFirstAddressAndRefusesShortAnswers) {
    Bytes name = encoded_name();
    auto response = [&](Bytes rdata, int rdlength) {
        return packet(0x85, {0, 1, 0, 0},
                      cat({name, {0, 0x20, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength)}, rdata}));
    };
    Bytes two = response({0x80, 0, 10, 88, 0, 7, 0, 0, 10, 88, 0, 8}, 12);
    uint32_t addr = 0;
    int group = -1;
    ASSERT_EQ(find_ip_rfc(two.data(), int(two.size()), &addr, &group), 0);
    EXPECT_EQ(group, 1);
    EXPECT_EQ(memcmp(&addr, "\x0a\x58\x00\x07", 4), 0);

    Bytes one = response({0, 0, 10, 88, 0, 9}, 6);
    for (int len = 0; len < int(one.size()); len++) {
        SCOPED_TRACE(len);
        Bytes cut(one.begin(), one.begin() + len);
        cut.shrink_to_fit();
        EXPECT_EQ(find_ip_rfc(cut.data(), len, &addr, &group), -1);
    }
    ASSERT_EQ(find_ip_rfc(one.data(), int(one.size()), &addr, &group), 0);
    EXPECT_EQ(group, 0);

    Bytes negative = response({}, 0);
    EXPECT_EQ(find_ip_rfc(negative.data(), int(negative.size()), &addr, &group), -1);
    Bytes query = packet(0x85, {1, 1, 0, 0}, cat({name, {0, 0x20, 0, 1}}));
    EXPECT_EQ(find_ip_rfc(query.data(), int(query.size()), &addr, &group), -1);
    // a name that runs past the 576th byte is refused even in a longer datagram
    Bytes long_name;
    for (int i = 0; i < 10; i++)
        long_name.push_back(63), long_name.insert(long_name.end(), 63, 'A');
    Bytes far = packet(0x85, {0, 1, 0, 0}, cat({long_name, {0}, Bytes(20, 0)}));
    far[far.size() - 12] = 6;
    EXPECT_EQ(find_ip_rfc(far.data(), int(far.size()), &addr, &group), -1);
}

TEST(FindAsRfc, NamesAndStatisticsRoundTrip) {
    as_stats st{};
    memcpy(st.unit_id, "\x0a\x58\x00\x01\x00\x00", 6);
    st.version = 0x0101, st.period = 7, st.good_sends = 0x01020304, st.session_size = 8192;
    Bytes stats(AS_STATSLEN);
    ASSERT_EQ(adapstat_out(stats.data(), &st), AS_STATSLEN);
    EXPECT_EQ(stats[8], 0x01);
    EXPECT_EQ(stats[11], 7);
    EXPECT_EQ(Bytes(stats.begin() + 20, stats.begin() + 24), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(stats[44], 0x20);

    auto response = [&](int n, int rdlength, int entries) {
        Bytes rdata = {uint8_t(n)};
        for (int i = 0; i < entries; i++) {
            rdata.insert(rdata.end(), kName, kName + 16);
            rdata.push_back(i % 2 ? 0x84 : 0x06), rdata.push_back(0);
        }
        rdata.insert(rdata.end(), stats.begin(), stats.end());
        return packet(0x84, {0, 1, 0, 0},
                      cat({encoded_name(), {0, 0x21, 0, 1, 0, 0, 0, 0, uint8_t(rdlength >> 8), uint8_t(rdlength)},
                           rdata}));
    };
    std::vector<as_name> recs(AS_MAXNAMES);
    as_stats got{};
    Bytes two = response(2, 18 * 2 + 47, 2);
    ASSERT_EQ(find_as_rfc(two.data(), int(two.size()), &got, recs.data()), 2);
    EXPECT_EQ(recs[0].flags, AS_PERMANENT);
    EXPECT_EQ(recs[1].flags, AS_GROUP);
    EXPECT_EQ(memcmp(recs[1].name, kName, 16), 0);
    EXPECT_EQ(memcmp(&got, &st, sizeof st), 0);

    const struct { const char* why; Bytes pkt; } refused[] = {
        {"RDLENGTH 46", response(0, 46, 0)},
        {"201 names", response(201, 1500, 201)},
        {"NUM_NAMES beyond the names present", response(3, 18 * 3 + 47, 2)},
        {"statistics cut short", Bytes(two.begin(), two.end() - 1)},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.why);
        Bytes p = c.pkt;
        EXPECT_EQ(find_as_rfc(p.data(), int(p.size()), &got, recs.data()), -1);
    }
    Bytes max = response(200, 18 * 200 + 47, 200);
    EXPECT_EQ(find_as_rfc(max.data(), int(max.size()), &got, recs.data()), 200);
}

// Mutated and cut packets in buffers of their exact size: under the sanitizer
// build any read past the datagram fails the test. Fixed seed, bounded count.
TEST(Readers, StayInsideMutatedDatagrams) {
    std::vector<Bytes> seeds = {reg_request(NB_GROUP_BIT),
                                packet(0x84, {0, 1, 0, 0}, cat({encoded_name(), {0, 0x21, 0, 1, 0, 0, 0, 0, 0, 47, 0},
                                                               Bytes(46, 0)}))};
    uint32_t rnd = 12345;
    auto next = [&] { return rnd = rnd * 1103515245 + 12345, rnd >> 16; };
    std::vector<as_name> recs(AS_MAXNAMES);
    for (int i = 0; i < 20000; i++) {
        Bytes p = seeds[i % seeds.size()];
        for (int m = 0; m < 1 + int(next() % 4); m++)
            p[next() % p.size()] = uint8_t(next() % 3 == 0 ? 0xC0 | next() : next());
        p.resize(next() % (p.size() + 1));
        p.shrink_to_fit();
        npkt rec;
        uint32_t addr;
        int group;
        as_stats st;
        int len = int(p.size());
        int r = decode_npack(&rec, p.data(), len);
        ASSERT_TRUE(r == -1 || r == len);
        ASSERT_GE(find_ip_rfc(p.data(), len, &addr, &group), -1);
        ASSERT_LE(find_as_rfc(p.data(), len, &st, recs.data()), AS_MAXNAMES);
    }
}
