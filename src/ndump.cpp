#include "src/ndump.h"

#include <cctype>
#include <iterator>

#include "misc/nencode.h"

namespace {

char type_buf[48];
char flags_buf[32];

struct TypeText {
    int type;
    const char* text;
    const char* stat_text;   // with STAT, or null
};

constexpr TypeText summary_types[] = {
    {NT_QUERY, "Name Query Request", "Adapter Status Request"},
    {NT_REGISTER, "Name Registration Request", nullptr},
    {NT_RELEASE, "Name Release Request", nullptr},
    {NT_WACK, "Wait For Acknowledgment", nullptr},
    {NT_REFRESH, "Name Refresh Request", nullptr},
    {NT_QUERY_RESP, "Name Query Response", "Adapter Status Response"},
    {NT_REGISTER_RESP, "Name Registration Response", nullptr},
    {NT_RELEASE_RESP, "Name Release Response", nullptr},
    {NT_WACK_RESP, "Wait For Acknowledgement Response", nullptr},
    {NT_REFRESH_RESP, "Name Refresh Response", nullptr},
};

constexpr TypeText opcode_texts[] = {
    {NT_QUERY, "Query Request\n", nullptr},
    {NT_REGISTER, "Name Registration Request\n", nullptr},
    {NT_RELEASE, "Name Release Request\n", nullptr},
    {NT_WACK, "Wait for Acknowledgement\n", nullptr},
    {NT_REFRESH, "Name Refresh Request\n", nullptr},
    {NT_QUERY_RESP, "Query Response\n", nullptr},
    {NT_REGISTER_RESP, "Name Registration Response\n", nullptr},
    {NT_RELEASE_RESP, "Name Release Response\n", nullptr},
    {NT_WACK_RESP, "Wait for Acknowledgement Response\n", nullptr},
    {NT_REFRESH_RESP, "Name Refresh Response\n", nullptr},
};

// RFC 1002 4.2.1.1 RCODE values.
constexpr const char* rcode_texts[] = {
    "0\n", "Format Error\n", "Server Failure\n", "Unknown name\n",
    "Unsupported Request\n", "Request Refused\n", "Active Error\n", "Name In Conflict\n",
};

constexpr int HDRLEN = 12;
constexpr int NAME_END = 13 + NB_ENCLEN;   // the length byte at 12, then 32 letters

int be16(const uint8_t* p)
{
    return p[0] << 8 | p[1];
}

}  // namespace

const char* str_type(const npkt* rec)
{
    for (const auto& t : summary_types)
        if (t.type == rec->type)
            return (rec->flags & NPKT_STAT) && t.stat_text != nullptr ? t.stat_text : t.text;
    snprintf(type_buf, sizeof type_buf, "Unrecognized (%02x)", static_cast<unsigned>(rec->type));
    return type_buf;
}

const char* str_flags(uint32_t flags)
{
    snprintf(flags_buf, sizeof flags_buf, "%04x%s%s", flags, (flags & NPKT_GROUP) ? " GROUP" : "",
             (flags & NPKT_STAT) ? " STAT" : "");
    return flags_buf;
}

void ndump(FILE* stream, const npkt* rec, int level)
{
    fprintf(stream, "\nName Service Packet --\n");
    fprintf(stream, "\ttype %s\n", str_type(rec));
    fprintf(stream, "\tsize %d\n", rec->size);
    fprintf(stream, "\tflags %s\n", str_flags(rec->flags));
    fprintf(stream, "\tpktid %lx %lx\n\n", static_cast<unsigned long>(rec->pktid[0]),
            static_cast<unsigned long>(rec->pktid[1]));
    if (level >= 3 && rec->raw != nullptr) {
        // size never counts beyond the packet area
        int len = rec->size < 0 ? 0 : rec->size > NPKT_AREA ? NPKT_AREA : rec->size;
        if (level >= 5)
            nd_hex(stream, rec->raw, len);
        nd_rfc(stream, rec->raw, len);
    }
    fflush(stream);
}

void nd_hex(FILE* stream, const uint8_t* bytes, int len)
{
    fprintf(stream, "External form (full hex dump) --\n");
    dump_bytes(stream, bytes, len > 0 ? static_cast<size_t>(len) : 0);
    fprintf(stream, "\n");
}

void dump_rfc_type(FILE* stream, int b2)
{
    int type = b2 & 0xF8;
    fprintf(stream, "\topcode\t");
    for (const auto& t : opcode_texts)
        if (t.type == type) {
            fputs(t.text, stream);
            return;
        }
    fprintf(stream, "Unrecognized -- %02x\n", static_cast<unsigned>(type));
}

void dump_flags(FILE* stream, int b2, int b3)
{
    fprintf(stream, "\tflags\t%s%s%s%s%s\n", (b2 & 0x04) ? "AA " : "", (b2 & 0x02) ? "TC " : "",
            (b2 & 0x01) ? "RD " : "", (b3 & 0x80) ? "RA " : "", (b3 & 0x10) ? "B " : "");
}

void dump_rcode(FILE* stream, int b3)
{
    int rcode = b3 & 0x0F;
    fprintf(stream, "\trcode\t");
    if (rcode < static_cast<int>(std::size(rcode_texts)))
        fputs(rcode_texts[rcode], stream);
    else
        fprintf(stream, "Unrecognized -- %02x\n", static_cast<unsigned>(rcode));
}

void dump_name(FILE* stream, const uint8_t* encoded)
{
    char letters[NB_ENCLEN + 1];
    for (int i = 0; i < NB_ENCLEN; i++)
        letters[i] = static_cast<char>(encoded[i]);
    letters[NB_ENCLEN] = '\0';
    uint8_t name[NB_NAMELEN];
    n_decode(name, letters);
    fprintf(stream, "\tname\t\"");
    for (int i = 0; i < NB_NAMELEN - 1; i++) {
        int c = name[i];
        if (c < 128 && (isalpha(c) || isdigit(c) || ispunct(c) || isblank(c)))
            fprintf(stream, "%c", c);
        else
            fprintf(stream, "<%02x>", static_cast<unsigned>(c));
    }
    fprintf(stream, "\"<%02x>\n", static_cast<unsigned>(name[NB_NAMELEN - 1]));
}

// A packet too short for a field shows "(short packet)" in its place and the
// lines after it are left out: only bytes of the packet are ever read.
void nd_rfc(FILE* stream, const uint8_t* bytes, int len)
{
    fprintf(stream, "External form (RFC 1001) --\n");
    if (len < HDRLEN) {
        fprintf(stream, "\t(short packet)\n");
        return;
    }
    fprintf(stream, "\ttrn_id\t%04x\n", static_cast<unsigned>(be16(bytes)));
    dump_rfc_type(stream, bytes[2]);
    dump_flags(stream, bytes[2], bytes[3]);
    dump_rcode(stream, bytes[3]);
    fprintf(stream, "\tqdcount\t%d\n", be16(bytes + 4));
    fprintf(stream, "\tancount\t%d\n", be16(bytes + 6));
    fprintf(stream, "\tnscount\t%d\n", be16(bytes + 8));
    fprintf(stream, "\tarcount\t%d\n", be16(bytes + 10));
    if (len < NAME_END)
        fprintf(stream, "\t(short packet)\n");
    else
        dump_name(stream, bytes + 13);
    fprintf(stream, "\tdata --\n");
    dump_bytes(stream, bytes + HDRLEN, static_cast<size_t>(len - HDRLEN));
    fprintf(stream, "\n");
}
