#pragma once

// Installs handler for sig with System V semantics: the handler is reset to
// the default action on delivery, and a blocked system call is interrupted
// (EINTR), never restarted. Every handler of the daemon goes through here.
// Returns 0, or -1 when sigaction fails.
int vz_signal(int sig, void (*handler)(int));
