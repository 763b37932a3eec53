#include "src/delay.h"

#include <array>
#include <cstring>
#include <map>
#include <new>
#include <unordered_map>

#include "misc/pktasm.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/cust.h"
#include "src/enstable.h"
#include "src/hashkey.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/query.h"
#include "src/stats.h"

namespace {

// The list, kept as one queue per due second in order of insertion: a new
// record goes to the end of its second's queue without a walk, and the
// order is the one list's, earliest expiry first.
struct Slot {
    DelayCmd* head;
    DelayCmd* tail;
};
// Beside it, by ENS id (every response), by name for the outstanding
// queries (merging), and by address for the verifications (every status
// answer): with thousands of records nothing walks them.
// Made once and never destroyed, so that the records are still reachable
// (not reported as leaks) when the process ends with commands pending.
std::map<time_t, Slot>& d_slots = *new std::map<time_t, Slot>;
std::unordered_map<uint32_t, DelayCmd*>& d_ids = *new std::unordered_map<uint32_t, DelayCmd*>;  // our own ids
std::unordered_map<NameKey, DelayCmd*, NameHash>& d_queries = *new std::unordered_map<NameKey, DelayCmd*, NameHash>;
std::unordered_multimap<uint32_t, DelayCmd*, AddrHash>& d_verifies =
    *new std::unordered_multimap<uint32_t, DelayCmd*, AddrHash>;
int d_count = 0;             // records, merged ones included
int d_pending = 0;           // 1 while a timer is armed for serve_delay
uint32_t next_xid = 1;

constexpr int CMD_WAIT = 3;     // between two sends of a command
constexpr int VERIFY_WAIT = 2;  // an agent's VERIFY waits no longer for the status answer
constexpr int CLAIMCK_WAIT = 5;
constexpr int SENDS_PER_NDA = 2;

// VERIFY answers: the host holds the name, or it does not (or was silent).
constexpr int32_t VERIFY_NO_ANS = -1;
constexpr int32_t VERIFY_NO_ERR = 3;

void verify_response(const DelayCmd* rec, int32_t ans, int32_t err)
{
    pkta_begin();
    pkta_respond(&rec->peer, static_cast<uint32_t>(rec->ctx1), ENS_VERIFY, ans, err);
}

bool sends(int kind)
{
    return kind != DC_CLAIMCK && kind != DC_VERIFY;
}

bool is_query(int kind)
{
    return kind == DC_QUERY || kind == DC_LQUERY;
}

NameKey key_of(const uint8_t* name) { return hk_name(name); }

DelayCmd* earliest()
{
    return d_slots.empty() ? nullptr : d_slots.begin()->second.head;
}

// Into the indexes and its second's queue; false (nothing changed) when
// memory is short.
bool link_rec(DelayCmd* rec)
{
    try {
        Slot& slot = d_slots.try_emplace(rec->expiry, Slot{nullptr, nullptr}).first->second;
        d_ids[rec->xid] = rec;
        if (is_query(rec->kind))
            d_queries.try_emplace(key_of(rec->name), rec);
        if (rec->kind == DC_VERIFY)  // never sent again, so linked once
            d_verifies.emplace(rec->addrs[0], rec);
        rec->next = nullptr;
        rec->prev = slot.tail;
        (slot.tail != nullptr ? slot.tail->next : slot.head) = rec;
        slot.tail = rec;
        return true;
    } catch (...) {
        d_ids.erase(rec->xid);
        auto q = d_queries.find(key_of(rec->name));
        if (q != d_queries.end() && q->second == rec)
            d_queries.erase(q);
        // An empty queue would hide the later ones from earliest().
        auto it = d_slots.find(rec->expiry);
        if (it != d_slots.end() && it->second.head == nullptr)
            d_slots.erase(it);
        return false;
    }
}

// Out of its queue; the indexes keep it (a record sent again goes back in).
void unqueue(DelayCmd* rec)
{
    auto it = d_slots.find(rec->expiry);
    if (it == d_slots.end())
        return;
    Slot& slot = it->second;
    (rec->prev != nullptr ? rec->prev->next : slot.head) = rec->next;
    (rec->next != nullptr ? rec->next->prev : slot.tail) = rec->prev;
    rec->next = rec->prev = nullptr;
    if (slot.head == nullptr)
        d_slots.erase(it);
}

void unindex(DelayCmd* rec)
{
    d_ids.erase(rec->xid);
    if (is_query(rec->kind)) {
        auto q = d_queries.find(key_of(rec->name));
        if (q != d_queries.end() && q->second == rec)
            d_queries.erase(q);
    }
    if (rec->kind == DC_VERIFY) {
        auto [from, to] = d_verifies.equal_range(rec->addrs[0]);
        for (auto it = from; it != to; ++it) {
            if (it->second == rec) {
                d_verifies.erase(it);
                break;
            }
        }
    }
}

// Frees a record taken out of the list, with the queries merged into it.
void free_rec(DelayCmd* rec)
{
    while (DelayCmd* m = rec->merged) {
        rec->merged = m->merged;
        d_count--;
        delete m;
    }
    d_count--;
    delete rec;
}

}  // namespace

