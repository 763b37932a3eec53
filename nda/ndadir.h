#pragma once
// The directory's rules, over whichever engine holds it. Each call runs
// inside the engine's transaction; a result other than 0 may leave partial
// changes that the caller undoes (NdaStore::mark).
//
// Who may change what (the callers have already refused stations outside
// the registrars):
// - An ADD registers for the host of its first address, or for a new host
//   of the addresses no host has yet; it never joins an address to a host
//   that exists, nor takes one from it: only an EQUIV regroups.
// - A unique name held by another host, and any name's entry on a host, may
//   be taken or deleted at once only by that host's own addresses or by the
//   station that registered the entry; anyone else gets ST_HELD, and the
//   caller asks the holder (VERIFY) first.
#include <cstdint>

#include "nda/ndastore.h"

constexpr int ST_HELD = 1;  // another host holds the name, or its entry needs its holder's word

// A registration asked for.
struct NdaClaim {
    const uint8_t* name;
    int32_t group;
    const uint32_t* addrs;  // the claimer's addresses (network order), at least one
    int addr_ct;
    uint32_t via_ip;        // the station asking
    uint16_t via_port;
    int64_t now;            // seconds
    int64_t expires = 0;    // 0 kept until deleted (ENS); else when a WINS entry lapses
};

// Registers the claim unless another host holds the name: a unique owner
// holds it against every claim, group members against a unique claim.
// 0 registered, ST_HELD with *holder (a unique owner before group members,
// then the member heard of most recently), -1 error.
int dir_claim(const NdaStore* s, const NdaClaim& c, NdaHolder* holder);
// The same after `old` was found to have lost the name: its entry goes.
int dir_replace(const NdaStore* s, const NdaClaim& c, const NdaHolder& old, NdaHolder* holder);
// The holder that answers for a name: 1, 0 unknown, -1 error.
int dir_query(const NdaStore* s, const uint8_t* name, int64_t now, NdaHolder* out);
// The name off the hosts of these addresses, where `from` may delete it:
// 0 done, ST_HELD with the first entry it may not delete (the others that
// it may are gone), -1 error.
int dir_remove(const NdaStore* s, const uint8_t* name, const uint32_t* addrs, int n, uint32_t from,
               NdaHolder* holder);
// One entry, after its holder was found to have lost it; 0 or -1.
int dir_drop(const NdaStore* s, const uint8_t* name, const NdaHolder& old);
// The host of this address with its addresses and names; 0 or -1.
int dir_purge(const NdaStore* s, uint32_t ip);
// These addresses are one host: their hosts are joined, with their names.
// One address alone is taken out of a host it shared. 0 or -1.
int dir_equiv(const NdaStore* s, const uint32_t* addrs, int n, int64_t now);
