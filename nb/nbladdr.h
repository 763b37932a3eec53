#pragma once

// Conversion between the NetBIOS family of the universal address and the
// NetBIOS address that the name encoding works with.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "shr/uniconv.h"

// The two numbers only travel with the name through these conversions and
// the text form (N(name/port1/port2)); the daemon itself always uses 0 for
// both and gives them no further meaning.
struct NbAddr {
    uint16_t port1;       // host order
    uint16_t port2;       // host order
    uint8_t name[16];     // 15 characters padded with blanks, and the type byte
};
static_assert(sizeof(NbAddr) == 20 && offsetof(NbAddr, name) == 4);
static_assert(std::is_trivially_copyable_v<NbAddr>);

constexpr int VZNB_BADADDR = -4;  // not family N, or a length other than 16, 18, 20

// Universal to NetBIOS address: the name, the first number when the length
// is 18 or 20 and the second when it is 20, else 0. VZNB_BADADDR, changing
// nothing, for another family or length; else 0.
int vznb_uatona(NbAddr* na, const UniAddr* ua);
// NetBIOS to universal address: family N, length 16 when both numbers are
// 0, else 20 with both numbers, high byte first. Returns 0.
int vznb_natoua(UniAddr* ua, const NbAddr* na);
