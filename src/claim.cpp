#include "src/claim.h"

#include <ctime>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/enstable.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/service.h"
#include "src/stats.h"
#include "src/wins.h"

namespace {

// A registration response counts against our names only this long after
// the latest claim broadcast of any name.
constexpr time_t CONFLICT_PERIOD = 10;

time_t last_claim = 0;       // the latest claim broadcast, seconds
uint16_t release_ct = 0;     // the id of the latest release

uint8_t out_area[NPKT_AREA];
npkt out_rec;

// RFC 1002 4.2.2 / 4.2.9: the question, then an additional record that
// points back at the question name and carries the address of the interface
// the request goes out on.
//   id(2) b2 b3 | counts 1 0 0 1 | name(N) NB IN | C0 0C NB IN TTL 0 6 | flags addr
int build_request(npkt* rec, int id, int index, uint32_t flags, uint8_t b2)
{
    if (index < 0 || index >= my_addr_ct)
        return -1;
    uint8_t* p = const_cast<uint8_t*>(rec->raw);  // the record's own writable area
    p[0] = static_cast<uint8_t>(id >> 8);
    p[1] = static_cast<uint8_t>(id);
    p[2] = b2;
    p[3] = 0x10;                                  // B: broadcast
    fill_counts(p, 1, 0, 0, 1);
    int off = 12;
    off += fill_nbname(p + off, rec->name);
    off += fill_quest_hdr(p + off, RR_NB, RR_IN);
    p[off++] = 0xC0;
    p[off++] = 0x0C;
    off += fill_rr_header(p + off, RR_NB, RR_IN, 0, 6);
    off += fill_rr_nb(p + off, (flags & NT_GROUP) ? NB_GROUP_BIT : 0, my_addr[index].addr);
    rec->flags = (flags & NT_GROUP) ? NPKT_GROUP : 0;
    // The record keeps the id as a received one would: the first byte low.
    rec->pktid[0] = static_cast<uint32_t>(p[0] | p[1] << 8);
    rec->pktid[1] = 0;
    rec->size = off;
    return off;
}

// Sends one request per interface, in configuration order, from out_rec.
void broadcast_all(const nt_entry* e, int type, int id, int (*build)(npkt*, int, int, uint32_t))
{
    init_outpkt(&out_rec, out_area, type, e->name);
    for (int i = 0; i < my_addr_ct; i++) {
        if (build(&out_rec, id, i, e->flags) > 0)
            dg_bsend(out_area, out_rec.size, i);
    }
}

}  // namespace

int build_claim(npkt* rec, int id, int index, uint32_t flags)
{
    return build_request(rec, id, index, flags, 0x29);   // opcode 5 registration, RD
}

int build_release(npkt* rec, int id, int index, uint32_t flags)
{
    return build_request(rec, id, index, flags, 0x30);   // opcode 6 release
}

void name_claim(const nt_entry* e)
{
    TRACE(proc, 1, "Halyard: claiming name %s\n", nm_printable(e->name));
    last_claim = dg_now();
    broadcast_all(e, NT_REGISTER, static_cast<int>(last_claim & 0xFFFF), build_claim);
}

void name_claim_on(const nt_entry* e, int index)
{
    TRACE(proc, 1, "Halyard: claiming name %s on interface %d\n", nm_printable(e->name), index);
    last_claim = dg_now();
    init_outpkt(&out_rec, out_area, NT_REGISTER, e->name);
    if (build_claim(&out_rec, static_cast<int>(last_claim & 0xFFFF), index, e->flags) > 0)
        dg_bsend(out_area, out_rec.size, index);
}

// Sent once: RFC 1002 5.1.1.5 expects no answer to a broadcast release.
void name_release(const nt_entry* e)
{
    TRACE(proc, 1, "Halyard: releasing name %s\n", nm_printable(e->name));
    release_ct++;
    stat_inc(ST_RELEASES);
    broadcast_all(e, NT_RELEASE, release_ct, build_release);
    wins_release(e);   // a name the servers hold goes there too
}

// RFC 1002 5.1.1.1: a negative (or any) registration response to our
// broadcast means another node holds the name. Neither RCODE nor id is
// looked at: any registration response for a local name from another
// station within the period removes the name.
void check_conflict(const npkt* rec)
{
    if (rec->type != NT_REGISTER_RESP)
        return;
    if (dg_now() - last_claim > CONFLICT_PERIOD)
        return;
    if (name_present(rec->name) == nullptr)
        return;
    // A sender that is not an internet address cannot be one of ours.
    uint32_t from = 0;
    if (uatoian(&from, nullptr, &rec->addr) == 0) {
        const EnsAddr* a = ens_a_lookup(from);
        if (a != nullptr && a->host == nullptr)
            return;   // our own broadcast, received back
    }
    // No release: the name was never ours. Clients see it gone.
    nt_lost(rec->name, uni_ntoa(&rec->addr), NtLoss::network);
}
