#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <thread>
#include <vector>

#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/maininit.h"
#include "src/nbndgio.h"
#include "tests/support/privnet.h"

namespace {

// The timers' clock: moved by hand, and every alarm recorded.
time_t fake_now = 1000;
std::vector<unsigned> arms;
time_t fake_time() { return fake_now; }
unsigned fake_alarm(unsigned s) { arms.push_back(s); return 0; }

std::vector<std::string> events;  // what ran, in order
void note(const std::string& e) { events.push_back(e); }

void timer_cb(int32_t arg) { note("timer " + std::to_string(arg) + " sees " + std::to_string(dg_timer_count())); }

class Timers : public ::testing::Test {
protected:
    void SetUp() override
    {
        dg_set_clock(fake_time, fake_alarm);
        check_calls(LLONG_MAX);  // whatever an earlier test left behind
        fake_now = 1000;
        arms.clear();
        events.clear();
    }
    void TearDown() override
    {
        check_calls(LLONG_MAX);
        dg_set_clock(nullptr, nullptr);
        alarm(0);
    }
};

TEST_F(Timers, DueTimersLeaveTheTableAndRunInTheOrderAdded)
{
    ASSERT_EQ(dg_timer(2, timer_cb, 1), 0);
    ASSERT_EQ(dg_timer(5, timer_cb, 3), 0);
    ASSERT_EQ(dg_timer(2, timer_cb, 2), 0);
    check_calls(1001);
    EXPECT_TRUE(events.empty());
    check_calls(1002);
    // Both left before either ran: each sees only the 5-second one.
    EXPECT_EQ(events, (std::vector<std::string>{"timer 1 sees 1", "timer 2 sees 1"}));

    fake_now = 1006;  // 3 is due: adding a timer runs it first
    dg_timer(4, timer_cb, 4);
    EXPECT_EQ(events.back(), "timer 3 sees 0");
    EXPECT_EQ(dg_timer_count(), 1);
}

int rearm_runs = 0;
void rearming_cb(int32_t arg)
{
    note("rearm at " + std::to_string(fake_now) + " sees " + std::to_string(dg_timer_count()));
    if (++rearm_runs < 3)
        dg_timer(arg, rearming_cb, arg);
}

TEST_F(Timers, ACallbackThatAddsItselfRunsAgainOneIntervalLater)
{
    rearm_runs = 0;
    dg_timer(2, rearming_cb, 2);
    for (fake_now = 1001; fake_now <= 1010; fake_now++)
        check_calls(fake_now);
    EXPECT_EQ(events, (std::vector<std::string>{"rearm at 1002 sees 0", "rearm at 1004 sees 0",
                                                "rearm at 1006 sees 0"}));
    EXPECT_EQ(dg_timer_count(), 0);
}

TEST_F(Timers, TheAlarmIsArmedForTheEarliestAndOnlyWhenSomethingIsPending)
{
    dg_timer(7, timer_cb, 1);
    dg_timer(3, timer_cb, 2);
    fake_now = 1002;
    arms.clear();
    dg_timer(9, timer_cb, 3);
    EXPECT_EQ(arms, (std::vector<unsigned>{0, 1})) << "cancelled, then the 3-second one, 1 s away";

    arms.clear();
    check_calls(LLONG_MAX);
    set_alarm(fake_now);
    EXPECT_TRUE(arms.empty()) << "no timer pending, no alarm";

    // A timer asked for less than a second is due one second on, so that it
    // still gets an alarm of its own.
    events.clear();
    dg_timer(0, timer_cb, 5);
    EXPECT_EQ(arms, (std::vector<unsigned>{0, 1}));
    check_calls(fake_now);
    EXPECT_TRUE(events.empty());
    check_calls(fake_now + 1);
    EXPECT_EQ(events, (std::vector<std::string>{"timer 5 sees 0"}));
}

TEST_F(Timers, AnEleventhTimerIsRefusedAndThePendingOnesStillWakeTheLoop)
{
    for (int i = 0; i < DG_MAX_CALLS; i++)
        ASSERT_EQ(dg_timer(10 + i, timer_cb, i), 0);
    arms.clear();
    EXPECT_EQ(dg_timer(1, timer_cb, 99), -1);
    EXPECT_EQ(dg_timer_count(), DG_MAX_CALLS);
    EXPECT_EQ(arms, (std::vector<unsigned>{0, 10})) << "the cancelled alarm is armed again";

    fake_now = 1010;  // the first one runs inside dg_timer and makes room
    EXPECT_EQ(dg_timer(1, timer_cb, 42), 0);
    EXPECT_EQ(events, (std::vector<std::string>{"timer 0 sees 9"}));
    EXPECT_EQ(dg_timer_count(), DG_MAX_CALLS);
}

// Deferred signals and client descriptors are never removed from their
// tables, so each of these tests runs in a child of its own.

std::vector<int> signal_runs;
void signal_cb(int sig) { signal_runs.push_back(sig); }

TEST(DeferredSignals, ASignalRaisedTwiceBeforeTheLoopRunsItsWorkOnce)
{
    IN_CHILD(false, {
        ASSERT_EQ(dg_signal(SIGUSR1, signal_cb), 0);
        raise(SIGUSR1);
        raise(SIGUSR1);  // the handler put itself back after the first
        EXPECT_TRUE(signal_runs.empty()) << "the handler only marks";
        check_signals();
        EXPECT_EQ(signal_runs, (std::vector<int>{SIGUSR1}));
        check_signals();
        EXPECT_EQ(signal_runs.size(), 1u) << "the mark was cleared";

        struct sigaction sa;
        sigaction(SIGUSR1, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, signal_hndlr);
        EXPECT_EQ(sa.sa_flags & SA_RESTART, 0);
    });
}

int cust_noop(int, const uint8_t*, int, const UniAddr*) { return 0; }

TEST(DeferredSignals, RoutesRunInOrderAndASixthSignalOrDescriptorIsRefused)
{
    IN_CHILD(false, {
        ASSERT_EQ(dg_signal(SIGUSR2, signal_cb), 0);
        ASSERT_EQ(dg_signal(SIGUSR1, signal_cb), 0);
        ASSERT_EQ(dg_signal(SIGUSR2, signal_cb), 0);  // a second route of the same signal
        ASSERT_EQ(dg_signal(SIGWINCH, signal_cb), 0);
        ASSERT_EQ(dg_signal(SIGCHLD, signal_cb), 0);
        EXPECT_EQ(dg_signal(SIGURG, signal_cb), -1);
        struct sigaction sa;
        sigaction(SIGURG, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, SIG_DFL) << "a refused route installs nothing";

        raise(SIGUSR1);
        raise(SIGUSR2);
        check_signals();
        EXPECT_EQ(signal_runs, (std::vector<int>{SIGUSR2, SIGUSR1, SIGUSR2}));

        for (int i = 0; i < DG_MAX_CUSTFDS; i++)
            ASSERT_EQ(dg_custfd(10 + i, cust_noop), 0);
        EXPECT_EQ(dg_custfd(99, cust_noop), -1);
        EXPECT_EQ(dg_custfds().back().fd, 14);
    });
}

// The loop, run as the daemon runs it, on loopback in a private namespace.

int udp_bound(uint16_t* port)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) < 0)
        return -1;
    *port = ntohs(a.sin_port);
    return s;
}

