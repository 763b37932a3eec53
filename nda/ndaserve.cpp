#include "nda/ndaserve.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

#include "misc/nencode.h"
#include "misc/pktasm.h"
#include "nda/ndadir.h"
#include "nda/ndareq.h"
#include "nda/ndastats.h"
#include "nda/ndastore.h"
#include "nda/ndawins.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"

namespace {

constexpr int MSG_STORE_ERROR = 553;
constexpr int MSG_REFUSED = 558;
constexpr int64_t STORE_LOG_GAP_S = 60;  // a failing disk must not fill the log

const NdaStore* store = nullptr;
int64_t store_logged = 0;

// The answer to one request, kept so that a repeated request gets it again.
struct Answer {
    int32_t action;
    int32_t ans;
    int32_t body;   // 0 none, 1 QUERY (group, marker, ip), 2 ADD refusal (group, ip)
    int32_t group;
    uint32_t ip;
};

// A request: its sender and id, and a digest of its bytes. A daemon that
// restarted counts its ids from 1 again: only the same bytes are a repeat.
struct Key {
    uint32_t ip;
    uint16_t port;
    uint32_t id;
    bool operator==(const Key&) const = default;
};
struct KeyHash {
    size_t operator()(const Key& k) const
    {
        return std::hash<uint64_t>()((uint64_t(k.ip) << 32 | k.id) ^ (uint64_t(k.port) << 17));
    }
};

struct Done {
    uint64_t digest;
    int64_t at_ms;
    uint64_t seq;
    Answer a;
};
std::unordered_map<Key, Done, KeyHash> done;
std::deque<std::pair<Key, uint64_t>> done_order;  // oldest first, with each entry's seq
uint64_t done_seq = 0;

// A request waiting for the holder's VERIFY answer: an ADD, or a DELETE.
struct Pending {
    Key key;
    uint64_t digest;
    UniAddr from;
    int32_t action;
    uint8_t name[16];
    int32_t group;
    uint32_t addrs[NDA_MAXADDR];
    int addr_ct;
    NdaHolder holder;
    uint32_t verify_id;
    int sends;
    int64_t next_ms;
};
std::vector<Pending> pending;
uint32_t next_verify_id = 1;

std::array<NdaNet, NDA_MAX_REGISTRARS> registrars{};
size_t registrar_ct = 0;
uint64_t refused_ct = 0;
int64_t refused_logged = 0;

// VERIFYs sent to each station in the current second: spoofed ADDs must
// not turn the agent into a source of datagrams for anyone.
struct Rate {
    int64_t start_ms;
    int count;
};
std::unordered_map<uint32_t, Rate> verify_rate;

// One datagram of the batch, or (verify_id set) a verification whose
// holder stayed silent.
struct Item {
    NdaRequest r;
    UniAddr from;
    Key key;
    uint64_t digest;
    uint32_t expired;
};
std::vector<Item> batch;
size_t run_from = 0, run_to = 0;  // the items of the transaction being run

// What one run of the batch decided, carried out only after its commit.
struct Out {
    UniAddr to;
    Key key;
    uint64_t digest;
    Answer a;
    bool keep;     // kept for repeats
    bool refused;  // a write from outside the registrars
};
std::vector<Out> outbox;
std::vector<Pending> started;
std::vector<uint32_t> settled;  // verify ids
int64_t batch_ms = 0, batch_s = 0;

// The counter of a request's action, or of the answer to our VERIFY;
// NDA_STAT_COUNT (none) for what the agent does not count.
size_t action_stat(const NdaRequest& r)
{
    if (r.response)
        return r.action == ENS_VERIFY ? nda_stat("verify_answers") : NDA_STAT_COUNT;
    switch (r.action) {
    case ENS_QUERY: return nda_stat("requests_query");
    case ENS_ADD: return nda_stat("requests_add");
    case ENS_DELETE: return nda_stat("requests_delete");
    case ENS_EQUIV: return nda_stat("requests_equiv");
    case ENS_PURGE: return nda_stat("requests_purge");
    default: return NDA_STAT_COUNT;
    }
}

uint64_t digest_of(const uint8_t* bytes, int len)
{
    uint64_t h = 1469598103934665603ull;  // FNV-1a
    for (int i = 0; i < len; i++)
        h = (h ^ bytes[i]) * 1099511628211ull;
    return h;
}

void store_failed(int64_t now_s)
{
    TRACE(proc, 1, "nda: directory error: %s\n", store->error());
    if (now_s - store_logged >= STORE_LOG_GAP_S || store_logged == 0) {
        store_logged = now_s;
        log_new();
        log_catmsg(LOG_SET, MSG_STORE_ERROR, "%s: directory error: %s", prog, store->error());
    }
}

bool registrar(uint32_t ip)
{
    for (size_t i = 0; i < registrar_ct; i++)
        if ((ip & registrars[i].mask) == registrars[i].net)
            return true;
    return false;
}

// 0 when a VERIFY may go to the station now, else milliseconds until one may.
int64_t verify_wait(uint32_t ip, int64_t now_ms)
{
    if (verify_rate.size() > size_t(4 * NDA_MAX_PENDING))
        verify_rate.clear();
    Rate& r = verify_rate[ip];
    if (now_ms - r.start_ms >= 1000 || r.count == 0)
        r = {now_ms, 0};
    if (r.count >= NDA_VERIFY_RATE)
        return r.start_ms + 1000 - now_ms;
    r.count++;
    return 0;
}

void send_answer(const UniAddr* to, uint32_t id, const Answer& a)
{
    pkta_begin();
    if (a.body == 1) {
        pkta_int(a.group);
        pkta_int(1);
        pkta_ip(a.ip);
    } else if (a.body == 2) {
        pkta_int(a.group);
        pkta_ip(a.ip);
    }
    pkta_respond(to, id, a.action, a.ans, 0);
}

void remember(const Key& k, uint64_t digest, int64_t now_ms, const Answer& a)
{
    // Oldest first: an entry goes when it has expired or the table is full.
    // The order also holds entries since replaced (a key asked again with
    // other bytes); it is bounded too, so no sender can grow it.
    while (!done_order.empty()) {
        auto [key, seq] = done_order.front();
        auto it = done.find(key);
        bool live = it != done.end() && it->second.seq == seq;
        if (live && done.size() < size_t(NDA_MAX_DONE) && done_order.size() < size_t(2 * NDA_MAX_DONE) &&
            now_ms - it->second.at_ms < NDA_DONE_MS)
            break;
        if (live)
            done.erase(it);
        done_order.pop_front();
    }
    uint64_t seq = ++done_seq;
    done[k] = {digest, now_ms, seq, a};
    done_order.emplace_back(k, seq);
}

void answer(const UniAddr* to, const Key& k, uint64_t digest, const Answer& a, bool keep = true)
{
    outbox.push_back({*to, k, digest, a, keep, false});
}

// A VERIFY beyond the station's share of this second waits for the next:
// it does not count as a send its holder left unanswered.
void send_verify(Pending& p, int64_t now_ms)
{
    UniAddr to{};
    iantoua(&to, p.holder.via_ip, p.holder.via_port);
    int64_t wait = verify_wait(p.holder.via_ip, now_ms);
    if (wait > 0) {
        TRACE(proc, 3, "nda: VERIFY to %s waits %lld ms\n", uni_ntoa(&to), static_cast<long long>(wait));
        p.next_ms = now_ms + wait;
        return;
    }
    p.sends++;
    if (p.holder.expires != 0) {
        // A WINS station's entry: the station itself is asked.
        wins_probe(p.name, p.holder.ip, p.verify_id);
        p.next_ms = now_ms + NDA_PROBE_GAP_MS;
        return;
    }
    if (tcfile != nullptr && tc_proc >= 3) {
        // The name first: nm_printable formats through uni_ntoa's buffer.
        const char* name = nm_printable(p.name);
        tc_printf("nda: VERIFY %s to %s, id %u\n", name, uni_ntoa(&to), p.verify_id);
    }
    pkta_begin();
    pkta_name(p.name);
    pkta_ip(p.holder.ip);
    pkta_request(&to, p.verify_id, ENS_VERIFY);
    nda_count(nda_stat("verify_sent"));
    p.next_ms = now_ms + NDA_VERIFY_GAP_MS;
}

NdaClaim claim_of(const Pending& p, int64_t now_s)
{
    return {p.name, p.group, p.addrs, p.addr_ct, p.key.ip, p.key.port, now_s};
}

Answer refusal(const NdaHolder& h)
{
    return {ENS_ADD, -1, 2, h.group, h.ip};
}

// One request's changes: kept when `r` is 0 (or `keep_held` and ST_HELD),
// else undone. False when the transaction itself failed.
bool settle_changes(int r, bool keep_held = false)
{
    return store->mark(r == 0 || (keep_held && r == ST_HELD) ? NDA_KEEP : NDA_UNDO) == 0;
}

bool waiting(const Key& k, uint64_t digest)
{
    for (const Pending& p : started)
        if (p.key == k && p.digest == digest)
            return true;
    for (const Pending& p : pending)
        if (p.key == k && p.digest == digest &&
            std::find(settled.begin(), settled.end(), p.verify_id) == settled.end())
            return true;
    return false;
}

// The holder kept its name (confirmed = true) or lost it; the asker is answered.
bool settle(const Pending& p, bool confirmed)
{
    settled.push_back(p.verify_id);
    TRACE(proc, 3, "nda: %s %s by its holder\n", nm_printable(p.name), confirmed ? "confirmed" : "not confirmed");
    if (confirmed) {
        answer(&p.from, p.key, p.digest, p.action == ENS_ADD ? refusal(p.holder) : Answer{ENS_DELETE, -1, 0, 0, 0});
        return true;
    }
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder now_held{};
    int r = p.action == ENS_ADD ? dir_replace(store, claim_of(p, batch_s), p.holder, &now_held)
                                : dir_drop(store, p.name, p.holder);
    if (!settle_changes(r))
        return false;
    if (r < 0) {
        store_failed(batch_s);
        return true;  // unanswered: the daemon asks again
    }
    // Another claimer took the name while this one waited: it is alive.
    answer(&p.from, p.key, p.digest, r == ST_HELD ? refusal(now_held) : Answer{p.action, 0, 0, 0, 0});
    return true;
}

// A request that must wait for the holder's word.
void verify_first(const Item& it, const NdaHolder& h)
{
    if (h.expires != 0 ? !wins_on() : !registrar(h.via_ip)) {
        // Its registrar is no longer one: nobody may be asked, and the
        // entry stays until its own host changes it.
        answer(&it.from, it.key, it.digest,
               it.r.action == ENS_ADD ? refusal(h) : Answer{ENS_DELETE, -1, 0, 0, 0});
        return;
    }
    if (pending.size() + started.size() >= size_t(NDA_MAX_PENDING)) {
        TRACE(proc, 1, "nda: too many verifications waiting, request for %s dropped\n", nm_printable(it.r.name));
        return;  // the daemon asks again in 3 seconds
    }
    Pending p{};
    p.key = it.key;
    p.digest = it.digest;
    p.from = it.from;
    p.action = it.r.action;
    memcpy(p.name, it.r.name, 16);
    p.group = it.r.flags & 1;
    memcpy(p.addrs, it.r.addrs, sizeof p.addrs);
    p.addr_ct = it.r.addr_ct;
    p.holder = h;
    started.push_back(p);
}

bool add_request(const Item& it)
{
    const NdaRequest& r = it.r;
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder h{};
    int res = dir_claim(store, {r.name, r.flags & 1, r.addrs, r.addr_ct, it.key.ip, it.key.port, batch_s}, &h);
    if (!settle_changes(res))
        return false;
    if (res < 0)
        store_failed(batch_s);
    else if (res == 0)
        answer(&it.from, it.key, it.digest, {ENS_ADD, 0, 0, 0, 0});
    // Group members are many and come and go: they refuse a unique claim
    // without being asked. A unique owner is asked whether it still is one.
    else if (h.group != 0)
        answer(&it.from, it.key, it.digest, refusal(h));
    else
        verify_first(it, h);
    return true;
}

bool write_request(const Item& it)
{
    const NdaRequest& r = it.r;
    if (!registrar(it.key.ip)) {
        TRACE(proc, 1, "nda: action %d from %s refused: not a registrar\n", r.action, uni_ntoa(&it.from));
        outbox.push_back({it.from, it.key, it.digest, {r.action, -1, 0, 0, 0}, false, true});
        return true;
    }
    if (r.action == ENS_ADD)
        return add_request(it);
    if (store->mark(NDA_MARK) < 0)
        return false;
    NdaHolder h{};
    int rc = r.action == ENS_DELETE  ? dir_remove(store, r.name, r.addrs, r.addr_ct, it.key.ip, &h)
             : r.action == ENS_EQUIV ? dir_equiv(store, r.addrs, r.addr_ct, batch_s)
                                     : dir_purge(store, r.addrs[0]);
    if (!settle_changes(rc, true))
        return false;
    if (rc < 0)
        store_failed(batch_s);
    else if (rc == ST_HELD)
        verify_first(it, h);
    else
        answer(&it.from, it.key, it.digest, {r.action, 0, 0, 0, 0});
    return true;
}

// The verification with this id (asked of via_ip, unless any_via) not yet settled.
const Pending* find_pending(uint32_t id, uint32_t via_ip, bool any_via)
{
    for (const Pending& p : pending)
        if (p.verify_id == id && (any_via || p.holder.via_ip == via_ip) &&
            std::find(settled.begin(), settled.end(), p.verify_id) == settled.end())
            return &p;
    return nullptr;
}

// One item inside the transaction: false when the transaction failed.
bool handle(const Item& it)
{
    const NdaRequest& r = it.r;
    if (it.expired != 0) {
        const Pending* p = find_pending(it.expired, 0, true);
        return p == nullptr || settle(*p, false);  // silence: the holder is gone
    }
    if (r.response) {
        const Pending* p = find_pending(r.id, it.key.ip, false);
        if (p != nullptr)
            return settle(*p, r.ans == 0 && r.err == 0);
        if (wins_verify_answer(r.id, it.key.ip, r.ans == 0 && r.err == 0))
            return true;
        TRACE(proc, 3, "nda: VERIFY response id %u matches nothing\n", r.id);
        return true;
    }
    // A QUERY changes nothing: a repeated one is answered afresh, and the
    // table of answers is left to the requests that must not be done twice.
    if (r.action == ENS_QUERY) {
        NdaHolder h{};
        int found = dir_query(store, r.name, batch_s, &h);
        if (found < 0) {
            store_failed(batch_s);
            return true;
        }
        answer(&it.from, it.key, it.digest,
               found ? Answer{ENS_QUERY, 0, 1, h.group, h.ip} : Answer{ENS_QUERY, -1, 0, 0, 0}, false);
        return true;
    }
    auto d = done.find(it.key);
    if (d != done.end() && d->second.digest == it.digest && batch_ms - d->second.at_ms < NDA_DONE_MS) {
        TRACE(proc, 3, "nda_datagram: repeated request id %u, answered again\n", r.id);
        answer(&it.from, it.key, it.digest, d->second.a, false);
        return true;
    }
    for (const Out& o : outbox) {
        if (o.keep && o.key == it.key && o.digest == it.digest) {
            answer(&it.from, it.key, it.digest, o.a, false);
            return true;
        }
    }
    if (waiting(it.key, it.digest))
        return true;  // its answer comes when the holder has answered
    return write_request(it);
}

int run_batch(void*)
{
    outbox.clear();
    started.clear();
    settled.clear();
    for (size_t i = run_from; i < run_to; i++)
        if (!handle(batch[i]))
            return -1;
    return 0;
}

void log_refused(int64_t now_s, const UniAddr* last)
{
    if (now_s - refused_logged < STORE_LOG_GAP_S && refused_logged != 0)
        return;
    refused_logged = now_s;
    log_new();
    log_catmsg(LOG_SET, MSG_REFUSED, "%s: %llu changes refused to stations outside the registrars, the last from %s",
               prog, static_cast<unsigned long long>(refused_ct), uni_ntoa(last));
}

// After a commit: the answers, then the verifications it started.
void apply(int64_t now_ms, int64_t now_s)
{
    const UniAddr* last_refused = nullptr;
    for (const Out& o : outbox) {
        if (o.keep)
            remember(o.key, o.digest, now_ms, o.a);
        if (o.refused) {
            refused_ct++;
            nda_count(nda_stat("refused_outsider"));
            last_refused = &o.to;
        } else if (o.a.ans < 0 && (o.a.action == ENS_ADD || o.a.action == ENS_DELETE)) {
            nda_count(nda_stat("refused_held"));
        }
        send_answer(&o.to, o.key.id, o.a);
    }
    if (last_refused != nullptr)
        log_refused(now_s, last_refused);
    for (uint32_t id : settled)
        std::erase_if(pending, [id](const Pending& p) { return p.verify_id == id; });
    for (Pending& p : started) {
        p.verify_id = next_verify_id++;
        pending.push_back(p);
        send_verify(pending.back(), now_ms);
    }
    outbox.clear();
    started.clear();
    settled.clear();
}

// Items from..to-1 of the batch in one transaction: 0 committed and
// answered, or the engine's failure.
int commit_items(size_t from, size_t to, int64_t now_ms, int64_t now_s)
{
    bool write = false;
    for (size_t i = from; i < to; i++)
        write = write || batch[i].expired != 0 || batch[i].r.response || batch[i].r.action != ENS_QUERY;
    run_from = from;
    run_to = to;
    int r = store->transact(write, run_batch, nullptr);
    if (r == 0 && write)
        nda_count(nda_stat("commits"));
    if (r == 0)
        apply(now_ms, now_s);
    return r;
}

}  // namespace

