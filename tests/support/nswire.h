#pragma once

// Name-service datagrams written out byte by byte for the tests, and random
// bytes for hostile ones.

#include <cstdint>
#include <utility>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A small xorshift generator: the same bytes on every run for a seed, for
// tests that feed the daemon random datagrams.
struct Rng {
    uint32_t state;
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    uint32_t below(uint32_t n) { return n == 0 ? 0 : next() % n; }
};

// A 16-byte name: the text blank-padded to 15, then the type byte.
Bytes ns_name(const char* text, uint8_t type = 0x20);
// RFC 1001 14.1: length 32, two letters 'A'..'P' per byte, then the scope's
// wire labels (the zero byte alone for none).
Bytes wire_name(const Bytes& name, const Bytes& labels = {0});
// id, b2, b3, the four counts, the name, then the rest as given.
Bytes ns_packet(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& counts, const Bytes& name,
                const Bytes& labels, const Bytes& rest);
Bytes ip_bytes(const char* dotted);
// A positive node-status response for `asked`: the names with their flags
// (0x8000 group, 0x0400 active, 0x0200 permanent), zero statistics.
Bytes ns_status_answer(uint16_t id, const Bytes& asked, const std::vector<std::pair<Bytes, uint16_t>>& names);