void send_to(int s, uint16_t port, const std::string& text)
{
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    ASSERT_EQ(sendto(s, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a),
              ssize_t(text.size()));
}

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 10000) == 1;  // a deadline, not a measure
}

void loop_recv(const UniAddr*, const uint8_t* data, int len)
{
    note("name " + std::string(reinterpret_cast<const char*>(data), size_t(len)));
    if (events.back() == "name last")
        close(dg_fd);  // the next receive fails, which ends the loop
}
int loop_cust(int, const uint8_t* data, int len, const UniAddr*)
{
    note("cust " + std::string(reinterpret_cast<const char*>(data), size_t(len)));
    return 0;
}
int loop_redo() { note("reinit"); return 0; }
void loop_signal(int) { note("signal"); }
void loop_timer(int32_t) { note("timer"); }

TEST(Loop, APassRunsTimersSignalsReinitThenOneInputAtATime)
{
    IN_CHILD(true, {
        uint16_t name_port = 0, ens_port = 0, peer_port = 0;
        dg_fd = udp_bound(&name_port);
        int ens = udp_bound(&ens_port);
        int peer = udp_bound(&peer_port);
        ASSERT_GE(dg_fd, 0);
        ASSERT_GE(ens, 0);
        ASSERT_EQ(dg_custfd(ens, loop_cust), 0);
        ASSERT_EQ(dg_signal(SIGUSR1, loop_signal), 0);
        dg_set_work(loop_recv, loop_redo);
        dg_set_clock(fake_time, fake_alarm);
        fake_now = 1000;
        events.clear();
        dg_timer(1, loop_timer, 0);
        fake_now = 1001;

        send_to(peer, name_port, "first");
        send_to(peer, name_port, "last");
        send_to(peer, ens_port, "ens");
        ASSERT_TRUE(readable(dg_fd));
        ASSERT_TRUE(readable(ens));
        raise(SIGUSR1);
        raise(SIGUSR1);
        dg_reinit();

        EXPECT_EQ(recv_datagrams(), -1);
        EXPECT_EQ(events, (std::vector<std::string>{"timer", "signal", "reinit", "cust ens", "name first",
                                                    "name last"}));
    });
}

