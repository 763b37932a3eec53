#include "src/query.h"

#include <algorithm>
#include <cstring>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/dorequest.h"
#include "src/ens.h"
#include "src/enstable.h"
#include "src/ensunk.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ndump.h"
#include "src/ntable.h"
#include "src/service.h"
#include "src/stats.h"

namespace {

constexpr int HDRLEN = 12;
constexpr int RRHDRLEN = 10;   // type, class, TTL, RDLENGTH
constexpr int AS_ENTRYLEN = 18;
constexpr int NAME_ACTIVE = 0x0400;
constexpr int NAME_PERMANENT = 0x0200;
constexpr int NAME_MAXCOUNT = 255;   // NUM_NAMES is one byte

uint32_t query_ct = 0;     // id of the next name query
uint32_t statreq_ct = 0;   // id of the next status request
uint32_t status_ct = 1;    // positive status responses built, plus one

// The outgoing packets: built and sent before the next one is started.
npkt out_rec;
uint8_t out_area[NPKT_AREA];
uint8_t perm[16];
as_name as_recs[AS_MAXNAMES];

// An outgoing record's raw is the area given to init_outpkt, ours to write.
uint8_t* area_of(npkt* rec)
{
    return const_cast<uint8_t*>(rec->raw);
}

// The question name of a request as received: from offset 12 up to and
// including its zero byte (or its two-byte pointer). Its length, or -1 when
// it runs past the datagram.
int question_name(const npkt* in)
{
    if (in->size <= HDRLEN)
        return -1;
    const uint8_t* end = skip_name(in->raw + HDRLEN, in->raw + in->size - 1);
    return end == nullptr ? -1 : static_cast<int>(end - in->raw) - HDRLEN;
}

// Id bytes, the two flag bytes, counts 0, 1, 0, 0 and the request's name:
// the start of either status response. The offset after the name, or -1
// when the name does not arrive whole or leaves no room for rest more bytes.
int response_start(uint8_t* p, const npkt* in, int b3, int rest)
{
    int n = question_name(in);
    if (n < 0 || HDRLEN + n + rest > NPKT_AREA)
        return -1;
    p[0] = in->raw[0];
    p[1] = in->raw[1];
    p[2] = 0x84;   // response, opcode 0, AA
    p[3] = static_cast<uint8_t>(b3);
    fill_counts(p, 0, 1, 0, 0);
    memcpy(p + HDRLEN, in->raw + HDRLEN, static_cast<size_t>(n));
    return HDRLEN + n;
}

uint32_t sender_of(const npkt* rec)
{
    uint32_t from = 0;
    if (uatoian(&from, nullptr, &rec->addr) < 0)
        return 0;
    return from;
}

}  // namespace

// RFC 1002 4.2.12 (name query request) and 4.2.17 (node status request).
int build_query(npkt* rec, uint32_t id, int stat)
{
    uint8_t* p = area_of(rec);
    p[0] = static_cast<uint8_t>(id >> 8);
    p[1] = static_cast<uint8_t>(id);
    p[2] = stat ? 0x00 : 0x01;   // opcode 0, RD for a name query
    p[3] = stat ? 0x00 : 0x10;   // B: a name query is broadcast
    fill_counts(p, 1, 0, 0, 0);
    int n = fill_nbname(p + HDRLEN, rec->name);
    fill_quest_hdr(p + HDRLEN + n, stat ? RR_NBSTAT : RR_NB, RR_IN);
    rec->pktid[0] = static_cast<uint32_t>(p[0] | p[1] << 8);
    rec->pktid[1] = 0;
    if (stat)
        rec->flags |= NPKT_STAT;
    rec->size = HDRLEN + n + 4;
    return rec->size;
}

void name_query(const uint8_t* name)
{
    TRACE(proc, 1, "name_query: sending query for %s\n", nm_printable(name));
    init_outpkt(&out_rec, out_area, NT_QUERY, name);
    build_query(&out_rec, query_ct, 0);
    query_ct++;
    dg_allbcast(out_area, out_rec.size);
}

