#pragma once

#include <sys/types.h>

// Installs handler for sig with System V semantics: the handler is reset to
// the default action on delivery, and a blocked system call is interrupted
// (EINTR), never restarted. Every handler of the daemon goes through here.
// Returns 0, or -1 when sigaction fails.
int vz_signal(int sig, void (*handler)(int));
// The same, but sig stays blocked while its handler runs. For a handler that
// re-installs itself: a second signal that comes before it has done so then
// waits for it, rather than meeting the default action (for the interrupt,
// the end of the process).
int vz_signal_held(int sig, void (*handler)(int));

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
