#pragma once

#include <cstdint>
#include <cstdio>

#include "shr/uniconv.h"

// Every datagram is received into one buffer of this size; a longer one is
// cut to it by the socket layer.
constexpr int DG_BUFSIZE = 1500;

// Waits for input on fd and the client descriptors. Returns a datagram's
// length, with *data at the receive buffer (valid until the next call) and
// *from the sender; -2 when there is nothing for the caller (a signal came,
// or a client descriptor was served); -1 when receiving failed. A negative fd
// only waits for a signal.
int get_dg(int fd, UniAddr* from, uint8_t** data);
// Receives one datagram on client descriptor index into buffer (DG_BUFSIZE
// bytes) and hands it to the descriptor's handler. Its length, or -1.
int read_custfd(int index, uint8_t* buffer);
