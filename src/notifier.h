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
// The next whole message of at most limit (and NS_MAXDATA) data bytes from
// the daemon's pipe fd, read through a buffer that keeps a message read in
// part: its data bytes, -2 when none is whole yet, -1 at end of file or on
// an error. Other bytes are skipped to the next magic.
int ntf_read(int fd, ns_hdr* hdr, uint8_t* data, int limit);
// The same from the clients' stream on fd (the server FIFO). Bytes without
// a header, headers with len outside 0..NS_MAXDATA and a message not whole
// within a second of its first byte are dropped with a line in "ntf.trc".
int ntf_take(int fd, ns_hdr* hdr, uint8_t* data);
// Milliseconds until ntf_take gives up a message begun, -1 when none is.
int ntf_take_wait();
void ntf_take_reset();  // forgets the bytes held back of both streams
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
