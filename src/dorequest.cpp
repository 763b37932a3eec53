#include "src/dorequest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/uniinet.h"
#include "shr/vzsignal.h"
#include "src/claim.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/notifier.h"
#include "src/ntable.h"
#include "src/query.h"
#include "src/stats.h"
#include "src/wins.h"

int doing_claims = 0;

namespace {

struct lu_rec {
    lu_rec* next;
    uint8_t name[16];
    uint32_t address;   // IPv4, network order; 0 for a name lookup
    uint32_t op;        // NS_LOOKUP or NS_ADAPSTAT
    int32_t id;
    uint32_t xid;
    time_t expiry;      // when it fails unanswered
};

lu_rec* lu_list = nullptr;   // newest first
int32_t l_id = 0;
// The waiting lookups share one timer, armed for the earliest of them:
// with a timer each, a few clients waiting on the network would fill the
// timer table and strand the claims, the probe and the agent commands.
bool lu_timer = false;

constexpr int LOOKUP_WAIT = 5;     // seconds a lookup waits for the network
// Bounded beyond the plain behaviour: every local user may write lookups,
// and each one that waits holds a record for 5 seconds and has put a query
// on the network. At most LU_MAX wait at once, and LU_PER_CLIENT with one
// xid, the only mark of a client that a request carries; one over either is
// answered at once as if it had timed out. A busy host has a few waiting at
// a time, one per client.
constexpr int LU_MAX = 256;
constexpr int LU_PER_CLIENT = 16;
int lu_count = 0;   // records in lu_list
constexpr int LIST_MAX = 200;      // name entries in one NS_LISTNAME message
constexpr int REQUESTS_PER_ROUND = 4096;  // more than 64 KiB of the shortest
constexpr int ENTRYLEN = 20;       // name and flags word
constexpr int LOOKUP_LEN = 72;     // status, universal address, group flag

// What the relay's pipe gave and no request has used yet: always room for
// a whole message after the one that starts at the front.
std::array<uint8_t, 2 * (NS_HDRSIZE + NS_MAXDATA)> req_buf;
size_t req_len = 0;

// The request being handled, and the messages that answer later.
ns_hdr req_hdr;
uint8_t req_data[NS_MAXDATA];
ns_hdr late_hdr;
uint8_t late_data[NS_MAXDATA];

char op_text[64];

void put32(uint8_t* data, int off, int32_t v)
{
    memcpy(data + off, &v, sizeof v);
}

void answer(ns_hdr* h, uint32_t op, int32_t len)
{
    h->op = op | NS_RESPONSE;
    h->len = len;
    h->more = 0;
}

void fresh(ns_hdr* h, uint32_t xid, uint32_t op, int32_t len)
{
    memcpy(h->magic, NS_MAGIC, sizeof h->magic);
    h->xid = xid;
    answer(h, op, len);
}

// The NS_LOOKUP answer: status, the owner's address without port, the
// group flag.
void lookup_data(uint8_t* data, int32_t status, uint32_t address, int group)
{
    memset(data, 0, LOOKUP_LEN);
    put32(data, 0, status);
    UniAddr ua{};
    if (status == 0)
        iantoua(&ua, address, -1);
    memcpy(data + 4, &ua, sizeof ua);
    put32(data, 68, status == 0 ? group : 0);
}

uint32_t first_address()
{
    return my_addr_ct > 0 ? my_addr[0].addr : 0;
}

// Our interface addresses for the agents, which keep at most 20 per host:
// further interfaces are left out rather than overrun the command.
int own_addresses(uint32_t* out)
{
    int n = std::min(my_addr_ct, DC_MAXADDR);
    for (int i = 0; i < n; i++)
        out[i] = my_addr[i].addr;
    return n;
}

void serve_lookups(int32_t);

// The shared timer for the earliest waiting lookup, unless it is armed;
// false when none could be armed for a waiting lookup.
bool arm_lookups(time_t now)
{
    if (lu_timer)
        return true;
    time_t next = 0;
    for (const lu_rec* r = lu_list; r != nullptr; r = r->next) {
        if (next == 0 || r->expiry < next)
            next = r->expiry;
    }
    if (next == 0)
        return true;
    lu_timer = dg_timer(next > now ? int(next - now) : 1, serve_lookups, 0) == 0;
    return lu_timer;
}

// The timer: every lookup due fails, then the timer goes to the next one.
void serve_lookups(int32_t)
{
    lu_timer = false;
    time_t now = dg_now();
    for (bool failed = true; failed;) {
        failed = false;
        for (const lu_rec* r = lu_list; r != nullptr; r = r->next) {
            if (r->expiry <= now) {
                fail_lookup(r->id);  // takes r from the list: walk again
                failed = true;
                break;
            }
        }
    }
    if (!arm_lookups(now)) {
        while (lu_list != nullptr)
            fail_lookup(lu_list->id);
    }
}

// Whether a further lookup or status request of this client would be one
// too many to wait.
bool lu_full(uint32_t xid)
{
    if (lu_count >= LU_MAX)
        return true;
    int mine = 0;
    for (const lu_rec* r = lu_list; r != nullptr; r = r->next)
        mine += r->xid == xid ? 1 : 0;
    return mine >= LU_PER_CLIENT;
}

// The answer of a timed-out lookup or status request, now.
void refuse_wait(ns_hdr* h, uint8_t* data)
{
    stat_inc(ST_REQ_REFUSED);
    if (h->op == NS_LOOKUP)
        stat_inc(ST_LOOKUP_NOT_FOUND);
    answer(h, h->op, h->op == NS_LOOKUP ? LOOKUP_LEN : 4);
    memset(data, 0, LOOKUP_LEN);
    put32(data, 0, NT_ABSENT);
    put_response(h, data);
}

// Starts the wait of a lookup or status request; its answer comes later.
void wait_for(const uint8_t* name, uint32_t address, uint32_t op, uint32_t xid)
{
    add_lu(name, address, op, l_id, xid);
    // With the timer table full nothing would end the wait: the client gets
    // its "not found" now, and no record stays behind for good.
    if (!arm_lookups(dg_now()))
        fail_lookup(l_id);
    l_id = l_id == INT32_MAX ? 0 : l_id + 1;   // long gone by the time it wraps
}

}  // namespace

