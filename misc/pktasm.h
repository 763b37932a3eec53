#pragma once
// ENS datagrams out. One 2048-byte area: the body is appended item by item
// after 20 bytes of room for the header, which the send fills in. Every
// integer goes out least significant byte first, whatever the host's order;
// every item ends on an even offset.
#include <cstdint>
#include "shr/uniconv.h"

constexpr uint32_t ENS_VERSION = 0x00010001;
constexpr int ENS_HDRSIZE = 20;
constexpr int ENS_AREA = 2048;
constexpr uint32_t ENS_RESPONSE = 0x80000000u;  // action bit of a response

// Action codes (6 is not used).
constexpr int32_t ENS_QUERY = 1;
constexpr int32_t ENS_VERIFY = 2;
constexpr int32_t ENS_ADD = 3;
constexpr int32_t ENS_DELETE = 4;
constexpr int32_t ENS_EQUIV = 5;
constexpr int32_t ENS_PURGE = 7;

void pkta_begin();  // the next item goes right after the header's room
// Each appends one item and returns the bytes added (pkta_name: 0), or -1,
// adding nothing, when it does not fit.
int pkta_int(int32_t value);
int pkta_name(const uint8_t* name);  // int 16 and the 16 bytes
int pkta_ip(uint32_t address);       // network order: 4, a, b, c, d and a pad byte
int pkta_string(const char* text);   // with its terminator, padded to even
int pkta_block(const uint8_t* bytes, int n);
int pkta_length();  // bytes built, header room included
// Fill in the header (a request has ans and err 0, a response the action
// with bit 31) and send the datagram through WriteDG; the area is then ready
// for the next body. The send's result.
int pkta_request(const UniAddr* to, uint32_t id, int32_t action);
int pkta_respond(const UniAddr* to, uint32_t id, int32_t action, int32_t ans, int32_t err);
int check_alloc(int n);  // 0 when n more bytes fit in the area, else -1
// One ENS datagram, sealed when there is a key, out by the ENS way of the
// program's sender; the sender's result.
int WriteDG(const UniAddr* to, const uint8_t* bytes, int length);
