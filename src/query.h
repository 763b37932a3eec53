#pragma once

// Name queries and adapter status (RFC 1002 node status): the requests we
// send and the handling of the responses and requests the dispatcher hands on.

#include <cstdint>

struct npkt;

// RFC 1002 4.2.17: a node status request for one of our names.
void answer_adapstat(const npkt* rec);
// RFC 1002 4.2.18: a node status response to one of our requests.
void check_adapstat(const npkt* rec);
// RFC 1002 4.2.13: a name query response to one of our queries.
void check_lookup(const npkt* rec);

// Sends a status request for the 16-byte name to the IPv4 address (network
// order) at the name-service port. No retry: the caller waits.
void adapstat_query(const uint8_t* name, uint32_t address);