void closing_timer(int32_t)
{
    note("timer");
    close(dg_fd);
}

// The real clock and alarm: an idle loop wakes when its timer falls due.
TEST(Loop, TheAlarmWakesAnIdleLoopForItsTimer)
{
    IN_CHILD(true, {
        uint16_t name_port = 0;
        dg_fd = udp_bound(&name_port);
        ASSERT_GE(dg_fd, 0);
        dg_set_work(loop_recv, loop_redo);
        events.clear();
        FILE* trace = tmpfile();
        ASSERT_NE(trace, nullptr);
        tcfile = trace;
        tc_proc = 5;
        ASSERT_EQ(dg_timer(1, closing_timer, 0), 0);
        dg_reinit();

        EXPECT_EQ(recv_datagrams(), -1) << "the timer closed the socket";
        EXPECT_EQ(events, (std::vector<std::string>{"reinit", "timer"}));
        struct sigaction sa;
        sigaction(SIGALRM, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, do_nothing);
        raise(SIGALRM);  // only wakes: the process goes on, the handler stays
        sigaction(SIGALRM, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, do_nothing);

        tcfile = nullptr;
        std::string text(4096, '\0');
        rewind(trace);
        text.resize(fread(text.data(), 1, text.size(), trace));
        // Passes woken early (-2) may come between; the rest is fixed.
        std::string head = "dg_timer called, sec 1, ";
        ASSERT_EQ(text.compare(0, head.size(), head), 0) << text;
        size_t eol = text.find('\n');
        ASSERT_NE(eol, std::string::npos);
        std::string rest = text.substr(eol + 1);
        std::string start = "dg_reinit called\nrecv_datagrams called\ndo_reinit called\n";
        std::string end = "get_dg: error in receive: errno " + std::to_string(EBADF) +
                          "\nrecv_datagrams: get_dg returned -1\n";
        EXPECT_EQ(rest.compare(0, start.size(), start), 0) << rest;
        ASSERT_GE(rest.size(), end.size());
        EXPECT_EQ(rest.substr(rest.size() - end.size()), end) << rest;
    });
}

// get_dg's waits, woken by a signal: a thread keeps signalling until the wait
// has come back, so it does not matter when the wait began.
std::atomic<bool> waiting_done;
void wake_handler(int) {}

int interrupted_get_dg(int fd)
{
    struct sigaction sa = {};
    sa.sa_handler = wake_handler;  // no SA_RESTART: the wait must see EINTR
    sigaction(SIGUSR2, &sa, nullptr);
    waiting_done = false;
    pthread_t self = pthread_self();
    std::thread poker([self] {
        for (int i = 0; i < 6000 && !waiting_done; i++) {
            pthread_kill(self, SIGUSR2);
            usleep(10000);
        }
    });
    UniAddr from{};
    uint8_t* data = nullptr;
    int r = get_dg(fd, &from, &data);
    waiting_done = true;
    poker.join();
    return r;
}

TEST(GetDg, ASignalEndsTheWaitWithNothingForTheCaller)
{
    IN_CHILD(false, {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        EXPECT_EQ(interrupted_get_dg(p[0]), -2) << "poll interrupted";
        EXPECT_EQ(interrupted_get_dg(-1), -2) << "no socket: pause interrupted";
    });
}

int cust_calls = 0;
int counting_cust(int, const uint8_t*, int, const UniAddr*) { cust_calls++; return 0; }

TEST(GetDg, AFailedReceiveEndsTheLoopButAClientDescriptorsOnlyDrops)
{
    IN_CHILD(false, {
        FILE* trace = tmpfile();
        tcfile = trace;
        tc_proc = 1;
        int name[2], cust[2];
        ASSERT_EQ(pipe(name), 0);
        ASSERT_EQ(pipe(cust), 0);
        ASSERT_EQ(write(name[1], "x", 1), 1);  // readable, but no socket
        ASSERT_EQ(write(cust[1], "y", 1), 1);
        ASSERT_EQ(dg_custfd(cust[0], counting_cust), 0);
        UniAddr from{};
        uint8_t* data = nullptr;
        EXPECT_EQ(get_dg(name[0], &from, &data), -2) << "the client descriptor was served";
        EXPECT_EQ(cust_calls, 0) << "nothing was received, so the handler has nothing";
        tcfile = nullptr;
        rewind(trace);
        char text[256] = {};
        ASSERT_GT(fread(text, 1, sizeof text - 1, trace), 0u);
        EXPECT_EQ(std::string(text), "read_custfd: error in receive: errno " + std::to_string(ENOTSOCK) + "\n");
    });
    // A failed receive on the name socket itself: see the loop test, which ends by it.
}

}  // namespace