void nda_serve_init(const NdaStore* s)
{
    store = s;
    done.clear();
    done_order.clear();
    pending.clear();
    batch.clear();
    verify_rate.clear();
    next_verify_id = 1;
    store_logged = 0;
    refused_ct = 0;
    refused_logged = 0;
    nda_stats_reset();
}

void nda_set_registrars(const NdaNet* nets, int n)
{
    registrar_ct = 0;
    for (int i = 0; i < n && registrar_ct < registrars.size(); i++)
        registrars[registrar_ct++] = {nets[i].net & nets[i].mask, nets[i].mask};
}

void nda_datagram(const uint8_t* bytes, int len, const UniAddr* from, int64_t now_ms, int64_t now_s)
{
    Item it{};
    int rc = nda_read_request(bytes, len, &it.r);
    if (rc < 0) {
        TRACE(proc, 1, "nda_datagram: %d bytes from %s dropped (%d)\n", len, uni_ntoa(from), rc);
        nda_count(nda_stat("requests_malformed"));
        return;
    }
    nda_count(action_stat(it.r));
    TRACE(proc, 5, "nda_datagram: id %u, action %d, response %d, from %s\n", it.r.id, it.r.action, it.r.response,
          uni_ntoa(from));
    if (batch.size() >= size_t(NDA_MAX_BATCH))
        nda_flush(now_ms, now_s);
    it.from = *from;
    int32_t port = 0;
    uatoian(&it.key.ip, &port, from);
    it.key.port = uint16_t(port);
    it.key.id = it.r.id;
    it.digest = digest_of(bytes, len);
    batch.push_back(it);
}

