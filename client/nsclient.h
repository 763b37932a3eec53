#pragma once

// The client side of the name server's request FIFOs: one exchange per call.
// A client takes the write lock on "lock.name", writes its request into
// "ns_serverfifo" in one write, and reads "ns_clientfifo" until the final
// answer that carries its xid; answers with another xid were left by a
// client that gave up and are dropped. Every wait ends at a deadline.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "shr/counters.h"
#include "shr/uniconv.h"
#include "src/dorequest.h"
#include "src/getnpack.h"

constexpr const char* NSC_DIR = NS_DIR;  // FIFOs and lock file
constexpr int NSC_TIMEOUT = 15;  // seconds; well above the 5 of a lookup

// Failures of an exchange. The status word of an answer is a separate value.
constexpr int NSC_NOTRUNNING = -20;  // no server FIFO, or nobody reads it
constexpr int NSC_NOANSWER = -21;    // nothing for this request within the time-out
constexpr int NSC_BUSY = -22;        // another process held the lock the whole time
constexpr int NSC_IOERR = -23;       // a system call failed
constexpr int NSC_BADANSWER = -24;   // an answer of the wrong size or operation
constexpr int NSC_UNKNOWNOP = -25;   // the server does not know the operation
constexpr int NSC_NOMEM = -26;       // no memory here for the answer
constexpr int NSC_NORELAY = -27;     // the server runs, its relay does not (yet)

// Status words of the answers.
constexpr int32_t NSC_OK = 0;
constexpr int32_t NSC_REFUSED = -1;
constexpr int32_t NSC_OUTOFMEM = -3;
constexpr int32_t NSC_PRESENT = -5;
constexpr int32_t NSC_NOTFOUND = -6;

// Flags of a name entry.
constexpr uint32_t NSC_GROUP = 1;      // group name
constexpr uint32_t NSC_PENDING = 2;    // local table: claim still running
constexpr uint32_t NSC_PERMANENT = 8;  // adapter status: permanent name

constexpr int NSC_MAXNAMES = 200;     // entries in one answer message
constexpr size_t NSC_NAMETEXT = 68;   // room for the text form of any name

struct NscConn {
    char dir[256];   // directory of the FIFOs and the lock file
    int timeout;     // seconds for the lock and for each answer message
    char why[320];   // text of the last failure
};

struct NscEntry {
    uint8_t name[16];
    uint32_t flags;
};

struct NscCheck {
    int32_t status;
    uint8_t name[16];  // the stored name and flags when status is 0
    uint32_t flags;
};

struct NscLookup {
    int32_t status;
    UniAddr addr;  // the owner when status is 0
    uint32_t group;
};

struct NscList {
    int32_t status;
    int32_t total;                  // names in the table, as the first message says
    std::vector<NscEntry> names;    // the entries of all messages
};

// RFC 1002 4.2.18 adapter statistics, every value in host order: the
// daemon's own record.
using NscStatBlock = as_stats;

struct NscAdapStat {
    int32_t status;  // 0, or the failure status of a 4-byte answer
    NscStatBlock block;
    int count;
    NscEntry names[NSC_MAXNAMES];
};

struct NscStats {
    int32_t status;
    CtSet counters;  // as the server names them, in its order
};

struct NscType {
    int32_t nb_type;
    uint16_t ssport;
};

// Fills conn for dir (null: NSC_DIR) and timeout in seconds (below 1: NSC_TIMEOUT).
void nsc_setup(NscConn* conn, const char* dir, int timeout);

// One answer message with its hdr->len data bytes; 0 to go on, or a
// negative NSC_ code (with conn->why set) to end the exchange with it.
using nsc_msg_fn = int (*)(NscConn* conn, const ns_hdr* hdr, const uint8_t* data, void* arg);

// Sends op with len data bytes (at most NS_REQMAX) and hands every
// answer message of this request to fn until one has more 0. 0, or an NSC_
// code with conn->why telling what happened.
int nsc_exchange(NscConn* conn, uint32_t op, const uint8_t* data, int len, nsc_msg_fn fn, void* arg);

// The operations: 0 when an answer came (its status in the result), or an
// NSC_ code of the exchange.
int nsc_addname(NscConn* conn, const uint8_t* name, uint32_t flags, int32_t* status);
int nsc_delname(NscConn* conn, const uint8_t* name, int32_t* status);
int nsc_ckname(NscConn* conn, const uint8_t* name, NscCheck* out);
int nsc_listname(NscConn* conn, NscList* out);
int nsc_lookup(NscConn* conn, const uint8_t* name, NscLookup* out);
int nsc_adapstat(NscConn* conn, const uint8_t* name, uint32_t ipaddr, NscAdapStat* out);  // ipaddr network order
int nsc_nbscope(NscConn* conn, char* scope, size_t size);
int nsc_nbtype(NscConn* conn, NscType* out);
int nsc_reinit(NscConn* conn, int32_t* status);
int nsc_enstable(NscConn* conn, int32_t* status);
// The server's counters (NS_STATS, beyond the designed operations): a
// server without them gives NSC_UNKNOWNOP.
int nsc_stats(NscConn* conn, NscStats* out);

// Name text "NAME<hh>": up to 15 characters, padded with blanks, and the
// type byte in two hexadecimal digits (<00> when absent); "\xhh" gives any
// byte, "\\" and "\<" the character. "*" alone is the RFC 1002 wildcard
// ('*' and 15 zero bytes). 0, or -1 for a text that is not such a name.
int nsc_strtonb(uint8_t* out, const char* text);
// The reverse into size bytes (NSC_NAMETEXT always suffice); 0, or -1 when
// it does not fit.
int nsc_nbtostr(char* out, size_t size, const uint8_t* name);
// The meaning of an answer's status word for the operation, in words.
const char* nsc_strstatus(uint32_t op, int32_t status);
