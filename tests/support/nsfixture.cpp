#include "tests/support/nsfixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kSkipStatus = 77;

bool fail(std::string* why, const char* what)
{
    *why = std::string(what) + ": " + strerror(errno);
    return false;
}

}  // namespace

bool enter_private_dirs(std::string* why)
{
    if (geteuid() != 0) {
        *why = "needs root for a private mount namespace";
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0)
        return fail(why, "unshare(CLONE_NEWNS)");
    // Nothing mounted from here on may reach the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return fail(why, "making / private");
    for (const char* place : {"/etc/opt", "/var/opt", "/opt"}) {
        struct stat st;
        if (stat(place, &st) != 0 || !S_ISDIR(st.st_mode)) {
            // Creating it would change the machine's own tree.
            *why = std::string(place) + " is not a directory on this machine";
            return false;
        }
        if (mount("halyard-test", place, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=16m") != 0)
            return fail(why, place);
    }
    for (const char* dir : {"/etc/opt/KORRbase", "/var/opt/KORRbase", "/opt/KORRlibs", "/opt/KORRlibs/lib"}) {
        if (mkdir(dir, 0755) != 0)
            return fail(why, dir);
    }
    return true;
}

namespace {

void run_forked(const std::function<void()>& body, bool private_dirs)
{
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        std::string why;
        if (private_dirs && !enter_private_dirs(&why)) {
            ssize_t w = write(pipefd[1], why.data(), why.size());
            (void)w;
            _exit(kSkipStatus);
        }
        close(pipefd[1]);
        body();
        fflush(stdout);
        // exit, not _exit: the sanitizer's leak check runs in the child too.
        exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(pipefd[1]);
    std::string why;
    char buf[256];
    ssize_t n;
    while ((n = read(pipefd[0], buf, sizeof buf)) > 0)
        why.append(buf, size_t(n));
    close(pipefd[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipStatus)
        GTEST_SKIP() << why;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the test body in the child process failed (status " << status << ")";
}

}  // namespace

void run_in_private_dirs(const std::function<void()>& body)
{
    run_forked(body, true);
}

void run_in_child(const std::function<void()>& body)
{
    run_forked(body, false);
}

int spawn_child(const std::function<int()>& fn)
{
    fflush(stdout);
    fflush(stderr);
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
    if (r != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}
