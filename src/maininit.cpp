#include "src/maininit.h"

#include <array>
#include <atomic>
#include <csignal>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/vzsignal.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"

int dg_fd = -1;

namespace {

// Timers, kept in the order added: two due in the same second run in that
// order. Entries at call_ct and beyond are stale.
struct Call {
    int interval;  // as asked for; kept for the trace only
    time_t expiry;
    dg_timer_fn fn;
    int32_t arg;
};
std::array<Call, DG_MAX_CALLS> calls;
int call_ct = 0;

// Read by the signal handler: the handler only sets `pending`, and an entry
// is complete before scall_ct counts it.
struct SCall {
    volatile sig_atomic_t sig;
    volatile sig_atomic_t pending;
    dg_signal_fn fn;
};
std::array<SCall, DG_MAX_SIGNALS> scalls;
volatile sig_atomic_t scall_ct = 0;

std::array<CustFd, DG_MAX_CUSTFDS> custfd;
int custfd_ct = 0;

int need_reinit = 0;

dg_recv_fn recv_work = nullptr;
dg_redo_fn redo_work = nullptr;

time_t sys_time()
{
    return time(nullptr);
}

unsigned sys_alarm(unsigned seconds)
{
    return alarm(seconds);
}

dg_time_fn clock_now = sys_time;
dg_alarm_fn clock_arm = sys_alarm;

const char* ctime_text(const time_t* t)
{
    const char* s = ctime(t);
    return s != nullptr ? s : "(time out of range)\n";
}

}  // namespace

int dg_timer(int interval, dg_timer_fn fn, int32_t arg)
{
    clock_arm(0);
    time_t now = clock_now();
    TRACE(proc, 3, "dg_timer called, sec %d, %s", interval, ctime_text(&now));
    check_calls(now);  // what is due already runs before the new entry exists
    if (call_ct == DG_MAX_CALLS) {
        set_alarm(now);  // the pending ones still need their wake-up
        return -1;
    }
    calls[size_t(call_ct++)] = {interval, now + interval, fn, arg};
    set_alarm(now);
    return 0;
}

void check_calls(time_t now)
{
    // Due entries leave the table before any of them runs, so a callback
    // that adds a timer finds the table compacted and never finds itself.
    std::array<Call, DG_MAX_CALLS> due;
    int due_ct = 0;
    int kept = 0;
    for (int i = 0; i < call_ct; i++) {
        if (calls[size_t(i)].expiry <= now)
            due[size_t(due_ct++)] = calls[size_t(i)];
        else
            calls[size_t(kept++)] = calls[size_t(i)];
    }
    call_ct = kept;
    for (int i = 0; i < due_ct; i++)
        due[size_t(i)].fn(due[size_t(i)].arg);
}

void set_alarm(time_t now)
{
    time_t next = 0;  // 0: nothing taken yet
    for (int i = 0; i < call_ct; i++) {
        time_t left = calls[size_t(i)].expiry - now;
        if (next == 0 || left < next)
            next = left;
    }
    if (next >= 1) {
        vz_signal(SIGALRM, do_nothing);
        clock_arm(unsigned(next));
    }
}

void do_nothing(int)
{
    // The wake-up is the interrupted wait; the handler itself has no work.
    vz_signal(SIGALRM, do_nothing);
}

int dg_timer_count()
{
    return call_ct;
}

int dg_signal(int sig, dg_signal_fn fn)
{
    int n = scall_ct;
    if (n == DG_MAX_SIGNALS)
        return -1;
    scalls[size_t(n)].sig = sig;
    scalls[size_t(n)].pending = 0;
    scalls[size_t(n)].fn = fn;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    scall_ct = n + 1;
    vz_signal(sig, signal_hndlr);
    return 0;
}

void signal_hndlr(int sig)
{
    // Only marks: however often the signal came, its work runs once per pass.
    int n = scall_ct;
    for (int i = 0; i < n; i++)
        if (scalls[size_t(i)].sig == sig)
            scalls[size_t(i)].pending = 1;
    vz_signal(sig, signal_hndlr);  // delivery reset it to the default action
}

void check_signals()
{
    int n = scall_ct;
    for (int i = 0; i < n; i++) {
        SCall& s = scalls[size_t(i)];
        if (s.pending) {
            s.pending = 0;  // cleared first: a signal during the work runs it again
            s.fn(s.sig);
        }
    }
}

int dg_custfd(int fd, dg_custfd_fn handler)
{
    if (custfd_ct == DG_MAX_CUSTFDS)
        return -1;
    custfd[size_t(custfd_ct++)] = {fd, handler};
    return 0;
}

std::span<const CustFd> dg_custfds()
{
    return {custfd.data(), size_t(custfd_ct)};
}

int dg_reinit()
{
    TRACE(proc, 5, "dg_reinit called\n");
    need_reinit = 1;
    return 0;
}

int do_reinit()
{
    TRACE(proc, 5, "do_reinit called\n");
    return redo_work != nullptr ? redo_work() : -1;
}

int recv_datagrams()
{
    TRACE(proc, 1, "recv_datagrams called\n");
    for (;;) {
        if (tcfile != nullptr && (tc_in != 0 || tc_out != 0 || tc_proc != 0))
            fflush(tcfile);
        clock_arm(0);
        time_t now = clock_now();  // once per pass
        check_calls(now);
        set_alarm(now);
        check_signals();
        if (need_reinit) {
            do_reinit();
            need_reinit = 0;
        }
        UniAddr from{};
        uint8_t* data = nullptr;
        int n = get_dg(dg_fd, &from, &data);
        TRACE(proc, 3, "recv_datagrams: get_dg returned %d\n", n);
        if (n == -1)
            return -1;
        if (n >= 0 && recv_work != nullptr)
            recv_work(&from, data, n);
    }
}

int dg_bsend(const uint8_t* data, int len, int index)
{
    return put_bdg(dg_fd, data, len, index, nmport);
}

int dg_allbcast(const uint8_t* data, int len)
{
    for (int i = 0; i < my_addr_ct; i++)
        dg_bsend(data, len, i);
    return 0;
}

int dg_dsend(const uint8_t* data, int len, const UniAddr* to)
{
    return put_ddg(dg_fd, data, len, to);
}

void dg_set_work(dg_recv_fn recv, dg_redo_fn redo)
{
    recv_work = recv;
    redo_work = redo;
}

void dg_set_clock(dg_time_fn now, dg_alarm_fn arm)
{
    clock_now = now != nullptr ? now : sys_time;
    clock_arm = arm != nullptr ? arm : sys_alarm;
}
