#pragma once

#include <csignal>
#include <cstdint>
#include <ctime>
#include <span>
#include <sys/types.h>

#include "shr/uniconv.h"
#include "shr/vzhome.h"

// One-shot timers, run from the loop. Room for 10.
using dg_timer_fn = void (*)(int32_t arg);
constexpr int DG_MAX_CALLS = 10;
int dg_timer(int interval, dg_timer_fn fn, int32_t arg);  // 0, or -1 when full
void check_calls(time_t now);  // runs every timer due at or before now
void set_alarm(time_t now);    // arms the alarm for the earliest pending timer
void do_nothing(int sig);      // the alarm's handler: it only wakes the loop
int dg_timer_count();          // timers pending

// Signals whose work runs in the loop, not in the handler. Room for 5.
using dg_signal_fn = void (*)(int sig);
constexpr int DG_MAX_SIGNALS = 5;
int dg_signal(int sig, dg_signal_fn fn);  // 0, or -1 when full
void signal_hndlr(int sig);               // marks the signal's entries
void check_signals();                     // runs the marked entries' work
// The signal mask for the receiver's wait once the loop runs (the routed
// signals let through), or null before: then the wait keeps the mask as it is.
const sigset_t* dg_wait_mask();

// Descriptors polled beside the name-service socket; the handler gets every
// datagram that arrives on its descriptor, and an empty one when the system
// reports datagrams lost (ENOBUFS). Its result is ignored. Room for 5.
using dg_custfd_fn = int (*)(int fd, const uint8_t* data, int len, const UniAddr* from);
struct CustFd {
    int fd;
    dg_custfd_fn handler;
};
constexpr int DG_MAX_CUSTFDS = 5;
int dg_custfd(int fd, dg_custfd_fn handler);  // 0, or -1 when full
std::span<const CustFd> dg_custfds();         // in the order registered

int dg_reinit();  // asks the loop for a re-initialisation; 0
int do_reinit();  // runs it: the re-initialisation's result

// The loop: returns only when receiving on the name-service socket failed.
int recv_datagrams();

// Sends on the name-service socket: broadcast on interface entry index at the
// name-service port, broadcast on every interface, unicast to `to`.
int dg_bsend(const uint8_t* data, int len, int index);
int dg_allbcast(const uint8_t* data, int len);
int dg_dsend(const uint8_t* data, int len, const UniAddr* to);

// Where the loop hands its work on; the start-up sets both before the loop
// runs. A null receiver drops name-service datagrams; a null re-initialiser
// makes every re-initialisation fail.
using dg_recv_fn = void (*)(const UniAddr* from, const uint8_t* data, int len);
using dg_redo_fn = int (*)();
void dg_set_work(dg_recv_fn recv, dg_redo_fn redo);

// The daemon's one clock, read by every module through dg_now(), and the
// timers' alarm; null restores time() and alarm(). Tests run the daemon on
// a clock of their own.
using dg_time_fn = time_t (*)();
using dg_alarm_fn = unsigned (*)(unsigned seconds);
void dg_set_clock(dg_time_fn now, dg_alarm_fn arm);
time_t dg_now();  // the time on that clock

// Start-up and shutdown.

struct vz_kvc;

extern const vz_kvc* prog_ob;    // the database object that holds the registration
extern char vz_home[VZ_HOME_SIZE];
extern uid_t admuid;             // owner and group of the home directory
extern gid_t admgid;
extern int ntf_trace;            // -n: the notifier traces
extern int strict;               // exact local-name lookups; 1 again at every re-initialisation

// The start-up, from the launched command to a registered, detached daemon
// with its settings read; returns the registration's result. Every failure
// ends the process.
int main_init(int argc, char* argv[]);
void set_handlers();             // dg_exit for every terminating signal but kill
int pid_add();                   // 1 registered, 0 another instance runs, -1 error
int pid_del();
void main_shutdown();
// The one way out: removes the registration, stops the notifier, exits 0
// (a quit signal ends the process by that signal instead). Also a handler.
[[noreturn]] void dg_exit(int sig);
int redo_init();                 // 0, or -1
