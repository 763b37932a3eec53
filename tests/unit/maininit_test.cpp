#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <climits>
#include <csignal>
#include <poll.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "misc/initsock.h"
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
using Events = std::vector<std::string>;

void timer_cb(int32_t arg) { note("timer " + std::to_string(arg) + " sees " + std::to_string(dg_timer_count())); }
void adding_cb(int32_t arg)
{
    timer_cb(arg);
    dg_timer(0, timer_cb, arg + 10);
}

// Stops tracing into f and returns what was traced.
std::string trace_of(FILE* f)
{
    tcfile = nullptr;
    std::string text(4096, '\0');
    rewind(f);
    text.resize(fread(text.data(), 1, text.size(), f));
    return text;
}

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
    ASSERT_EQ(dg_timer(2, adding_cb, 2), 0);
    check_calls(1001);
    EXPECT_TRUE(events.empty());
    fake_now = 1002;
    check_calls(1002);
    // Both left before either ran (each sees only the 5-second one), and the
    // timer added meanwhile does not run in this pass.
    EXPECT_EQ(events, (Events{"timer 1 sees 1", "timer 2 sees 1"}));

    fake_now = 1006;  // 3 and 12 are due: adding a timer runs them first
    dg_timer(4, timer_cb, 4);
    EXPECT_EQ(events, (Events{"timer 1 sees 1", "timer 2 sees 1", "timer 3 sees 0", "timer 12 sees 0"}));
    EXPECT_EQ(dg_timer_count(), 1);
}

TEST_F(Timers, TheAlarmIsArmedForTheEarliestAndOnlyWhenSomethingIsPending)
{
    dg_timer(7, timer_cb, 1);
    dg_timer(3, timer_cb, 2);
    fake_now = 1002;
    arms.clear();
    dg_timer(9, timer_cb, 3);
    EXPECT_TRUE(arms.empty()) << "the alarm for the 3-second one stands: no system call";
    fake_now = 1000;  // the clock set back
    dg_timer(1, timer_cb, 4);
    EXPECT_EQ(arms, (std::vector<unsigned>{1})) << "an earlier timer arms it again";
    arms.clear();
    do_nothing(SIGALRM);  // it rang: what it was armed for is no longer known
    set_alarm(fake_now);
    EXPECT_EQ(arms, (std::vector<unsigned>{1}));

    arms.clear();
    check_calls(LLONG_MAX);
    set_alarm(fake_now);
    EXPECT_TRUE(arms.empty()) << "no timer pending, no alarm";

    // Once a fault: a timer asked for less than a second was due at once, got
    // no alarm and waited for input. It is due one second on.
    events.clear();
    fake_now = 1010;
    dg_timer(0, timer_cb, 5);
    EXPECT_EQ(arms, (std::vector<unsigned>{1}));
    check_calls(fake_now);
    EXPECT_TRUE(events.empty());
    check_calls(fake_now + 1);
    EXPECT_EQ(events, (Events{"timer 5 sees 0"}));
}

TEST_F(Timers, AnEleventhTimerIsRefusedAndThePendingOnesStillWakeTheLoop)
{
    for (int i = 0; i < DG_MAX_CALLS; i++)
        ASSERT_EQ(dg_timer(10 + i, timer_cb, i), 0);
    arms.clear();
    EXPECT_EQ(dg_timer(1, timer_cb, 99), -1);
    EXPECT_EQ(dg_timer_count(), DG_MAX_CALLS);
    EXPECT_TRUE(arms.empty()) << "the alarm for the earliest still stands";
}

// Deferred signals and client descriptors are never removed from their
// tables, so these run in a child.
std::vector<int> signal_runs;
void signal_cb(int sig) { signal_runs.push_back(sig); }
int cust_noop(int, const uint8_t*, int, const UniAddr*) { return 0; }

