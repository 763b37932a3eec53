#include "config/sflock.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "shr/vzsignal.h"

int sf_locktimer = 30;

namespace {

volatile sig_atomic_t alarm_rang = 0;

// Only there to interrupt the wait.
void do_nothing(int)
{
    alarm_rang = 1;
}

}  // namespace

int sf_lockgrab(int fd, int mode)
{
    struct flock fl = {};
    fl.l_type = mode == 2 ? F_WRLCK : F_RDLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 1;
    int timer = sf_locktimer;
    if (timer <= 0)
        return fcntl(fd, F_SETLK, &fl) == 0 ? 0 : -1;

    // Saved and restored whole with sigaction, so a previous handler comes
    // back exactly as it was installed.
    struct sigaction old_action;
    sigaction(SIGALRM, nullptr, &old_action);
    // The daemon's loop keeps the alarm blocked outside its wait: it is let
    // through for this wait, or the wait could never time out. An alarm of
    // the loop's already pending is no time-out of ours: it is taken aside
    // and raised again afterwards, for the loop's wait.
    sigset_t alrm, old_mask;
    sigemptyset(&alrm);
    sigaddset(&alrm, SIGALRM);
    sigprocmask(SIG_BLOCK, nullptr, &old_mask);
    bool blocked = sigismember(&old_mask, SIGALRM) == 1;
    bool was_pending = false;
    if (blocked) {
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGALRM) == 1) {
            const struct timespec none = {0, 0};
            was_pending = sigtimedwait(&alrm, nullptr, &none) == SIGALRM;
        }
    }
    alarm_rang = 0;
    // The handler goes in before the alarm is armed, so the alarm can never
    // find the default action (which would end the process).
    vz_signal_kept(SIGALRM, do_nothing);  // a second alarm finds it too
    unsigned left = alarm(unsigned(timer));
    if (blocked)
        sigprocmask(SIG_UNBLOCK, &alrm, nullptr);
    int rc;
    do {
        rc = fcntl(fd, F_SETLKW, &fl);
        // Another signal (the client-request one) is no time-out: wait on.
    } while (rc != 0 && errno == EINTR && alarm_rang == 0);
    alarm(0);
    if (blocked)
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    sigaction(SIGALRM, &old_action, nullptr);
    if (left != 0)
        alarm(left > unsigned(timer) ? left - unsigned(timer) : 1);
    if (was_pending)
        raise(SIGALRM);
    return rc == 0 ? 0 : -1;
}
