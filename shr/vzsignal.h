#pragma once

#include <sys/types.h>

// Installs handler for sig with System V semantics: the handler is reset to
// the default action on delivery, and a blocked system call is interrupted
// (EINTR), never restarted. For the handlers that end the process.
// Returns 0, or -1 when sigaction fails.
int vz_signal(int sig, void (*handler)(int));
// For a handler that must stay: it is not reset on delivery, and sig stays
// blocked while it runs; a blocked system call is still interrupted. A
// handler that re-installs itself cannot be made safe: the kernel resets it
// when it takes the signal, before it blocks sig for the handler, and a
// second signal sent in between meets the default action (for the
// interrupt and the alarm, the end of the process).
int vz_signal_kept(int sig, void (*handler)(int));

// The signals that end a process of the product unless it handles them:
// hang-up, interrupt, quit, illegal instruction, trace trap, abort, floating
// point, bus error, segmentation, bad system call, broken pipe, alarm,
// termination. Linux has no emulator trap, and kill cannot be caught.
extern const int vz_terminating[13];

// A signal's traditional number, as traces and exit statuses report it; it
// differs from Linux's for the bus error (10) and the bad system call (12).
int vz_classic_signal(int sig);

// write() with the broken-pipe signal held: a reader that went away gives
// -1 with EPIPE instead of ending the process. errno is write's.
ssize_t vz_write_held(int fd, const void* buf, size_t n);
