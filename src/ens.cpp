#include "src/ens.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/cust.h"
#include "src/delay.h"
#include "src/enstable.h"
#include "src/ensunk.h"
#include "src/getnpack.h"
#include "src/maininit.h"
#include "src/query.h"

namespace {

constexpr int ENS_MAXADDR = 20;           // addresses a host holds
constexpr int PROBE_INTERVAL = 300;       // seconds between probes
constexpr time_t STALE_AFTER = 1800;      // a host silent this long is probed
constexpr int MAX_PROBES = 3;             // silent probes before the purge

uint32_t probe_addr = 0;  // the address probed last

// Requests asked and senders heard unasked, each in a table of fixed size
// indexed by the address: a collision forgets the older entry, which at
// worst counts an asked answer as unasked. Bounded whatever arrives.
constexpr int SEEN_SLOTS = 4096;
constexpr time_t ASK_WAIT = 10;        // an answer this late was not asked for
constexpr time_t UNASKED_GAP = 60;     // one new host per unknown sender a minute
constexpr int UNASKED_PER_SEC = 4;     // in total, with a burst of
constexpr int UNASKED_BURST = 16;
struct Seen {
    uint32_t address;
    time_t time;
};
std::array<Seen, SEEN_SLOTS> asked{};
std::array<Seen, SEEN_SLOTS> unasked{};
int tokens = UNASKED_BURST;
time_t tokens_at = 0;

Seen& slot_of(std::array<Seen, SEEN_SLOTS>& table, uint32_t address)
{
    return table[(address * 2654435761u) >> 20];  // the top 12 bits
}
static_assert(SEEN_SLOTS == 1 << 12);

EnsName* host_name(EnsHost* host, const uint8_t* name)
{
    for (EnsName* e = host->names; e != nullptr; e = e->host_next) {
        if (memcmp(e->name, name, 16) == 0)
            return e;
    }
    return nullptr;
}

int addr_count(const EnsHost* host)
{
    int n = 0;
    for (const EnsAddr* a = host->addrs; a != nullptr; a = a->host_next)
        n++;
    return n;
}

// The host's addresses changed: drop it and make it anew. A single address
// left gets an EQUIV of its own, which undoes the agents' former grouping.
void rebuild_host(const as_name* entries, int n, const uint32_t* addrs, int addr_n, EnsHost* host)
{
    if (addr_n == 1)
        nda_equiv(addrs, 1);
    ens_free(host);
    add_host(entries, n, addrs, addr_n);
}

}  // namespace

void ens_asked(uint32_t address)
{
    slot_of(asked, address) = {address, dg_now()};
}

bool ens_may_learn(uint32_t sender)
{
    time_t now = dg_now();
    Seen& a = slot_of(asked, sender);
    if (a.address == sender && a.time != 0 && now - a.time <= ASK_WAIT) {
        a = {};  // one answer per request
        return true;
    }
    // A host we know refreshes itself as it likes (within the total); a
    // sender we do not know makes one new host a minute at most.
    Seen& u = slot_of(unasked, sender);
    bool known = ens_a_lookup(sender) != nullptr;
    if (!known && u.address == sender && u.time != 0 && now - u.time < UNASKED_GAP)
        return false;
    if (now != tokens_at) {
        time_t gained = now > tokens_at ? (now - tokens_at) * UNASKED_PER_SEC : UNASKED_BURST;
        tokens = int(std::min<time_t>(UNASKED_BURST, tokens + gained));
        tokens_at = now;
    }
    if (tokens == 0) {
        TRACE(proc, 3, "ens_may_learn: unasked status answer from %s not learned\n", nm_ntoa(sender));
        return false;
    }
    tokens--;
    u = {sender, now};
    return true;
}

void pn2addr(uint32_t* out, const uint8_t* name)
{
    memcpy(out, name + 10, 4);
}

void ens_gotnames(const as_name* entries, int n, uint32_t sender)
{
    // A host holds at most 20 addresses: an answer with more permanent names
    // gives the first 20, as an EQUIV request with more addresses does.
    uint32_t addrs[ENS_MAXADDR];
    int count = 0;
    for (int i = 0; i < n && count < ENS_MAXADDR; i++) {
        if ((entries[i].flags & AS_PERMANENT) != 0)
            pn2addr(&addrs[count++], entries[i].name);
    }
    if (count == 0)
        addrs[count++] = sender;
    // Our own status answer (a client asked one of our addresses), or one
    // forged with an own address: learning it would make us another host
    // to ourselves. No other host can hold our addresses, so nothing of it
    // is learned.
    for (int i = 0; i < count; i++) {
        if (ens_a_own(addrs[i])) {
            TRACE(proc, 3, "ens_gotnames: answer names own address %s, not learned\n", nm_ntoa(addrs[i]));
            return;
        }
    }

    for (int i = 0; i < count; i++)
        unk_remove(addrs[i]);

    if (tcfile != nullptr && tc_proc >= 5) {
        tc_printf("ens_gotnames: %d names, %d addresses --\nnames", n, count);
        for (int i = 0; i < n; i++)
            tc_printf("\t%s\n", nm_printable(entries[i].name));
        tc_printf("addrs");
        for (int i = 0; i < count; i++)
            tc_printf("\t%s\n", nm_ntoa(addrs[i]));
        fflush(tcfile);
    }

    for (int i = 0; i < count; i++) {
        EnsAddr* a = ens_a_lookup(addrs[i]);
        if (a != nullptr && a->host != nullptr) {
            update_host(entries, n, addrs, count, a->host);
            check_verify(addrs, count);
            return;
        }
    }
    add_host(entries, n, addrs, count);
    check_verify(addrs, count);
}