TEST(DeferredSignals, HandlersOnlyMarkAndTheWorkRunsOncePerRouteInOrder)
{
    IN_CHILD(false, {
        for (int sig : {SIGUSR2, SIGUSR1, SIGUSR2, SIGWINCH, SIGCHLD})  // SIGUSR2 routed twice
            ASSERT_EQ(dg_signal(sig, signal_cb), 0);
        EXPECT_EQ(dg_signal(SIGURG, signal_cb), -1);
        struct sigaction sa;
        sigaction(SIGURG, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, SIG_DFL) << "a refused route installs nothing";

        raise(SIGUSR1);
        raise(SIGUSR1);  // the handler put itself back after the first
        raise(SIGUSR2);
        EXPECT_TRUE(signal_runs.empty()) << "the handler only marks";
        check_signals();
        check_signals();  // the marks were cleared
        EXPECT_EQ(signal_runs, (std::vector<int>{SIGUSR2, SIGUSR1, SIGUSR2}));
        sigaction(SIGUSR1, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, signal_hndlr);
        EXPECT_EQ(sa.sa_flags & SA_RESTART, 0);

        for (int i = 0; i < DG_MAX_CUSTFDS; i++)
            ASSERT_EQ(dg_custfd(10 + i, cust_noop), 0);
        EXPECT_EQ(dg_custfd(99, cust_noop), -1);
    });
}

// The loop, run as the daemon runs it, on loopback in a private namespace.
int udp_bound(uint16_t* port)
{
    *port = 0;
    return init_sock(htonl(INADDR_LOOPBACK), port, 0);
}

void send_to(int s, uint16_t port, const std::string& text)
{
    UniAddr to{};
    iantoua(&to, htonl(INADDR_LOOPBACK), port);
    ASSERT_EQ(put_ddg(s, reinterpret_cast<const uint8_t*>(text.data()), int(text.size()), &to), int(text.size()));
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
void closing_timer(int32_t) { note("timer"); close(dg_fd); }

TEST(Loop, APassRunsTimersSignalsReinitThenOneInputAtATime)
{
    IN_CHILD(true, {
        uint16_t name_port, ens_port;
        dg_fd = udp_bound(&name_port);
        int ens = udp_bound(&ens_port);
        ASSERT_GE(ens, 0);
        ASSERT_EQ(dg_custfd(ens, loop_cust), 0);
        ASSERT_EQ(dg_signal(SIGUSR1, loop_signal), 0);
        dg_set_work(loop_recv, loop_redo);
        dg_set_clock(fake_time, fake_alarm);
        fake_now = 1000;
        events.clear();
        dg_timer(1, loop_timer, 0);
        fake_now = 1001;

        send_to(ens, name_port, "first");
        send_to(ens, name_port, "last");
        send_to(dg_fd, ens_port, "ens");
        ASSERT_TRUE(readable(dg_fd));
        ASSERT_TRUE(readable(ens));
        raise(SIGUSR1);
        raise(SIGUSR1);
        dg_reinit();

        EXPECT_EQ(recv_datagrams(), -1);
        EXPECT_EQ(events, (Events{"timer", "signal", "reinit", "cust ens", "name first", "name last"}));
    });
}

// An interrupt that comes while the pass does its work, after the noted
// signals were run and before the wait, must still wake the wait: the
// client that sent it gets no answer otherwise while the network is quiet.
int interrupt_runs = 0;
void interrupting_signal(int)
{
    note("signal");
    if (++interrupt_runs == 1)
        raise(SIGUSR1);   // after this entry's mark was cleared
    else
        close(dg_fd);
}

TEST(Loop, AnInterruptDuringThePassStillWakesTheWait)
{
    IN_CHILD(true, {
        uint16_t name_port;
        dg_fd = udp_bound(&name_port);
        ASSERT_GE(dg_fd, 0);
        ASSERT_EQ(dg_signal(SIGUSR1, interrupting_signal), 0);
        dg_set_work(loop_recv, loop_redo);
        events.clear();
        // Should the wait miss the interrupt, a datagram ends it after 10 s.
        pid_t late = fork();
        if (late == 0) {
            sleep(10);
            int s = socket(AF_INET, SOCK_DGRAM, 0);
            send_to(s, name_port, "late");
            _exit(0);
        }
        raise(SIGUSR1);
        EXPECT_EQ(recv_datagrams(), -1);
        EXPECT_EQ(events, (Events{"signal", "signal"}));
        kill(late, SIGKILL);
        waitpid(late, nullptr, 0);
        sigset_t now;
        sigprocmask(SIG_SETMASK, nullptr, &now);
        EXPECT_FALSE(sigismember(&now, SIGUSR1)) << "the loop's end gives the mask back";
    });
}

// The real clock and alarm: an idle loop wakes when its timer falls due.
TEST(Loop, TheAlarmWakesAnIdleLoopForItsTimer)
{
    IN_CHILD(true, {
        uint16_t name_port;
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
        EXPECT_EQ(events, (Events{"reinit", "timer"}));
        raise(SIGALRM);  // only wakes: the process goes on, the handler stays
        struct sigaction sa;
        sigaction(SIGALRM, nullptr, &sa);
        EXPECT_EQ(sa.sa_handler, do_nothing);

        // Passes woken early (-2) may come between; the rest is fixed.
        std::string text = trace_of(trace);
        std::string head = "dg_timer called, sec 1, ";
        ASSERT_EQ(text.compare(0, head.size(), head), 0) << text;
        std::string rest = text.substr(text.find('\n') + 1);
        std::string start = "dg_reinit called\nrecv_datagrams called\ndo_reinit called\n";
        std::string end =
            "get_dg: error in receive: errno " + std::to_string(EBADF) + "\nrecv_datagrams: get_dg returned -1\n";
        EXPECT_EQ(rest.compare(0, start.size(), start), 0) << rest;
        ASSERT_GE(rest.size(), end.size());
        EXPECT_EQ(rest.substr(rest.size() - end.size()), end) << rest;
    });
}

// The alarm of a timer that rings while the pass works (here: a routed
// signal's work that takes two seconds) must still wake the wait; once it
// was used up there and the due timer slept until the next datagram.
void slow_signal(int)
{
    note("signal");
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < until)
        usleep(50 * 1000);  // a ringing alarm cuts the sleep short
}

