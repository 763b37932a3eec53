#pragma once

#include <cstdint>

// Buffer sizes applied to stream sockets; 0 or less leaves the system's send
// size, and for receiving means "check the system's size": one above 16384 is
// cut to 16384, which then stays here for every later stream socket.
extern int s_sendbuf;
extern int s_recvbuf;

// A socket bound to addr (IPv4, network order, 0 for any) at *port (host
// order); a stream socket when stream is non-zero (address reuse, keep-alive,
// buffer sizes, listening), else a datagram socket allowed to broadcast
// (and to share its port with one bound to a single address).
// A *port of 0 lets the system choose and receives its choice. Returns the
// descriptor, or -1 with nothing left open.
int init_sock(uint32_t addr, uint16_t* port, int stream);

// An unbound datagram socket, only a handle for interface queries; or -1.
int temp_socket();
int temp_s_close(int s);
