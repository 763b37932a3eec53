#pragma once

#include <poll.h>

#include <csignal>
#include <cstdint>

// poll() without a time limit. An interrupted wait returns -2 instead of -1,
// so that callers can tell a signal from a failure; otherwise poll's result.
// With a mask, the signal mask during the wait only (ppoll): signals blocked
// outside it and arriving before the wait still interrupt it.
int vz_poll(struct pollfd* fds, int count, const sigset_t* wait_mask = nullptr);

// Milliseconds on the monotonic clock: what every deadline is counted in.
int64_t vz_now_ms();
// Waits until fd is ready for events, at most until deadline (vz_now_ms
// time; -1: no limit), going on after signals: 1 ready, 0 the deadline
// passed, -1 an error.
int vz_wait_fd(int fd, short events, int64_t deadline);
