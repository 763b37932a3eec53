#pragma once

// Name-service datagrams written out byte by byte for the tests, and random
// bytes for hostile ones.

#include <cstdint>
#include <string_view>
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
Bytes ns_name(std::string_view text, uint8_t type = 0x20);
// RFC 1001 14.1: length 32, two letters 'A'..'P' per byte, then the scope's
// wire labels (the zero byte alone for none).
Bytes wire_name(const Bytes& name, const Bytes& labels = {0});
// id, b2, b3, the four counts, the name, then the rest as given.
Bytes ns_packet(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& counts, const Bytes& name,
                const Bytes& labels, const Bytes& rest);
Bytes ip_bytes(const char* dotted);
Bytes cat(Bytes a, const Bytes& b);
// The id of a datagram, 0 when it is shorter.
uint16_t ns_id(const Bytes& datagram);
// An NB record after its name: NB, IN, TTL, RDLENGTH 6, flags (0x8000
// group), address.
Bytes nb_record(uint16_t flags, const Bytes& addr, uint8_t ttl = 0);
// A name query, RD and broadcast.
Bytes ns_query(uint16_t id, const Bytes& name);
// A node-status request, b3 0x10 when broadcast.
Bytes ns_status_request(uint16_t id, const Bytes& name, uint8_t b3 = 0);
// A registration (b2 0x29) or release (0x30) request, the additional
// record's name a pointer to the question.
Bytes ns_registration(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& name, const Bytes& record);
// A one-record response: query answer, defence, registration response, WACK.
Bytes ns_response(uint16_t id, uint8_t b2, uint8_t b3, const Bytes& name, const Bytes& record);
// The negative status answer for a name not held: RCODE 3, a NULL record.
Bytes ns_no_such_name(uint16_t id, const Bytes& name);
// A positive node-status response for `asked`: the names with their flags
// (0x8000 group, 0x0400 active, 0x0200 permanent), then the statistics.
Bytes ns_status_answer(uint16_t id, const Bytes& asked, const std::vector<std::pair<Bytes, uint16_t>>& names,
                       const Bytes& statistics = Bytes(46, 0));
