#pragma once
// ENS datagrams received: responses matched to the waiting commands, and the
// VERIFY and EQUIV requests of the agents.
#include <cstdint>
#include "shr/uniconv.h"

// The handler of ens_fd (a client descriptor of the event loop); 0.
int ens_recv(int fd, const uint8_t* bytes, int length, const UniAddr* sender);