int delay_count()
{
    return d_count;
}

DelayCmd* dc_alloc()
{
    DelayCmd* rec = new (std::nothrow) DelayCmd{};
    if (rec == nullptr) {
        TRACE(proc, 1, "dc_alloc: malloc failed\n");
        return nullptr;
    }
    rec->xid = next_xid++;
    return rec;
}

void dc_start(DelayCmd* rec, time_t now)
{
    int wait = rec->kind == DC_VERIFY ? VERIFY_WAIT : rec->kind == DC_CLAIMCK ? CLAIMCK_WAIT : CMD_WAIT;
    rec->expiry = now + wait;
    rec->nda_index = 0;
    rec->tries = 0;
    if (is_query(rec->kind)) {
        // The same question already out: its answer serves this one too.
        auto q = d_queries.find(key_of(rec->name));
        if (q != d_queries.end() && d_count < DC_MAX) {
            TRACE(proc, 3, "dc_start: query merged with id %lu\n", static_cast<unsigned long>(q->second->xid));
            rec->merged = q->second->merged;
            q->second->merged = rec;
            d_count++;
            return;
        }
    }
    while (d_count >= DC_MAX) {
        DelayCmd* first = earliest();
        if (first == nullptr)
            break;
        TRACE(proc, 1, "dc_start: command list full, id %lu given up\n", static_cast<unsigned long>(first->xid));
        unqueue(first);
        unindex(first);
        free_rec(first);
    }
    if (sends(rec->kind) && send_cmd(rec) < 0) {
        delete rec;  // no agent configured: nobody to ask
        return;
    }
    d_count++;
    insert_delay(rec);
}

void insert_delay(DelayCmd* rec)
{
    if (!link_rec(rec)) {
        TRACE(proc, 1, "insert_delay: malloc failed\n");
        unindex(rec);
        free_rec(rec);
        return;
    }
    if (d_pending == 0)
        serve_delay();
}

void serve_delay(int32_t)
{
    d_pending = 1;
    time_t now = dg_now();
    while (earliest() != nullptr && earliest()->expiry <= now)
        cmd_timeout(now);
    if (earliest() == nullptr) {
        d_pending = 0;
        return;
    }
    // A full timer table would strand the list; the next insertion then
    // serves it again.
    if (dg_timer(static_cast<int>(earliest()->expiry - now), serve_delay, 0) < 0)
        d_pending = 0;
}

