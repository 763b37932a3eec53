#pragma once
// The directory's storage: hosts (each one or more IPv4 addresses) and the
// names registered for them. An operation that changes something has
// committed the change when it returns, so an answer sent afterwards is
// never lost with the process. Each engine fills one table of operations;
// the agent uses only the table.
#include <cstddef>
#include <cstdint>

constexpr int ST_HELD = 1;  // claim: another host holds the name

// A name's holder as the directory has it.
struct NdaHolder {
    int64_t host;
    int32_t group;      // 1 a group member, 0 the unique owner
    uint32_t ip;        // the address the name answers with (network order)
    uint32_t via_ip;    // the station that registered it: its VERIFY goes there
    uint16_t via_port;
};

// A registration asked for.
struct NdaClaim {
    const uint8_t* name;
    int32_t group;
    const uint32_t* addrs;  // the claimer's addresses (network order), at least one
    int addr_ct;
    uint32_t via_ip;
    uint16_t via_port;
    int64_t now;            // seconds
};

struct NdaListEntry {
    uint8_t name[16];
    int32_t group;
    uint32_t ip;
    int64_t host;
    int64_t seen;
};

struct NdaStore {
    const char* kind;
    // Opens (creating when needed) the directory at `where`: 0, or -1.
    int (*open)(const char* where);
    // The same for reading only (the list while an agent runs): nothing is
    // made, written, checkpointed or removed. 0, or -1.
    int (*open_read)(const char* where);
    void (*close)();
    // Registers the claim for the claimer's host unless another host holds
    // the name: a unique owner holds it against every claim, group members
    // against a unique claim. 0 registered, ST_HELD with *holder (a unique
    // owner before group members, then the member heard of most recently;
    // nothing is changed), -1 error. One transaction: with several agents on
    // one directory two claims cannot both pass.
    int (*claim)(const NdaClaim& c, NdaHolder* holder);
    // The same after `old` has lost the name: its entry is dropped, when it
    // is still there, in the claim's transaction.
    int (*replace)(const NdaClaim& c, const NdaHolder& old, NdaHolder* holder);
    // The holder that answers for a name: 1, 0 unknown, -1 error.
    int (*query)(const uint8_t* name, NdaHolder* out);
    // Between burst(true) and burst(false) (one wake-up's datagrams) queries
    // may share one read snapshot: cheaper, and no older than the burst.
    void (*burst)(bool on);
    // The name off the hosts of these addresses; 0 or -1.
    int (*remove)(const uint8_t* name, const uint32_t* addrs, int n);
    // The host of this address with its addresses and names; 0 or -1.
    int (*purge)(uint32_t ip);
    // These addresses are one host: their hosts are joined, with their
    // names. One address alone is taken out of a host it shared. 0 or -1.
    int (*equiv)(const uint32_t* addrs, int n, int64_t now);
    // Every name entry, by name; 0 or -1.
    int (*list)(void (*fn)(const NdaListEntry& e, void* arg), void* arg);
    const char* (*error)();  // the text of the last failure
};

extern const NdaStore nda_sqlite;    // one file, write-ahead log
extern const NdaStore nda_postgres;  // a PostgreSQL database that several agents share
