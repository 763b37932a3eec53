#include "src/wins.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/dorequest.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/ntable.h"
#include "src/query.h"
#include "src/service.h"
#include "src/stats.h"

namespace {

constexpr int MSG_NO_SERVER = 582;

// RFC 1002 suggests 3 tries 5 seconds apart (UCAST_REQ_RETRY_COUNT and
// _TIMEOUT); Windows waits 1.5 seconds. Our timers count whole seconds, so
// a wait of 2 is at least one: 3 tries take a silent server 4 to 6 seconds.
constexpr int TRIES = 3;
constexpr int RETRY_WAIT = 2;
// A lookup asks each server once: the client waits for all of it.
constexpr int QUERY_WAIT = 2;
// What we ask for, as Windows does; the server grants its own.
constexpr uint32_t ASK_TTL = 300000;
// Beyond the plain protocol: a server that grants a TTL of 0 or 1 must not
// have us refresh in a loop, nor one whose WACK names days hold a name in
// limbo; the wait after a WACK is kept to this, then the next server.
constexpr time_t REFRESH_MIN = 5;
constexpr time_t WACK_MAX = 120;
// When no server answered, the registration is tried again this much later.
constexpr time_t AGAIN_LATER = 300;
// No timer of ours sleeps longer: one stays armed for the next refresh and
// an earlier need gets a second one (the daemon's table has room for 10).
// With both out and later than a new need, it waits for the earlier of
// them: late by a minute at most, never lost.
constexpr time_t TICK_MAX = 60;
constexpr int SLOTS = 2;

// RFC 1002 4.2.2 NB_FLAGS ONT: we ask the server first, an H node.
constexpr int ONT_H = 0x6000;
constexpr int RCODE_SRV_ERR = 2;

enum class Step : uint8_t { free, registering, refreshing, held, releasing, querying };

// One name at the servers. Bounded beyond the plain behaviour: every local
// user may add names and write lookups; names past the table stay
// broadcast-only and lookups past QUERY_MAX broadcast at once.
struct Txn {
    uint8_t name[16];
    uint32_t flags;      // NT_GROUP
    Step step;
    bool held;           // in step held: registered at `server`; if not, nowhere yet
    int server;          // index into wins_addr asked, or holding the name
    int tries;           // sent to that server under this id
    uint16_t id;
    time_t due;          // next try, end of the wait, or refresh
};
constexpr int TXN_MAX = 256;
constexpr int QUERY_MAX = 64;
std::array<Txn, TXN_MAX> txns;

std::array<time_t, SLOTS> armed{};   // our timers' expiries, 0 for none

uint8_t out_area[NPKT_AREA];
npkt out_rec;

Txn* find(const uint8_t* name, bool query)
{
    for (Txn& t : txns) {
        if (t.step != Step::free && (t.step == Step::querying) == query &&
            memcmp(t.name, name, sizeof t.name) == 0)
            return &t;
    }
    return nullptr;
}

// A free entry for the name, or null when the table (or, for a query, the
// queries' share of it) is full.
Txn* take(const uint8_t* name, bool query)
{
    int queries = 0;
    Txn* spare = nullptr;
    for (Txn& t : txns) {
        if (t.step == Step::querying)
            queries++;
        else if (t.step == Step::free && spare == nullptr)
            spare = &t;
    }
    if (spare == nullptr || (query && queries >= QUERY_MAX))
        return nullptr;
    *spare = Txn{};
    memcpy(spare->name, name, sizeof spare->name);
    return spare;
}

// Ids are drawn at random and never shared by two transactions, so a
// response names exactly one of them.
uint16_t new_id()
{
    for (;;) {
        uint16_t id = static_cast<uint16_t>(arc4random());
        bool used = false;
        for (const Txn& t : txns)
            used = used || (t.step != Step::free && t.id == id);
        if (!used)
            return id;
    }
}

// RFC 1002 4.2.2 (registration, opcode 5), 4.2.4 (refresh, opcode 8),
// 4.2.9 (release, opcode 6), 4.2.12 (query): unicast, B clear.
//   id(2) b2 00 | counts 1 0 0 1 | name(N) NB IN | C0 0C NB IN TTL 6 | flags addr
//   id(2) 01 00 | counts 1 0 0 0 | name(N) NB IN                      (query)
int build(const Txn& t, uint32_t own)
{
    init_outpkt(&out_rec, out_area, NT_QUERY, t.name);
    uint8_t* p = out_area;
    p[0] = static_cast<uint8_t>(t.id >> 8);
    p[1] = static_cast<uint8_t>(t.id);
    p[2] = t.step == Step::registering ? 0x29 : t.step == Step::refreshing ? 0x41
         : t.step == Step::releasing   ? 0x30 : 0x01;
    p[3] = 0x00;
    bool query = t.step == Step::querying;
    fill_counts(p, 1, 0, 0, query ? 0 : 1);
    int off = 12;
    off += fill_nbname(p + off, t.name);
    off += fill_quest_hdr(p + off, RR_NB, RR_IN);
    if (!query) {
        p[off++] = 0xC0;
        p[off++] = 0x0C;
        off += fill_rr_header(p + off, RR_NB, RR_IN, t.step == Step::releasing ? 0 : ASK_TTL, 6);
        off += fill_rr_nb(p + off, ((t.flags & NT_GROUP) ? NB_GROUP_BIT : 0) | ONT_H, own);
    }
    out_rec.size = off;
    return off;
}

void send(Txn& t, time_t now)
{
    uint32_t server = wins_addr[t.server];
    // Our interface on the server's network, else the first: what the
    // server sees as the sender when there is one.
    uint32_t own = matching_addr(server);
    t.tries++;
    t.due = now + (t.step == Step::querying ? QUERY_WAIT : RETRY_WAIT);
    if (own == 0)
        return;   // no interface yet: counted as a try the server missed
    UniAddr to{};
    iantoua(&to, server, nmport);
    build(t, own);
    TRACE(proc, 2, "wins send: step %d, name %s, id %d, try %d, to %s\n", int(t.step), nm_printable(t.name),
          int(t.id), t.tries, nm_ntoa(server));
    dg_dsend(out_area, out_rec.size, &to);
}

void start(Txn& t, Step step, int server, time_t now)
{
    t.step = step;
    t.server = server;
    t.tries = 0;
    t.id = new_id();
    send(t, now);
}

void tick(int32_t slot);

// One timer runs by the earliest due, unless one of ours already does.
void arm(time_t now)
{
    time_t next = 0;
    for (const Txn& t : txns) {
        if (t.step != Step::free && (next == 0 || t.due < next))
            next = t.due;
    }
    if (next == 0)
        return;
    next = std::min(next, now + TICK_MAX);
    for (time_t a : armed) {
        if (a != 0 && a <= next)
            return;
    }
    for (int i = 0; i < SLOTS; i++) {
        if (armed[size_t(i)] != 0)
            continue;
        // With the daemon's table full nothing is armed: the next request,
        // name or response of ours tries again.
        if (dg_timer(int(std::max<time_t>(next - now, 1)), tick, i) == 0)
            armed[size_t(i)] = next;
        return;
    }
}

// Every lookup still waiting for the name gets its answer.
void answer_lookups(const uint8_t* name, uint32_t address, int group)
{
    int32_t id = 0;
    uint32_t xid = 0;
    while (get_luname(name, &id, &xid) == 0) {
        rm_lu(id);
        stat_inc(ST_LOOKUP_WINS);
        finish_lookup(address, group, xid);
    }
}

// The servers do not know the name: the broadcast, while a lookup waits.
void broadcast_lookup(Txn& t)
{
    t.step = Step::free;
    int32_t id = 0;
    uint32_t xid = 0;
    if (get_luname(t.name, &id, &xid) == 0)
        name_query(t.name);
}

// The server asked has been silent through its tries (or its WACK).
void silent(Txn& t, time_t now)
{
    if (t.server + 1 < wins_ct) {
        // The next server never had the name: a refresh is a registration there.
        start(t, t.step == Step::refreshing ? Step::registering : t.step, t.server + 1, now);
        return;
    }
    switch (t.step) {
    case Step::querying:
        broadcast_lookup(t);
        break;
    case Step::releasing:
        t.step = Step::free;
        break;
    default:
        log_new();
        log_catmsg(LOG_SET, MSG_NO_SERVER, "%s: no WINS server answers for name %s", prog, nm_printable(t.name));
        t.step = Step::held;
        t.held = false;
        t.due = now + AGAIN_LATER;
        break;
    }
}

void due(Txn& t, time_t now)
{
    if (t.step == Step::held) {
        if (nt_search(t.name) == nullptr) {
            t.step = Step::free;   // lost in a conflict: nothing to keep
            return;
        }
        if (t.held)
            start(t, Step::refreshing, t.server, now);
        else
            start(t, Step::registering, 0, now);
        return;
    }
    if (t.tries < TRIES && t.step != Step::querying)
        send(t, now);   // the same id: RFC 1002 4.2.1.1, a retransmission
    else
        silent(t, now);
}

void tick(int32_t slot)
{
    if (slot >= 0 && slot < SLOTS)
        armed[size_t(slot)] = 0;
    time_t now = dg_now();
    for (Txn& t : txns) {
        if (t.step != Step::free && t.due <= now)
            due(t, now);
    }
    arm(now);
}

void answered(Txn& t, const npkt* rec, time_t now)
{
    int rcode = rec->raw[3] & 0x0F;
    uint32_t ttl = 0;
    if (rec->type == NT_WACK_RESP) {
        // RFC 1002 5.1.2.4: the server is checking; its TTL says how long.
        if (t.step != Step::registering && t.step != Step::refreshing)
            return;
        if (find_ttl_rfc(rec->raw, rec->size, &ttl) < 0)
            return;
        t.tries = TRIES;
        t.due = now + std::clamp<time_t>(ttl, RETRY_WAIT, WACK_MAX);
        return;
    }
    switch (t.step) {
    case Step::registering:
    case Step::refreshing:
        if (rec->type != NT_REGISTER_RESP && rec->type != NT_REFRESH_RESP && rec->type != (NT_REFRESH_RESP | 0x08))
            return;
        if (rcode == RCODE_SRV_ERR) {
            silent(t, now);   // a failing server, not an owner elsewhere
        } else if (rcode != 0) {
            t.step = Step::free;
            // RFC 1002 5.1.2.2: a negative response takes the name from us.
            if (nt_search(t.name) != nullptr)
                nt_lost(t.name, uni_ntoa(&rec->addr), NtLoss::wins);
        } else {
            if (find_ttl_rfc(rec->raw, rec->size, &ttl) < 0)
                ttl = 0;
            t.step = Step::held;
            t.held = true;
            t.due = now + std::max<time_t>(ttl / 2, REFRESH_MIN);
            TRACE(proc, 2, "wins_recv: %s registered, TTL %u\n", nm_printable(t.name), unsigned(ttl));
        }
        break;
    case Step::releasing:
        if (rec->type == NT_RELEASE_RESP)
            t.step = Step::free;
        break;
    case Step::querying: {
        if (rec->type != NT_QUERY_RESP || (rec->flags & NPKT_STAT))
            return;
        uint32_t address = 0;
        int group = 0;
        if (rcode == 0 && find_ip(rec, &address, &group) == 0) {
            t.step = Step::free;
            answer_lookups(t.name, address, group);
        } else {
            broadcast_lookup(t);   // RFC 1001 10.2.2: not known there, ask the network
        }
        break;
    }
    default:
        break;
    }
}

}  // namespace

