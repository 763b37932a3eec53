#pragma once

// The universal address: one self-describing record for an address of any
// network family, with its text forms and the parser that reads them back.

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Address bytes by family:
//   'I'  4: IPv4 address, network order     6: the same, then the port, high byte first
//   'N' 16: NetBIOS name (15 characters and a type byte); 18 or 20: one or two
//           16-bit numbers follow, high byte first
//   'X' 12: network (4), host (6), socket (2)
//   'A'  4: network (16 bits, high byte first), node (1), socket (1)
//   'O' or any other family, or any other length: raw bytes
//
//   0       2       4                                               64
//   +-------+-------+-----------------------------------------------+
//   |family |  len  | addr: len bytes in use, the rest zero         |
//   +-------+-------+-----------------------------------------------+
struct UniAddr {          // sent byte for byte through the FIFOs
    uint16_t family;      // ASCII letter, host order
    uint16_t len;         // address bytes in use, at most 60
    uint8_t addr[60];
};
static_assert(sizeof(UniAddr) == 64);
static_assert(offsetof(UniAddr, family) == 0 && offsetof(UniAddr, len) == 2 &&
              offsetof(UniAddr, addr) == 4);
static_assert(std::is_trivially_copyable_v<UniAddr>);

constexpr uint16_t UNI_INET = 'I';
constexpr uint16_t UNI_NETBIOS = 'N';
constexpr uint16_t UNI_XNS = 'X';
constexpr uint16_t UNI_APPLETALK = 'A';
constexpr uint16_t UNI_OTHER = 'O';
constexpr int UNI_MAXADDR = 60;
constexpr size_t UNI_TEXTSIZE = 124;  // the longest text form and its zero byte

// The text form "F(address)", e.g. I(10.0.0.1.137), N(foo<00>/3/4),
// X(00000abc:000000000def:0000), A(1.2.3), O(0a0b). A length field above 60
// is read as 60. Static buffer of UNI_TEXTSIZE bytes, valid until the next call.
const char* uni_ntoa(const UniAddr* ua);
// Parses any text form. Without "F(" in front: a text with a "." is
// internet, else one with a ":" XNS, else a NetBIOS name if it reads as one,
// else raw hexadecimal bytes (family O).
// Static result, valid until the next call; null on failure.
const UniAddr* uni_aton(const char* text);
int uni_type(const UniAddr* ua);                   // the family field
// Orders by family, then length (differences of the values), then memcmp of
// the address bytes; 0 when equal.
int uni_cmp(const UniAddr* a, const UniAddr* b);

// Two lower-case hexadecimal digits per byte, no terminating zero; returns
// the number of characters written, 0 when n is negative.
int hex_put(char* out, const uint8_t* bytes, int n);
// Fills n bytes from the hexadecimal text, right-aligned: a shorter text gets
// leading zero digits, a longer one is read for its first 2n characters only.
// A character that is not a hexadecimal digit reads as 0. Returns n, or 0
// when n is not positive.
int hex_get(uint8_t* out, int n, const char* text);
int hexbyte(const char* text);  // the byte of two hexadecimal digits, or -1
