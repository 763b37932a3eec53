#include "src/service.h"

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/claim.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/enstable.h"
#include "src/ensunk.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ndump.h"
#include "src/ntable.h"
#include "src/query.h"
#include "src/stats.h"
#include "src/wins.h"

namespace {

uint8_t out_area[NPKT_AREA];
npkt out_rec;

// The sender's IPv4 address into *from (0 when it is none); true when it is
// one of ours: its ENS address entry has no host, entered for each of our
// interfaces at start, so our own broadcasts received back are recognised.
bool own_sender(const npkt* rec, uint32_t* from)
{
    *from = 0;
    if (uatoian(from, nullptr, &rec->addr) != 0)
        return false;   // not an internet address: not one of ours
    const EnsAddr* a = ens_a_lookup(*from);
    return a != nullptr && a->host == nullptr;
}

// RFC 1001 15.1.1: requests from another scope are not ours to answer. The
// scope's letters compare without regard to case, as DNS names do.
bool scope_ok(const npkt* rec, const char* who)
{
    if (crs_icstrcmp(rec->scope, nb_scope) == 0)
        return true;
    TRACE(proc, 3, "%s: NetBIOS scopes don't match: %s, %s\n", who, rec->scope, nb_scope);
    return false;
}

// RFC 1002 4.2.13 / 4.2.6: a response with the answer record only.
//   id(2) b2 b3 | counts 0 1 0 0 | name(N) NB IN TTL 0 6 | flags addr
int send_answer(const uint8_t* name, uint32_t flags, uint32_t own, const UniAddr* to,
                const uint32_t* pktid, uint8_t b2, uint8_t b3, int type, const char* who)
{
    init_outpkt(&out_rec, out_area, type, name);
    uint8_t* p = out_area;
    // The id goes back as its two bytes arrived (the record keeps the first low).
    p[0] = static_cast<uint8_t>(pktid[0]);
    p[1] = static_cast<uint8_t>(pktid[0] >> 8);
    p[2] = b2;
    p[3] = b3;
    fill_counts(p, 0, 1, 0, 0);
    int off = 12;
    off += fill_nbname(p + off, name);
    off += fill_rr_header(p + off, RR_NB, RR_IN, 0, 6);
    off += fill_rr_nb(p + off, (flags & NT_GROUP) ? NB_GROUP_BIT : 0, own);
    out_rec.flags = (flags & NT_GROUP) ? NPKT_GROUP : 0;
    out_rec.pktid[0] = pktid[0];
    out_rec.pktid[1] = pktid[1];
    out_rec.size = off;
    if (tcfile != nullptr && tc_out >= 1) {
        TRACE(out, 1, "%s: sending response\n", who);
        ndump(tcfile, &out_rec, tc_out);
    }
    return dg_dsend(out_area, off, to);
}

}  // namespace

nt_entry* name_present(const uint8_t* name)
{
    return strict ? nt_search(name) : nt_icsearch(name);
}

int ip_maskeq(uint32_t a, uint32_t b, uint32_t mask)
{
    return ((a ^ b) & mask) == 0;
}

// With no interface at all there is no address to give: 0.
uint32_t matching_addr(uint32_t addr)
{
    for (int i = 0; i < my_addr_ct; i++) {
        if (ip_maskeq(my_addr[i].addr, addr, my_addr[i].mask))
            return my_addr[i].addr;
    }
    return my_addr_ct > 0 ? my_addr[0].addr : 0;
}

// RFC 1002 4.2.13: positive name query response, AA and RD set.
int answer_query(const uint8_t* name, uint32_t flags, uint32_t own, const UniAddr* to,
                 const uint32_t* pktid)
{
    return send_answer(name, flags, own, to, pktid, 0x85, 0x00, NT_QUERY_RESP, "answer_query");
}

// RFC 1002 4.2.6: negative registration response, RCODE 6 (ACT_ERR: the name
// is owned by another node), AA, RD and RA set.
int defend_name(const uint8_t* name, uint32_t flags, uint32_t own, const UniAddr* to,
                const uint32_t* pktid)
{
    return send_answer(name, flags, own, to, pktid, 0xAD, 0x86, NT_REGISTER_RESP, "defend_name");
}

