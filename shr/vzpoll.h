#pragma once

#include <poll.h>

// poll() without a time limit. An interrupted wait returns -2 instead of -1,
// so that callers can tell a signal from a failure; otherwise poll's result.
int vz_poll(struct pollfd* fds, int count);
