#include "tests/support/nsfixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Only for a process about to end.
bool enter_private_dirs(std::string* why)
{
    auto fail = [&](const std::string& what) {
        *why = what + ": " + strerror(errno);
        return false;
    };
    if (geteuid() != 0)
        return *why = "needs root for a private mount namespace", false;
    // Nothing mounted from here on may reach the machine's namespace.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return fail("a private mount namespace");
    for (const char* place : {"/etc/opt", "/var/opt", "/opt"}) {
        struct stat st;
        // A missing place is not created: that would change the machine's tree.
        if (stat(place, &st) != 0 || !S_ISDIR(st.st_mode) ||
            mount("halyard-test", place, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=16m") != 0)
            return fail(std::string("a tmpfs over ") + place);
    }
    for (const char* dir : {"/etc/opt/KORRbase", "/var/opt/KORRbase", "/opt/KORRlibs", "/opt/KORRlibs/lib"})
        if (mkdir(dir, 0755) != 0)
            return fail(dir);
    return true;
}


void run_forked(const std::function<void()>& body, bool private_dirs)
{
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        std::string why;
        if (private_dirs && !enter_private_dirs(&why)) {
            ssize_t w = write(pipefd[1], why.data(), why.size());
            (void)w;
            _exit(77);  // skipped, the reason in the pipe
        }
        close(pipefd[1]);
        body();
        fflush(stdout);
        // exit: the sanitizer's leak check runs in the child too.
        exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(pipefd[1]);
    std::string why;
    char buf[256];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof buf)) > 0;)
        why.append(buf, size_t(n));
    close(pipefd[0]);
    // A hung child must not hang the suite: at most 120 s, then it is killed.
    int status = 0;
    pid_t r = 0;
    for (int tries = 0; tries < 12000 && (r = waitpid(pid, &status, WNOHANG)) == 0; tries++)
        usleep(10 * 1000);
    if (r == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ADD_FAILURE() << "the child did not end within 120 s";
        return;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << why;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the test body in the child process failed (status " << status << ")";
}

}  // namespace

void run_in_private_dirs(const std::function<void()>& body) { run_forked(body, true); }

void run_in_child(const std::function<void()>& body) { run_forked(body, false); }


int spawn_child(const std::function<int()>& fn)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    return pid;
}

int wait_child(int pid)
{
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    return r == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
