#pragma once

// Client requests: the lookups that wait for a network answer.

#include <cstdint>

#include "src/getnpack.h"

// The lookup list, newest first. Operation NS_LOOKUP (4) records have
// address 0; NS_ADAPSTAT (9) records the target's IPv4 address.
int add_lu(const uint8_t* name, uint32_t address, uint32_t op, int32_t id, uint32_t xid);  // 0, or -1
void rm_lu(int32_t id);  // the first record with that id, if any
// Copies out the record with that id; 0, or -1. Any out pointer may be null.
int get_luid(int32_t id, uint32_t* op, uint8_t* name, uint32_t* address, uint32_t* xid);
// The newest name lookup (4) for exactly that name; 0, or -1.
int get_luname(const uint8_t* name, int32_t* id, uint32_t* xid);
// The newest status request (9) to that address; 0, or -1.
int get_luaddr(uint32_t address, int32_t* id, uint32_t* xid);

// Answers a waiting NS_LOOKUP with the owner's address (network order).
void finish_lookup(uint32_t address, int group, uint32_t xid);
// Answers a waiting NS_ADAPSTAT with the statistics and n (at most
// AS_MAXNAMES) names.
void finish_adapstat(const as_stats* st, const as_name* entries, int n, uint32_t xid);
