#pragma once
// How this program's datagrams leave. The modules that build datagrams hand
// each one and its destination here; the program registers the function that
// puts them on the wire (the daemon its sockets, the agent its own, a test a
// recorder), so no module sends on a socket it did not open. It sits in shr/
// because every folder that builds datagrams (misc/, src/, nda/) may use shr/.
#include <cstdint>

#include "shr/uniconv.h"

// Which of the program's sockets a datagram leaves by: the name-service port
// or the ENS port.
enum class DgWay : uint8_t { name, ens };

// Bytes sent, or -1.
using dg_send_fn = int (*)(DgWay way, const uint8_t* data, int len, const UniAddr* to);
void dg_set_sender(dg_send_fn fn);  // null: nothing leaves
// Hands one datagram to the registered sender; -1 when there is none.
int dg_send(DgWay way, const uint8_t* data, int len, const UniAddr* to);