int add_lu(const uint8_t* name, uint32_t address, uint32_t op, int32_t id, uint32_t xid)
{
    lu_rec* r = new (std::nothrow) lu_rec{};
    if (r == nullptr)
        return -1;   // the request then gets no answer from us
    memcpy(r->name, name, sizeof r->name);
    r->address = address;
    r->op = op;
    r->id = id;
    r->xid = xid;
    r->expiry = dg_now() + LOOKUP_WAIT + wins_lookup_wait();
    r->next = lu_list;
    lu_list = r;
    lu_count++;
    return 0;
}

void rm_lu(int32_t id)
{
    for (lu_rec** p = &lu_list; *p != nullptr; p = &(*p)->next) {
        if ((*p)->id == id) {
            lu_rec* r = *p;
            *p = r->next;
            delete r;
            lu_count--;
            return;
        }
    }
}

int get_luid(int32_t id, uint32_t* op, uint8_t* name, uint32_t* address, uint32_t* xid)
{
    for (const lu_rec* r = lu_list; r != nullptr; r = r->next) {
        if (r->id != id)
            continue;
        if (op != nullptr)
            *op = r->op;
        if (name != nullptr)
            memcpy(name, r->name, sizeof r->name);
        if (address != nullptr)
            *address = r->address;
        if (xid != nullptr)
            *xid = r->xid;
        return 0;
    }
    return -1;
}

int get_luname(const uint8_t* name, int32_t* id, uint32_t* xid)
{
    for (const lu_rec* r = lu_list; r != nullptr; r = r->next) {
        if (r->op == NS_LOOKUP && memcmp(r->name, name, sizeof r->name) == 0) {
            *id = r->id;
            *xid = r->xid;
            return 0;
        }
    }
    return -1;
}

