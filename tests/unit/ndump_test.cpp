#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "nmtrace.h"
#include "src/getnpack.h"
#include "src/ndump.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Capture {  // a memory stream, read back as text
    char* buf = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&buf, &size);
    std::string text()
    {
        fflush(f);
        return std::string(buf, size);
    }
    ~Capture()
    {
        fclose(f);
        free(buf);
    }
};

// A defence: registration response, RCODE 6, for 15 blanks and type 0x20.
Bytes defence()
{
    Bytes b(NPKT_AREA, 0);
    const uint8_t blanks[16] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0x20};
    b[0] = 0xAB, b[1] = 0xCD, b[2] = 0xAD, b[3] = 0x86;
    fill_counts(b.data(), 0, 1, 0, 0);
    int len = fill_nbname(b.data() + 12, blanks);
    len += fill_rr_header(b.data() + 12 + len, RR_NB, RR_IN, 0, 6);
    len += fill_rr_nb(b.data() + 12 + len, 0, 0x0100580a);
    b.resize(12 + len);
    return b;
}

npkt record_of(const Bytes& b, int type, uint32_t flags)
{
    npkt rec{};
    rec.type = type;
    rec.flags = flags;
    rec.size = int(b.size());
    rec.pktid[0] = 0xCDAB;
    rec.raw = b.data();
    return rec;
}

std::string summary(const char* type, int size, const char* flags)
{
    char s[200];
    snprintf(s, sizeof s, "\nName Service Packet --\n\ttype %s\n\tsize %d\n\tflags %s\n\tpktid cdab 0\n\n", type,
             size, flags);
    return s;
}

}  // namespace

TEST(Ndump, SectionsByLevel) {
    Bytes b = defence();
    npkt rec = record_of(b, NT_REGISTER_RESP, NPKT_GROUP);
    const std::string head = summary("Name Registration Response", 62, "0001 GROUP");
    const std::string rfc =
        "External form (RFC 1001) --\n"
        "\ttrn_id\tabcd\n"
        "\topcode\tName Registration Response\n"
        "\tflags\tAA RD RA \n"
        "\trcode\tActive Error\n"
        "\tqdcount\t0\n\tancount\t1\n\tnscount\t0\n\tarcount\t0\n"
        "\tname\t\"               \"<20>\n"
        "\tdata --\n";
    const std::string hex = "External form (full hex dump) --\n\tab cd ad 86";
    for (int level : {1, 2, 3, 4, 5, 6}) {
        SCOPED_TRACE(level);
        Capture c;
        ndump(c.f, &rec, level);
        std::string t = c.text();
        ASSERT_EQ(t.substr(0, head.size()), head);
        if (level < 3) {
            EXPECT_EQ(t, head);
            continue;
        }
        size_t at_rfc = t.find(rfc);
        ASSERT_NE(at_rfc, std::string::npos) << t;
        size_t at_hex = t.find(hex);
        if (level >= 5)
            EXPECT_TRUE(at_hex == head.size() && at_hex < at_rfc) << t;
        else
            EXPECT_EQ(at_rfc, head.size());
        // the data section dumps the packet from offset 12: 50 bytes, 4 lines
        std::string data = t.substr(at_rfc + rfc.size());
        EXPECT_EQ(data.rfind("\t20 43 41", 0), 0u) << data;
        EXPECT_EQ(std::count(data.begin(), data.end(), '\n'), 5);
    }
}

TEST(Ndump, TypeAndOpcodeTexts) {
    const struct { int b2; uint32_t flags; const char* type; const char* opcode; const char* bits; } cases[] = {
        {0x00, NPKT_STAT, "Adapter Status Request", "Query Request", "B "},
        {0x01, 0, "Name Query Request", "Query Request", "RD B "},
        {0x86, NPKT_STAT, "Adapter Status Response", "Query Response", "AA TC B "},
        {0x38, 0, "Wait For Acknowledgment", "Wait for Acknowledgement", "B "},
        {0xB8, 0, "Wait For Acknowledgement Response", "Wait for Acknowledgement Response", "B "},
        {0x48, 0, "Unrecognized (48)", "Unrecognized -- 48", "B "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        Bytes b = defence();
        b[2] = uint8_t(c.b2);
        b[3] = 0x1F;  // B and RCODE 15
        npkt rec = record_of(b, c.b2 & 0xF8, c.flags);
        Capture cap;
        ndump(cap.f, &rec, 3);
        std::string t = cap.text();
        EXPECT_NE(t.find(std::string("\ttype ") + c.type + "\n"), std::string::npos) << t;
        EXPECT_NE(t.find(std::string("\topcode\t") + c.opcode + "\n"), std::string::npos) << t;
        EXPECT_NE(t.find("\trcode\tUnrecognized -- 0f\n"), std::string::npos);
        EXPECT_NE(t.find(std::string("\tflags\t") + c.bits + "\n"), std::string::npos) << t;
    }
    EXPECT_STREQ(str_flags(NPKT_GROUP | NPKT_STAT), "0003 GROUP STAT");
}

TEST(Ndump, ShortPacketsReadOnlyTheirBytes) {
    Bytes full = defence();
    for (int len : {1, 11, 12, 44}) {
        SCOPED_TRACE(len);
        Bytes cut(full.begin(), full.begin() + len);
        cut.shrink_to_fit();
        npkt rec = record_of(cut, NT_REGISTER_RESP, 0);
        Capture c;
        ndump(c.f, &rec, 5);
        EXPECT_NE(c.text().find("\t(short packet)\n"), std::string::npos);
    }
}

TEST(Ndump, DecodeDumpsAtTheInLevel) {
    Bytes b = defence();
    Capture c;
    FILE* saved = tcfile;
    tcfile = c.f;
    for (int level : {2, 3}) {
        tc_in = level;
        npkt rec;
        ASSERT_EQ(decode_npack(&rec, b.data(), int(b.size())), int(b.size()));
    }
    tc_in = 0;
    tcfile = saved;
    std::string t = c.text();
    EXPECT_EQ(t.find("Name Service Packet"), t.rfind("Name Service Packet"));  // once, at level 3
    EXPECT_NE(t.find("External form (RFC 1001)"), std::string::npos);
    EXPECT_EQ(t.find("full hex dump"), std::string::npos);
}
