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
