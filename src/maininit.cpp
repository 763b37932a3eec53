#include "src/maininit.h"

#include <array>
#include <cstdio>
#include <atomic>
#include <csignal>
#include <unistd.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

#include "nmtrace.h"
#include "nversion.h"
#include "shr/dbpid.h"
#include "shr/dgsend.h"
#include "shr/uniinet.h"
#include "shr/logging.h"
#include "shr/vzhome.h"
#include "shr/vzmkkvcv.h"
#include "shr/vzopen.h"
#include "shr/vzsignal.h"
#include "src/confcheck.h"
#include "src/namecust.h"
#include "src/namelogin.h"
#include "src/netaddr.h"
#include "src/nbndgio.h"


namespace {

// Timers, kept in the order added: two due in the same second run in that
// order. Entries at call_ct and beyond are stale. Nothing cancels a timer
// before it is due: no user needs that, so there is no such operation.
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

// The routed signals are blocked while the loop works and let through only
// in its wait (ppoll). A client's interrupt that came after the noted
// signals were checked but before the wait began would otherwise sleep
// until the next datagram or timer, and its client with it.
sigset_t wait_mask;    // the mask during the wait
sigset_t outer_mask;   // the mask before the loop, again when it ends
bool loop_masking = false;

//
// The alarm too: let through only in the wait, it cannot be used up between
// arming it and the wait (a due timer would then sleep until the next
// datagram), and an alarm armed once stays good across passes, so a pass
// neither cancels nor re-arms it while the earliest timer stays the same.
void mask_routed_signals()
{
    sigset_t routed;
    sigemptyset(&routed);
    for (int i = 0; i < scall_ct; i++)
        sigaddset(&routed, scalls[size_t(i)].sig);
    sigaddset(&routed, SIGALRM);
    sigprocmask(SIG_BLOCK, &routed, &outer_mask);
    wait_mask = outer_mask;
    for (int i = 0; i < scall_ct; i++)
        sigdelset(&wait_mask, scalls[size_t(i)].sig);
    sigdelset(&wait_mask, SIGALRM);
    loop_masking = true;
}

void unmask_routed_signals()
{
    sigprocmask(SIG_SETMASK, &outer_mask, nullptr);
    loop_masking = false;
}

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

// When the alarm is due (0: none, or not known). set_alarm arms it only
// when the earliest timer's expiry differs, so a datagram costs poll,
// recvfrom and sendto and no more while a timer is pending. An alarm that
// rang (here or in the lock wait, which borrows it) makes it unknown.
time_t alarm_at = 0;
volatile sig_atomic_t alarm_rang = 0;

const char* ctime_text(const time_t* t)
{
    const char* s = ctime(t);
    return s != nullptr ? s : "(time out of range)\n";
}

}  // namespace

int dg_timer(int interval, dg_timer_fn fn, int32_t arg)
{
    time_t now = clock_now();
    TRACE(proc, 3, "dg_timer called, sec %d, %s", interval, ctime_text(&now));
    check_calls(now);  // what is due already runs before the new entry exists
    if (call_ct == DG_MAX_CALLS) {
        TRACE(proc, 1, "dg_timer: timer table full, sec %d not added\n", interval);
        set_alarm(now);  // the pending ones still need their wake-up
        return -1;
    }
    // Due at least one second from now: the alarm cannot wake the loop
    // sooner, and an entry already due when the alarm is armed would keep
    // the alarm from being armed at all, stranding every timer until input.
    time_t delay = interval < 1 ? 1 : interval;
    calls[size_t(call_ct++)] = {interval, now + delay, fn, arg};
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
    if (due_ct > 0)
        dg_flush();  // a timer acts after the answers already given
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
    if (alarm_rang) {
        alarm_rang = 0;
        alarm_at = 0;
    }
    // An alarm left running with no timer pending only wakes the loop once.
    if (next >= 1 && now + next != alarm_at) {
        vz_signal_kept(SIGALRM, do_nothing);
        clock_arm(unsigned(next));
        alarm_at = now + next;
    }
}

void do_nothing(int)
{
    // The wake-up is the interrupted wait; the handler only notes it. It
    // stays installed rather than re-installing itself: an alarm sent while
    // it had not yet done so would end the daemon.
    alarm_rang = 1;
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
    // Kept, not re-installed by the handler: the relay wakes us with this
    // signal for every burst of client requests, and one that came before
    // the handler had re-installed itself would end the daemon.
    vz_signal_kept(sig, signal_hndlr);
    if (loop_masking) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, sig);
        sigprocmask(SIG_BLOCK, &one, nullptr);
        sigdelset(&wait_mask, sig);
    }
    return 0;
}

