#pragma once

// Client requests: the message that carries them and their answers, the
// dispatcher with its handlers, the lookups that wait for a network answer
// and the claim cycle of new names.

#include <cstdint>

#include "src/getnpack.h"
#include "src/nsmsg.h"

// The claim cycle runs while doing_claims is 1.
extern int doing_claims;

// Reads and handles every request waiting in the notifier's pipe, lookups
// included (they are answered later, as the network answers); the
// handler of the interrupt signal (sig is not used).
void do_request(int sig);
// The next whole message from from_ntf, read through a buffer that keeps a
// message read in part for the next call: 0, -1 when the read failed, -2
// when no whole message waits. Data bytes past len read as zeros.
int get_request(ns_hdr* h, uint8_t* data);
void get_request_reset();  // a new relay: what the old pipe gave goes
// The header, then len data bytes, to to_ntf.
void put_response(const ns_hdr* h, const uint8_t* data);
void dump_request(const ns_hdr* h, const uint8_t* data);
// The operation's name, " | NS_RESPONSE" added for a response; a static
// buffer overwritten by the next call.
const char* opstring(uint32_t op);

// The handlers: each turns the request in h and data (NS_MAXDATA bytes) into
// its response in place, keeping magic and xid. NS_LOOKUP and NS_ADAPSTAT
// write their immediate answers themselves; the others' are written by
// do_request.
void do_addname(ns_hdr* h, uint8_t* data);
void do_delname(ns_hdr* h, uint8_t* data);
void do_listname(ns_hdr* h, uint8_t* data);
void do_lookup(ns_hdr* h, uint8_t* data);
void do_init(ns_hdr* h, uint8_t* data);
void do_nbtype(ns_hdr* h, uint8_t* data);
void do_ckname(ns_hdr* h, uint8_t* data);
void do_nbscope(ns_hdr* h, uint8_t* data);
void do_adapstat(ns_hdr* h, uint8_t* data);
void do_enstable(ns_hdr* h, uint8_t* data);
void do_stats(ns_hdr* h, uint8_t* data);

struct nt_entry;
// One NS_LISTNAME message from pos (null: the first, after tables_sync);
// more is 1 when names remain. The first name not copied, null at the end.
const nt_entry* fill_lnr(const nt_entry* pos, ns_hdr* h, uint8_t* data);

// The 5-second timer of a waiting lookup or status request: answers -6.
void fail_lookup(int32_t id);

// The claim cycle: each new name is claimed twice, one second apart.
void start_claims();
void do_claim(int32_t arg);  // also its own timer function

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
