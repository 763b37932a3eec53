#include "fuzz/fuzzenv.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>
#include <fcntl.h>
#include <climits>
#include <initializer_list>
#include <span>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/logging.h"
#include "src/enstable.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/namecust.h"
#include "src/notifier.h"
#include "src/ntable.h"

namespace {

constexpr const char* LOG_PATH = "/var/opt/KORRbase/log.nb";

time_t fake_now = 1000000;
time_t fake_time() { return fake_now; }
unsigned fake_alarm(unsigned) { return 0; }

int to_daemon = -1;
int from_daemon = -1;
bool dirs_private = false;

[[noreturn]] void die(const char* what)
{
    fprintf(stderr, "fuzzenv: %s: %s\n", what, strerror(errno));
    abort();
}

}  // namespace

void fz_private_net()
{
    if (unshare(CLONE_NEWNET) != 0)
        die("unshare(CLONE_NEWNET) (the harness runs only as root, off the machine's network)");
    // No sender is registered: nothing the harnesses build is sent.
}

void fz_private_dirs()
{
    if (unshare(CLONE_NEWNS) != 0)
        die("unshare(CLONE_NEWNS)");
    // Nothing mounted from here on may reach the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("mount --make-rprivate /");
    for (const char* place : {"/etc/opt", "/var/opt", "/opt"}) {
        if (mount("halyard-fuzz", place, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=16m") != 0)
            die(place);
    }
    for (const char* dir : {"/etc/opt/KORRbase", "/var/opt/KORRbase", "/var/opt/KORRbase/rtdb", "/opt/KORRlibs",
                            "/opt/KORRlibs/lib"}) {
        if (mkdir(dir, 0755) != 0)
            die(dir);
    }
    dirs_private = true;
}

void fz_quiet()
{
    if (tcfile != nullptr)
        fclose(tcfile);
    tcfile = nullptr;
    tc_in = tc_out = tc_proc = tc_lock = tc_err = tc_nblib = 0;
    if (!dirs_private)
        fz_private_dirs();
    open_log(LOG_PATH);
}

void fz_truncate_log()
{
    // The log is opened and closed for each message: emptying the file
    // keeps it small.
    if (truncate(LOG_PATH, 0) != 0 && errno != ENOENT)
        die("truncate log");
}

FILE* fz_trace_sink()
{
    static char area[1 << 16];
    static FILE* sink = nullptr;
    if (sink == nullptr && (sink = fmemopen(area, sizeof area, "w")) == nullptr)
        die("fmemopen");
    rewind(sink);  // also clears the error of a full area
    return sink;
}

static void fz_fake_clock()
{
    dg_set_clock(fake_time, fake_alarm);
}

static void fz_advance(int seconds, int step)
{
    for (int done = 0; done < seconds; done += step) {
        fake_now += step;
        check_calls(fake_now);
    }
}

static void fz_ntf_pipes()
{
    int a[2], b[2];
    if (pipe(a) != 0 || pipe(b) != 0)
        die("pipe");
    from_ntf = a[0];
    to_daemon = a[1];
    to_ntf = b[1];
    from_daemon = b[0];
    for (int fd : {from_ntf, to_daemon, to_ntf, from_daemon}) {
        if (fcntl(fd, F_SETFL, O_NONBLOCK) != 0)
            die("fcntl O_NONBLOCK");
    }
    // Room for a long listing; a response that still does not fit is lost,
    // as the daemon's unchecked write would lose it.
    fcntl(to_ntf, F_SETPIPE_SZ, 1 << 20);
    fcntl(from_ntf, F_SETPIPE_SZ, 1 << 20);
}

size_t fz_ntf_feed(const uint8_t* data, size_t size)
{
    ssize_t n = size > 0 ? write(to_daemon, data, size) : 0;
    return n > 0 ? size_t(n) : 0;
}

void fz_ntf_drain()
{
    static uint8_t sink[65536];
    while (read(from_daemon, sink, sizeof sink) > 0) {
    }
}

bool fz_ntf_pending()
{
    int n = 0;
    return ioctl(from_ntf, FIONREAD, &n) == 0 && n > 0;
}

static void fz_clear_names()
{
    while (n_table != nullptr)
        nt_del(n_table->name);
}

static void fz_daemon_host()
{
    static if_entry ifs[2];
    ifs[0] = {inet_addr("10.88.0.1"), inet_addr("10.88.0.255"), inet_addr("255.255.255.0")};
    ifs[1] = {inet_addr("10.88.1.1"), inet_addr("10.88.1.255"), inet_addr("255.255.255.0")};
    my_addr = ifs;
    my_addr_ct = 2;
    transport_tcpip = 1;
    nmport = 137;
    ndport = 227;
    ensport = 228;
}

void fz_daemon()
{
    fz_private_net();
    fz_quiet();
    fz_fake_clock();
    fz_ntf_pipes();
    fz_daemon_host();
    for (const if_entry& e : std::span(my_addr, size_t(my_addr_ct)))
        ens_a_add(e.addr, nullptr);
}

void fz_name16(uint8_t* out, const char* text, uint8_t type)
{
    memset(out, ' ', 16);
    memcpy(out, text, strnlen(text, 15));
    out[15] = type;
}

void fz_trace_all()
{
    tcfile = fz_trace_sink();
    tc_in = tc_out = tc_proc = tc_err = 9;
}

void fz_end_input(int seconds)
{
    fz_advance(seconds, 1);
    fz_ntf_drain();
    fz_clear_names();
    // The hosts learnt from the input; our own stay.
    for (int i = 0; i < 100000; i++) {
        EnsAddr* a = ens_a_old(0, LONG_MAX);
        if (a == nullptr)
            break;
        ens_free(a->host);
    }
    tcfile = nullptr;
    tc_in = tc_out = tc_proc = tc_err = 0;
    fz_truncate_log();
}
