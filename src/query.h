#pragma once

// Name queries and adapter status (RFC 1002 node status): the requests we
// send, the answers we give to status requests, and the handling of the
// responses that the pending client lookups wait for.

#include <cstdint>

#include "src/getnpack.h"

// Broadcasts one name query request for the 16-byte name on every
// interface; the id is the query counter, which then grows by one.
void name_query(const uint8_t* name);
// Lays out a name query (stat 0) or a status request (stat non-zero) for
// rec's name with nb_scope into rec's area, with id (its low 16 bits, high
// byte first); sets and returns rec->size, 16 + the name's wire length.
int build_query(npkt* rec, uint32_t id, int stat);
// A query response without STAT: finishes the newest name lookup waiting
// for that name with the first address of the answer.
void check_lookup(const npkt* rec);
// The first address (network order) and the group flag of a positive query
// response; 0, or -1.
int find_ip(const npkt* rec, uint32_t* addr, int* group);

// A status request (type 0x00 with STAT): answered with our names when the
// name asked for is local, with a name error when not and the request was
// directed; a broadcast request for another name goes unanswered.
void answer_adapstat(const npkt* rec);
// The positive or negative status response to in, built in out's area
// (NPKT_AREA bytes); out->size 0 means nothing is to be sent. Returns out->size.
int pos_adapstat(npkt* out, const npkt* in);
int neg_adapstat(npkt* out, const npkt* in);
// Our statistics, with the status counter of the next positive response.
void build_adapstat(as_stats* st);
// The permanent node name of an own address (network order): ten zero
// bytes, the address, two zero bytes. A static buffer, overwritten by the
// next call.
const uint8_t* perm_name(uint32_t address);

// Sends a status request for the 16-byte name to the IPv4 address (network
// order) at the name-service port. No retry: the caller waits.
void adapstat_query(const uint8_t* name, uint32_t address);
// A status response (type 0x80 with STAT): finishes the status request that
// waits for the sender's address.
void check_adapstat(const npkt* rec);
// The names (room for AS_MAXNAMES) and statistics of a status response;
// their number, or -1.
int find_adapstat(const npkt* rec, as_stats* st, as_name* recs);
