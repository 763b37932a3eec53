#pragma once
// The directory's storage: hosts (each one or more IPv4 addresses) and the
// names registered for them. Each engine fills one table of small
// operations in its own SQL; what they mean for a claim, a deletion or a
// regrouping is decided once, in nda/ndadir.cpp. Every operation but list
// runs inside transact().
#include <cstddef>
#include <cstdint>

// A name's entry on one host.
struct NdaHolder {
    int64_t host;
    int32_t group;      // 1 a group member, 0 the unique owner
    uint32_t ip;        // the address the name answers with (network order)
    uint32_t via_ip;    // the station that registered it: its VERIFY goes there
    uint16_t via_port;
    int64_t expires;    // 0: kept until deleted (ENS); else the second a WINS entry lapses
};

struct NdaListEntry {
    uint8_t name[16];
    int32_t group;
    uint32_t ip;
    int64_t host;
    int64_t seen;
};

constexpr int NDA_MARK = 0;     // mark(): a savepoint before one request
constexpr int NDA_KEEP = 1;     // the request's changes stay in the transaction
constexpr int NDA_UNDO = 2;     // the request's changes are undone
constexpr int NDA_BUSY = -2;    // transact(): given up after conflicts with other agents

struct NdaStore {
    const char* kind;
    // Opens (creating when needed) the directory at `where`: 0, or -1.
    int (*open)(const char* where);
    // The same for reading only (the list while an agent runs): nothing is
    // made, written, checkpointed or removed. 0, or -1.
    int (*open_read)(const char* where);
    void (*close)();
    // Runs fn in one transaction (write: taking the write lock at once) and
    // commits it when fn returns 0; fn's other results roll it back. When
    // another agent's transaction conflicts with it, the whole of it is run
    // again, so fn must start from scratch each time. fn's result, -1, or
    // NDA_BUSY when the conflicts went on: smaller transactions may pass.
    int (*transact)(bool write, int (*fn)(void* arg), void* arg);
    // Savepoints around one request of a transaction (NDA_MARK, NDA_KEEP,
    // NDA_UNDO): 0, or -1.
    int (*mark)(int what);

    // Addresses and hosts. host_of: the host's id, 0 when the address is
    // unknown, -1 error.
    int64_t (*host_of)(uint32_t ip);
    int64_t (*new_host)(int64_t now);  // its id, or -1
    int (*add_addr)(uint32_t ip, int64_t host);   // an unknown address onto a host
    int (*move_addr)(uint32_t ip, int64_t host);  // a known one onto another
    int (*seen)(int64_t host, int64_t now);
    int64_t (*addr_count)(int64_t host);          // or -1
    // The host's names, addresses and itself; into: its names and addresses
    // onto `into` (an entry `into` has of a name wins), then the host goes.
    int (*drop_host)(int64_t host);
    int (*merge_host)(int64_t host, int64_t into);

    // Names. holder: the entry that answers for the name, leaving out the
    // entries of host `except` (0: none left out) and those lapsed by `now`:
    // a unique owner before group members, then the member heard of most
    // recently. entry: the name's entry on one host. Both 1 found, 0 none,
    // -1 error.
    int (*holder)(const uint8_t* name, int64_t except, int64_t now, NdaHolder* out);
    int (*entry)(const uint8_t* name, int64_t host, NdaHolder* out);
    // expires: 0 for an entry kept until deleted, else the second it lapses.
    int (*put_name)(const uint8_t* name, int64_t host, int32_t group, uint32_t ip, uint32_t via_ip,
                    uint16_t via_port, int64_t now, int64_t expires);
    int (*drop_name)(const uint8_t* name, int64_t host);
    // The name's entries on hosts other than `host` that answer with `ip`.
    int (*drop_stale)(const uint8_t* name, int64_t host, uint32_t ip);

    // The addresses of the name's entries not lapsed by `now`, most recent
    // first, at most `room`: their count, or -1.
    int (*members)(const uint8_t* name, int64_t now, uint32_t* ips, int room);
    // Every entry lapsed by `now` goes; 0 or -1.
    int (*expire)(int64_t now);

    // Every name entry, by name, outside any transaction; 0 or -1.
    int (*list)(void (*fn)(const NdaListEntry& e, void* arg), void* arg);
    const char* (*error)();  // the text of the last failure
};

extern const NdaStore nda_sqlite;    // one file, write-ahead log
extern const NdaStore nda_postgres;  // a PostgreSQL database that several agents share
