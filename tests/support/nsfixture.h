#pragma once

#include <functional>
#include <string>

// The daemon's fixed places (/etc/opt, /var/opt, /opt) private and empty: the
// calling process moves into a new private mount namespace, a fresh tmpfs over
// each, with /etc/opt/KORRbase, /var/opt/KORRbase and /opt/KORRlibs/lib made.
// The mounts vanish with the namespace. false with the reason when it cannot
// be done. Only for a process about to end (see run_in_private_dirs).
bool enter_private_dirs(std::string* why);

// Runs body in a forked child that first enters private dirs, so every body
// starts from empty places and a fresh process. The child's assertion
// failures fail the calling test; when the places cannot be made private the
// test is skipped. Call it as a test's last statement. A body that starts
// the daemon leaves the machine's network (unshare(CLONE_NEWNET)) first.
void run_in_private_dirs(const std::function<void()>& body);
// The same in a child that stays in the test's namespaces.
void run_in_child(const std::function<void()>& body);
// The same in a child in a network namespace of its own, only its loopback up.
void run_in_private_net(const std::function<void()>& body);

// A helper process that runs fn and exits with its result: its pid, or -1.
int spawn_child(const std::function<int()>& fn);
// Waits for pid: its exit status, or -1 when it did not exit normally.
int wait_child(int pid);
