#pragma once

// The daemon as a client of the RFC 1002 name servers of NB-wins-server
// (WINS): a name whose broadcast claim is through is registered there by
// unicast, refreshed at half the TTL the server grants and released when it
// goes; lookups ask the servers before they broadcast (the H-node order of
// RFC 1001 10.2). Nothing of it runs without the directive.

#include <cstdint>

struct nt_entry;
struct npkt;

// Registers a local name whose claim has succeeded.
void wins_register(const nt_entry* e);
// Releases a local name that goes.
void wins_release(const nt_entry* e);
// Starts the network side of a client's lookup of the 16-byte name: without
// servers the broadcast query at once; with them a unicast query to the
// first, then the second, and the broadcast only when neither knows it.
void wins_lookup(const uint8_t* name);
// Seconds a lookup waits for the servers before its broadcast's wait.
int wins_lookup_wait();
// A response from the configured server that we wait for under its id:
// handled here, true. Anything else is left to the broadcast handlers.
bool wins_recv(const npkt* rec);
