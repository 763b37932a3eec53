#include "src/getnpack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/reader.h"
#include "shr/uniinet.h"
#include "src/namelogin.h"
#include "src/ndump.h"

int32_t nb_type = 0;

namespace {

npkt in_rec;

// The name at offset 12 as the decoder reads it: the received bytes, then
// zeros. A name whose labels claim more bytes than arrived thus converts
// from zeros instead of from whatever the receive area held before; it is
// refused by find_flags or find_type whenever a count makes them read it.
uint8_t name_in[NPKT_AREA];
char name_text[288];

constexpr int HDRLEN = 12;

// A question name of one label of 32 letters A-P and no scope, the name
// nearly every datagram carries: decoded straight from the datagram, with
// the result the general conversion gives. False for anything else.
bool plain_name(npkt* rec, const uint8_t* bytes, int len)
{
    if (len < HDRLEN + NB_ENCLEN + 2 || bytes[HDRLEN] != NB_ENCLEN || bytes[HDRLEN + 1 + NB_ENCLEN] != 0)
        return false;
    const uint8_t* p = bytes + HDRLEN + 1;
    uint8_t name[NB_NAMELEN];
    for (int i = 0; i < NB_NAMELEN; i++) {
        // n_decode's arithmetic, checked on the way
        unsigned hi = p[2 * i] - unsigned('A');
        unsigned lo = p[2 * i + 1] - unsigned('A');
        if ((hi | lo) > 15)
            return false;
        name[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    memcpy(rec->name, name, sizeof name);
    return true;
}

// Any other name through its text form: the first label decoded, the rest
// kept as the scope. -1 when the name does not convert.
int convert_name(npkt* rec, const uint8_t* bytes, int len)
{
    memset(name_in, 0, sizeof name_in);
    memcpy(name_in, bytes + HDRLEN, static_cast<size_t>(len - HDRLEN));
    memset(name_text, 0, sizeof name_text);
    // d_to_vd reads at most about twice its output size: well inside name_in.
    if (d_to_vd(name_text, name_in, sizeof name_text) < 0)
        return -1;
    n_decode(rec->name, name_text);
    if (name_text[NB_ENCLEN] == '.')
        snprintf(rec->scope, sizeof rec->scope, "%s", name_text + NB_ENCLEN + 1);
    return 0;
}

uint16_t get16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

void put16(uint8_t* p, int v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

// Offset just after the name at off, or -1 when it runs past last_off
// (the offset of the last byte that may be read).
int skip_name_at(const uint8_t* bytes, int off, int last_off)
{
    if (off > last_off)
        return -1;
    const uint8_t* p = skip_name(bytes + off, bytes + last_off);
    return p == nullptr ? -1 : static_cast<int>(p - bytes);
}

// The answer record's data of a response: checks QDCOUNT 0 and ANCOUNT 1,
// skips the name within the response bound and type, class and TTL.
// A reader over the rest of the datagram, positioned at RDLENGTH; a failed
// reader when any of it is missing.
Reader answer_record(const uint8_t* bytes, int len)
{
    Reader hdr(bytes, static_cast<size_t>(len));
    hdr.skip(4);
    uint16_t qd = hdr.u16be();
    uint16_t an = hdr.u16be();
    if (!hdr.ok() || qd != 0 || an != 1)
        return Reader();
    int end = skip_name_at(bytes, HDRLEN, std::min(len, NPKT_RESPBOUND) - 1);
    if (end < 0)
        return Reader();
    Reader r(bytes, static_cast<size_t>(len));
    r.seek(static_cast<size_t>(end));
    r.skip(2 + 2 + 4);   // type, class, TTL
    return r;
}

}  // namespace

npkt* const inpkt = &in_rec;

// RFC 1002 4.2.1.2: a label's length byte has its top two bits clear; both
// set make a two-byte pointer. A pointer whose second byte is missing runs
// past the end too.
const uint8_t* skip_name(const uint8_t* pos, const uint8_t* last)
{
    const uint8_t* p = pos;
    for (;;) {
        if (p > last)
            return nullptr;
        uint8_t b = *p;
        if ((b & 0xC0) == 0xC0)
            return p + 1 > last ? nullptr : p + 2;
        if (b == 0)
            return p + 1;
        p += 1 + (b & 0x3F);
    }
}

// The fixed fields after a record's name (type, class, TTL, RDLENGTH and
// the NB_FLAGS looked for) are read only when the datagram holds them: a
// datagram that ends inside them is refused rather than read on into what
// the receive area held before.
int find_flags(const uint8_t* bytes, int len)
{
    if (len < HDRLEN)
        return -1;
    int qd = get16(bytes + 4);
    int records = get16(bytes + 6) + get16(bytes + 8) + get16(bytes + 10);
    int off = HDRLEN;
    for (int i = 0; i < qd; i++) {
        off = skip_name_at(bytes, off, len - 1);
        if (off < 0)
            return -1;
        off += 4;   // type and class
    }
    for (int i = 0; i < records; i++) {
        off = skip_name_at(bytes, off, len - 1);
        if (off < 0)
            return -1;
        Reader r(bytes, static_cast<size_t>(len));
        r.seek(static_cast<size_t>(off));
        uint16_t type = r.u16be();
        r.skip(2 + 4);   // class, TTL
        uint16_t rdlength = r.u16be();
        if (type == RR_NB) {
            uint16_t nb_flags = r.u16be();
            return r.ok() ? nb_flags : -1;
        }
        if (!r.ok())
            return -1;
        off += 10 + rdlength;
    }
    return 0;
}

int find_type(const uint8_t* bytes, int len)
{
    if (len < HDRLEN)
        return -1;
    if (get16(bytes + 4) == 0 && get16(bytes + 6) == 0)
        return 0;
    int off = skip_name_at(bytes, HDRLEN, len - 1);
    if (off < 0 || off + 2 > len)
        return -1;
    return get16(bytes + off);
}

// The one entry of every received datagram, checks in a fixed order: the
// name converts, the NB flags are found, the question type is read.
int decode_npack(npkt* rec, const uint8_t* bytes, int len)
{
    // A datagram without a whole header has no type to dispatch on.
    if (len < HDRLEN || len > NPKT_AREA) {
        TRACE(proc, 3, "decode_npack: bad length %d\n", len);
        return -1;
    }
    rec->nb_ver = 0;
    rec->size = len;
    rec->flags = 0;
    rec->raw = bytes;
    rec->scope[0] = '\0';
    rec->pktid[0] = static_cast<uint32_t>(bytes[0] | bytes[1] << 8);
    rec->pktid[1] = 0;
    rec->type = bytes[2] & 0xF8;

    if (!plain_name(rec, bytes, len) && convert_name(rec, bytes, len) < 0) {
        TRACE(proc, 3, "decode_npack: d_to_vd failed\n");
        return -1;
    }

    int nb_flags = find_flags(bytes, len);
    if (nb_flags < 0) {
        TRACE(proc, 3, "decode_npack: find_flags failed\n");
        return -1;
    }
    if (nb_flags & NB_GROUP_BIT)
        rec->flags |= NPKT_GROUP;
    int type = find_type(bytes, len);
    if (type < 0) {
        TRACE(proc, 3, "decode_npack: find_type failed\n");
        return -1;
    }
    if (type == RR_NBSTAT)
        rec->flags |= NPKT_STAT;

    if (tcfile != nullptr && tc_in >= 3)
        ndump(tcfile, rec, tc_in);
    return len;
}

void fill_counts(uint8_t* bytes, int qdcount, int ancount, int nscount, int arcount)
{
    // A count we send is at most 255: high byte 0.
    const int counts[4] = {qdcount, ancount, nscount, arcount};
    for (int i = 0; i < 4; i++) {
        bytes[4 + 2 * i] = 0;
        bytes[5 + 2 * i] = static_cast<uint8_t>(counts[i]);
    }
}

int fill_quest_hdr(uint8_t* pos, int type, int cls)
{
    put16(pos, type);
    put16(pos + 2, cls);
    return 4;
}

int fill_rr_header(uint8_t* pos, int type, int cls, uint32_t ttl, int rdlength)
{
    put16(pos, type);
    put16(pos + 2, cls);
    put16(pos + 4, static_cast<int>(ttl >> 16));
    put16(pos + 6, static_cast<int>(ttl & 0xFFFF));
    put16(pos + 8, rdlength);
    return 10;
}

int fill_rr_nb(uint8_t* pos, int nb_flags, uint32_t addr)
{
    put16(pos, nb_flags);
    memcpy(pos + 2, &addr, 4);   // already in network order
    return 6;
}

int fill_nbname(uint8_t* pos, const uint8_t* name)
{
    if (nb_scope[0] == '\0') {
        // Without a scope the name is one label: its length, the 32
        // characters, the terminating zero (what vd_to_d makes of them).
        pos[0] = NB_ENCLEN;
        n_encode(reinterpret_cast<char*>(pos + 1), name);  // its '\0' ends the name
        return NB_ENCLEN + 2;
    }
    char text[NPKT_NAMETEXT];
    n_encode(text, name);
    // nb_scope holds at most 255 characters: 32 + 1 + 255 + 1 fit.
    snprintf(text + NB_ENCLEN, sizeof text - NB_ENCLEN, ".%s", nb_scope);
    vd_to_d(pos, text);
    return static_cast<int>(strlen(reinterpret_cast<const char*>(pos))) + 1;
}

void init_outpkt(npkt* rec, uint8_t* area, int type, const uint8_t* name)
{
    memset(rec, 0, sizeof *rec);
    rec->nb_ver = nb_type;
    rec->type = type;
    memcpy(rec->name, name, sizeof rec->name);
    memcpy(rec->scope, nb_scope, strnlen(nb_scope, sizeof rec->scope - 1));  // rec is zeroed: ends in '\0'
    rec->raw = area;
}

// RFC 1002 4.2.18 STATISTICS, big-endian on the wire.
int adapstat_out(uint8_t* pos, const as_stats* st)
{
    Writer w(pos, AS_STATSLEN);
    w.bytes(st->unit_id, sizeof st->unit_id);
    w.u8(st->jumpers);
    w.u8(st->test_result);
    for (uint16_t v : {st->version, st->period, st->crcs, st->align_errors, st->collisions,
                       st->send_aborts})
        w.u16be(v);
    w.u32be(st->good_sends);
    w.u32be(st->good_receives);
    for (uint16_t v : {st->retransmits, st->no_resources, st->free_ncbs, st->total_ncbs,
                       st->max_total_ncbs, st->pending_sessions, st->max_pending_sessions,
                       st->max_sessions, st->session_size})
        w.u16be(v);
    return AS_STATSLEN;
}

int adapstat_in(as_stats* st, const uint8_t* pos)
{
    Reader r(pos, AS_STATSLEN);
    memset(st, 0, sizeof *st);
    r.copy(st->unit_id, sizeof st->unit_id);
    st->jumpers = r.u8();
    st->test_result = r.u8();
    for (uint16_t* v : {&st->version, &st->period, &st->crcs, &st->align_errors, &st->collisions,
                        &st->send_aborts})
        *v = r.u16be();
    st->good_sends = r.u32be();
    st->good_receives = r.u32be();
    for (uint16_t* v : {&st->retransmits, &st->no_resources, &st->free_ncbs, &st->total_ncbs,
                        &st->max_total_ncbs, &st->pending_sessions, &st->max_pending_sessions,
                        &st->max_sessions, &st->session_size})
        *v = r.u16be();
    return AS_STATSLEN;
}

// RFC 1002 4.2.13: the positive query response's first NB_ADDRESS.
int find_ip_rfc(const uint8_t* bytes, int len, uint32_t* addr, int* group)
{
    Reader r = answer_record(bytes, len);
    uint16_t rdlength = r.u16be();
    if (!r.ok() || rdlength < 6)
        return -1;
    uint16_t nb_flags = r.u16be();
    uint32_t a = 0;
    if (!r.copy(&a, 4))
        return -1;
    *group = (nb_flags & NB_GROUP_BIT) ? 1 : 0;
    *addr = a;
    TRACE(proc, 5, "find_ip_rfc: got type %d, addr %s\n", *group, nm_ntoa(a));
    return 0;
}

// RFC 1002 4.2.18: NUM_NAMES, the names with their flags, the statistics.
int find_as_rfc(const uint8_t* bytes, int len, as_stats* st, as_name* recs)
{
    Reader r = answer_record(bytes, len);
    uint16_t rdlength = r.u16be();
    if (!r.ok() || rdlength < 47)
        return -1;
    int n = r.u8();
    if (n > AS_MAXNAMES)
        return -1;
    // The names and the statistics must have arrived before any is kept.
    if (r.left() < static_cast<size_t>(n) * 18 + AS_STATSLEN)
        return -1;
    for (int i = 0; i < n; i++) {
        r.copy(recs[i].name, sizeof recs[i].name);
        uint8_t hi = r.u8();
        r.u8();
        recs[i].flags = ((hi & 0x80) ? AS_GROUP : 0) | ((hi & 0x02) ? AS_PERMANENT : 0);
    }
    adapstat_in(st, r.bytes(AS_STATSLEN).data());
    return n;
}

// RFC 1002 4.2.5, 4.2.16: the TTL is the four bytes before RDLENGTH.
int find_ttl_rfc(const uint8_t* bytes, int len, uint32_t* ttl)
{
    Reader r = answer_record(bytes, len);
    if (!r.ok() || !r.seek(r.pos() - 4))
        return -1;
    uint32_t v = r.u32be();
    if (!r.ok())
        return -1;
    *ttl = v;
    return 0;
}
