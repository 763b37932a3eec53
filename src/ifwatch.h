#pragma once

// The interfaces chosen by NB-interfaces, followed while the daemon runs:
// their IPv4 addresses join my_addr after the [interface] sections' as they
// appear, and leave it as they go. Told of changes by the kernel's route
// messages (netlink), never by polling.

#include <cstdint>
#include <span>

#include "shr/uniconv.h"

// Opens the route-message socket as a client descriptor of the loop and
// serves what the system has now; says once in the log when that is
// nothing. Run once, by the name-service start, after the configuration.
void ifw_start();
// The client descriptor's handler: one datagram of route messages, or an
// empty one when some were lost.
int ifw_recv(int fd, const uint8_t* data, int len, const UniAddr* from);
// Reads the system's addresses again and serves the difference: new ones
// are entered as our own and every owned local name is claimed there
// (twice, a second apart); gone ones are forgotten; the agents hear of the
// new set.
void ifw_rescan();

// Route messages (rtnetlink(7)) in one datagram: 1 when one of them may
// change what is served (an IPv4 address added or removed, a link changed,
// an error or overrun) or the datagram is cut inside a message, else 0.
int nl_changes(std::span<const uint8_t> data);
