#include "src/notifier.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/logging.h"
#include "shr/vzopen.h"
#include "shr/vzsignal.h"
#include "src/maininit.h"
#include "src/namelogin.h"

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
constexpr int MSG_NTF_RESTART = 540;
constexpr int MSG_NO_NOTIFIER = 192;

// Every local user may write into the server FIFO, so the relay bounds what
// one writer can hold it with: a message must be whole within PART_WAIT of
// its first byte, and an answer that no client takes within ANSWER_WAIT is
// dropped. A request in parts ("more") is gathered here and passed on only
// once whole, at most CHAIN_PARTS messages and CHAIN_BYTES bytes: far above
// any real request, which is one message of at most 104 bytes.
constexpr int PART_WAIT_MS = 1000;
constexpr int ANSWER_WAIT_MS = 2000;
constexpr int CHAIN_PARTS = 16;
constexpr size_t CHAIN_BYTES = 16384;

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

// What the server FIFO gave and no message has used yet: always room for a
// whole message after the magic that starts at the front.
uint8_t in_buf[2 * (NS_HDRSIZE + NS_MAXDATA)];
size_t in_len = 0;

// The request being gathered: its messages one after another.
uint8_t chain[CHAIN_BYTES];
size_t chain_len = 0;
int chain_parts = 0;

bool clients_stalled = false;  // the last answer found nobody reading

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
    // The working directory is the administrative user's: a link planted
    // there is refused, not followed.
    ntf_fp = vz_fopen_plain(TRACE_FILE, "a");
    if (ntf_fp == nullptr && vz_refused(errno))
        vz_log_refused(TRACE_FILE, errno);
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

[[gnu::format(printf, 1, 2)]] void ntf_note(const char* fmt, ...)
{
    if (ntf_fp == nullptr)
        return;
    va_list ap;
    va_start(ap, fmt);
    vfprintf(ntf_fp, fmt, ap);
    va_end(ap);
    fflush(ntf_fp);
}

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is ready for events, at most until deadline (-1: no
// limit): 1 ready, 0 the deadline passed, -1 an error.
int wait_ready(int fd, short events, int64_t deadline)
{
    for (;;) {
        int left = -1;
        if (deadline >= 0) {
            int64_t d = deadline - now_ms();
            if (d <= 0)
                return 0;
            left = int(d);
        }
        pollfd p{fd, events, 0};
        int n = poll(&p, 1, left);
        if (n > 0)
            return 1;
        if (n < 0 && errno != EINTR)
            return -1;
    }
}

// Makes the file at fd the owner's and client_gid's only, when a group is
// configured; the designed modes otherwise.
void restrict_to_group(int fd, mode_t mode)
{
    if (client_gid < 0)
        return;
    if (fchown(fd, uid_t(-1), gid_t(client_gid)) != 0 || fchmod(fd, mode & 0770) != 0)
        TRACE(proc, 1, "notifier: cannot give group %d mode %o, errno %d\n", client_gid, unsigned(mode & 0770),
              errno);
}

}  // namespace