int get_luaddr(uint32_t address, int32_t* id, uint32_t* xid)
{
    for (const lu_rec* r = lu_list; r != nullptr; r = r->next) {
        if (r->op == NS_ADAPSTAT && r->address == address) {
            *id = r->id;
            *xid = r->xid;
            return 0;
        }
    }
    return -1;
}

// The requests that the notifier relayed, read into a buffer and framed
// there: a message that one read leaves in part waits for the next, so a
// message is never read from its middle. The relay passes on only whole
// messages of at most NS_REQMAX data bytes with the right magic; bytes
// that are no such message all the same are skipped to the next magic.
int get_request(ns_hdr* h, uint8_t* data)
{
    for (;;) {
        NsFramed f = ns_frame(std::span(req_buf.data(), req_len), NS_MAXDATA);
        if (f.kind == NsFrame::whole) {
            memcpy(h, req_buf.data(), NS_HDRSIZE);
            memcpy(data, req_buf.data() + NS_HDRSIZE, f.n - NS_HDRSIZE);
            // A request shorter than its operation's data reads zeros, not
            // what an earlier request left.
            memset(data + h->len, 0, static_cast<size_t>(NS_MAXDATA - h->len));
            req_len -= f.n;
            memmove(req_buf.data(), req_buf.data() + f.n, req_len);
            break;
        }
        if (f.kind == NsFrame::skip) {
            TRACE(proc, 1, "get_request: %d bytes without a request skipped\n", static_cast<int>(f.n));
            stat_inc(ST_REQ_MALFORMED);
            req_len -= f.n;
            memmove(req_buf.data(), req_buf.data() + f.n, req_len);
            continue;
        }
        // Needing more, the buffer holds less than a whole message: room.
        ssize_t n = read(from_ntf, req_buf.data() + req_len, req_buf.size() - req_len);
        TRACE(proc, 9, "get_request: %d returned from read\n", static_cast<int>(n));
        if (n == 0 || (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)))
            return -2;
        if (n < 0)
            return -1;
        req_len += static_cast<size_t>(n);
    }
    if (tcfile != nullptr && tc_proc >= 3) {
        tc_printf("get_request: received ns request:\n");
        dump_request(h, data);
    }
    return 0;
}

void get_request_reset()
{
    req_len = 0;
}

void put_response(const ns_hdr* h, const uint8_t* data)
{
    if (tcfile != nullptr && tc_proc >= 3) {
        tc_printf("put_response: writing ns response:\n");
        dump_request(h, data);
    }
    // Beyond the design, which does not check the write: the pipe does not
    // block (a relay that stops reading must not stop the loop), so a
    // response that finds it full is dropped and traced; the relay and the
    // client time out as for a lost one. Header and data go in one write,
    // which the pipe keeps whole. A relay that has ended must not end the
    // daemon with the broken-pipe signal: the loop starts a new relay.
    uint8_t msg[NS_HDRSIZE + NS_MAXDATA];
    size_t len = NS_HDRSIZE + static_cast<size_t>(std::clamp(h->len, 0, NS_MAXDATA));
    memcpy(msg, h, NS_HDRSIZE);
    memcpy(msg + NS_HDRSIZE, data, len - NS_HDRSIZE);
    ssize_t n = vz_write_held(to_ntf, msg, len);
    int err = errno;
    if (n != static_cast<ssize_t>(len)) {
        stat_inc(ST_RESP_DROPPED);
        TRACE(proc, 1, "put_response: response %08x dropped, %d of %d bytes written, errno %d\n", h->xid,
              static_cast<int>(n), static_cast<int>(len), n < 0 ? err : 0);
    }
}

