#include "shr/vzsignal.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

int vz_signal(int sig, void (*handler)(int))
{
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESETHAND | SA_NODEFER;  // never SA_RESTART
    return sigaction(sig, &sa, nullptr) == 0 ? 0 : -1;
}

int vz_signal_kept(int sig, void (*handler)(int))
{
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // never SA_RESTART
    return sigaction(sig, &sa, nullptr) == 0 ? 0 : -1;
}

const int vz_terminating[13] = {SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGFPE,
                                SIGBUS, SIGSEGV, SIGSYS, SIGPIPE, SIGALRM, SIGTERM};

int vz_classic_signal(int sig)
{
    switch (sig) {
    case SIGBUS:
        return 10;
    case SIGSYS:
        return 12;
    default:
        return sig;
    }
}

ssize_t vz_write_held(int fd, const void* buf, size_t n)
{
    sigset_t pipe_set, old;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipe_set, &old);
    ssize_t w = write(fd, buf, n);
    int err = errno;
    // The signal a failed write raised is taken, unless it was held already.
    if (w < 0 && err == EPIPE && !sigismember(&old, SIGPIPE)) {
        timespec zero{0, 0};
        sigtimedwait(&pipe_set, nullptr, &zero);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return w;
}
