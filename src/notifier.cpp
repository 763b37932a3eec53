#include "src/notifier.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/vzsignal.h"
#include "src/maininit.h"

int from_ntf = -1;
int to_ntf = -1;
int ntf_pid = 0;

namespace {

constexpr const char* NTF_DIR = "/var/opt/KORRbase";
constexpr const char* SERVER_FIFO = "ns_serverfifo";
constexpr const char* CLIENT_FIFO = "ns_clientfifo";
constexpr const char* LOCK_FILE = "lock.name";
constexpr const char* TRACE_FILE = "ntf.trc";
constexpr unsigned RESPONSE_WAIT = 12;  // seconds a request's final response may take

constexpr size_t PATH_SIZE = 256;
char server_path[PATH_SIZE];  // filled before the fork: ntf_exit only unlinks them
char client_path[PATH_SIZE];

// The notifier's side.
int from_client = -1;  // server FIFO, read and write
int to_client = -1;    // client FIFO, read and write
int from_ns = -1;      // read end of the daemon-to-notifier pipe
int to_ns = -1;        // write end of the notifier-to-daemon pipe
pid_t ns_pid = 0;      // the daemon, woken for every complete request
FILE* ntf_fp = nullptr;  // "ntf.trc" under -n

// Relay buffers: one message from the clients, one from the daemon.
ns_hdr req_hdr;
uint8_t req_data[NS_MAXDATA];
ns_hdr rsp_hdr;
uint8_t rsp_data[NS_MAXDATA];

void close_fd(int* fd)
{
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

void close_fifos()
{
    close_fd(&from_client);
    close_fd(&to_client);
}

void trace_start()
{
    if (ntf_trace != 1)
        return;
    ntf_fp = fopen(TRACE_FILE, "a");
    if (ntf_fp == nullptr)
        return;  // the relay runs on untraced
    time_t now = time(nullptr);
    const char* when = ctime(&now);
    fprintf(ntf_fp, "\nNotifier starting %s\n", when != nullptr ? when : "(time out of range)\n");
    fflush(ntf_fp);
}

// The dumps after a "got" line: the header, the data when there is some.
void trace_message(const ns_hdr* hdr, const uint8_t* data, int n)
{
    dump_bytes(ntf_fp, hdr, NS_HDRSIZE);
    if (n > 0) {
        fprintf(ntf_fp, "data --\n");
        dump_bytes(ntf_fp, data, size_t(n));
    }
    fprintf(ntf_fp, "\n");
    fflush(ntf_fp);
}

}  // namespace

const char* notifier()
{
    snprintf(server_path, sizeof server_path, "%s/%s", NTF_DIR, SERVER_FIFO);
    snprintf(client_path, sizeof client_path, "%s/%s", NTF_DIR, CLIENT_FIFO);

    from_client = mk_fifo(server_path, 0622);
    if (from_client < 0) {
        TRACE(proc, 1, "notifier: error opening FIFO %s\n", server_path);
        return "Error creating/opening FIFOs";
    }
    to_client = mk_fifo(client_path, 0644);
    if (to_client < 0) {
        TRACE(proc, 1, "notifier: error opening FIFO %s\n", client_path);
        close_fifos();
        return "Error creating/opening FIFOs";
    }
    if (mklockfile(NTF_DIR, 0666) < 0) {
        TRACE(proc, 1, "notifier: error opening lockfile %s/%s\n", NTF_DIR, LOCK_FILE);
        close_fifos();
        return "Error creating lockfile";
    }
    int a[2];  // notifier to daemon
    int b[2];  // daemon to notifier
    if (pipe(a) != 0) {
        TRACE(proc, 1, "notifier: error getting pipes\n");
        close_fifos();
        return "Error creating pipes";
    }
    if (pipe(b) != 0) {
        TRACE(proc, 1, "notifier: error getting pipes\n");
        close(a[0]);
        close(a[1]);
        close_fifos();
        return "Error creating pipes";
    }

    ns_pid = getpid();
    if (tcfile != nullptr)
        fflush(tcfile);  // or the child would write the daemon's buffered lines again
    // A hang-up sent before the relay has its handlers would end it without
    // removing the FIFOs: it is held until they are in place.
    sigset_t held, old_mask;
    sigemptyset(&held);
    for (int sig : vz_terminating)
        sigaddset(&held, sig);
    sigprocmask(SIG_BLOCK, &held, &old_mask);
    pid_t pid = fork();
    if (pid > 0)
        ntf_pid = pid;   // before a held termination runs dg_exit, which hangs it up
    if (pid != 0)
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    if (pid < 0) {
        TRACE(proc, 1, "notifier: fork failed\n");
        close_fifos();
        for (int fd : {a[0], a[1], b[0], b[1]})
            close(fd);
        return "Error from fork";
    }

    if (pid > 0) {
        close_fifos();
        close(a[1]);
        close(b[0]);
        to_ntf = b[1];
        from_ntf = a[0];
        int flags = fcntl(from_ntf, F_GETFL);
        if (flags < 0 || fcntl(from_ntf, F_SETFL, flags | O_NDELAY) < 0) {
            int err = errno;
            TRACE(proc, 1, "notifier: fcntl(O_NDELAY) failed, errno %d\n", err);
            return "Error setting O_NDELAY";
        }
        return nullptr;
    }

    close(a[0]);
    close(b[1]);
    from_ns = b[0];
    to_ns = a[1];
    alarm(0);
    ntf_signals();
    // Started from the running loop (a re-initialisation), the mask also
    // holds the daemon's routed signals: the relay's own handlers need them.
    for (int sig : vz_terminating)
        sigdelset(&old_mask, sig);
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    ntf_process();
    ntf_exit(0);
}

void ntf_process()
{
    trace_start();
    for (;;) {
        int n = ntf_read(from_client, &req_hdr, req_data, NS_MAXDATA);
        if (ntf_fp != nullptr) {
            fprintf(ntf_fp, "from_client: got inlen %d, header --\n", n);
            trace_message(&req_hdr, req_data, n);
        }
        if (n < 0)
            return;
        if (ntf_write(to_ns, &req_hdr, req_data, n) != 0)
            return;
        if (req_hdr.more != 0)
            continue;  // the daemon is woken once the whole request is in the pipe
        kill(ns_pid, SIGINT);

        for (;;) {
            // SA_RESETHAND: the alarm's handler is gone once it has run.
            vz_signal(SIGALRM, ntf_timeout);
            alarm(RESPONSE_WAIT);
            int m = ntf_read(from_ns, &rsp_hdr, rsp_data, NS_MAXDATA);
            alarm(0);
            if (ntf_fp != nullptr) {
                fprintf(ntf_fp, "from_ns: got len %d, header --\n", m);
                trace_message(&rsp_hdr, rsp_data, m);
            }
            if (m == -2)
                break;  // abandoned; a late response is relayed during a later wait
            if (m < 0)
                return;
            if (ntf_write(to_client, &rsp_hdr, rsp_data, m) != 0)
                return;
            // A late answer to an earlier request, or more of this one: wait on.
            if (rsp_hdr.xid != req_hdr.xid || rsp_hdr.more != 0)
                continue;
            break;
        }
    }
}

// The daemon passes on what we gave it; clients may write anything. The data
// is read with one read(): a writer that has not written all of it yet gets
// the part that arrived relayed, and the daemon refuses the short message.
int ntf_read(int fd, ns_hdr* hdr, uint8_t* data, int limit)
{
    for (;;) {
        int r = ntf_find_hdr(fd, hdr);
        if (r < 0)
            return r;
        // A negative len reads as huge: dropped too. Its data, if any, is
        // skipped by the next magic search.
        uint32_t len = uint32_t(hdr->len);
        if (len > uint32_t(NS_MAXDATA) || limit < 0 || len > uint32_t(limit))
            continue;
        if (len == 0)
            return 0;
        ssize_t n = read(fd, data, len);
        if (n < 0)
            return errno == EINTR ? -2 : -1;
        return int(n);
    }
}

int ntf_find_hdr(int fd, ns_hdr* hdr)
{
    uint8_t* m = hdr->magic;
    size_t have = 0;  // bytes of a possible magic already at the front
    for (;;) {
        ssize_t r = read(fd, m + have, sizeof hdr->magic - have);
        if (r < 0)
            return errno == EINTR ? -2 : -1;
        if (size_t(r) != sizeof hdr->magic - have)
            return -1;  // end of file, or a writer that stopped inside the magic
        if (memcmp(m, NS_MAGIC, sizeof NS_MAGIC) == 0) {
            constexpr size_t rest = NS_HDRSIZE - sizeof hdr->magic;  // len, xid, op, more
            r = read(fd, reinterpret_cast<uint8_t*>(hdr) + sizeof hdr->magic, rest);
            if (r < 0)
                return errno == EINTR ? -2 : -1;
            if (size_t(r) != rest)
                return -1;
            return int(NS_HDRSIZE);
        }
        // Keep from the first later byte that could start the magic.
        size_t i = 1;
        while (i < sizeof hdr->magic && m[i] != NS_MAGIC[0])
            ++i;
        have = sizeof hdr->magic - i;
        if (have > 0)
            memmove(m, m + i, have);
    }
}

int ntf_write(int fd, const ns_hdr* hdr, const uint8_t* data, int n)
{
    if (write(fd, hdr, NS_HDRSIZE) != ssize_t(NS_HDRSIZE))
        return -1;
    if (n >= 1 && write(fd, data, size_t(n)) != ssize_t(n))
        return -1;
    return 0;
}

int mk_fifo(const char* path, mode_t mode)
{
    if (access(path, F_OK) != 0) {
        mode_t old = umask(0);
        int r = mknod(path, S_IFIFO | mode, 0);
        umask(old);
        if (r < 0)
            return r;
    }
    int fd = open(path, O_RDWR);
    if (fd < 0)
        return fd;
    // Something else under the FIFO's name would end the relay at its first
    // read (a regular file) or never deliver: refuse it here, at start-up.
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
        close(fd);
        return -1;
    }
    return fd;
}

int mklockfile(const char* dir, mode_t mode)
{
    char path[PATH_SIZE];
    int len = snprintf(path, sizeof path, "%s/%s", dir, LOCK_FILE);
    if (len < 0 || size_t(len) >= sizeof path)
        return -1;
    if (access(path, F_OK) == 0)
        return 0;
    mode_t old = umask(0);
    int fd = creat(path, mode);
    umask(old);
    if (fd < 0)
        return fd;
    close(fd);
    // The clients take the lock, not we: a failed hand-over leaves the file
    // usable by root, and the relay runs on.
    int r = chown(path, admuid, admgid);
    (void)r;
    return 0;
}

void ntf_signals()
{
    for (int sig : vz_terminating)
        vz_signal(sig, ntf_exit);
}

void ntf_exit(int status)
{
    // Only async-signal-safe calls: this is also the handler. The trace file
    // is flushed after every line, so _exit loses nothing.
    if (server_path[0] != '\0')
        unlink(server_path);
    if (client_path[0] != '\0')
        unlink(client_path);
    _exit(vz_classic_signal(status));
}

void ntf_timeout(int)
{
}
