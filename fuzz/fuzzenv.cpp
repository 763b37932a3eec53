#include "fuzz/fuzzenv.h"

#include <sqlite3.h>

#include <cerrno>
#include <climits>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "nda/ndadir.h"
#include "nda/ndastore.h"
#include "shr/logging.h"
#include "src/enstable.h"
#include "src/notifier.h"

namespace {

constexpr const char* LOG_PATH = "/var/opt/KORRbase/log.nb";

time_t fake_now = 1000000;
time_t fake_time() { return fake_now; }
unsigned fake_alarm(unsigned) { return 0; }

int to_daemon = -1, from_daemon = -1;
bool dirs_private = false;

[[noreturn]] void die(const char* what)
{
    fprintf(stderr, "fuzzenv: %s: %s\n", what, strerror(errno));
    abort();
}

constexpr const char* WIPE[] = {"DELETE FROM name", "DELETE FROM addr", "DELETE FROM host"};
sqlite3_stmt* wipe[3];
// SQLite's pages not from the sanitizer's allocator: several times faster.
alignas(16) uint8_t page_pool[512][4096 + 512];

}  // namespace

void fz_private_net()
{
    if (unshare(CLONE_NEWNET) != 0)
        die("unshare(CLONE_NEWNET) (the harness runs only as root, off the machine's network)");
}

// For the harnesses that need nothing else; the others define their own.
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int*, char***)
{
    fz_private_net();
    return 0;
}

void fz_private_dirs()
{
    if (unshare(CLONE_NEWNS) != 0)
        die("unshare(CLONE_NEWNS)");
    // Nothing mounted from here on may reach the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("mount --make-rprivate /");
    for (const char* place : {"/etc/opt", "/var/opt", "/opt"})
        if (mount("halyard-fuzz", place, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=16m") != 0)
            die(place);
    for (const char* dir : {"/etc/opt/KORRbase", "/var/opt/KORRbase", "/var/opt/KORRbase/rtdb", "/opt/KORRlibs",
                            "/opt/KORRlibs/lib"})
        if (mkdir(dir, 0755) != 0)
            die(dir);
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

FILE* fz_trace_sink()
{
    static char area[1 << 16];
    static FILE* sink = nullptr;
    if (sink == nullptr && (sink = fmemopen(area, sizeof area, "w")) == nullptr)
        die("fmemopen");
    rewind(sink);  // also clears the error of a full area
    return sink;
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

void fz_daemon()
{
    fz_private_net();
    fz_quiet();
    dg_set_clock(fake_time, fake_alarm);
    int a[2], b[2];
    if (pipe2(a, O_NONBLOCK) != 0 || pipe2(b, O_NONBLOCK) != 0)
        die("pipe");
    from_ntf = a[0], to_daemon = a[1], to_ntf = b[1], from_daemon = b[0];
    // Room for a long listing; a longer response is lost, as in the daemon.
    fcntl(to_ntf, F_SETPIPE_SZ, 1 << 20);
    fcntl(from_ntf, F_SETPIPE_SZ, 1 << 20);
    static if_entry ifs[2] = {{inet_addr("10.88.0.1"), inet_addr("10.88.0.255"), inet_addr("255.255.255.0")},
                              {inet_addr("10.88.1.1"), inet_addr("10.88.1.255"), inet_addr("255.255.255.0")}};
    my_addr = ifs, my_addr_ct = 2, transport_tcpip = 1;
    nmport = 137, ndport = 227, ensport = 228;
    for (const if_entry& e : ifs)
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

void fz_trace_off()
{
    tcfile = nullptr;
    tc_in = tc_out = tc_proc = tc_err = 0;
    if (truncate(LOG_PATH, 0) != 0 && errno != ENOENT)
        die("truncate log");
}

void fz_end_input(int seconds)
{
    for (int done = 0; done < seconds; done++)
        check_calls(++fake_now);
    fz_ntf_drain();
    while (n_table != nullptr)
        nt_del(n_table->name);
    // The hosts learnt from the input; our own stay.
    EnsAddr* a;
    for (int i = 0; i < 100000 && (a = ens_a_old(0, LONG_MAX)) != nullptr; i++)
        ens_free(a->host);
    fz_trace_off();
}

void fz_write_file(const char* path, const uint8_t* data, size_t size)
{
    FILE* f = fopen(path, "w");
    if (f == nullptr || (size > 0 && fwrite(data, 1, size, f) != size))
        __builtin_trap();
    fclose(f);
}

void fz_agent(const char* uri)
{
    fz_private_net();
    fz_quiet();
    sqlite3* wiper = nullptr;
    sqlite3_config(SQLITE_CONFIG_URI, 1);
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, page_pool, int(sizeof page_pool[0]), 512);
    if (nda_sqlite.open(uri) != 0 ||
        sqlite3_open_v2(uri, &wiper, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, nullptr) != SQLITE_OK)
        die("the agent's directory");
    for (int i = 0; i < 3; i++)
        if (sqlite3_prepare_v2(wiper, WIPE[i], -1, &wipe[i], nullptr) != SQLITE_OK)
            die(WIPE[i]);
}

uint32_t fz_station(int i)
{
    return htonl(0x0a580002u + uint32_t(i));
}

void fz_agent_hold(std::initializer_list<FzHeld> held, int64_t now_s)
{
    struct Arg { std::initializer_list<FzHeld> held; int64_t now; } arg{held, now_s};
    auto claim_all = [](void* p) {
        const Arg& a = *static_cast<Arg*>(p);
        for (const FzHeld& h : a.held) {
            uint8_t name[16];
            fz_name16(name, h.text, h.type);
            uint32_t addr = fz_station(h.station);
            NdaHolder holder{};
            if (dir_claim(&nda_sqlite, {name, h.group, &addr, 1, addr, h.port, a.now, h.expires}, &holder) != 0)
                return -1;
        }
        return 0;
    };
    if (nda_sqlite.transact(true, claim_all, &arg) != 0)
        die("the held names");
}

void fz_agent_datagrams(const uint8_t* data, size_t size,
                        const std::function<void(uint8_t opt, const uint8_t* dg, int len)>& each)
{
    size_t at = 0;
    for (int n = 0; n < 16 && at + 3 <= size; n++) {
        uint8_t opt = data[at];
        size_t len = std::min({size_t(data[at + 1] | data[at + 2] << 8), size - at - 3, size_t(1500)});
        at += 3;
        if (opt & 8)
            fz_trace_all();
        std::vector<uint8_t> dg(data + at, data + at + len);
        each(opt, dg.data(), int(len));
        at += len;
    }
}

void fz_agent_end()
{
    for (sqlite3_stmt* w : wipe)
        if (sqlite3_step(w) != SQLITE_DONE || sqlite3_reset(w) != SQLITE_OK)
            die("emptying the directory");
    fz_trace_off();
}
