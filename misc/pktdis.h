#pragma once
// ENS datagrams in: the header into the pk_ globals, then the body item by
// item, never past the received length.
#include <cstdint>
#include "misc/pktasm.h"

// The header of the datagram being read.
extern uint32_t pk_id;
extern int32_t pk_type;    // 1 response, 0 request
extern int32_t pk_action;  // without the response bit
extern int32_t pk_ans;
extern int32_t pk_err;

// Starts reading bytes (length of them): 0, -4 bad version or too short for
// it, -2 id, ans or err missing, -5 action missing.
int pktd_hdr(const uint8_t* bytes, int length);
int pktd_int(int32_t* out);      // 4, or -2
int pktd_name(uint8_t* out);     // 16 bytes; 0, or -2
int pktd_ip(uint32_t* out);      // network order; 5 taken, -1 at the end, -2 bad length
// Points *out at up to n bytes of the datagram; the count taken, 0 for n
// below 1, -2 when nothing is left.
int pktd_block(const uint8_t** out, int n);
// Copies a string of at most limit bytes; the count stored (the terminator
// included when one was stored).
int pktd_string(char* out, int limit);
