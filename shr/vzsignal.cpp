#include "shr/vzsignal.h"

#include <csignal>

int vz_signal(int sig, void (*handler)(int))
{
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESETHAND | SA_NODEFER;  // never SA_RESTART
    return sigaction(sig, &sa, nullptr) == 0 ? 0 : -1;
}

int vz_signal_held(int sig, void (*handler)(int))
{
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESETHAND;  // never SA_RESTART
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