void nda_flush(int64_t now_ms, int64_t now_s)
{
    if (batch.empty())
        return;
    batch_ms = now_ms;
    batch_s = now_s;
    // Agents sharing one directory that keep conflicting over a whole
    // batch get through one request at a time. Unanswered requests are
    // asked again by their daemons.
    int r = commit_items(0, batch.size(), now_ms, now_s);
    if (r == NDA_BUSY && batch.size() > 1) {
        for (size_t i = 0; i < batch.size(); i++)
            if (commit_items(i, i + 1, now_ms, now_s) < 0)
                store_failed(now_s);
    } else if (r < 0) {
        store_failed(now_s);
    }
    batch.clear();
}

int nda_due(int64_t now_ms, int64_t now_s)
{
    nda_flush(now_ms, now_s);
    for (Pending& p : pending) {
        if (p.next_ms > now_ms)
            continue;
        if (p.sends < (p.holder.expires != 0 ? NDA_PROBE_SENDS : NDA_VERIFY_SENDS)) {
            send_verify(p, now_ms);
            continue;
        }
        Item it{};
        it.expired = p.verify_id;
        batch.push_back(it);
        p.next_ms = now_ms + NDA_VERIFY_GAP_MS;  // should the directory fail, the next try
    }
    nda_flush(now_ms, now_s);
    int64_t next = -1;
    for (const Pending& p : pending)
        if (next < 0 || p.next_ms - now_ms < next)
            next = std::max<int64_t>(p.next_ms - now_ms, 0);
    return int(next);
}

bool nda_is_registrar(uint32_t ip)
{
    return registrar(ip);
}

void nda_probe_answer(uint32_t verify_id, uint32_t ip, bool held)
{
    Item it{};
    it.r.response = 1;
    it.r.id = verify_id;
    it.r.ans = held ? 0 : -1;
    iantoua(&it.from, ip, WINS_PORT);
    it.key.ip = ip;
    batch.push_back(it);
}

int nda_pending()
{
    return int(pending.size());
}
