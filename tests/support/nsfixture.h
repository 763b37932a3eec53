#pragma once

#include <functional>
#include <string>

// The daemon's fixed places (/etc/opt, /var/opt, /opt) made private and empty
// for a test: the calling process moves into a new mount namespace, makes
// every mount in it private, and mounts a fresh tmpfs over each of the three,
// then creates /etc/opt/KORRbase, /var/opt/KORRbase and /opt/KORRlibs/lib.
// Nothing of the machine's own directories is visible or changed, and the
// tmpfs mounts vanish with the namespace: there is nothing to clean up. The
// build tree and /tmp stay as they are.
// false with the reason (not root, no namespaces) when it cannot be done.
// Call it only in a process that is about to end (see run_in_private_dirs).
bool enter_private_dirs(std::string* why);

// Runs body in a forked child that first enters private dirs, so the test
// process itself never changes namespace and every body starts from empty
// directories and a fresh process (process-wide state such as the database's
// kept current object starts over too). Failures of GoogleTest assertions in
// the body are printed by the child and fail the calling test; when the
// places cannot be made private the calling test is skipped with the reason.
// Call it as the last statement of a test. A body that starts the daemon
// also leaves the machine's network (unshare(CLONE_NEWNET)) before the exec;
// children it forks share its private directories.
void run_in_private_dirs(const std::function<void()>& body);
// The same in a forked child that stays in the test's namespace, for bodies
// that only need a fresh process.
void run_in_child(const std::function<void()>& body);

// Forks a helper process in the current namespace that runs fn and exits
// with its result; the pid, or -1. Reap it with wait_child.
int spawn_child(const std::function<int()>& fn);
// Waits for pid; its exit status, or -1 when it did not exit normally.
int wait_child(int pid);
