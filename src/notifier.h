#pragma once

#include <cstdint>
#include <sys/types.h>

#include "src/dorequest.h"

// The daemon's ends of the relay: requests come in on from_ntf (non-blocking),
// responses go out on to_ntf; -1 until the notifier runs.
extern int from_ntf;
extern int to_ntf;
// The notifier's process id, 0 while none runs.
extern int ntf_pid;

// Creates "ns_serverfifo", "ns_clientfifo" and "lock.name" in
// /var/opt/KORRbase and the two pipes, and forks the notifier. Returns null in
// the daemon, or the text of the failure; the child never returns.
const char* notifier();

// The relay loop of the notifier process; returns when a pipe or FIFO fails.
void ntf_process();
// Reads one message whose len is at most limit (and NS_MAXDATA): the data
// bytes read (0 for none), -2 when a signal interrupted a read, -1 on end of
// file or an error. Headers above the limit are dropped and the next magic
// sought.
int ntf_read(int fd, ns_hdr* hdr, uint8_t* data, int limit);
// The next whole message from the clients' stream on fd (the server FIFO):
// its data bytes, or -1 on end of file or an error. Bytes without a header,
// headers with len outside 0..NS_MAXDATA and a message not whole within a
// second of its first byte are dropped with a line in "ntf.trc"; bytes read
// beyond the message wait for the next call.
int ntf_take(int fd, ns_hdr* hdr, uint8_t* data);
void ntf_take_reset();  // forgets the bytes held back
// Reads until a header with the magic is in hdr: 24, -2 (interrupted) or -1.
int ntf_find_hdr(int fd, ns_hdr* hdr);
// Writes the header and n data bytes (none when n < 1): 0, or -1 when short.
int ntf_write(int fd, const ns_hdr* hdr, const uint8_t* data, int n);
// Creates the FIFO at path if absent and opens it for reading and writing:
// the descriptor, or a negative value.
int mk_fifo(const char* path, mode_t mode);
// Creates an empty "lock.name" in dir if absent, owned by admuid/admgid:
// 0, or a negative value.
int mklockfile(const char* dir, mode_t mode);
// ntf_exit becomes the handler of every terminating signal.
void ntf_signals();
// Removes both FIFOs and ends the process with status; as a handler it ends
// it with the signal's traditional number (a hang-up gives 1).
[[noreturn]] void ntf_exit(int status);
// The daemon's side: the descriptor whose hang-up means that the notifier
// ended (-1 when none runs), and the restart that follows: an operator
// message, then a new notifier with new FIFOs.
int ntf_watch_fd();
void ntf_lost();
// The alarm's handler during a response wait: it only interrupts the read.
void ntf_timeout(int sig);
