#pragma once

#include <cstdint>

// Broadcast addresses and netmasks of the configured interfaces, from the
// system where it knows them, else from the classful rules and the
// configured broadcast pattern. Addresses in network byte order.

// Fills every 0 broadcast address and netmask of my_addr; 0.
int prepare_addresses();
// For the interface whose address is addr; a negative sock means the system
// is not asked. Both always store a result and give 0.
int find_bcast(uint32_t* bcast, int sock, uint32_t addr);
int find_netmask(uint32_t* mask, int sock, uint32_t addr);
// The classful mask of addr (class A, B, else C).
int dflt_netmask(uint32_t* mask, uint32_t addr);
// 1 when a and b lie in the same classful network, else 0.
int same_net(uint32_t a, uint32_t b);