void signal_hndlr(int sig)
{
    // Only marks: however often the signal came, its work runs once per pass.
    int n = scall_ct;
    for (int i = 0; i < n; i++)
        if (scalls[size_t(i)].sig == sig)
            scalls[size_t(i)].pending = 1;
}

const sigset_t* dg_wait_mask()
{
    return loop_masking ? &wait_mask : nullptr;
}

void check_signals()
{
    int n = scall_ct;
    for (int i = 0; i < n; i++) {
        SCall& s = scalls[size_t(i)];
        if (s.pending) {
            s.pending = 0;  // cleared first: a signal during the work runs it again
            dg_flush();     // a client acts after the answers already given
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
    mask_routed_signals();
    for (;;) {
        if (tcfile != nullptr && (tc_in != 0 || tc_out != 0 || tc_proc != 0))
            fflush(tcfile);
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
        int n = get_dg(name_fd(), &from, &data);
        TRACE(proc, 3, "recv_datagrams: get_dg returned %d\n", n);
        if (n == -1) {
            unmask_routed_signals();
            return -1;
        }
        if (n >= 0 && recv_work != nullptr)
            recv_work(&from, data, n);
    }
}

int dg_bsend(const uint8_t* data, int len, int index)
{
    if (index < 0 || index >= my_addr_ct || my_addr == nullptr) {
        TRACE(out, 1, "dg_bsend: no interface entry %d\n", index);
        return -1;
    }
    UniAddr to{};
    iantoua(&to, my_addr[index].bcast, nmport);
    return dg_send(DgWay::name, data, len, &to);
}

int dg_allbcast(const uint8_t* data, int len)
{
    for (int i = 0; i < my_addr_ct; i++)
        dg_bsend(data, len, i);
    return 0;
}

int dg_dsend(const uint8_t* data, int len, const UniAddr* to)
{
    return dg_send(DgWay::name, data, len, to);
}

void dg_set_work(dg_recv_fn recv, dg_redo_fn redo)
{
    recv_work = recv;
    redo_work = redo;
}

time_t dg_now()
{
    return clock_now();
}

void dg_set_clock(dg_time_fn now, dg_alarm_fn arm)
{
    clock_now = now != nullptr ? now : sys_time;
    clock_arm = arm != nullptr ? arm : sys_alarm;
    clock_arm(0);  // whatever the other clock left
    alarm_at = 0;
}

// Start-up and shutdown.

char vz_home[VZ_HOME_SIZE];
uid_t admuid = 0;
gid_t admgid = 0;
int ntf_trace = 0;
int strict = 1;

namespace {

constexpr const char* CONFIG_PATH = CONFIG_VZ_PATH;
constexpr const char* LOG_PATH = "/var/opt/KORRbase/log.nb";

constexpr int MSG_NOTROOT = 198;
constexpr int MSG_NOPID = 201;
constexpr int MSG_STARTING = 203;
constexpr int MSG_NO_KEY = 568;

// system "*", realm "NB", program "Halyard"
char k_system[] = "system", v_any[] = "*";
char k_realm[] = "realm", v_nb[] = "NB";
char k_program[] = "program", v_halyard[] = "Halyard";
const vz_kvc prog_ob_v[] = {
    {k_system, v_any, nullptr},
    {k_realm, v_nb, nullptr},
    {k_program, v_halyard, nullptr},
    {nullptr, nullptr, nullptr},
};

void write_banner()
{
    if (tcfile == nullptr || (tc_in == 0 && tc_out == 0 && tc_proc == 0))
        return;
    time_t now = time(nullptr);
    // ctime ends in its own newline, so the banner has an empty line before the
    // dimensions.
    tc_printf("\n***** %s %s %s starting %s\n", prog, smbv_string, smbv_variant, ctime_text(&now));
    tc_printf("Trace Dimensions:\n");
    if (tc_in != 0)
        tc_printf("\tin   %d\n", tc_in);
    if (tc_out != 0)
        tc_printf("\tout  %d\n", tc_out);
    if (tc_proc != 0)
        tc_printf("\tproc %d\n", tc_proc);
    tc_printf("\n");
    fflush(tcfile);
}

// Descriptors 0 to 2 on /dev/null, in a session of its own.
void detach()
{
    close(0);
    close(1);
    close(2);
    setsid();
    int fd = open("/dev/null", O_RDWR);
    if (fd == 0) {
        (void)dup(0);
        (void)dup(0);
    }
}

// The launching process still has its caller's terminal, which the daemon
// leaves: the warnings and errors that the daemon will write to /dev/null or
// only to the log are told there first (the daemon then does with them all
// it would have done). A configuration problem is printed with its line and
// the text found.
void launch_check(int argc, char* argv[])
{
    tc_checkopt(argc, argv, "n");
    if (geteuid() != 0) {
        fprintf(stderr, "%s: must run as super-user\n", prog);
        return;
    }
    conf_check(CONFIG_PATH, stderr, "Halyard: ", false);
}

}  // namespace

const vz_kvc* prog_ob = prog_ob_v;

void set_handlers()
{
    for (int sig : vz_terminating)
        vz_signal(sig, dg_exit);
}

int pid_add()
{
    return db_addpid(prog_ob, int(admuid), int(admgid));
}

int pid_del()
{
    return db_delpid(prog_ob);
}

void main_shutdown()
{
    pid_del();
}

void dg_exit(int sig)
{
    main_shutdown();
    if (sig != 0 && tcfile != nullptr && tc_proc >= 1) {
        tc_printf("dg_exit: received signal number %d\n", vz_classic_signal(sig));
        fflush(tcfile);
    }
    if (sig == SIGQUIT) {
        // Ends by the signal's own default action, with a core image.
        signal(SIGQUIT, SIG_DFL);
        kill(getpid(), SIGQUIT);
    }
    name_shut();
    exit(0);
}

int redo_init()
{
    strict = 1;
    if (name_reinit(CONFIG_PATH) < 0) {
        TRACE(proc, 1, "redo_init: name_reinit(%s) failed\n", CONFIG_PATH);
        return -1;
    }
    return 0;
}

int main_init(int argc, char* argv[])
{
    close_extra_descriptors();

    vzhome_get(vz_home, sizeof vz_home);
    struct stat st;
    if (stat(vz_home, &st) != 0)
        exit(1);
    admuid = st.st_uid;
    admgid = st.st_gid;
    if (chdir(vz_home) != 0)
        exit(2);

    launch_check(argc, argv);
    // The launching process ends here, also when there is no child, so that
    // its caller never waits on the daemon.
    if (fork() != 0)
        exit(0);
    detach();

    open_log(LOG_PATH);
    log_new();
    log_catmsg(LOG_SET, MSG_STARTING, "NB NetBIOS services %s %s starting.\n", smbv_string, smbv_variant);

    int opt;
    while ((opt = tc_getopt(argc, argv, "n")) != -1) {
        if (opt == 'n')
            ntf_trace = 1;
    }
    write_banner();

    if (geteuid() != 0) {
        log_new();
        log_catmsg(LOG_SET, MSG_NOTROOT, "%s: must run as super-user", prog);
        TRACE(proc, 1, "%s: must run as super-user\n", prog);
        exit(1);
    }
    (void)setuid(0);

    if (namelogin(CONFIG_PATH) < 0) {
        TRACE(proc, 1, "%s: namelogin failed\n", prog);
        exit(1);
    }
    if (nda_key_bad) {
        log_catmsg(LOG_SET, MSG_NO_KEY, "%s: the NB-nd-key file cannot be used: not started", prog);
        TRACE(proc, 1, "%s: the NB-nd-key file cannot be used\n", prog);
        exit(1);
    }
    if (prepare_addresses() < 0) {
        TRACE(proc, 1, "%s: prepare_addresses failed\n", prog);
        exit(1);
    }
    set_handlers();

    int registered = pid_add();
    if (registered == 0) {
        TRACE(proc, 1, "%s: process already running\n", prog);
        dg_exit(0);
    }
    if (registered < 0) {
        // The property that could not be made fills the text's second place.
        TRACE(proc, 1, "%s: Can't create pid property %s\n", prog, "pid");
        log_catmsg(LOG_SET, MSG_NOPID, "%s: Can't create pid property %s", prog, "pid");
        dg_exit(0);
    }

    if (nmport == 0)
        nmport = 137;
    if (dgport == 0)
        dgport = 138;
    if (ssport == 0)
        ssport = 139;
    if (ndport == 0)
        ndport = 227;
    if (ensport == 0)
        ensport = 228;
    return registered;
}
