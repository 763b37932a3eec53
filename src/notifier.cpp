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
#include "shr/vzpoll.h"
#include "shr/vzsignal.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/stats.h"

int from_ntf = -1;
int to_ntf = -1;
int ntf_pid = 0;

namespace {

constexpr const char* TRACE_FILE = "ntf.trc";
constexpr int MSG_NTF_RESTART = 540;
constexpr int MSG_NO_NOTIFIER = 192;

// Every local user may write into the server FIFO, so the relay bounds what
// one writer can hold it with: a message must be whole within PART_WAIT of
// its first byte, and an answer that no client takes within ANSWER_WAIT is
// dropped. A request of more than NS_REQMAX data bytes is refused with
// status -1, so that every message passed on fits one atomic pipe write.
// A request in parts ("more") is gathered here and passed on only once
// whole, at most CHAIN_PARTS messages and CHAIN_BYTES bytes: far above any
// real request, which is one message of at most 104 bytes.
constexpr int PART_WAIT_MS = 1000;
constexpr int ANSWER_WAIT_MS = 1000;
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

// A stream read through a buffer and framed there: what was read and no
// message has used yet, always with room for a whole message after the one
// that starts at the front.
struct Stream {
    uint8_t buf[2 * (NS_HDRSIZE + NS_MAXDATA)];
    size_t len = 0;
    int64_t deadline = -1;  // the server FIFO's: when a message begun must be whole
};
Stream clients_in;  // the server FIFO
Stream daemon_in;   // the daemon-to-notifier pipe

// The request being gathered: its messages one after another.
uint8_t chain[CHAIN_BYTES];
size_t chain_len = 0;
int chain_parts = 0;

bool clients_stalled = false;  // the last answer found nobody reading
bool daemon_due = false;       // requests passed on since the daemon was woken

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
    snprintf(server_path, sizeof server_path, "%s/%s", NS_DIR, NS_SERVER_FIFO);
    snprintf(client_path, sizeof client_path, "%s/%s", NS_DIR, NS_CLIENT_FIFO);

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
    if (mklockfile(NS_DIR, 0666 & group_mask) < 0) {
        TRACE(proc, 1, "notifier: error opening lockfile %s/%s\n", NS_DIR, NS_LOCK_FILE);
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
        // Room for the answers to a burst of requests, read all at once,
        // while the relay passes them on; the default 64 KiB when refused.
        fcntl(to_ntf, F_SETPIPE_SZ, 1 << 20);
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

// Whether a whole magic lies in the n bytes at p.
bool holds_magic(const uint8_t* p, size_t n)
{
    for (size_t i = 0; i + sizeof NS_MAGIC <= n; i++)
        if (memcmp(p + i, NS_MAGIC, sizeof NS_MAGIC) == 0)
            return true;
    return false;
}

void consume(Stream& s, size_t n)
{
    s.len -= n;
    memmove(s.buf, s.buf + n, s.len);
}

// One read of what fd holds now: 1 when bytes came, 0 when none wait, -1 at
// end of file or on an error. The caller frames first: a stream that needs
// more holds less than a whole message, so there is room.
int fill(Stream& s, int fd)
{
    ssize_t got = read(fd, s.buf + s.len, sizeof s.buf - s.len);
    if (got > 0) {
        s.len += size_t(got);
        return 1;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return 0;
    return -1;  // end of file: only without a writer, never on the FIFO
}

// The gathered request to the daemon, message by message, each in one
// write, which the pipe keeps whole (none is above PIPE_BUF). A full pipe
// is a daemon that has not read yet: it is woken and given PART_WAIT for
// room, or the rest of the request is dropped. 0, 1 when dropped, -1 when
// the pipe failed.
int pass_chain()
{
    for (size_t at = 0; at < chain_len;) {
        ns_hdr h;
        memcpy(&h, chain + at, NS_HDRSIZE);
        size_t len = NS_HDRSIZE + size_t(h.len);
        int64_t deadline = vz_now_ms() + PART_WAIT_MS;
        for (;;) {
            ssize_t w = write(to_ns, chain + at, len);
            if (w == ssize_t(len))
                break;
            if (w >= 0 || (errno != EAGAIN && errno != EINTR))
                return -1;
            kill(ns_pid, SIGINT);
            daemon_due = false;
            int r = vz_wait_fd(to_ns, POLLOUT, deadline);
            if (r < 0)
                return -1;
            if (r == 0) {
                ntf_note("ntf_process: the daemon's pipe stayed full, request %08x dropped\n", h.xid);
                return 1;
            }
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
    int64_t deadline = vz_now_ms() + (clients_stalled ? 0 : ANSWER_WAIT_MS);
    size_t done = 0;
    while (done < len) {
        ssize_t w = write(to_client, msg + done, len - done);
        if (w > 0) {
            done += size_t(w);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            return -1;
        int r = vz_wait_fd(to_client, POLLOUT, deadline);
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

// A request too long to pass on whole gets the status of a refusal.
int refuse(const ns_hdr* req, int n)
{
    ntf_note("ntf_process: request %08x of %d data bytes refused\n", req->xid, n);
    ns_hdr h = *req;
    h.op |= NS_RESPONSE;
    h.len = 4;
    h.more = 0;
    int32_t status = -1;
    return to_clients(&h, reinterpret_cast<const uint8_t*>(&status), 4);
}

// One message from a client: gathered into its request, which goes to the
// daemon once whole. 0, or -1 when a pipe or FIFO failed.
int relay_request(int n)
{
    if (chain_parts == CHAIN_PARTS || chain_len + NS_HDRSIZE + size_t(n) > CHAIN_BYTES) {
        ntf_note("ntf_process: request of more than %d parts or %zu bytes dropped\n", CHAIN_PARTS, CHAIN_BYTES);
        chain_len = 0;  // this part starts the next request
        chain_parts = 0;
    }
    if (n > NS_REQMAX) {
        chain_len = 0;  // and the parts before it
        chain_parts = 0;
        return refuse(&req_hdr, n);
    }
    memcpy(chain + chain_len, &req_hdr, NS_HDRSIZE);
    memcpy(chain + chain_len + NS_HDRSIZE, req_data, size_t(n));
    chain_len += NS_HDRSIZE + size_t(n);
    chain_parts++;
    if (req_hdr.more != 0)
        return 0;  // the daemon is woken once the whole request is in the pipe
    int passed = pass_chain();
    chain_len = 0;
    chain_parts = 0;
    daemon_due = daemon_due || passed == 0;
    return passed < 0 ? -1 : 0;
}

}  // namespace

// A relay that served one request at a time, waiting up to 12 seconds for
// its final answer, would let one lookup hold every client behind it for 5
// seconds, and a few of them for minutes. Requests go to the daemon as they
// come and answers to the clients as they come, whichever request they
// answer: each client picks its own by xid. Answers go first, as they free
// the daemon's pipe.
void ntf_process()
{
    trace_start();
    for (int fd : {from_client, to_client, to_ns, from_ns}) {
        int fl = fcntl(fd, F_GETFL);
        if (fl >= 0)
            fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    }
    for (;;) {
        int m;
        while ((m = ntf_read(from_ns, &rsp_hdr, rsp_data, NS_MAXDATA)) != -2) {
            if (ntf_fp != nullptr) {
                fprintf(ntf_fp, "from_ns: got len %d, header --\n", m);
                trace_message(&rsp_hdr, rsp_data, m);
            }
            if (m < 0 || to_clients(&rsp_hdr, rsp_data, m) != 0)
                return;
        }
        int n = ntf_take(from_client, &req_hdr, req_data);
        if (n >= 0 || n == -1) {
            if (ntf_fp != nullptr) {
                fprintf(ntf_fp, "from_client: got inlen %d, header --\n", n);
                trace_message(&req_hdr, req_data, n);
            }
            if (n < 0 || relay_request(n) != 0)
                return;
            continue;
        }
        // Woken once per burst, not per request: the daemon reads every
        // waiting request when woken.
        if (daemon_due)
            kill(ns_pid, SIGINT);
        daemon_due = false;
        pollfd p[2] = {{from_client, POLLIN, 0}, {from_ns, POLLIN, 0}};
        if (poll(p, 2, ntf_take_wait()) < 0 && errno != EINTR)
            return;
    }
}

// The design reads a client's header and data with blocking reads, so one
// writer that stops inside a message would hold the relay, and with it every
// other client, for ever, or lend the next client's request as its data.
// Here every message must be whole within PART_WAIT of its first byte, and
// then the bytes after its header are framed anew. A client writes each
// message in one piece, which the FIFO keeps whole up to PIPE_BUF bytes: a
// magic arriving after the header of such a message whose data is still
// missing ends the wait at once. A longer message may arrive in parts, and
// its data may hold a magic: it is waited for (and then refused).
int ntf_take(int fd, ns_hdr* hdr, uint8_t* data)
{
    Stream& s = clients_in;
    for (;;) {
        NsFramed f = ns_frame(std::span(s.buf, s.len), NS_MAXDATA);
        if (f.kind == NsFrame::whole) {
            memcpy(hdr, s.buf, NS_HDRSIZE);
            memcpy(data, s.buf + NS_HDRSIZE, f.n - NS_HDRSIZE);
            consume(s, f.n);
            s.deadline = -1;
            return hdr->len;
        }
        if (f.kind == NsFrame::skip) {
            if (s.len >= NS_HDRSIZE && memcmp(s.buf, NS_MAGIC, sizeof NS_MAGIC) == 0) {
                ns_hdr h;
                memcpy(&h, s.buf, NS_HDRSIZE);
                ntf_note("ntf_take: header with len %d dropped\n", h.len);
            } else {
                ntf_note("ntf_take: %zu bytes without a header skipped\n", f.n);
            }
            consume(s, f.n);
            s.deadline = -1;
            continue;
        }
        if (s.len >= NS_HDRSIZE)
            memcpy(hdr, s.buf, NS_HDRSIZE);
        if (s.len >= NS_HDRSIZE && hdr->len <= NS_REQMAX &&
            holds_magic(s.buf + NS_HDRSIZE, s.len - NS_HDRSIZE)) {
            ntf_note("ntf_take: header %08x dropped, the next message began before its data\n", hdr->xid);
            consume(s, NS_HDRSIZE);
            s.deadline = -1;
            continue;
        }
        int r = fill(s, fd);
        if (r < 0)
            return -1;
        if (r > 0)
            continue;
        if (s.len == 0)
            return -2;
        if (s.deadline < 0)
            s.deadline = vz_now_ms() + PART_WAIT_MS;
        if (vz_now_ms() < s.deadline)
            return -2;
        if (s.len >= NS_HDRSIZE) {
            ntf_note("ntf_take: header %08x dropped, its data did not come\n", hdr->xid);
            consume(s, NS_HDRSIZE);
        } else {
            // Its bytes go; the magic search goes on after its first byte.
            size_t k = 1;
            while (k < s.len && memcmp(s.buf + k, NS_MAGIC, std::min(s.len - k, sizeof NS_MAGIC)) != 0)
                k++;
            ntf_note("ntf_take: %zu bytes of a header cut short dropped\n", k);
            consume(s, k);
        }
        s.deadline = -1;
    }
}

int ntf_take_wait()
{
    if (clients_in.len == 0 || clients_in.deadline < 0)
        return -1;
    return int(std::max<int64_t>(0, clients_in.deadline - vz_now_ms()));
}

void ntf_take_reset()
{
    clients_in.len = 0;
    clients_in.deadline = -1;
    daemon_in.len = 0;
}

// The daemon passes on what we gave it; framed all the same, so that a
// stream that lost its framing finds it again at the next magic.
int ntf_read(int fd, ns_hdr* hdr, uint8_t* data, int limit)
{
    Stream& s = daemon_in;
    for (;;) {
        NsFramed f = ns_frame(std::span(s.buf, s.len), limit);
        if (f.kind == NsFrame::whole) {
            memcpy(hdr, s.buf, NS_HDRSIZE);
            memcpy(data, s.buf + NS_HDRSIZE, f.n - NS_HDRSIZE);
            consume(s, f.n);
            return hdr->len;
        }
        if (f.kind == NsFrame::skip) {
            consume(s, f.n);
            continue;
        }
        int r = fill(s, fd);
        if (r <= 0)
            return r < 0 ? -1 : -2;
    }
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
    int len = snprintf(path, sizeof path, "%s/%s", dir, NS_LOCK_FILE);
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

int ntf_watch_fd()
{
    return from_ntf;
}

// Beyond the design, which never restarts the relay: without it every
// client would be turned away for the rest of the daemon's life.
void ntf_lost()
{
    TRACE(proc, 1, "ntf_lost: notifier %d ended\n", ntf_pid);
    stat_inc(ST_RELAY_RESTARTS);
    close(from_ntf);
    close(to_ntf);
    from_ntf = to_ntf = -1;
    get_request_reset();
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
