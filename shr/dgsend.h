#pragma once
// How this program's datagrams leave. The modules that build datagrams hand
// each one and its destination here; the program registers the function that
// puts them on the wire (the daemon its sockets, the agent its own, a test a
// recorder), so no module sends on a socket it did not open. It sits in shr/
// because every folder that builds datagrams (misc/, src/, nda/) may use shr/.
#include <cstdint>

#include "shr/uniconv.h"

// Which of the program's sockets a datagram leaves by: the name-service port,
// the ENS port, or the agent's WINS address.
enum class DgWay : uint8_t { name, ens, wins };

// Bytes sent, or -1. fd is -1 for the program's own socket of that way, else
// the socket of the module that opened one for its sends (dg_send_via).
using dg_send_fn = int (*)(DgWay way, int fd, const uint8_t* data, int len, const UniAddr* to);
void dg_set_sender(dg_send_fn fn);  // null: nothing leaves
// Hands one datagram to the registered sender; -1 when there is none.
int dg_send(DgWay way, const uint8_t* data, int len, const UniAddr* to);
// From now on datagrams leave by fd, a socket the caller opened and closes
// itself; -1 returns them to the program's sockets.
void dg_send_via(int fd);
