#pragma once

// The pure parts of the system resolver module: which host names it takes,
// its settings file, and the reader of the daemon's answers to its lookups.
// No I/O here, so the reader can be fuzzed and tested without a daemon.

#include <cstddef>
#include <cstdint>
#include <span>

// The two names a host name is asked as, in this order: the workstation
// name, which every Windows and Samba station registers, then the server
// name, which a name added for a service often is alone.
constexpr uint8_t NSS_TYPES[2] = {0x00, 0x20};

// The 16-byte NetBIOS name of a host name: its letters in upper case (other
// stations' tools register and ask in upper case), blank-padded to 15, and
// the type byte. 0, or -1 for a host name that cannot be a NetBIOS name:
// empty, longer than 15, a dot (a domain name, for DNS), or a byte outside
// printable ASCII or among  \ / : * ? " < > |  and the blank.
int nss_nbname(uint8_t* out, const char* host, uint8_t type);

// The wait for the daemon's answers, in milliseconds, when nothing else is
// set, and its bounds.
constexpr int NSS_WAIT_MS = 2000;
constexpr int NSS_WAIT_MIN_MS = 100;
constexpr int NSS_WAIT_MAX_MS = 15000;

// The wait that a settings text sets: the last line "timeout SECONDS"
// (decimal, at most three digits after the point, NSS_WAIT_MIN_MS to
// NSS_WAIT_MAX_MS); "#" starts a comment; other lines and values out of
// bounds are ignored. NSS_WAIT_MS when none sets it.
int nss_wait_ms(std::span<const uint8_t> text);

// One lookup under way: the xid its request carried and what came back.
enum class NssState { waiting, found, not_found };
struct NssAsk {
    uint32_t xid;
    NssState state;
    uint32_t addr;  // found: the owner's IPv4 address, network order
};

// Takes every whole message at the front of b, as ns_frame frames the
// client FIFO, and records the answers that carry the xid of a waiting ask:
// an NS_LOOKUP answer of 72 bytes with status 0 and an IPv4 address
// (family 'I', 4 bytes, or 6 with a port) other than 0.0.0.0 is found; any
// other answer to that xid (another status, another size or operation) is
// not found. Messages for other xids, left by other clients, are passed
// over. Returns the bytes used; the rest, a message in part, waits for more.
size_t nss_take(std::span<const uint8_t> b, std::span<NssAsk> asks);
