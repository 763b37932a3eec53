#pragma once

// Client requests: the message that carries them and their answers, the
// dispatcher with its handlers, the lookups that wait for a network answer
// and the claim cycle of new names.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "src/getnpack.h"

// The client message: a 24-byte header and then exactly `len` data bytes.
// Clients, the notifier and the daemon run on one host, so every integer is
// in the host's own byte order, written as it lies in memory.
//
//   0                   8       12      16      20      24
//   +-------------------+-------+-------+-------+-------+
//   | magic             | len   | xid   | op    | more  |
//   +-------------------+-------+-------+-------+-------+
struct ns_hdr {
    uint8_t magic[8];  // NS_MAGIC
    int32_t len;       // data bytes that follow, 0 to NS_MAXDATA
    uint32_t xid;      // the client's, copied into every response
    uint32_t op;       // bits 0-11 the operation, NS_RESPONSE in answers
    int32_t more;      // non-zero: further messages of this exchange follow
};
static_assert(sizeof(ns_hdr) == 24);
static_assert(offsetof(ns_hdr, magic) == 0 && offsetof(ns_hdr, len) == 8 && offsetof(ns_hdr, xid) == 12 &&
              offsetof(ns_hdr, op) == 16 && offsetof(ns_hdr, more) == 20);
static_assert(std::is_trivially_copyable_v<ns_hdr>);

constexpr size_t NS_HDRSIZE = sizeof(ns_hdr);

// Seven non-zero bytes and a terminating zero.
inline constexpr uint8_t NS_MAGIC[8] = {0xCA, 0x71, 0xD7, 0x5E, 0xE9, 0xD2, 0x64, 0x00};

// The most data one message carries.
constexpr int NS_MAXDATA = 4096;

// Operation codes; an answer carries its request's code with NS_RESPONSE set.
constexpr uint32_t NS_ADDNAME = 1;
constexpr uint32_t NS_DELNAME = 2;
constexpr uint32_t NS_LISTNAME = 3;
constexpr uint32_t NS_LOOKUP = 4;
constexpr uint32_t NS_INIT = 5;
constexpr uint32_t NS_NBTYPE = 6;
constexpr uint32_t NS_CKNAME = 7;
constexpr uint32_t NS_NBSCOPE = 8;
constexpr uint32_t NS_ADAPSTAT = 9;
constexpr uint32_t NS_ENSTABLE = 10;
constexpr uint32_t NS_RESPONSE = 0x1000;

// The claim cycle runs while doing_claims is 1.
extern int doing_claims;

// Reads and handles every request waiting in the notifier's pipe; the
// handler of the interrupt signal (sig is not used).
void do_request(int sig);
// One message from from_ntf: 0, -1 on a short read or a length outside
// 0..NS_MAXDATA, -2 when nothing waits. Data bytes past len read as zeros.
int get_request(ns_hdr* h, uint8_t* data);
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
