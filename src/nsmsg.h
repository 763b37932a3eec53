#pragma once

// The client message that clients, the notifier and the daemon share, where
// it travels, its limits, and the one framer every reader of it uses.

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

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
// The most data of a request the relay passes on: a pipe keeps a write of up
// to PIPE_BUF bytes whole, so no request reaches the daemon in pieces. Real
// requests carry at most 80 bytes.
constexpr int NS_REQMAX = int(PIPE_BUF - NS_HDRSIZE);
static_assert(NS_REQMAX > 0 && NS_REQMAX <= NS_MAXDATA);

// Where the clients meet the notifier: requests, answers, the clients' lock.
constexpr const char* NS_DIR = "/var/opt/KORRbase";
constexpr const char* NS_SERVER_FIFO = "ns_serverfifo";
constexpr const char* NS_CLIENT_FIFO = "ns_clientfifo";
constexpr const char* NS_LOCK_FILE = "lock.name";

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
// Beyond the designed operations: the daemon's counters since its start
// (src/stats.h), answered with status 0 and the counters of
// shr/counters.h. A server that does not know it answers a bare header,
// as to any unknown code, and the designed operations are unchanged.
constexpr uint32_t NS_STATS = 0x100;
constexpr uint32_t NS_RESPONSE = 0x1000;

// What the bytes at the front of a stream hold.
enum class NsFrame { whole, need, skip };
struct NsFramed {
    NsFrame kind;
    size_t n;  // whole: the message's bytes, header included; skip: bytes to drop
};
// Frames the bytes at the front of b: a whole message (a header with the
// magic and a len of 0 to limit, and its data), more bytes needed, or so
// many bytes to skip to the next place where the magic could start. Bytes
// without the magic and a header whose len is negative or above limit are
// skipped (its data goes to the magic search); a magic inside a message's
// data is data. Never skips 0 bytes.
NsFramed ns_frame(std::span<const uint8_t> b, int limit);
