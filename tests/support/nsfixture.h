#pragma once

#include <functional>
#include <string>

// Runs body in a forked child that first moves into a private mount
// namespace with a fresh tmpfs over /etc/opt, /var/opt and /opt (and
// /etc/opt/KORRbase, /var/opt/KORRbase, /opt/KORRlibs/lib made), so every
// body starts from empty places and a fresh process. The child's assertion
// failures fail the calling test; when the places cannot be made private the
// test is skipped. Call it as a test's last statement. A body that starts
// the daemon leaves the machine's network (unshare(CLONE_NEWNET)) first.
void run_in_private_dirs(const std::function<void()>& body);
// The same in a child that stays in the test's namespaces.
void run_in_child(const std::function<void()>& body);

// A helper process that runs fn and exits with its result: its pid, or -1.
int spawn_child(const std::function<int()>& fn);
// Waits for pid: its exit status, or -1 when it did not exit normally.
int wait_child(int pid);