void wins_register(const nt_entry* e)
{
    if (wins_ct == 0)
        return;
    Txn* t = find(e->name, false);
    if (t == nullptr)
        t = take(e->name, false);
    if (t == nullptr) {
        TRACE(proc, 1, "wins_register: table full, %s not registered\n", nm_printable(e->name));
        return;
    }
    time_t now = dg_now();
    t->flags = e->flags & NT_GROUP;
    start(*t, Step::registering, 0, now);
    arm(now);
}

void wins_release(const nt_entry* e)
{
    Txn* t = wins_ct > 0 ? find(e->name, false) : nullptr;
    if (t == nullptr)
        return;
    time_t now = dg_now();
    // Where it is held, else where it was asked for: a registration on its
    // way may yet be granted.
    start(*t, Step::releasing, t->step == Step::held && !t->held ? 0 : t->server, now);
    arm(now);
}

void wins_lookup(const uint8_t* name)
{
    if (wins_ct == 0) {
        name_query(name);
        return;
    }
    time_t now = dg_now();
    if (find(name, true) != nullptr) {
        arm(now);
        return;   // asked already: its answer serves every lookup of the name
    }
    Txn* t = take(name, true);
    if (t == nullptr) {
        name_query(name);
        return;
    }
    start(*t, Step::querying, 0, now);
    arm(now);
}

