#include "shr/vzpoll.h"

#include <cerrno>
#include <ctime>

int vz_poll(struct pollfd* fds, int count, const sigset_t* wait_mask)
{
    int n = wait_mask != nullptr ? ppoll(fds, nfds_t(count), nullptr, wait_mask) : poll(fds, nfds_t(count), -1);
    if (n < 0 && errno == EINTR)
        return -2;
    return n;
}

int64_t vz_now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int vz_wait_fd(int fd, short events, int64_t deadline)
{
    for (;;) {
        int left = -1;
        if (deadline >= 0) {
            int64_t d = deadline - vz_now_ms();
            if (d <= 0)
                return 0;
            left = d > 60000 ? 60000 : int(d);
        }
        pollfd p{fd, events, 0};
        int n = poll(&p, 1, left);
        if (n > 0)
            return 1;
        if (n < 0 && errno != EINTR)
            return -1;
    }
}
