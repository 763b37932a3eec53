#include "shr/vzpoll.h"

#include <cerrno>

int vz_poll(struct pollfd* fds, int count, const sigset_t* wait_mask)
{
    int n = wait_mask != nullptr ? ppoll(fds, nfds_t(count), nullptr, wait_mask) : poll(fds, nfds_t(count), -1);
    if (n < 0 && errno == EINTR)
        return -2;
    return n;
}
