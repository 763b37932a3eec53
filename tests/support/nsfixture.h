#pragma once

#include <functional>
#include <string>

// Runs body in a forked child in a private mount namespace, a fresh tmpfs
// over /etc/opt, /var/opt and /opt (the daemon's directories made below
// them). Its assertion failures fail the calling test; when the places
// cannot be made private the test is skipped. Call it as a test's last
// statement. A body that starts the daemon must unshare(CLONE_NEWNET) first.
void run_in_private_dirs(const std::function<void()>& body);
// The same in a child that stays in the test's namespaces.
void run_in_child(const std::function<void()>& body);

// A process that runs fn and exits with its result: its pid, or -1.
int spawn_child(const std::function<int()>& fn);
int wait_child(int pid);  // its exit status, -1 when it did not exit normally