void cmd_timeout(time_t now)
{
    DelayCmd* rec = earliest();
    if (rec == nullptr)
        return;
    unqueue(rec);
    if (rec->kind == DC_CLAIMCK) {
        uint32_t claimer = 0;
        if (uatoian(&claimer, nullptr, &rec->peer) == 0)
            adapstat_query(rec->name, claimer);
    } else if (rec->kind == DC_VERIFY) {
        verify_response(rec, VERIFY_NO_ANS, VERIFY_NO_ERR);
    } else if (send_cmd(rec) == 0) {
        rec->expiry = now + CMD_WAIT;
        insert_delay(rec);
        return;
    }
    unindex(rec);
    free_rec(rec);
}

int send_cmd(DelayCmd* rec)
{
    if (rec->tries >= SENDS_PER_NDA) {
        rec->nda_index++;
        if (rec->nda_index >= nda_ct) {
            TRACE(proc, 3, "send_cmd: No response from any NDA\n");
            stat_inc(ST_AGENT_UNANSWERED);
            return -1;
        }
        rec->tries = 0;
    }
    if (rec->nda_index >= nda_ct || rec->nda_index >= MAX_NDA)
        return -1;
    rec->tries++;
    stat_inc(rec->tries == 1 && rec->nda_index == 0 ? ST_AGENT_SENT : ST_AGENT_RETRIED);
    UniAddr to{};
    iantoua(&to, nda_addr[rec->nda_index], ndport);
    switch (rec->kind) {
    case DC_CLAIM:
    case DC_ADD:
        send_add(rec->xid, rec->name, rec->flags, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_QUERY:
    case DC_LQUERY:
        send_query(rec->xid, rec->name, &to);
        break;
    case DC_DELETE:
        send_delete(rec->xid, rec->name, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_EQUIV:
        send_equiv(rec->xid, rec->addrs, rec->addr_ct, &to);
        break;
    case DC_PURGE:
        send_purge(rec->xid, rec->addrs[0], &to);
        break;
    default:
        return -1;
    }
    return 0;
}

DelayCmd* find_delay(uint32_t id)
{
    auto it = d_ids.find(id);
    return it != d_ids.end() ? it->second : nullptr;
}

int rm_delay(DelayCmd* rec)
{
    if (rec == nullptr || find_delay(rec->xid) != rec)
        return -1;
    unqueue(rec);
    unindex(rec);
    free_rec(rec);
    return 0;
}

void delay_claimck(const uint8_t* name, const UniAddr* peer)
{
    DelayCmd* rec = dc_alloc();
    if (rec == nullptr)
        return;
    rec->kind = DC_CLAIMCK;
    memcpy(rec->name, name, sizeof rec->name);
    rec->peer = *peer;
    dc_start(rec, dg_now());
}

void delay_verify(const UniAddr* peer, uint32_t id, const uint8_t* name, uint32_t address)
{
    DelayCmd* rec = dc_alloc();
    if (rec == nullptr)
        return;
    rec->kind = DC_VERIFY;
    rec->ctx1 = static_cast<int32_t>(id);
    memcpy(rec->name, name, sizeof rec->name);
    rec->peer = *peer;
    rec->addrs[0] = address;
    rec->addr_ct = 1;
    adapstat_query(name, address);
    dc_start(rec, dg_now());
}

void check_verify(const uint32_t* addrs, int n)
{
    // The first waiting: all wait the same 2 seconds, so the lowest id.
    DelayCmd* rec = nullptr;
    for (int i = 0; i < n; i++) {
        auto [from, to] = d_verifies.equal_range(addrs[i]);
        for (auto it = from; it != to; ++it) {
            if (rec == nullptr || it->second->xid < rec->xid)
                rec = it->second;
        }
    }
    if (rec == nullptr)
        return;
    TRACE(proc, 3, "check_verify: found match\n");
    const EnsAddr* a = ens_a_lookup(rec->addrs[0]);
    if (a == nullptr || a->host == nullptr)
        return;  // the time-out answers
    if (ens_n_find(rec->name, a->host) != nullptr)
        verify_response(rec, 0, 0);
    else
        verify_response(rec, VERIFY_NO_ANS, VERIFY_NO_ERR);
    rm_delay(rec);
}