TEST(Loop, AnAlarmDuringThePassStillWakesTheWait)
{
    IN_CHILD(true, {
        uint16_t name_port;
        dg_fd = udp_bound(&name_port);
        ASSERT_GE(dg_fd, 0);
        ASSERT_EQ(dg_signal(SIGUSR1, slow_signal), 0);
        dg_set_work(loop_recv, loop_redo);
        events.clear();
        // Should the wait miss the alarm, a datagram ends it after 10 s.
        pid_t late = fork();
        if (late == 0) {
            sleep(10);
            int s = socket(AF_INET, SOCK_DGRAM, 0);
            send_to(s, name_port, "late");
            _exit(0);
        }
        ASSERT_EQ(dg_timer(1, closing_timer, 0), 0);
        raise(SIGUSR1);
        EXPECT_EQ(recv_datagrams(), -1);
        EXPECT_EQ(events, (Events{"signal", "timer"}));
        kill(late, SIGKILL);
        waitpid(late, nullptr, 0);
    });
}

// get_dg's waits, woken by a signal: one every 10 ms until the wait is back,
// so it does not matter when the wait began.
void wake_handler(int) {}
int interrupted_get_dg(int fd)
{
    struct sigaction sa = {};
    sa.sa_handler = wake_handler;  // no SA_RESTART: the wait must see EINTR
    sigaction(SIGALRM, &sa, nullptr);
    struct itimerval every = {{0, 10000}, {0, 10000}}, off = {};
    setitimer(ITIMER_REAL, &every, nullptr);
    UniAddr from{};
    uint8_t* data = nullptr;
    int r = get_dg(fd, &from, &data);
    setitimer(ITIMER_REAL, &off, nullptr);
    return r;
}

int cust_calls = 0;
int counting_cust(int, const uint8_t*, int, const UniAddr*) { cust_calls++; return 0; }

TEST(GetDg, ASignalOrAFailedClientReceiveGivesTheCallerNothing)
{
    IN_CHILD(false, {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        EXPECT_EQ(interrupted_get_dg(p[0]), -2) << "poll interrupted";
        EXPECT_EQ(interrupted_get_dg(-1), -2) << "no socket: pause interrupted";

        // A failed receive on a client descriptor only drops; one on the
        // name socket ends the loop (see the loop tests).
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
        EXPECT_EQ(trace_of(trace), "read_custfd: error in receive: errno " + std::to_string(ENOTSOCK) + "\n");
    });
}

}  // namespace
