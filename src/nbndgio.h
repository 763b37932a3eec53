#pragma once

#include <cstdint>
#include <cstdio>

#include "shr/uniconv.h"

// Every datagram is received into one buffer of this size; a longer one is
// cut to it by the socket layer.
constexpr int DG_BUFSIZE = 1500;

// As put_ddg (misc/initsock); but while get_dg hands out the datagrams of one wake-up, the
// datagram is held (it returns len) and leaves with the others in one
// sendmmsg at dg_flush, which get_dg calls before it waits again.
int put_ddg_held(int fd, const uint8_t* data, int len, const UniAddr* to);
// Sends the held datagrams, in the order they were handed over. The
// daemon's sender calls it before any other send, so nothing overtakes them.
void dg_flush();

// Waits for input on fd and the client descriptors and reads every datagram
// waiting on fd; the calls after hand those out one at a time before it waits
// again. Returns a datagram's length, with *data at its buffer (valid until
// the next call) and *from the sender; -2 when there is nothing for the
// caller (a signal came, or a client descriptor was served); -1 when
// receiving failed. A negative fd only waits for a signal.
int get_dg(int fd, UniAddr* from, uint8_t** data);
// Receives one datagram on client descriptor index into buffer (DG_BUFSIZE
// bytes) and hands it to the descriptor's handler. Its length, or -1.
int read_custfd(int index, uint8_t* buffer);
