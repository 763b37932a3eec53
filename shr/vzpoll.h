#pragma once

#include <poll.h>

#include <csignal>

// poll() without a time limit. An interrupted wait returns -2 instead of -1,
// so that callers can tell a signal from a failure; otherwise poll's result.
// With a mask, the signal mask during the wait only (ppoll): signals blocked
// outside it and arriving before the wait still interrupt it.
int vz_poll(struct pollfd* fds, int count, const sigset_t* wait_mask = nullptr);
