#pragma once
// The optional shared key of the ENS datagrams (NB-nd-key on the daemon,
// key in the agent's [agent] section), for sites where a station can send
// with another's address. With a key every datagram carries, after the
// bytes of the protocol, a trailer of 40 bytes:
//
//   +--------------------------------+------------------------------------+
//   | stamp: 8 bytes, least          | code: 32 bytes, HMAC-SHA512-256    |
//   | significant first, micro-      | (libsodium's crypto_auth) of the   |
//   | seconds since 1970 (UTC)       | protocol's bytes and the stamp     |
//   +--------------------------------+------------------------------------+
//
// A receiver with the key drops a datagram whose code is wrong, whose stamp
// is more than EK_WINDOW_US from its own clock, or whose code it accepted
// before. Without a key nothing is added and nothing is checked: the bytes
// are the protocol's alone.
#include <cstddef>
#include <cstdint>

constexpr int EK_SEAL_SIZE = 40;
constexpr int64_t EK_WINDOW_US = 30 * 1000000LL;
// Codes kept against replays: those of the last minute, at most this many
// (about 3 MiB), the oldest forgotten first.
constexpr size_t EK_SEEN_MAX = 65536;

// Reads the key file: 64 hexadecimal digits (32 bytes), blanks and line
// ends anywhere ignored, in a regular file that no other user may read and
// only its owner may write. 0, or -1 with the reason in why (and no key).
int ek_load(const char* path, char* why, size_t why_size);
void ek_clear();  // no key: the protocol's bytes alone
bool ek_keyed();
int64_t ek_now_us();  // the clock of the stamps

// With a key: bytes (n of them) and the trailer into out (room bytes), the
// length to send, or -1 when it does not fit. Without a key: n, out unused.
int ek_seal(uint8_t* out, int room, const uint8_t* bytes, int n, int64_t now_us);
// The length of the protocol's datagram at the start of n received bytes:
// n without a key; with one n - EK_SEAL_SIZE when the trailer is good, else
// -1 with *why saying why the datagram is to be dropped.
int ek_open(const uint8_t* bytes, int n, int64_t now_us, const char** why);
