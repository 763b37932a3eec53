#pragma once

// Incoming name-service packets: the dispatcher, the handlers of other
// stations' requests (name queries, registrations, releases) and the two
// answers we send, a positive query response and a negative registration
// response. Addresses are IPv4 in network byte order.

#include <cstdint>

struct nt_entry;

// The local table entry of the 16-byte name, or null: the exact lookup while
// `strict` is set. The lookup may drop a name the driver no longer holds.
nt_entry* name_present(const uint8_t* name);

// Adapter status (RFC 1002 node status).

// Sends a status request for the 16-byte name to the IPv4 address (network
// order) at the name-service port. No retry: the caller waits.
void adapstat_query(const uint8_t* name, uint32_t address);