const char* notifier()
{
    snprintf(server_path, sizeof server_path, "%s/%s", NTF_DIR, SERVER_FIFO);
    snprintf(client_path, sizeof client_path, "%s/%s", NTF_DIR, CLIENT_FIFO);

    // With a client group configured, the FIFOs and the lock file are for
    // the owner and that group only.
    mode_t group_mask = client_gid >= 0 ? 0770 : 0777;
    from_client = mk_fifo(server_path, 0622 & group_mask);
    if (from_client < 0) {
        TRACE(proc, 1, "notifier: error opening FIFO %s\n", server_path);
        return "Error creating/opening FIFOs";
    }
    to_client = mk_fifo(client_path, 0644 & group_mask);
    if (to_client < 0) {
        TRACE(proc, 1, "notifier: error opening FIFO %s\n", client_path);
        close_fifos();
        return "Error creating/opening FIFOs";
    }
    restrict_to_group(from_client, 0622);
    restrict_to_group(to_client, 0644);
    if (mklockfile(NTF_DIR, 0666 & group_mask) < 0) {
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
        // Beyond the read end, the write end does not block either: a relay
        // that stops reading must not stop the daemon's loop.
        int flags = fcntl(from_ntf, F_GETFL);
        int wflags = fcntl(to_ntf, F_GETFL);
        if (flags < 0 || fcntl(from_ntf, F_SETFL, flags | O_NDELAY) < 0 || wflags < 0 ||
            fcntl(to_ntf, F_SETFL, wflags | O_NONBLOCK) < 0) {
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

namespace {

// Whether the n bytes at p could be the start of a header.
bool magic_prefix(const uint8_t* p, size_t n)
{
    return memcmp(p, NS_MAGIC, std::min(n, sizeof NS_MAGIC)) == 0;
}

bool holds_magic(const uint8_t* p, size_t n)
{
    for (size_t i = 0; i + sizeof NS_MAGIC <= n; i++)
        if (memcmp(p + i, NS_MAGIC, sizeof NS_MAGIC) == 0)
            return true;
    return false;
}

void consume(size_t n)
{
    in_len -= n;
    memmove(in_buf, in_buf + n, in_len);
}

// The gathered request to the daemon, message by message, each in one
// write. A full pipe is a daemon that has not read yet: it is woken and
// given PART_WAIT for room, or the rest of the request is dropped. 0, 1
// when dropped, -1 when the pipe failed.
int pass_chain()
{
    for (size_t at = 0; at < chain_len;) {
        ns_hdr h;
        memcpy(&h, chain + at, NS_HDRSIZE);
        size_t len = NS_HDRSIZE + size_t(h.len);
        size_t done = 0;
        int64_t deadline = now_ms() + PART_WAIT_MS;
        while (done < len) {
            ssize_t w = write(to_ns, chain + at + done, len - done);
            if (w > 0) {
                done += size_t(w);
                continue;
            }
            if (w < 0 && errno != EAGAIN && errno != EINTR)
                return -1;
            kill(ns_pid, SIGINT);
            int r = wait_ready(to_ns, POLLOUT, deadline);
            if (r < 0)
                return -1;
            if (r == 0 && done == 0) {
                ntf_note("ntf_process: the daemon's pipe stayed full, request %08x dropped\n", h.xid);
                return 1;
            }
            if (r == 0)
                deadline = now_ms() + PART_WAIT_MS;  // a message begun must end whole
        }
        at += len;
    }
    return 0;
}

// An answer to the client FIFO. Nobody reading it for ANSWER_WAIT drops
// the answer, and every later one at once until a client reads again: the
// next client empties the FIFO of what others left. 0 (written or
// dropped), or -1.
int to_clients(const ns_hdr* hdr, const uint8_t* data, int n)
{
    uint8_t msg[NS_HDRSIZE + NS_MAXDATA];
    size_t len = NS_HDRSIZE + size_t(n > 0 ? n : 0);
    memcpy(msg, hdr, NS_HDRSIZE);
    if (n > 0)
        memcpy(msg + NS_HDRSIZE, data, size_t(n));
    int64_t deadline = now_ms() + (clients_stalled ? 0 : ANSWER_WAIT_MS);
    size_t done = 0;
    while (done < len) {
        ssize_t w = write(to_client, msg + done, len - done);
        if (w > 0) {
            done += size_t(w);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            return -1;
        int r = wait_ready(to_client, POLLOUT, deadline);
        if (r < 0)
            return -1;
        if (r == 0) {
            ntf_note("ntf_process: no client takes answers, answer %08x dropped\n", hdr->xid);
            clients_stalled = true;
            return 0;
        }
    }
    clients_stalled = false;
    return 0;
}

}  // namespace

void ntf_process()
{
    trace_start();
    for (int fd : {from_client, to_client, to_ns}) {
        int fl = fcntl(fd, F_GETFL);
        if (fl >= 0)
            fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    }
    for (;;) {
        int n = ntf_take(from_client, &req_hdr, req_data);
        if (ntf_fp != nullptr) {
            fprintf(ntf_fp, "from_client: got inlen %d, header --\n", n);
            trace_message(&req_hdr, req_data, n);
        }
        if (n < 0)
            return;
        if (chain_parts == CHAIN_PARTS || chain_len + NS_HDRSIZE + size_t(n) > CHAIN_BYTES) {
            ntf_note("ntf_process: request of more than %d parts or %zu bytes dropped\n", CHAIN_PARTS, CHAIN_BYTES);
            chain_len = 0;  // this part starts the next request
            chain_parts = 0;
        }
        memcpy(chain + chain_len, &req_hdr, NS_HDRSIZE);
        memcpy(chain + chain_len + NS_HDRSIZE, req_data, size_t(n));
        chain_len += NS_HDRSIZE + size_t(n);
        chain_parts++;
        if (req_hdr.more != 0)
            continue;  // the daemon is woken once the whole request is in the pipe
        int passed = pass_chain();
        chain_len = 0;
        chain_parts = 0;
        if (passed < 0)
            return;
        if (passed > 0)
            continue;
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
            if (to_clients(&rsp_hdr, rsp_data, m) != 0)
                return;
            // A late answer to an earlier request, or more of this one: wait on.
            if (rsp_hdr.xid != req_hdr.xid || rsp_hdr.more != 0)
                continue;
            break;
        }
    }
}

// The design reads a client's header and data with blocking reads, so one
// writer that stops inside a message would hold the relay, and with it every
// other client, for ever, or lend the next client's request as its data.
// Here every message must be whole within PART_WAIT of its first byte; a
// magic arriving after a header whose data is still missing ends the wait
// at once, since clients write each message in one piece.
int ntf_take(int fd, ns_hdr* hdr, uint8_t* data)
{
    int64_t deadline = -1;  // set once a message has begun
    for (;;) {
        size_t skip = 0;
        while (skip < in_len && !magic_prefix(in_buf + skip, in_len - skip))
            skip++;
        if (skip > 0) {
            ntf_note("ntf_take: %zu bytes without a header skipped\n", skip);
            consume(skip);
            deadline = -1;
        }
        if (in_len >= NS_HDRSIZE) {
            memcpy(hdr, in_buf, NS_HDRSIZE);
            uint32_t len = uint32_t(hdr->len);  // a negative len reads as huge
            if (len > uint32_t(NS_MAXDATA)) {
                ntf_note("ntf_take: header with len %d dropped\n", hdr->len);
                consume(NS_HDRSIZE);  // its data, if any, goes in the magic search
                deadline = -1;
                continue;
            }
            if (in_len >= NS_HDRSIZE + len) {
                memcpy(data, in_buf + NS_HDRSIZE, len);
                consume(NS_HDRSIZE + len);
                return int(len);
            }
            if (holds_magic(in_buf + NS_HDRSIZE, in_len - NS_HDRSIZE)) {
                ntf_note("ntf_take: header %08x dropped, the next message began before its data\n", hdr->xid);
                consume(NS_HDRSIZE);
                deadline = -1;
                continue;
            }
        }
        if (in_len > 0 && deadline < 0)
            deadline = now_ms() + PART_WAIT_MS;
        int r = wait_ready(fd, POLLIN, in_len > 0 ? deadline : -1);
        if (r < 0)
            return -1;
        if (r == 0) {
            if (in_len >= NS_HDRSIZE) {
                ntf_note("ntf_take: header %08x dropped, its data did not come\n", hdr->xid);
                consume(NS_HDRSIZE);
            } else {
                // Its bytes go; the magic search goes on after its first byte.
                size_t k = 1;
                while (k < in_len && !magic_prefix(in_buf + k, in_len - k))
                    k++;
                ntf_note("ntf_take: %zu bytes of a header cut short dropped\n", k);
                consume(k);
            }
            deadline = -1;
            continue;
        }
        ssize_t got = read(fd, in_buf + in_len, sizeof in_buf - in_len);
        if (got == 0)
            return -1;  // end of file: only without a writer, never on the FIFO
        if (got < 0 && errno != EAGAIN && errno != EINTR)
            return -1;
        if (got > 0)
            in_len += size_t(got);
    }
}

void ntf_take_reset()
{
    in_len = 0;
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
    int fd = open(path, O_RDWR | O_NOFOLLOW);
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
    // Never through a link: a planted one is left alone, reported and
    // refused. Creation is exclusive for the same reason.
    int fd = vz_open_plain(path, O_RDONLY, 0);
    if (fd < 0 && vz_refused(errno)) {
        vz_log_refused(path, errno);
        return -1;
    }
    if (fd >= 0) {
        restrict_to_group(fd, 0666);
        close(fd);
        return 0;
    }
    mode_t old = umask(0);
    fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
    umask(old);
    if (fd < 0)
        return fd;
    // The clients take the lock, not we: a failed hand-over leaves the file
    // usable by root, and the relay runs on.
    int r = fchown(fd, admuid, client_gid >= 0 ? gid_t(client_gid) : admgid);
    (void)r;
    close(fd);
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

int ntf_watch_fd()
{
    return from_ntf;
}

// Beyond the design, which never restarts the relay: without it every
// client would be turned away for the rest of the daemon's life.
void ntf_lost()
{
    TRACE(proc, 1, "ntf_lost: notifier %d ended\n", ntf_pid);
    close(from_ntf);
    close(to_ntf);
    from_ntf = to_ntf = -1;
    if (ntf_pid > 0) {
        kill(ntf_pid, SIGKILL);  // already ended, or about to: reaped at once
        waitpid(ntf_pid, nullptr, 0);
    }
    ntf_pid = 0;
    const char* why = notifier();
    log_new();
    log_catmsg(LOG_SET, MSG_NTF_RESTART, "%s: notifier process ended; starting a new one", prog);
    if (why != nullptr) {
        TRACE(proc, 1, "ntf_lost: can't start notifier process: %s\n", why);
        log_catmsg(LOG_SET, MSG_NO_NOTIFIER, "Halyard: cannot start notifier process: %s", why);
    }
}
