#pragma once
// What a daemon sends to its name-directory agent, read into one record:
// the header, then the body of the action. Nothing past the datagram's
// length is read; handlers may assume every field the action has is set.
#include <cstdint>

constexpr int NDA_MAXADDR = 20;  // addresses of one host, as the daemon keeps them

struct NdaRequest {
    uint32_t id;
    int32_t response;  // 1: a response (to our VERIFY), 0: a request
    int32_t action;    // without the response bit
    int32_t ans;
    int32_t err;
    uint8_t name[16];              // QUERY, ADD, DELETE
    int32_t flags;                 // ADD: bit 0 group
    uint32_t addrs[NDA_MAXADDR];   // ADD, DELETE, EQUIV; PURGE's one ip; network order
    int addr_ct;
};

constexpr int NDA_BADHDR = -1;   // not an ENS header
constexpr int NDA_NOTOURS = -2;  // an action or a response the agent does not serve
constexpr int NDA_BADBODY = -3;  // the body is cut short or malformed

// Reads one datagram. Bodies:
//   QUERY   name; the int 0 the daemon adds is not required
//   ADD     name; int flags; address list with at least one address
//   DELETE  name; address list
//   EQUIV   address list with at least one address
//   PURGE   ip
//   VERIFY  (a response) the header only
// An address list is pairs (int non-zero, ip) ended by int 0; after 20
// addresses the rest of the list is not read, as the daemon does with an
// EQUIV. A list that ends before its int 0 is refused. Bytes after the body
// are ignored. 0, or one of the codes above.
int nda_read_request(const uint8_t* bytes, int len, NdaRequest* out);
