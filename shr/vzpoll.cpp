#include "shr/vzpoll.h"

#include <cerrno>

int vz_poll(struct pollfd* fds, int count)
{
    int n = poll(fds, nfds_t(count), -1);
    if (n < 0 && errno == EINTR)
        return -2;
    return n;
}
