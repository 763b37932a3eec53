#pragma once

#include <cstdint>

#include "shr/uniconv.h"

// The ENS socket, -1 while none is open.
extern int ens_fd;

// Brings the name service up after the start-up: the name-service socket
// when the UDP transport is configured. Returns that socket, or -1 when there
// is none (the daemon then runs on without it).
int name_init();
// A datagram socket bound to every local address at port (host order), or -1.
int open_socket(uint16_t port);
// One datagram from the name-service socket.
void name_recv(const UniAddr* from, const uint8_t* data, int len);
// Sends the hang-up signal to the notifier, when one was started.
void name_shut();