int find_ip(const npkt* rec, uint32_t* addr, int* group)
{
    return find_ip_rfc(rec->raw, rec->size, addr, group);
}

// RFC 1002 4.2.13: a positive name query response. Matched to the waiting
// lookup by the name alone: the broadcast went to every interface, so any
// station may answer, with any id.
void check_lookup(const npkt* rec)
{
    uint32_t from = sender_of(rec);
    if (nda_ct > 0 && ens_a_lookup(from) == nullptr) {
        TRACE(proc, 3, "check_lookup: unknown sender\n");
        unk_as_query(rec->name, from);
    }
    int32_t id = 0;
    uint32_t xid = 0;
    if (get_luname(rec->name, &id, &xid) < 0) {
        TRACE(proc, 3, "check_lookup: unknown name\n");
        return;
    }
    uint32_t addr = 0;
    int group = 0;
    if (find_ip(rec, &addr, &group) < 0) {
        TRACE(proc, 1, "check_lookup: find_ip failed\n");
        return;   // the lookup waits on for its time-out
    }
    rm_lu(id);
    stat_inc(ST_LOOKUP_BROADCAST);
    finish_lookup(addr, group, xid);
}

const uint8_t* perm_name(uint32_t address)
{
    memset(perm, 0, sizeof perm);
    memcpy(perm + 10, &address, 4);
    return perm;
}

void build_adapstat(as_stats* st)
{
    memset(st, 0, sizeof *st);
    if (my_addr_ct > 0)
        memcpy(st->unit_id, &my_addr[0].addr, 4);
    st->version = 0x0101;
    st->period = static_cast<uint16_t>(status_ct);
    st->good_sends = status_ct;
    st->good_receives = status_ct;
    st->free_ncbs = 16;
    st->total_ncbs = 16;
    st->max_total_ncbs = 32;
    st->pending_sessions = 2;
    st->max_pending_sessions = 32;
    st->max_sessions = 32;
    st->session_size = 8192;
}

// RFC 1002 4.2.18: the local names in table order, then the permanent node
// name of every own address, then the statistics.
//
// The response never grows past its NPKT_AREA bytes nor past 255 names.
// When the table has more names than fit, the names at its end are left
// out: the permanent names keep their room first, since other hosts ask for
// them to learn which addresses belong to us. RFC 1002 has no way to say
// that more names exist, so a long table is answered in part rather than
// not at all. A request whose name leaves no room even for the permanent
// names gets no response.
int pos_adapstat(npkt* out, const npkt* in)
{
    uint8_t* p = area_of(out);
    out->size = 0;
    int off = response_start(p, in, 0x00, RRHDRLEN + 1 + AS_STATSLEN);
    if (off < 0)
        return 0;
    int t = 0;
    for (const nt_entry* e = n_table; e != nullptr; e = e->next)
        t++;
    int a = std::max(my_addr_ct, 0);
    int room = (NPKT_AREA - off - RRHDRLEN - 1 - AS_STATSLEN) / AS_ENTRYLEN;
    room = std::min(room, NAME_MAXCOUNT);
    if (room < a) {
        TRACE(proc, 1, "pos_adapstat: no room for %d names\n", a);
        return 0;
    }
    int tn = std::min(t, room - a);
    if (tn < t)
        TRACE(proc, 1, "pos_adapstat: %d of %d local names sent\n", tn, t);
    int count = tn + a;

    off += fill_rr_header(p + off, RR_NBSTAT, RR_IN, 0, AS_ENTRYLEN * count + 1 + AS_STATSLEN);
    p[off++] = static_cast<uint8_t>(count);
    const nt_entry* e = n_table;
    for (int i = 0; i < tn; i++, e = e->next) {
        memcpy(p + off, e->name, 16);
        int flags = NAME_ACTIVE | ((e->flags & NT_GROUP) ? NB_GROUP_BIT : 0);
        p[off + 16] = static_cast<uint8_t>(flags >> 8);
        p[off + 17] = static_cast<uint8_t>(flags);
        off += AS_ENTRYLEN;
    }
    for (int i = 0; i < a; i++) {
        memcpy(p + off, perm_name(my_addr[i].addr), 16);
        p[off + 16] = static_cast<uint8_t>((NAME_ACTIVE | NAME_PERMANENT) >> 8);
        p[off + 17] = 0;
        off += AS_ENTRYLEN;
    }
    as_stats st;
    build_adapstat(&st);
    status_ct++;
    off += adapstat_out(p + off, &st);
    out->pktid[0] = in->pktid[0];
    out->size = off;
    return out->size;
}

