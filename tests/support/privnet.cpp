#include "tests/support/privnet.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

void child_skip(const char* reason)
{
    printf("[  SKIP    ] child: %s\n", reason);
    fflush(stdout);
    _exit(77);
}

int run_in_child(bool private_net, const std::function<void()>& body)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0)
        return 1;
    if (pid == 0) {
        if (private_net) {
            if (unshare(CLONE_NEWNET) != 0)
                child_skip("unshare(CLONE_NEWNET) failed (needs root)");
            int s = socket(AF_INET, SOCK_DGRAM, 0);
            struct ifreq ifr = {};
            strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
            bool up = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
            ifr.ifr_flags = short(ifr.ifr_flags | IFF_UP);
            if (!up || ioctl(s, SIOCSIFFLAGS, &ifr) != 0)
                child_skip("cannot bring up lo in the private namespace");
            close(s);
        }
        body();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    // A hung child must not hang the suite: wait at most 120 s, then kill it.
    int status = 0;
    for (int tries = 0; tries < 12000; tries++) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
        if (r < 0 && errno != EINTR)
            return 1;
        usleep(10 * 1000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    ADD_FAILURE() << "child did not end within 120 s";
    return 1;
}