int wins_lookup_wait()
{
    return wins_ct * QUERY_WAIT;
}

// Beyond the plain protocol, which matches nothing: only the server a
// transaction waits on, from the name-service port, under the id it was
// given, for that name. Any other station could otherwise refuse our names
// or answer our lookups in the servers' place. Unmatched positive answers
// and WACKs from a server are dropped too: they are no defence of a name,
// and a late one must not count as a conflict with our claims.
bool wins_recv(const npkt* rec)
{
    if (wins_ct == 0 || (rec->type & 0x80) == 0 || rec->size < 12)
        return false;
    uint32_t from = 0;
    int32_t port = 0;
    if (uatoian(&from, &port, &rec->addr) < 0 || port != nmport)
        return false;
    int server = -1;
    for (int i = 0; i < wins_ct; i++)
        server = wins_addr[i] == from && server < 0 ? i : server;
    if (server < 0)
        return false;
    time_t now = dg_now();
    uint16_t id = static_cast<uint16_t>(rec->raw[0] << 8 | rec->raw[1]);
    for (Txn& t : txns) {
        if (t.step == Step::free || t.step == Step::held || t.id != id || t.server != server ||
            memcmp(t.name, rec->name, sizeof t.name) != 0)
            continue;
        answered(t, rec, now);
        arm(now);
        return true;
    }
    arm(now);
    bool positive = (rec->raw[3] & 0x0F) == 0;
    return rec->type == NT_WACK_RESP || (positive && rec->type != NT_QUERY_RESP);
}
