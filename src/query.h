#pragma once

// Name queries and adapter status (RFC 1002 node status) requests.

#include <cstdint>

// Sends a status request for the 16-byte name to the IPv4 address (network
// order) at the name-service port. No retry: the caller waits.
void adapstat_query(const uint8_t* name, uint32_t address);