// "%.2x" and "%.8x" write what "%02.2x" and "%08.8lx" would, without the
// ignored zero flag.
void dump_request(const ns_hdr* h, const uint8_t* data)
{
    if (tcfile == nullptr)
        return;
    const uint8_t* m = h->magic;
    tc_printf("magic\t%.2x %.2x %.2x %.2x %.2x %.2x %.2x %.2x\n", m[0], m[1], m[2], m[3], m[4], m[5], m[6],
              m[7]);
    tc_printf("len\t%d\n", h->len);
    tc_printf("xid\t%.8x\n", h->xid);
    tc_printf("op\t%.8x (%s)\n", h->op, opstring(h->op));
    tc_printf("more\t%d\n", h->more);
    if (h->len != 0) {
        tc_printf("data");
        dump_bytes(tcfile, data, static_cast<size_t>(std::clamp(h->len, 0, NS_MAXDATA)));
    }
    fflush(tcfile);
}

const char* opstring(uint32_t op)
{
    static constexpr const char* names[] = {
        nullptr,       "NS_ADDNAME", "NS_DELNAME",  "NS_LISTNAME", "NS_LOOKUP",   "NS_INIT",
        "NS_NBTYPE",   "NS_CKNAME",  "NS_NBSCOPE", "NS_ADAPSTAT", "NS_ENSTABLE",
    };
    uint32_t code = op & 0xFFF;
    const char* name = code >= 1 && code <= 10 ? names[code] : code == NS_STATS ? "NS_STATS" : "Unrecognized";
    snprintf(op_text, sizeof op_text, "%s%s", name, (op & NS_RESPONSE) ? " | NS_RESPONSE" : "");
    return op_text;
}

void do_request(int)
{
    for (int n = 0;; n++) {
        // A client that keeps the pipe full must not keep the loop here:
        // after a round as large as the pipe holds, the interrupt comes
        // back to ourselves. Blocked while the loop works, it ends the next
        // wait once datagrams and timers have had their turn.
        if (n == REQUESTS_PER_ROUND) {
            if (dg_wait_mask() != nullptr)
                kill(getpid(), SIGINT);
            return;
        }
        int r = get_request(&req_hdr, req_data);
        if (r == -2)
            return;
        if (r < 0) {
            TRACE(proc, 1, "do_request: get_request failed\n");
            return;
        }
        stat_request(req_hdr.op);
        switch (req_hdr.op) {
        case NS_ADDNAME: do_addname(&req_hdr, req_data); break;
        case NS_DELNAME: do_delname(&req_hdr, req_data); break;
        case NS_LISTNAME: do_listname(&req_hdr, req_data); break;
        case NS_INIT: do_init(&req_hdr, req_data); break;
        case NS_NBTYPE: do_nbtype(&req_hdr, req_data); break;
        case NS_CKNAME: do_ckname(&req_hdr, req_data); break;
        case NS_NBSCOPE: do_nbscope(&req_hdr, req_data); break;
        case NS_ENSTABLE: do_enstable(&req_hdr, req_data); break;
        case NS_STATS: do_stats(&req_hdr, req_data); break;
        // These answer when the network does, or at once when they cannot
        // wait. The requests behind them are read now: read one interrupt
        // later, a few lookups written together would hold up every other
        // client until later requests came to move them on one by one.
        case NS_LOOKUP: do_lookup(&req_hdr, req_data); continue;
        case NS_ADAPSTAT: do_adapstat(&req_hdr, req_data); continue;
        default: answer(&req_hdr, 0, 0); break;
        }
        put_response(&req_hdr, req_data);
    }
}

void do_addname(ns_hdr* h, uint8_t* data)
{
    uint32_t flags = 0;
    memcpy(&flags, data + 16, sizeof flags);
    int status = nt_add(data, flags);
    if (status == 0)
        start_claims();
    answer(h, NS_ADDNAME, 4);
    put32(data, 0, status);
}

void do_delname(ns_hdr* h, uint8_t* data)
{
    const nt_entry* e = nt_search(data);
    if (e != nullptr)
        name_release(e);
    if (e != nullptr && nda_ct > 0) {
        uint32_t addrs[DC_MAXADDR];
        nda_delete(data, addrs, own_addresses(addrs));
    }
    int status = nt_del(data);
    answer(h, NS_DELNAME, 4);
    put32(data, 0, status);
}

