#include "src/enstable.h"

#include <array>
#include <cstring>
#include <new>
#include <unordered_map>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/hashkey.h"

namespace {

std::array<EnsName*, ENS_NBUCKETS> hn_table{};
std::array<EnsAddr*, ENS_ABUCKETS> ha_table{};

// Beside the buckets, which keep the order of the dump and the stale scan:
// an index from the bytes of a name, and from an address, to the newest
// entry of them. The address buckets are the first octet, so a whole LAN
// shares one; every lookup would otherwise walk all its hosts.
std::unordered_map<NameKey, EnsName*, NameHash> n_index;
std::unordered_map<uint32_t, EnsAddr*, AddrHash> a_index;

EnsHost* oldest = nullptr;  // least recently heard of first
EnsHost* newest = nullptr;
int host_ct = 0;
int name_ct = 0;
int addr_ct = 0;

bool same_name(const EnsName* e, const uint8_t* name) { return memcmp(e->name, name, 16) == 0; }

NameKey key_of(const uint8_t* name) { return hk_name(name); }

int hash_name(const uint8_t* n)
{
    unsigned sum = n[0] + 2u * n[1] + 4u * n[2] + 8u * n[12] + 16u * n[13] + 32u * n[15];
    return int(sum % ENS_NBUCKETS);
}

// The first octet of the dotted form, whatever the host's byte order: the
// address is kept in network order, so that is its first byte in memory.
int hash_addr(uint32_t address)
{
    uint8_t b[4];
    memcpy(b, &address, sizeof b);
    return b[0] % ENS_ABUCKETS;
}

// Each list links an entry from a pointer (a head or an entry's link field),
// recorded in the entry, so that taking it out needs no walk.
template <typename E>
void link_at(E* e, E** head, E* E::*nextp, E** E::*atp)
{
    e->*nextp = *head;
    if (*head != nullptr)
        (*head)->*atp = &(e->*nextp);
    *head = e;
    e->*atp = head;
}

template <typename E>
void unlink_at(E* e, E* E::*nextp, E** E::*atp)
{
    if (e->*atp == nullptr)
        return;
    *(e->*atp) = e->*nextp;
    if (e->*nextp != nullptr)
        (e->*nextp)->*atp = e->*atp;
    e->*atp = nullptr;
}

void lru_unlink(EnsHost* h)
{
    (h->older != nullptr ? h->older->newer : oldest) = h->newer;
    (h->newer != nullptr ? h->newer->older : newest) = h->older;
    h->older = h->newer = nullptr;
}

void lru_append(EnsHost* h)
{
    h->older = newest;
    h->newer = nullptr;
    (newest != nullptr ? newest->newer : oldest) = h;
    newest = h;
}

// Unlinks one name entry from its bucket, its host's list and the index,
// and frees it.
void drop_name(EnsName* entry)
{
    unlink_at(entry, &EnsName::next, &EnsName::at);
    unlink_at(entry, &EnsName::host_next, &EnsName::host_at);
    bool head = entry->same_at == nullptr;  // the index points at it
    if (head) {
        auto it = n_index.find(key_of(entry->name));
        if (it != n_index.end()) {
            if (entry->same != nullptr) {
                it->second = entry->same;
                entry->same->same_at = nullptr;
            } else {
                n_index.erase(it);
            }
        }
    } else {
        *entry->same_at = entry->same;
        if (entry->same != nullptr)
            entry->same->same_at = entry->same_at;
    }
    name_ct--;
    delete entry;
}

// The same for an address entry.
void drop_addr(EnsAddr* entry)
{
    unlink_at(entry, &EnsAddr::next, &EnsAddr::at);
    unlink_at(entry, &EnsAddr::host_next, &EnsAddr::host_at);
    if (entry->same_at == nullptr) {
        auto it = a_index.find(entry->address);
        if (it != a_index.end()) {
            if (entry->same != nullptr) {
                it->second = entry->same;
                entry->same->same_at = nullptr;
            } else {
                a_index.erase(it);
            }
        }
    } else {
        *entry->same_at = entry->same;
        if (entry->same != nullptr)
            entry->same->same_at = entry->same_at;
    }
    addr_ct--;
    delete entry;
}

// Forgets the hosts heard of least recently, never keep, until one more
// entry fits under its cap; false when nothing is left to forget.
bool make_room(const int& count, int cap, const EnsHost* keep)
{
    while (count >= cap) {
        EnsHost* h = oldest;
        if (h == keep)
            h = h->newer;
        if (h == nullptr)
            return false;
        TRACE(proc, 3, "make_room: table full, forgetting host %s\n",
              h->addrs != nullptr ? nm_ntoa(h->addrs->address) : "(no address)");
        ens_free(h);
    }
    return true;
}

}  // namespace

EnsHost* ens_create()
{
    if (!make_room(host_ct, ENS_MAX_HOSTS, nullptr))
        return nullptr;
    EnsHost* h = new (std::nothrow) EnsHost{};
    if (h == nullptr)
        return nullptr;
    lru_append(h);
    host_ct++;
    return h;
}

void ens_touch(EnsHost* host, time_t now)
{
    host->time = now;
    lru_unlink(host);
    lru_append(host);
}

