#pragma once

#include <cstdint>

#include "shr/dgsend.h"
#include "shr/uniconv.h"

// Brings the name service up after the start-up: the name-service socket
// when the UDP transport is configured. Returns that socket, or -1 when there
// is none (the daemon then runs on without it).
int name_init();
int name_fd();  // that socket, for the receiver; -1 when there is none
// The daemon's sender (dg_set_sender): by fd when a module opened one for
// its sends, else the name way by the name-service socket and the ENS way by
// the ENS socket.
int name_send(DgWay way, int fd, const uint8_t* data, int len, const UniAddr* to);
// A datagram socket bound to every local address at port (host order), or -1.
int open_socket(uint16_t port);
// One datagram from the name-service socket.
void name_recv(const UniAddr* from, const uint8_t* data, int len);
// Sends the hang-up signal to the notifier, when one was started.
void name_shut();