// RFC 1002 4.2.18 with RCODE 3 (name error) and a NULL record. A broadcast
// request for a name we do not hold is for another station: no answer.
int neg_adapstat(npkt* out, const npkt* in)
{
    uint8_t* p = area_of(out);
    out->size = 0;
    if (in->size < HDRLEN || (in->raw[3] & 0x10))
        return 0;
    int off = response_start(p, in, 0x03, RRHDRLEN);
    if (off < 0)
        return 0;
    off += fill_rr_header(p + off, RR_NULL, RR_IN, 0, 0);
    out->pktid[0] = in->pktid[0];
    out->size = off;
    return out->size;
}

// The wildcard name of a node status request: "*" and fifteen zero bytes
// (RFC 1002 4.2.17), what nmblookup -A and nbtstat -A ask for.
namespace {
bool wildcard_name(const uint8_t* name)
{
    static constexpr uint8_t wildcard[16] = {'*'};
    return memcmp(name, wildcard, sizeof wildcard) == 0;
}
}  // namespace

// RFC 1002 4.2.17: a node status request. Neither the scope nor the sender
// is checked: any station may ask, for any of our names, and for the
// wildcard name when NB-wildcard-status is on.
void answer_adapstat(const npkt* rec)
{
    init_outpkt(&out_rec, out_area, NT_QUERY_RESP, rec->name);
    out_rec.flags = NPKT_STAT;
    if (name_present(rec->name) != nullptr || (wildcard_status != 0 && wildcard_name(rec->name)))
        pos_adapstat(&out_rec, rec);
    else
        neg_adapstat(&out_rec, rec);
    if (out_rec.size <= 0)
        return;
    if (tcfile != nullptr && tc_out >= 1) {
        TRACE(out, 1, "answer_adapstat: sending response\n");
        ndump(tcfile, &out_rec, tc_out);
    }
    stat_inc(ST_STATUS_ANSWERED);
    dg_dsend(out_area, out_rec.size, &rec->addr);
}

void adapstat_query(const uint8_t* name, uint32_t address)
{
    TRACE(proc, 1, "adapstat_query called, name %s\n", nm_printable(name));
    init_outpkt(&out_rec, out_area, NT_QUERY, name);
    build_query(&out_rec, statreq_ct, 1);
    statreq_ct++;
    UniAddr to{};
    iantoua(&to, address, nmport);
    ens_asked(address);
    if (tc_out != 0 && tcfile != nullptr) {
        TRACE(out, 1, "adapstat_query: sending query\n");
        ndump(tcfile, &out_rec, tc_out);
    }
    dg_dsend(out_area, out_rec.size, &to);
}

int find_adapstat(const npkt* rec, as_stats* st, as_name* recs)
{
    return find_as_rfc(rec->raw, rec->size, st, recs);
}

// RFC 1002 4.2.18: a node status response, matched to the waiting request
// by the sender's address alone.
void check_adapstat(const npkt* rec)
{
    as_stats st;
    int n = find_adapstat(rec, &st, as_recs);
    if (n < 0) {
        TRACE(proc, 1, "check_adapstat: find_adapstat failed\n");
        return;
    }
    uint32_t from = sender_of(rec);
    int32_t id = 0;
    uint32_t xid = 0;
    bool waited = get_luaddr(from, &id, &xid) == 0;
    if (waited) {
        rm_lu(id);
        finish_adapstat(&st, as_recs, n, xid);
    }
    if (nda_ct > 0 && (ens_may_learn(from) || waited))
        ens_gotnames(as_recs, n, from);
}
