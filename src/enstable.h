#pragma once

// The ENS table: the other hosts of the network as the daemon knows them,
// each with its IPv4 addresses and its NetBIOS names, in two hash tables
// (names by their bytes, addresses by their first octet). An address entry
// without host is one of the daemon's own interface addresses.

#include <cstdint>
#include <cstdio>
#include <ctime>

struct EnsName;
struct EnsAddr;

struct EnsHost {            // all zero when made
    EnsName* names;         // first name of this host, linked through host_next
    EnsAddr* addrs;         // first (newest) address, linked through host_next
    time_t time;            // when the host was last heard of
    int probes;             // probes sent since its last answer
    EnsHost* older;         // the hosts by when last heard of (ens_touch), oldest first
    EnsHost* newer;
};

// Name entry flags, as in the adapter-status name entries.
constexpr uint32_t ENS_GROUP = 0x1;
constexpr uint32_t ENS_PERM = 0x8;
constexpr uint32_t ENS_MARK = 0x4000;  // used only while a host is updated

struct EnsName {
    EnsName* next;          // next entry in its hash bucket
    EnsName* host_next;     // next name of the same host
    EnsHost* host;
    uint8_t name[16];
    uint32_t flags;
    // Links kept by the table so that nothing walks a bucket: where this
    // entry is linked from in its bucket and its host's list, and the older
    // entries of the same bytes (in bucket order).
    EnsName** at;
    EnsName** host_at;
    EnsName* same;
    EnsName** same_at;
};

struct EnsAddr {
    EnsAddr* next;          // next entry in its hash bucket
    EnsAddr* host_next;     // next address of the same host
    EnsHost* host;          // null: one of the daemon's own addresses
    uint32_t address;       // network order
    EnsAddr** at;           // as for names
    EnsAddr** host_at;
    EnsAddr* same;
    EnsAddr** same_at;
};

constexpr int ENS_NBUCKETS = 256;
constexpr int ENS_ABUCKETS = 64;

// Any station can make the daemon learn hosts, so the table is capped: a
// host, name or address beyond these makes room by forgetting the hosts
// heard of least recently (the agents keep what was registered for them).
constexpr int ENS_MAX_HOSTS = 8192;
constexpr int ENS_MAX_NAMES = 24576;
constexpr int ENS_MAX_ADDRS = 16384;

// New entries go to the head of their bucket and of their host's list.
// A new host counts as heard of just now.
EnsHost* ens_create();  // a zeroed host, or null when memory is short
// 0, or -1 (memory short; or, for an address with a host, one of our own
// addresses, which is never another host's).
int ens_n_add(const uint8_t* name, uint32_t flags, EnsHost* host);
int ens_a_add(uint32_t address, EnsHost* host);  // host may be null: an own address
void ens_touch(EnsHost* host, time_t now);       // heard of at now
bool ens_a_own(uint32_t address);                // one of our own addresses
// Learned hosts in the table.
int ens_host_count();

// The first entry of that name (the newest), then the next older ones:
// together one entry per host that has the name. Null past the last.
EnsName* ens_n_lookup(const uint8_t* name);
EnsName* ens_n_next(const uint8_t* name, EnsName* entry);
EnsAddr* ens_a_lookup(uint32_t address);  // null when unknown

// The newest entry of that name held by host, or null: a walk of the host's
// names, never of every host that has the name (a group name may be
// held by thousands).
EnsName* ens_n_find(const uint8_t* name, const EnsHost* host);
int ens_n_del(const uint8_t* name, EnsHost* host);  // 0, or -1 when there is none
int ens_a_del(uint32_t address);                    // 0, or -1 when there is none
void ens_free(EnsHost* host);                        // the host with all its entries

// The first address entry, scanning from `start` (0: from bucket 0) once
// round the table, whose host was last heard of at or before cutoff; null
// when there is none. Own addresses never qualify.
EnsAddr* ens_a_old(uint32_t start, time_t cutoff);

// Every name with its host's addresses, bucket by bucket; the stream is flushed.
void dump_enstable(FILE* stream);
