#pragma once

#include <functional>

#include <gtest/gtest.h>

// Runs body in a forked child, inside a private network namespace with only
// its own loopback up when private_net is set. Module state the child changes
// (registration tables, sockets) dies with it. The child's failures are
// printed by the child; the result is 0 (passed), 1 (failed) or 77 (skipped,
// reason printed). The child is killed when it has not ended in 120 seconds.
int run_in_child(bool private_net, const std::function<void()>& body);

// From inside a child body: give up on this test with a reason.
[[noreturn]] void child_skip(const char* reason);

// In a TEST body: run the block in a child, and fail or skip the test by its result.
#define IN_CHILD(private_net, ...)                                                     \
    do {                                                                               \
        int child_result_ = run_in_child(private_net, [&]() __VA_ARGS__);              \
        if (child_result_ == 77)                                                       \
            GTEST_SKIP() << "needs what the child could not get (see its output)";     \
        EXPECT_EQ(child_result_, 0) << "the child reported failures (see its output)"; \
    } while (0)