int add_host(const as_name* entries, int n, const uint32_t* addrs, int addr_n)
{
    TRACE(proc, 3, "add_host called, nct %d, act %d\n", n, addr_n);
    if (n <= 0 || addr_n <= 0)
        return -1;
    if (addr_n > ENS_MAXADDR)
        addr_n = ENS_MAXADDR;
    EnsHost* host = ens_create();
    if (host == nullptr)
        return -1;
    ens_touch(host, dg_now());
    for (int i = 0; i < addr_n; i++) {
        if (ens_a_add(addrs[i], host) < 0) {
            ens_free(host);
            return -1;
        }
    }
    if (addr_n > 1)
        nda_equiv(addrs, addr_n);
    for (int i = 0; i < n; i++) {
        if (ens_n_add(entries[i].name, entries[i].flags, host) < 0) {
            ens_free(host);
            return -1;
        }
        nda_add(entries[i].name, entries[i].flags, addrs, addr_n);
    }
    return 0;
}

void update_host(const as_name* entries, int n, const uint32_t* addrs, int addr_n, EnsHost* host)
{
    TRACE(proc, 3, "update_host called, nct %d, act %d\n", n, addr_n);
    int was = addr_count(host);
    if (was != addr_n) {
        TRACE(proc, 3, "update_host: address count changed (was %d)\n", was);
        rebuild_host(entries, n, addrs, addr_n, host);
        return;
    }
    for (int i = 0; i < addr_n; i++) {
        const EnsAddr* a = ens_a_lookup(addrs[i]);
        if (a == nullptr || a->host != host) {
            TRACE(proc, 3, "update_host: address %s new\n", nm_ntoa(addrs[i]));
            rebuild_host(entries, n, addrs, addr_n, host);
            return;
        }
    }

    ens_touch(host, dg_now());
    host->probes = 0;

    // Names still marked after the answer was walked are gone from the host.
    for (EnsName* e = host->names; e != nullptr; e = e->host_next)
        e->flags |= ENS_MARK;
    for (int i = 0; i < n; i++) {
        const uint8_t* name = entries[i].name;
        bool known = false;
        // Every entry of those bytes: a name listed twice must not leave a
        // marked twin for the deletion below to find.
        for (EnsName* e = host->names; e != nullptr; e = e->host_next) {
            if (memcmp(e->name, name, 16) == 0) {
                e->flags &= ~ENS_MARK;
                known = true;
            }
        }
        if (!known) {
            TRACE(proc, 3, "update_host: adding new name\n");
            if (ens_n_add(name, entries[i].flags, host) == 0)
                nda_add(name, entries[i].flags, addrs, addr_n);
        }
    }
    for (;;) {
        EnsName* e = host->names;
        while (e != nullptr && (e->flags & ENS_MARK) == 0)
            e = e->host_next;
        if (e == nullptr)
            break;
        TRACE(proc, 3, "update_host: deleting defunct name\n");
        uint8_t name[16];
        memcpy(name, e->name, sizeof name);  // the entry goes with ens_n_del
        nda_delete(name, addrs, addr_n);
        if (ens_n_del(name, host) < 0)
            break;
    }

    if (host->names == nullptr) {
        TRACE(proc, 3, "update_host: host %s has no names -- deleting it\n", nm_ntoa(addrs[0]));
        ens_free(host);
    }
}

void add_name_to_host(const uint8_t* name, uint32_t address, uint32_t flags, time_t now)
{
    EnsHost* host = nullptr;
    bool made = false;
    if (const EnsAddr* a = ens_a_lookup(address); a != nullptr) {
        if (a->host == nullptr)
            return;  // one of our own addresses
        host = a->host;
        if (host_name(host, name) != nullptr)
            return;
    } else {
        host = ens_create();
        if (host == nullptr)
            return;
        made = true;
        ens_touch(host, now);
        if (ens_a_add(address, host) < 0) {
            ens_free(host);
            return;
        }
    }
    // Memory short: a host made here goes again with everything on it; a
    // host known before keeps the names it had.
    if (ens_n_add(name, flags, host) < 0 && made)
        ens_free(host);
}

void set_probe_timer()
{
    dg_timer(PROBE_INTERVAL, do_probe, 0);
}

void choose_name(uint8_t out[16], const EnsAddr* entry)
{
    int k = entry->host != nullptr ? entry->host->probes : 0;
    if (k >= 1) {
        const EnsName* e = entry->host->names;
        for (int i = 1; e != nullptr && i < k; i++)
            e = e->host_next;
        if (e != nullptr) {
            memcpy(out, e->name, 16);
            return;
        }
    }
    memcpy(out, perm_name(entry->address), 16);
}

void do_probe(int32_t)
{
    TRACE(proc, 3, "do_probe called\n");
    if (tcfile != nullptr && tc_proc >= 9)
        dump_enstable(tcfile);

    time_t now = dg_now();
    if (EnsAddr* a = ens_a_old(probe_addr, now - STALE_AFTER); a != nullptr) {
        EnsHost* host = a->host;
        if (host->probes >= MAX_PROBES) {
            nda_purge(a->address);
            ens_free(host);
        } else {
            probe_addr = a->address;
            uint8_t name[16];
            choose_name(name, a);
            adapstat_query(name, a->address);
            host->probes++;
        }
    }
    set_probe_timer();
}
