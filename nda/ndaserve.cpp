#include "nda/ndaserve.h"

#include <cstring>
#include <deque>
#include <unordered_map>
#include <vector>

#include "misc/nencode.h"
#include "misc/pktasm.h"
#include "nda/ndareq.h"
#include "nda/ndastore.h"
#include "nmtrace.h"
#include "shr/logging.h"
#include "shr/uniinet.h"
#include "src/maininit.h"

namespace {

constexpr int MSG_STORE_ERROR = 553;
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

// An ADD waiting for the holder's VERIFY answer.
struct Pending {
    Key key;
    uint64_t digest;
    UniAddr from;
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

void answer(const UniAddr* to, const Key& k, uint64_t digest, int64_t now_ms, const Answer& a)
{
    remember(k, digest, now_ms, a);
    send_answer(to, k.id, a);
}

void send_verify(Pending& p)
{
    UniAddr to{};
    iantoua(&to, p.holder.via_ip, p.holder.via_port);
    TRACE(proc, 3, "nda: VERIFY %s at %s, id %u\n", nm_printable(p.name), uni_ntoa(&to), p.verify_id);
    pkta_begin();
    pkta_name(p.name);
    pkta_ip(p.holder.ip);
    pkta_request(&to, p.verify_id, ENS_VERIFY);
    p.sends++;
}

NdaClaim claim_of(const Pending& p, int64_t now_s)
{
    return {p.name, p.group, p.addrs, p.addr_ct, p.key.ip, p.key.port, now_s};
}

Answer refusal(const NdaHolder& h)
{
    return {ENS_ADD, -1, 2, h.group, h.ip};
}

// The holder kept its name (confirmed = true) or lost it; the claimer is answered.
void settle(size_t i, bool confirmed, int64_t now_ms, int64_t now_s)
{
    Pending p = pending[i];
    pending.erase(pending.begin() + ptrdiff_t(i));
    TRACE(proc, 3, "nda: %s %s by its holder\n", nm_printable(p.name), confirmed ? "confirmed" : "not confirmed");
    if (confirmed) {
        answer(&p.from, p.key, p.digest, now_ms, refusal(p.holder));
        return;
    }
    NdaHolder now_held{};
    int r = store->replace(claim_of(p, now_s), p.holder, &now_held);
    if (r < 0) {
        store_failed(now_s);
        return;  // unanswered: the daemon asks again
    }
    // Another claimer took the name while this one waited: it is alive.
    answer(&p.from, p.key, p.digest, now_ms, r == ST_HELD ? refusal(now_held) : Answer{ENS_ADD, 0, 0, 0, 0});
}

void add_request(const NdaRequest& r, const UniAddr* from, const Key& k, uint64_t digest, int64_t now_ms,
                 int64_t now_s)
{
    Pending p{};
    p.key = k;
    p.digest = digest;
    p.from = *from;
    memcpy(p.name, r.name, 16);
    p.group = r.flags & 1;
    memcpy(p.addrs, r.addrs, sizeof p.addrs);
    p.addr_ct = r.addr_ct;
    int res = store->claim(claim_of(p, now_s), &p.holder);
    if (res < 0) {
        store_failed(now_s);
        return;
    }
    if (res == 0) {
        answer(from, k, digest, now_ms, {ENS_ADD, 0, 0, 0, 0});
        return;
    }
    // Group members are many and come and go: they refuse a unique claim
    // without being asked. A unique owner is asked whether it still is one.
    if (p.holder.group != 0) {
        answer(from, k, digest, now_ms, refusal(p.holder));
        return;
    }
    if (pending.size() >= size_t(NDA_MAX_PENDING)) {
        TRACE(proc, 1, "nda: too many verifications waiting, ADD of %s dropped\n", nm_printable(r.name));
        return;  // the daemon asks again in 3 seconds
    }
    p.verify_id = next_verify_id++;
    pending.push_back(p);
    send_verify(pending.back());
    pending.back().next_ms = now_ms + NDA_VERIFY_GAP_MS;
}

void verify_response(const NdaRequest& r, const UniAddr* from, int64_t now_ms, int64_t now_s)
{
    uint32_t ip = 0;
    uatoian(&ip, nullptr, from);
    for (size_t i = 0; i < pending.size(); i++) {
        if (pending[i].verify_id == r.id && pending[i].holder.via_ip == ip) {
            settle(i, r.ans == 0 && r.err == 0, now_ms, now_s);
            return;
        }
    }
    TRACE(proc, 3, "nda: VERIFY response id %u matches nothing\n", r.id);
}

}  // namespace

void nda_serve_init(const NdaStore* s)
{
    store = s;
    done.clear();
    done_order.clear();
    pending.clear();
    next_verify_id = 1;
    store_logged = 0;
}

void nda_datagram(const uint8_t* bytes, int len, const UniAddr* from, int64_t now_ms, int64_t now_s)
{
    NdaRequest r;
    int rc = nda_read_request(bytes, len, &r);
    if (rc < 0) {
        TRACE(proc, 1, "nda_datagram: %d bytes from %s dropped (%d)\n", len, uni_ntoa(from), rc);
        return;
    }
    TRACE(proc, 5, "nda_datagram: id %u, action %d, response %d, from %s\n", r.id, r.action, r.response,
          uni_ntoa(from));
    if (r.response) {
        verify_response(r, from, now_ms, now_s);
        return;
    }
    // A QUERY changes nothing: a repeated one is answered afresh, and the
    // table of answers is left to the requests that must not be done twice.
    NdaHolder h{};
    if (r.action == ENS_QUERY) {
        int found = store->query(r.name, &h);
        if (found < 0) {
            store_failed(now_s);
            return;
        }
        send_answer(from, r.id, found ? Answer{ENS_QUERY, 0, 1, h.group, h.ip} : Answer{ENS_QUERY, -1, 0, 0, 0});
        return;
    }
    Key k{};
    int32_t port = 0;
    uatoian(&k.ip, &port, from);
    k.port = uint16_t(port);
    k.id = r.id;
    uint64_t digest = digest_of(bytes, len);
    auto it = done.find(k);
    if (it != done.end() && it->second.digest == digest && now_ms - it->second.at_ms < NDA_DONE_MS) {
        TRACE(proc, 3, "nda_datagram: repeated request id %u, answered again\n", r.id);
        send_answer(from, r.id, it->second.a);
        return;
    }
    for (const Pending& p : pending)
        if (p.key == k && p.digest == digest)
            return;  // its answer comes when the holder has answered

    switch (r.action) {
    case ENS_ADD:
        add_request(r, from, k, digest, now_ms, now_s);
        return;
    case ENS_DELETE:
        rc = store->remove(r.name, r.addrs, r.addr_ct);
        break;
    case ENS_EQUIV:
        rc = store->equiv(r.addrs, r.addr_ct, now_s);
        break;
    case ENS_PURGE:
        rc = store->purge(r.addrs[0]);
        break;
    default:
        return;
    }
    if (rc < 0) {
        store_failed(now_s);
        return;
    }
    answer(from, k, digest, now_ms, {r.action, 0, 0, 0, 0});
}

int nda_due(int64_t now_ms, int64_t now_s)
{
    int64_t next = -1;
    for (size_t i = 0; i < pending.size();) {
        Pending& p = pending[i];
        if (p.next_ms <= now_ms) {
            if (p.sends >= NDA_VERIFY_SENDS) {
                settle(i, false, now_ms, now_s);  // silence: the holder is gone
                continue;
            }
            send_verify(p);
            p.next_ms = now_ms + NDA_VERIFY_GAP_MS;
        }
        if (next < 0 || p.next_ms - now_ms < next)
            next = p.next_ms - now_ms;
        i++;
    }
    return int(next);
}

int nda_pending()
{
    return int(pending.size());
}