int ens_n_add(const uint8_t* name, uint32_t flags, EnsHost* host)
{
    TRACE(proc, 5, "ens_n_add: adding name %s\n", nm_printable(name));
    // A name always belongs to a host; only addresses stand alone.
    if (host == nullptr || !make_room(name_ct, ENS_MAX_NAMES, host))
        return -1;
    EnsName* e = new (std::nothrow) EnsName{};
    if (e == nullptr)
        return -1;
    // The index entry first: a failure there leaves nothing half linked.
    EnsName** index_head = nullptr;
    try {
        index_head = &n_index.try_emplace(key_of(name), nullptr).first->second;
    } catch (...) {
        delete e;
        return -1;
    }
    memcpy(e->name, name, sizeof e->name);
    e->flags = flags;
    e->host = host;
    link_at(e, &hn_table[size_t(hash_name(name))], &EnsName::next, &EnsName::at);
    link_at(e, &host->names, &EnsName::host_next, &EnsName::host_at);
    // Newest first, as in the bucket; the head has no same_at.
    e->same = *index_head;
    if (e->same != nullptr)
        e->same->same_at = &e->same;
    *index_head = e;
    name_ct++;
    return 0;
}

int ens_a_add(uint32_t address, EnsHost* host)
{
    TRACE(proc, 5, "ens_a_add called, address %s\n", nm_ntoa(address));
    // An own address under another host would make us a stranger to
    // ourselves: our own queries and names no longer recognised.
    if (host != nullptr && ens_a_own(address))
        return -1;
    if (!make_room(addr_ct, ENS_MAX_ADDRS, host))
        return -1;
    EnsAddr* e = new (std::nothrow) EnsAddr{};
    if (e == nullptr)
        return -1;
    EnsAddr** index_head = nullptr;
    try {
        index_head = &a_index.try_emplace(address, nullptr).first->second;
    } catch (...) {
        delete e;
        return -1;
    }
    e->address = address;
    e->host = host;
    link_at(e, &ha_table[size_t(hash_addr(address))], &EnsAddr::next, &EnsAddr::at);
    if (host != nullptr)
        link_at(e, &host->addrs, &EnsAddr::host_next, &EnsAddr::host_at);
    e->same = *index_head;
    if (e->same != nullptr)
        e->same->same_at = &e->same;
    *index_head = e;
    addr_ct++;
    return 0;
}

bool ens_a_own(uint32_t address)
{
    // Own entries are never shadowed: no host takes an own address.
    for (const EnsAddr* e = ens_a_lookup(address); e != nullptr; e = e->same) {
        if (e->host == nullptr)
            return true;
    }
    return false;
}

EnsName* ens_n_lookup(const uint8_t* name)
{
    auto it = n_index.find(key_of(name));
    return it != n_index.end() ? it->second : nullptr;
}

EnsName* ens_n_next(const uint8_t*, EnsName* entry)
{
    return entry != nullptr ? entry->same : nullptr;
}

EnsAddr* ens_a_lookup(uint32_t address)
{
    auto it = a_index.find(address);
    return it != a_index.end() ? it->second : nullptr;
}

EnsName* ens_n_find(const uint8_t* name, const EnsHost* host)
{
    if (host == nullptr)
        return nullptr;
    for (EnsName* e = host->names; e != nullptr; e = e->host_next) {
        if (same_name(e, name))
            return e;
    }
    return nullptr;
}

int ens_n_del(const uint8_t* name, EnsHost* host)
{
    EnsName* e = ens_n_find(name, host);
    if (e == nullptr)
        return -1;
    drop_name(e);
    return 0;
}

int ens_a_del(uint32_t address)
{
    EnsAddr* e = ens_a_lookup(address);
    if (e == nullptr)
        return -1;
    drop_addr(e);
    return 0;
}

void ens_free(EnsHost* host)
{
    if (host == nullptr)
        return;
    while (host->names != nullptr)
        drop_name(host->names);
    while (host->addrs != nullptr)
        drop_addr(host->addrs);
    lru_unlink(host);
    host_ct--;
    delete host;
}

int ens_host_count() { return host_ct; }

EnsAddr* ens_a_old(uint32_t start, time_t cutoff)
{
    int bucket = 0;
    EnsAddr* e = ha_table[0];
    if (start != 0) {
        bucket = hash_addr(start);
        e = ens_a_lookup(start);
        if (e == nullptr)
            e = ha_table[size_t(bucket)];
    }
    // From the start to the end of its bucket, every other bucket, and the
    // start's bucket once more in full: 65 runs, so nothing is left unseen.
    for (int run = 0; run < ENS_ABUCKETS + 1; run++) {
        for (; e != nullptr; e = e->next) {
            if (e->host != nullptr && e->host->time <= cutoff)
                return e;
        }
        bucket = (bucket + 1) % ENS_ABUCKETS;
        e = ha_table[size_t(bucket)];
    }
    return nullptr;
}

void dump_enstable(FILE* stream)
{
    fprintf(stream, "\nENS table --\n");
    for (const EnsName* head : hn_table) {
        for (const EnsName* e = head; e != nullptr; e = e->next) {
            fprintf(stream, "\t%20s ", nm_printable(e->name));
            if (e->host != nullptr) {
                for (const EnsAddr* a = e->host->addrs; a != nullptr; a = a->host_next)
                    fprintf(stream, " %s", nm_ntoa(a->address));
            }
            fprintf(stream, "\n");
        }
    }
    fprintf(stream, "\n");
    fflush(stream);
}