void do_ckname(ns_hdr* h, uint8_t* data)
{
    const nt_entry* e = nt_search(data);
    uint8_t out[24] = {};
    if (e == nullptr) {
        put32(out, 0, NT_ABSENT);
    } else {
        memcpy(out + 4, e->name, sizeof e->name);
        memcpy(out + 20, &e->flags, sizeof e->flags);
    }
    memcpy(data, out, sizeof out);
    answer(h, NS_CKNAME, 24);
}

const nt_entry* fill_lnr(const nt_entry* pos, ns_hdr* h, uint8_t* data)
{
    if (pos == nullptr) {
        tables_sync();
        pos = n_table;
    }
    int32_t total = 0;
    for (const nt_entry* e = n_table; e != nullptr; e = e->next)
        total++;
    int32_t n = 0;
    for (; pos != nullptr && n < LIST_MAX; pos = pos->next, n++) {
        uint8_t* entry = data + 12 + ENTRYLEN * n;
        memcpy(entry, pos->name, sizeof pos->name);
        memcpy(entry + 16, &pos->flags, sizeof pos->flags);
    }
    answer(h, NS_LISTNAME, 12 + ENTRYLEN * n);
    h->more = pos != nullptr ? 1 : 0;
    put32(data, 0, 0);
    put32(data, 4, total);
    put32(data, 8, n);
    return pos;
}

void do_listname(ns_hdr* h, uint8_t* data)
{
    const nt_entry* pos = fill_lnr(nullptr, h, data);
    while (h->more == 1) {
        put_response(h, data);
        pos = fill_lnr(pos, h, data);
    }
}

void do_lookup(ns_hdr* h, uint8_t* data)
{
    uint8_t name[16];
    memcpy(name, data, sizeof name);
    const nt_entry* e = nt_search(name);
    if (e != nullptr) {
        stat_inc(ST_LOOKUP_LOCAL);
        answer(h, NS_LOOKUP, LOOKUP_LEN);
        lookup_data(data, 0, first_address(), (e->flags & NT_GROUP) ? 1 : 0);
        put_response(h, data);
        return;
    }
    if (lu_full(h->xid)) {
        refuse_wait(h, data);
        return;
    }
    if (nda_ct > 0) {
        const EnsName* en = ens_n_lookup(name);
        if (en != nullptr && en->host != nullptr && en->host->addrs != nullptr) {
            stat_inc(ST_LOOKUP_LEARNED);
            answer(h, NS_LOOKUP, LOOKUP_LEN);
            lookup_data(data, 0, en->host->addrs->address, (en->flags & ENS_GROUP) ? 1 : 0);
            put_response(h, data);
            return;
        }
        if (nda_lquery(name, l_id, h->xid) == 0)
            return;   // answered from the agents' cached answer
    }
    // The agents are asked first: they answer for our daemons on every
    // subnet. Then the WINS servers, which know the other stations that
    // registered there, and the broadcast last, once they do not know it:
    // RFC 1001 10.2's H node. An agent's answer still ends the wait at any
    // point; the WINS query then finds no lookup and stops.
    wins_lookup(name);
    wait_for(name, 0, NS_LOOKUP, h->xid);
}

void do_init(ns_hdr* h, uint8_t* data)
{
    dg_reinit();
    answer(h, NS_INIT, 4);
    put32(data, 0, 0);
}

void do_nbtype(ns_hdr* h, uint8_t* data)
{
    answer(h, NS_NBTYPE, 8);
    put32(data, 0, nb_type);
    memcpy(data + 4, &ssport, sizeof ssport);
    memset(data + 6, 0, 2);
}

void do_nbscope(ns_hdr* h, uint8_t* data)
{
    answer(h, NS_NBSCOPE, 256);
    memset(data, 0, 256);
    memcpy(data, nb_scope, strnlen(nb_scope, sizeof nb_scope - 1));
}

