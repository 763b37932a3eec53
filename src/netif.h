#pragma once

#include <cstdint>

// Questions to the system about its interfaces, asked through interface
// controls on any internet socket `sock`. Addresses in network byte order.

constexpr int NETIF_NAMESIZE = 16;  // an interface name and its NUL

// Copies into name (NETIF_NAMESIZE bytes) the interface that holds addr;
// 0, or -1 when none of the first 20 interfaces of the system's list has it
// or the list cannot be read.
int get_if(char* name, int sock, uint32_t addr);
// The interface's broadcast address, or a point-to-point link's peer; 0, or
// -1. A zero result may have been stored on the way.
int get_bcast(uint32_t* bcast, int sock, const char* name);
// The interface's netmask; 0, or -1 (a zero mask is stored and gives -1).
int get_mask(uint32_t* mask, int sock, const char* name);
