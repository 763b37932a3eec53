#pragma once

// Incoming name-service packets: the dispatcher, the handlers of other
// stations' requests (name queries, registrations, releases) and the two
// answers we send, a positive query response and a negative registration
// response. Addresses are IPv4 in network byte order.

#include <cstdint>

#include "shr/uniconv.h"

struct npkt;
struct nt_entry;

// Hands a decoded packet, with its sender in rec->addr, to the handler for
// its type; drops the others.
void process_npkt(const npkt* rec);

// The request handlers (types 0x00 without STAT, 0x28, 0x30).
void check_query(const npkt* rec);
void check_claim(const npkt* rec);
void check_delete(const npkt* rec);

// The local table entry of the 16-byte name, or null: the exact lookup while
// `strict` is set. The lookup may drop a name the driver no longer holds.
nt_entry* name_present(const uint8_t* name);

// Positive name query response / negative registration response (RCODE 6)
// for name, with the group bit from bit 0 of flags and the own address,
// unicast to `to` with the request's id (pktid as the decoder keeps it).
// The bytes sent, or -1.
int answer_query(const uint8_t* name, uint32_t flags, uint32_t own, const UniAddr* to,
                 const uint32_t* pktid);
int defend_name(const uint8_t* name, uint32_t flags, uint32_t own, const UniAddr* to,
                const uint32_t* pktid);

// The own address to answer a station at addr with: the first one on the
// station's subnet, else the first one (0 when there is none).
uint32_t matching_addr(uint32_t addr);
// Non-zero when a and b agree in the bits of mask.
int ip_maskeq(uint32_t a, uint32_t b, uint32_t mask);
