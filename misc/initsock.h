#pragma once

#include <cstdint>

#include "shr/uniconv.h"

// Buffer sizes applied to stream sockets; 0 or less leaves the system's send
// size, and for receiving means "check the system's size": one above 16384 is
// cut to 16384, which then stays here for every later stream socket.
extern int s_sendbuf;
extern int s_recvbuf;

// A socket bound to addr (IPv4, network order, 0 for any) at *port (host
// order); a stream socket when stream is non-zero (address reuse, keep-alive,
// buffer sizes, listening), else a datagram socket allowed to broadcast.
// A *port of 0 lets the system choose and receives its choice. Returns the
// descriptor, or -1 with nothing left open.
int init_sock(uint32_t addr, uint16_t* port, int stream);

// An unbound datagram socket, only a handle for interface queries; or -1.
int temp_socket();
int temp_s_close(int s);

// A datagram socket at addr:port (network order address, a port below
// 1024) that shares the port: a name-directory agent may serve WINS at one
// address of the host on the name-service port while the daemon holds it
// at every address. With the option on both, the more specific binding
// takes the unicasts to its address and the other the rest; a privileged
// port keeps other users out. -1 with errno on failure.
int init_shared_sock(uint32_t addr, uint16_t port);

// Sends len bytes on fd to `to` (family I, with its port). Bytes sent, or -1.
int put_ddg(int fd, const uint8_t* data, int len, const UniAddr* to);
