#include "src/enstable.h"

#include <array>
#include <cstring>
#include <new>

#include "misc/nencode.h"
#include "nmtrace.h"
#include "src/nbndgio.h"

namespace {

std::array<EnsName*, ENS_NBUCKETS> hn_table{};
std::array<EnsAddr*, ENS_ABUCKETS> ha_table{};

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

bool same_name(const EnsName* e, const uint8_t* name) { return memcmp(e->name, name, 16) == 0; }

// Unlinks one name entry from its bucket and its host's list and frees it.
void drop_name(EnsName* entry)
{
    for (EnsName** p = &hn_table[size_t(hash_name(entry->name))]; *p != nullptr; p = &(*p)->next) {
        if (*p == entry) {
            *p = entry->next;
            break;
        }
    }
    if (entry->host != nullptr) {
        for (EnsName** p = &entry->host->names; *p != nullptr; p = &(*p)->host_next) {
            if (*p == entry) {
                *p = entry->host_next;
                break;
            }
        }
    }
    delete entry;
}

// The same for an address entry.
void drop_addr(EnsAddr* entry)
{
    for (EnsAddr** p = &ha_table[size_t(hash_addr(entry->address))]; *p != nullptr; p = &(*p)->next) {
        if (*p == entry) {
            *p = entry->next;
            break;
        }
    }
    if (entry->host != nullptr) {
        for (EnsAddr** p = &entry->host->addrs; *p != nullptr; p = &(*p)->host_next) {
            if (*p == entry) {
                *p = entry->host_next;
                break;
            }
        }
    }
    delete entry;
}

}  // namespace

EnsHost* ens_create()
{
    return new (std::nothrow) EnsHost{};
}

int ens_n_add(const uint8_t* name, uint32_t flags, EnsHost* host)
{
    TRACE(proc, 5, "ens_n_add: adding name %s\n", nm_printable(name));
    // A name always belongs to a host; only addresses stand alone.
    if (host == nullptr)
        return -1;
    EnsName* e = new (std::nothrow) EnsName{};
    if (e == nullptr)
        return -1;
    memcpy(e->name, name, sizeof e->name);
    e->flags = flags;
    e->host = host;
    EnsName*& head = hn_table[size_t(hash_name(name))];
    e->next = head;
    head = e;
    e->host_next = host->names;
    host->names = e;
    return 0;
}

int ens_a_add(uint32_t address, EnsHost* host)
{
    TRACE(proc, 5, "ens_a_add called, address %s\n", nm_ntoa(address));
    EnsAddr* e = new (std::nothrow) EnsAddr{};
    if (e == nullptr)
        return -1;
    e->address = address;
    e->host = host;
    EnsAddr*& head = ha_table[size_t(hash_addr(address))];
    e->next = head;
    head = e;
    if (host != nullptr) {
        e->host_next = host->addrs;
        host->addrs = e;
    }
    return 0;
}

EnsName* ens_n_lookup(const uint8_t* name)
{
    for (EnsName* e = hn_table[size_t(hash_name(name))]; e != nullptr; e = e->next) {
        if (same_name(e, name))
            return e;
    }
    return nullptr;
}

EnsName* ens_n_next(const uint8_t* name, EnsName* entry)
{
    if (entry == nullptr)
        return nullptr;
    for (EnsName* e = entry->next; e != nullptr; e = e->next) {
        if (same_name(e, name))
            return e;
    }
    return nullptr;
}

EnsAddr* ens_a_lookup(uint32_t address)
{
    for (EnsAddr* e = ha_table[size_t(hash_addr(address))]; e != nullptr; e = e->next) {
        if (e->address == address)
            return e;
    }
    return nullptr;
}

int ens_n_del(const uint8_t* name, EnsHost* host)
{
    for (EnsName* e = ens_n_lookup(name); e != nullptr; e = ens_n_next(name, e)) {
        if (e->host == host) {
            drop_name(e);
            return 0;
        }
    }
    return -1;
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
    delete host;
}

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