// The status says whether tracing is on; the table is written only when
// the trace file could be opened.
void do_enstable(ns_hdr* h, uint8_t* data)
{
    answer(h, NS_ENSTABLE, 4);
    bool tracing = tc_proc != 0 || tc_in != 0 || tc_out != 0;
    if (tracing && tcfile != nullptr)
        dump_enstable(tcfile);
    put32(data, 0, tracing ? 0 : -1);
}

// Status 0, then the counters; they always fit (stats.cpp checks).
void do_stats(ns_hdr* h, uint8_t* data)
{
    put32(data, 0, 0);
    answer(h, NS_STATS, 4 + stat_encode(data + 4, NS_REQMAX - 4));
}

void do_adapstat(ns_hdr* h, uint8_t* data)
{
    UniAddr ua;
    memcpy(&ua, data + 16, sizeof ua);
    uint32_t address = 0;
    if (uatoian(&address, nullptr, &ua) < 0)
        address = 0;
    if (address == 0 || !transport_tcpip) {
        answer(h, NS_ADAPSTAT, 4);
        put32(data, 0, -1);
        put_response(h, data);
        return;
    }
    if (lu_full(h->xid)) {
        refuse_wait(h, data);
        return;
    }
    uint8_t name[16];
    memcpy(name, data, sizeof name);
    adapstat_query(name, address);
    wait_for(name, address, NS_ADAPSTAT, h->xid);
}

void finish_lookup(uint32_t address, int group, uint32_t xid)
{
    fresh(&late_hdr, xid, NS_LOOKUP, LOOKUP_LEN);
    lookup_data(late_data, 0, address, group);
    put_response(&late_hdr, late_data);
}

// The 68 bytes after the -6 of a timed-out NS_LOOKUP are zero.
void fail_lookup(int32_t id)
{
    uint32_t op = 0, xid = 0;
    if (get_luid(id, &op, nullptr, nullptr, &xid) < 0)
        return;   // already answered
    rm_lu(id);
    if (op == NS_LOOKUP)
        stat_inc(ST_LOOKUP_NOT_FOUND);
    fresh(&late_hdr, xid, op, op == NS_LOOKUP ? LOOKUP_LEN : 4);
    memset(late_data, 0, LOOKUP_LEN);
    put32(late_data, 0, NT_ABSENT);
    put_response(&late_hdr, late_data);
}

void finish_adapstat(const as_stats* st, const as_name* entries, int n, uint32_t xid)
{
    n = std::clamp(n, 0, AS_MAXNAMES);
    fresh(&late_hdr, xid, NS_ADAPSTAT, 52 + ENTRYLEN * n);
    put32(late_data, 0, n);
    memcpy(late_data + 4, st, sizeof *st);
    if (n > 0)
        memcpy(late_data + 52, entries, sizeof *entries * static_cast<size_t>(n));
    put_response(&late_hdr, late_data);
}

void start_claims()
{
    if (doing_claims == 0) {
        doing_claims = 1;
        do_claim(0);
    }
}

// Names are claimed one at a time, in table order, twice one second apart;
// a name is owned at the run after its second claim.
void do_claim(int32_t)
{
    TRACE(proc, 1, "do_claim\n");
    for (nt_entry* e = n_table; e != nullptr; e = e->next) {
        if ((e->flags & NT_PENDING) == 0)
            continue;
        TRACE(proc, 2, "found claimer, count %d, nda_ct %d\n", e->count, nda_ct);
        if (e->count >= 2) {
            stat_inc(ST_NAMES_CLAIMED);
            e->flags &= ~NT_PENDING;
            if (nda_ct > 0) {
                uint32_t addrs[DC_MAXADDR];
                nda_add(e->name, e->flags, addrs, own_addresses(addrs));
            }
            wins_register(e);
            continue;
        }
        name_claim(e);
        e->count++;
        // With the timer table full the cycle stops here; the next added
        // name starts it again and it finds this one still pending.
        if (dg_timer(1, do_claim, 0) < 0)
            doing_claims = 0;
        return;
    }
    doing_claims = 0;
}
