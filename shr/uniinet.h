#pragma once

// Conversions between the internet family of the universal address and a
// plain IPv4 address and port.

#include <cstdint>

#include "shr/uniconv.h"

// Family I from an IPv4 address in network byte order and a port in host
// order: port -1 gives length 4 (no port), any other value is stored in its
// low 16 bits, high byte first (length 6). The unused bytes are zeroed.
// Returns 0.
int iantoua(UniAddr* ua, uint32_t addr, int32_t port);
// The reverse: -1, changing nothing, unless the family is I and the length
// 4 or 6; else the address (network order) and the port in host order, or
// -1 for length 4, and 0. Either out pointer may be null.
int uatoian(uint32_t* addr, int32_t* port, const UniAddr* ua);
// The same two operations under the names the ENS commands use.
int iahtoua(UniAddr* ua, uint32_t addr, int32_t port);
int uatoiah(uint32_t* addr, int32_t* port, const UniAddr* ua);
// Dotted text of a network-order IPv4 address, in a static buffer.
const char* nm_ntoa(uint32_t addr);
