#pragma once
// The daemon's requests to its name-directory agents (NB-nd-addr, at ndport):
// registrations, deletions, host equivalences, purges and queries, each kept
// and retried by the delay list until answered or given up.
#include <cstdint>
#include "shr/uniconv.h"

struct npkt;

// Addresses are IPv4, network order; at most 20 are kept per command.
void nda_add(const uint8_t* name, uint32_t flags, const uint32_t* addrs, int n);
void nda_delete(const uint8_t* name, const uint32_t* addrs, int n);
void nda_equiv(const uint32_t* addrs, int n);
void nda_purge(uint32_t address);
// Another station's name query, its claim: answered or defended from the
// cache, else asked of the agents.
void nda_query(const npkt* packet);
void nda_claim(const npkt* packet);
// A local client's lookup: 0 when answered from the cache, else -1 (a cached
// negative answer, or a query under way).
int nda_lquery(const uint8_t* name, int32_t id, uint32_t xid);
// 1 when address is the IPv4 address of peer, else 0.
int same_addr(uint32_t address, const UniAddr* peer);
// Once per run: an ENS client with two or more interfaces and no agents
// broadcasts the equivalence of its addresses.
void ens_bcast();

// One request to an agent (to: its address at ndport), id the record's ENS
// id; the result of the send, or -1 when it could not be built.
int send_query(uint32_t id, const uint8_t* name, const UniAddr* to);
int send_add(uint32_t id, const uint8_t* name, uint32_t flags, const uint32_t* addrs, int n,
             const UniAddr* to);
int send_delete(uint32_t id, const uint8_t* name, const uint32_t* addrs, int n, const UniAddr* to);
int send_equiv(uint32_t id, const uint32_t* addrs, int n, const UniAddr* to);
int send_purge(uint32_t id, uint32_t address, const UniAddr* to);