void process_npkt(const npkt* rec)
{
    if (tcfile != nullptr && tc_in >= 5) {
        TRACE(in, 5, "process_npkt: pkt contains:\n");
        TRACE(in, 5, "\tnb_ver %d, type %d, size %d, flags 0x%8.8x\n", rec->nb_ver, rec->type,
              rec->size, rec->flags);
        TRACE(in, 5, "\taddr %s, scope %s\n", uni_ntoa(&rec->addr), rec->scope);
    }
    TRACE(proc, 1, "process_npkt called, name %s\n", nm_printable(rec->name));
    if (wins_recv(rec))
        return;   // an answer of a WINS server to us, not to our broadcasts
    bool stat = (rec->flags & NPKT_STAT) != 0;
    switch (rec->type) {
    case NT_QUERY:
        if (stat)
            answer_adapstat(rec);
        else
            check_query(rec);
        break;
    case NT_REGISTER:
        check_claim(rec);
        break;
    case NT_RELEASE:
        check_delete(rec);
        break;
    case NT_QUERY_RESP:
        if (stat)
            check_adapstat(rec);
        else
            check_lookup(rec);
        break;
    case NT_REGISTER_RESP:
        check_conflict(rec);
        break;
    default:
        // Wait-for-acknowledgement, refresh and release responses: nothing
        // of ours waits for them.
        TRACE(proc, 3, "Ratline: ignoring packet.\n");
        break;
    }
}

// RFC 1002 5.1.1.2: a broadcast name query, answered for our own names once
// they are claimed.
void check_query(const npkt* rec)
{
    if (!scope_ok(rec, "check_query"))
        return;
    uint32_t from;
    if (own_sender(rec, &from)) {
        TRACE(proc, 3, "check_query: ignoring my own query\n");
        return;
    }
    stat_inc(ST_QUERIES_RECEIVED);
    if (nda_ct > 0 && ens_a_lookup(from) == nullptr)
        unk_as_query(rec->name, from);
    const nt_entry* e = name_present(rec->name);
    if (e != nullptr) {
        if (e->flags & NT_PENDING)
            return;   // not ours until its claim is through
        TRACE(proc, 2, "check_query: answering request for local name\n");
        stat_inc(ST_QUERIES_OWN);
        answer_query(rec->name, e->flags, matching_addr(from), &rec->addr, rec->pktid);
        return;
    }
    if (nda_ct == 0)
        return;
    EnsName* n = ens_n_lookup(rec->name);
    if (n == nullptr) {
        nda_query(rec);   // the agents may know it; they answer later
        return;
    }
    // A host with one address is the only one on its network: the owner
    // answers for itself there.
    if (my_addr_ct == 1 || n->host->addrs == nullptr)
        return;
    uint32_t owner = n->host->addrs->address;
    TRACE(proc, 2, "check_query: answering request as proxy for %s\n", nm_ntoa(owner));
    stat_inc(ST_QUERIES_PROXY);
    answer_query(n->name, n->flags, owner, &rec->addr, rec->pktid);
}

// RFC 1002 5.1.1.3: a claim of one of our names is answered with a negative
// registration response, unless both are group names.
void check_claim(const npkt* rec)
{
    if (!scope_ok(rec, "check_claim"))
        return;
    uint32_t from;
    if (own_sender(rec, &from)) {
        TRACE(proc, 3, "check_claim: ignoring my own claim\n");
        return;
    }
    bool group_claim = (rec->flags & NPKT_GROUP) != 0;
    const nt_entry* e = name_present(rec->name);
    if (e != nullptr) {
        if (e->flags & NT_PENDING)
            return;   // our own claim is still running: not defended yet
        if ((e->flags & NT_GROUP) && group_claim)
            return;   // group names are shared
        TRACE(proc, 2, "check_claim: defending local name\n");
        stat_inc(ST_CLAIMS_DEFENDED);
        defend_name(e->name, e->flags, matching_addr(from), &rec->addr, rec->pktid);
        return;
    }
    if (nda_ct > 0)
        nda_claim(rec);
}

// RFC 1002 5.1.1.5: another station's release. Our own table never changes
// by it; the name goes from the ENS table and from the agents.
void check_delete(const npkt* rec)
{
    if (!scope_ok(rec, "check_delete"))
        return;
    if (nda_ct == 0)
        return;
    uint32_t from = 0;
    if (uatoian(&from, nullptr, &rec->addr) != 0)
        return;
    const EnsAddr* a = ens_a_lookup(from);
    if (a == nullptr) {
        unk_as_query(nullptr, from);
        return;
    }
    EnsHost* host = a->host;
    if (host == nullptr)
        return;   // our own release, received back
    if (ens_n_find(rec->name, host) == nullptr) {
        TRACE(proc, 1, "check_delete: weirdness -- can't find name/addr match\n");
        return;
    }
    uint32_t addrs[DC_MAXADDR];
    int ct = 0;
    for (const EnsAddr* x = host->addrs; x != nullptr && ct < DC_MAXADDR; x = x->host_next)
        addrs[ct++] = x->address;
    nda_delete(rec->name, addrs, ct);
    ens_n_del(rec->name, host);
    if (host->names == nullptr) {
        TRACE(proc, 3, "check_delete: host %s has no name -- deleting it\n", nm_ntoa(addrs[0]));
        ens_free(host);
    }
}
