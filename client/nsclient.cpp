#include "client/nsclient.h"

#include <cerrno>
#include <cstdarg>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shr/reader.h"
#include "shr/uniinet.h"
#include "shr/vzpoll.h"
#include "shr/vzsignal.h"

namespace {

constexpr int NAMELEN = 16;
constexpr size_t MSGSIZE = NS_HDRSIZE + NS_MAXDATA;

uint32_t xid_counter = 0;

[[gnu::format(printf, 2, 3)]] int fail(NscConn* c, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(c->why, sizeof c->why, fmt, ap);
    va_end(ap);
    return -1;
}

// The registered process id of the name server when that process runs
// (also one this user may not signal), else 0.
int daemon_pid(const NscConn* c)
{
    char path[320];
    snprintf(path, sizeof path, "%s/rtdb/realm=NB/program=Halyard/=plist", c->dir);
    FILE* f = fopen(path, "r");
    if (f == nullptr)
        return 0;
    int pid = 0;
    char line[128];
    while (fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, "pid ", 4) == 0)
            pid = atoi(line + 4);
    }
    fclose(f);
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM))
        return 0;
    return pid;
}

// Nobody serves the FIFOs: tells a name server that is not running from one
// whose relay ended (it starts a new one within a second).
int no_relay(NscConn* c, const char* what)
{
    int pid = daemon_pid(c);
    if (pid == 0) {
        fail(c, "the name server is not running (%s)", what);
        return NSC_NOTRUNNING;
    }
    fail(c, "the name server runs (pid %d) but its request relay does not (%s); it is restarted within a "
            "second: try again", pid, what);
    return NSC_NORELAY;
}

// The exchange's descriptors; the lock goes with the close of lockfd.
struct Fds {
    int lockfd = -1;
    int sfd = -1;
    int cfd = -1;
    ~Fds()
    {
        for (int fd : {cfd, sfd, lockfd})
            if (fd >= 0)
                close(fd);
    }
};

// What the client FIFO gave and no message has used yet: room for a whole
// message after the one that starts at the front.
struct InBuf {
    uint8_t b[2 * MSGSIZE];
    size_t len = 0;
};

// The next framed message from the client FIFO into msg (header and
// hdr.len data bytes). A stream cut by a client that gave up, or bytes of
// another writer, are skipped to the next magic, and a header claiming more
// than NS_MAXDATA is dropped with its data left to the search. 0 with *len
// set, or an NSC_ code.
int read_msg(NscConn* c, int fd, InBuf& in, uint8_t* msg, int32_t* len, int64_t deadline)
{
    for (;;) {
        NsFramed f = ns_frame(std::span(in.b, in.len), NS_MAXDATA);
        if (f.kind != NsFrame::need) {
            if (f.kind == NsFrame::whole) {
                memcpy(msg, in.b, f.n);
                *len = int32_t(f.n - NS_HDRSIZE);
            }
            in.len -= f.n;
            memmove(in.b, in.b + f.n, in.len);
            if (f.kind == NsFrame::whole)
                return 0;
            continue;
        }
        int w = vz_wait_fd(fd, POLLIN, deadline);
        if (w == 0) {
            fail(c, "no answer from the name server within %d s: is it running?", c->timeout);
            return NSC_NOANSWER;
        }
        if (w < 0) {
            fail(c, "poll on %s/%s: %s", c->dir, NS_CLIENT_FIFO, strerror(errno));
            return NSC_IOERR;
        }
        ssize_t r = read(fd, in.b + in.len, sizeof in.b - in.len);
        if (r > 0)
            in.len += size_t(r);
        else if (r == 0)
            return no_relay(c, "the answer FIFO has no writer");
        else if (errno != EAGAIN && errno != EINTR) {
            fail(c, "reading %s/%s: %s", c->dir, NS_CLIENT_FIFO, strerror(errno));
            return NSC_IOERR;
        }
    }
}

// Takes the write lock on the whole lock file, retrying until the deadline
// (F_SETLKW cannot be bounded without borrowing the alarm).
int take_lock(NscConn* c, int fd, const char* path, int64_t deadline)
{
    for (;;) {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        if (fcntl(fd, F_SETLK, &fl) == 0)
            return 0;
        if (errno != EACCES && errno != EAGAIN && errno != EINTR) {
            fail(c, "locking %s: %s", path, strerror(errno));
            return NSC_IOERR;
        }
        if (vz_now_ms() >= deadline) {
            struct flock who {};
            who.l_type = F_WRLCK;
            who.l_whence = SEEK_SET;
            if (fcntl(fd, F_GETLK, &who) == 0 && who.l_type != F_UNLCK && who.l_pid > 0)
                fail(c, "another process (pid %d) held %s for %d s", int(who.l_pid), path, c->timeout);
            else
                fail(c, "another process held %s for %d s", path, c->timeout);
            return NSC_BUSY;
        }
        timespec pause{0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

// One write of the whole message: the FIFO keeps writes of up to PIPE_BUF
// bytes in one piece, which the relay's framing needs. A reader that goes
// away must not end this process with SIGPIPE.
int write_msg(NscConn* c, int fd, const uint8_t* msg, size_t n, int64_t deadline)
{
    for (;;) {
        ssize_t w = vz_write_held(fd, msg, n);
        if (w == ssize_t(n))
            return 0;
        if (w >= 0) {
            fail(c, "short write to %s/%s", c->dir, NS_SERVER_FIFO);
            return NSC_IOERR;
        }
        if (errno == EPIPE)
            return no_relay(c, "nobody reads the request FIFO");
        if (errno != EAGAIN && errno != EINTR) {
            fail(c, "writing %s/%s: %s", c->dir, NS_SERVER_FIFO, strerror(errno));
            return NSC_IOERR;
        }
        if (errno == EAGAIN && vz_wait_fd(fd, POLLOUT, deadline) <= 0) {
            fail(c, "the name server took no request within %d s: is it running?", c->timeout);
            return NSC_NOANSWER;
        }
    }
}

uint32_t next_xid()
{
    // Unlikely to repeat across clients and runs: pid, clock and a counter.
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return uint32_t(getpid()) * 2654435761u ^ uint32_t(ts.tv_nsec) ^ uint32_t(ts.tv_sec) << 20 ^ ++xid_counter;
}

int bad(NscConn* c, const char* what, int32_t len)
{
    fail(c, "malformed answer from the name server: %s (len %d)", what, len);
    return NSC_BADANSWER;
}

// Answers of one status word (len 4 exactly).
int on_status(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    Reader r(data, size_t(h->len));
    *static_cast<int32_t*>(arg) = int32_t(r.u32host());
    return r.ok() && r.left() == 0 ? 0 : bad(c, "not one status word", h->len);
}

int on_ckname(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<NscCheck*>(arg);
    Reader r(data, size_t(h->len));
    out->status = int32_t(r.u32host());
    if (r.ok() && out->status != NSC_OK)
        return 0;  // the name and flags carry no meaning then
    r.copy(out->name, NAMELEN);
    out->flags = r.u32host();
    return r.ok() && r.left() == 0 ? 0 : bad(c, "check answer not 24 bytes", h->len);
}

int on_lookup(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<NscLookup*>(arg);
    Reader r(data, size_t(h->len));
    out->status = int32_t(r.u32host());
    if (r.ok() && out->status != NSC_OK)
        return 0;
    out->addr.family = r.u16host();
    out->addr.len = r.u16host();
    r.copy(out->addr.addr, sizeof out->addr.addr);
    out->group = r.u32host();
    if (!r.ok() || r.left() != 0)
        return bad(c, "lookup answer not 72 bytes", h->len);
    if (out->addr.len > UNI_MAXADDR)
        return bad(c, "address length above 60", h->len);
    return 0;
}

struct ListState {
    NscList* out;
    int messages;
};

int on_list(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* st = static_cast<ListState*>(arg);
    Reader r(data, size_t(h->len));
    int32_t status = int32_t(r.u32host());
    if (r.ok() && status != NSC_OK) {
        st->out->status = status;
        return 0;
    }
    int32_t total = int32_t(r.u32host());
    int32_t n = int32_t(r.u32host());
    if (!r.ok() || total < 0 || n < 0 || n > NSC_MAXNAMES || r.left() != size_t(n) * 20)
        return bad(c, "list message not 12 + 20 x n bytes", h->len);
    if (st->messages++ == 0)
        st->out->total = total;
    // Every message but the last is full; more messages than the total
    // needs would never end.
    if (size_t(total) < st->out->names.size() + size_t(n) || (h->more != 0 && n != NSC_MAXNAMES))
        return bad(c, "more names than the total", h->len);
    try {
        for (int32_t i = 0; i < n; i++) {
            NscEntry e;
            r.copy(e.name, NAMELEN);
            e.flags = r.u32host();
            st->out->names.push_back(e);
        }
    } catch (const std::bad_alloc&) {
        fail(c, "out of memory for %d names", total);
        return NSC_NOMEM;
    }
    st->out->status = NSC_OK;
    return 0;
}

int on_adapstat(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<NscAdapStat*>(arg);
    Reader r(data, size_t(h->len));
    int32_t n = int32_t(r.u32host());
    if (!r.ok())
        return bad(c, "no status word", h->len);
    if (n < 0) {
        out->status = n;
        return r.left() == 0 ? 0 : bad(c, "failure answer not 4 bytes", h->len);
    }
    if (n > NSC_MAXNAMES || r.left() != 48 + size_t(n) * 20)
        return bad(c, "adapter status not 52 + 20 x n bytes", h->len);
    NscStatBlock& b = out->block;
    r.copy(b.unit_id, sizeof b.unit_id);
    b.jumpers = r.u8();
    b.test_result = r.u8();
    b.version = r.u16host();
    b.period = r.u16host();
    b.crcs = r.u16host();
    b.align_errors = r.u16host();
    b.collisions = r.u16host();
    b.send_aborts = r.u16host();
    b.good_sends = r.u32host();
    b.good_receives = r.u32host();
    b.retransmits = r.u16host();
    b.no_resources = r.u16host();
    b.free_ncbs = r.u16host();
    b.total_ncbs = r.u16host();
    b.max_total_ncbs = r.u16host();
    b.pending_sessions = r.u16host();
    b.max_pending_sessions = r.u16host();
    b.max_sessions = r.u16host();
    b.session_size = r.u16host();
    r.skip(2);
    for (int32_t i = 0; i < n; i++) {
        r.copy(out->names[i].name, NAMELEN);
        out->names[i].flags = r.u32host();
    }
    if (!r.ok())
        return bad(c, "adapter status cut short", h->len);
    out->count = n;
    out->status = NSC_OK;
    return 0;
}

struct ScopeOut {
    char* scope;
    size_t size;
};

int on_scope(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<ScopeOut*>(arg);
    if (h->len != 256)
        return bad(c, "scope answer not 256 bytes", h->len);
    const void* end = memchr(data, 0, 256);
    if (end == nullptr)
        return bad(c, "scope without its terminating zero", h->len);
    size_t n = size_t(static_cast<const uint8_t*>(end) - data);
    if (n + 1 > out->size) {
        fail(c, "scope of %zu characters does not fit", n);
        return NSC_NOMEM;
    }
    memcpy(out->scope, data, n + 1);
    return 0;
}

int on_type(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<NscType*>(arg);
    Reader r(data, size_t(h->len));
    out->nb_type = int32_t(r.u32host());
    out->ssport = r.u16host();
    r.skip(2);
    return r.ok() && r.left() == 0 ? 0 : bad(c, "type answer not 8 bytes", h->len);
}

int on_stats(NscConn* c, const ns_hdr* h, const uint8_t* data, void* arg)
{
    auto* out = static_cast<NscStats*>(arg);
    Reader r(data, size_t(h->len));
    out->status = int32_t(r.u32host());
    if (!r.ok())
        return bad(c, "no status word", h->len);
    if (out->status != NSC_OK)
        return r.left() == 0 ? 0 : bad(c, "failure answer not 4 bytes", h->len);
    const char* why = "";
    if (ct_decode(data + 4, r.left(), &out->counters, &why) != 0)
        return bad(c, why, h->len);
    return 0;
}

bool text_byte_plain(uint8_t b)
{
    return b > ' ' && b < 0x7f && b != '\\' && b != '<';
}

}  // namespace

void nsc_setup(NscConn* conn, const char* dir, int timeout)
{
    snprintf(conn->dir, sizeof conn->dir, "%s", dir != nullptr ? dir : NSC_DIR);
    conn->timeout = timeout >= 1 ? timeout : NSC_TIMEOUT;
    conn->why[0] = '\0';
}

int nsc_exchange(NscConn* conn, uint32_t op, const uint8_t* data, int len, nsc_msg_fn fn, void* arg)
{
    NscConn* c = conn;
    if (len < 0 || len > NS_REQMAX) {
        fail(c, "request of %d data bytes is too long", len);
        return NSC_IOERR;
    }
    char spath[300], cpath[300], lpath[300];
    snprintf(spath, sizeof spath, "%s/%s", c->dir, NS_SERVER_FIFO);
    snprintf(cpath, sizeof cpath, "%s/%s", c->dir, NS_CLIENT_FIFO);
    snprintf(lpath, sizeof lpath, "%s/%s", c->dir, NS_LOCK_FILE);

    struct stat st;
    if (stat(spath, &st) != 0) {
        int e = errno;
        if (e == ENOENT) {
            char what[320];
            snprintf(what, sizeof what, "no %s", spath);
            return no_relay(c, what);
        }
        fail(c, "cannot reach the name server: %s: %s", spath, strerror(e));
        return NSC_IOERR;
    }
    if (!S_ISFIFO(st.st_mode)) {
        fail(c, "%s is not a FIFO", spath);
        return NSC_IOERR;
    }
    int64_t deadline = vz_now_ms() + int64_t(c->timeout) * 1000;
    Fds fds;
    // The lock keeps clients' requests and answers apart: whoever holds it
    // is the only one reading the client FIFO.
    fds.lockfd = open(lpath, O_RDWR | O_CLOEXEC);
    if (fds.lockfd < 0) {
        int e = errno;
        fail(c, "cannot open the lock file %s: %s", lpath, strerror(e));
        return e == ENOENT ? NSC_NOTRUNNING : NSC_IOERR;
    }
    int rc = take_lock(c, fds.lockfd, lpath, deadline);
    if (rc != 0)
        return rc;
    fds.sfd = open(spath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fds.sfd < 0) {
        // ENXIO: the FIFO is left over and nobody reads it.
        int e = errno;
        if (e == ENXIO || e == ENOENT) {
            char what[320];
            snprintf(what, sizeof what, "nobody reads %s", spath);
            return no_relay(c, what);
        }
        fail(c, "cannot reach the name server: %s: %s", spath, strerror(e));
        return NSC_IOERR;
    }
    // Read only, as the FIFO's mode lets every user: non-blocking, so that
    // opening never waits for a writer; poll bounds every wait, and end of
    // file means that the relay, which holds it open for writing, ended.
    fds.cfd = open(cpath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fds.cfd < 0) {
        int e = errno;
        fail(c, "cannot open %s: %s", cpath, strerror(e));
        return e == ENOENT ? NSC_NOTRUNNING : NSC_IOERR;
    }
    // Whatever waits now was left by clients that gave up; a FIFO holds at
    // most 64 KiB, so a few reads empty it.
    uint8_t msg[MSGSIZE];
    for (int i = 0; i < 64 && read(fds.cfd, msg, sizeof msg) > 0; i++) {
    }

    uint32_t xid = next_xid();
    ns_hdr h{};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    h.len = len;
    h.xid = xid;
    h.op = op;
    h.more = 0;
    memcpy(msg, &h, NS_HDRSIZE);
    if (len > 0)
        memcpy(msg + NS_HDRSIZE, data, size_t(len));
    rc = write_msg(c, fds.sfd, msg, NS_HDRSIZE + size_t(len), deadline);
    if (rc != 0)
        return rc;

    InBuf in;
    for (;;) {
        int32_t n = 0;
        rc = read_msg(c, fds.cfd, in, msg, &n, deadline);
        if (rc != 0)
            return rc;
        Reader r(msg + 8, 16);
        ns_hdr a{};
        memcpy(a.magic, msg, sizeof a.magic);
        a.len = int32_t(r.u32host());
        a.xid = r.u32host();
        a.op = r.u32host();
        a.more = int32_t(r.u32host());
        if (a.xid != xid)
            continue;  // a late answer to a request its client gave up on
        if (a.op == NS_RESPONSE) {
            fail(c, "the name server does not know operation %u", op);
            return NSC_UNKNOWNOP;
        }
        if (a.op != (op | NS_RESPONSE))
            return bad(c, "answer for another operation", a.len);
        rc = fn(c, &a, msg + NS_HDRSIZE, arg);
        if (rc != 0)
            return rc;
        if (a.more == 0)
            return 0;
        // Each further message has its own full wait, as at the relay.
        deadline = vz_now_ms() + int64_t(c->timeout) * 1000;
    }
}

int nsc_addname(NscConn* conn, const uint8_t* name, uint32_t flags, int32_t* status)
{
    uint8_t d[20];
    memcpy(d, name, NAMELEN);
    memcpy(d + 16, &flags, 4);
    return nsc_exchange(conn, NS_ADDNAME, d, sizeof d, on_status, status);
}

int nsc_delname(NscConn* conn, const uint8_t* name, int32_t* status)
{
    return nsc_exchange(conn, NS_DELNAME, name, NAMELEN, on_status, status);
}

int nsc_ckname(NscConn* conn, const uint8_t* name, NscCheck* out)
{
    *out = NscCheck{};
    return nsc_exchange(conn, NS_CKNAME, name, NAMELEN, on_ckname, out);
}

int nsc_listname(NscConn* conn, NscList* out)
{
    out->status = NSC_OK;
    out->total = 0;
    out->names.clear();
    ListState st{out, 0};
    return nsc_exchange(conn, NS_LISTNAME, nullptr, 0, on_list, &st);
}

int nsc_lookup(NscConn* conn, const uint8_t* name, NscLookup* out)
{
    *out = NscLookup{};
    return nsc_exchange(conn, NS_LOOKUP, name, NAMELEN, on_lookup, out);
}

int nsc_adapstat(NscConn* conn, const uint8_t* name, uint32_t ipaddr, NscAdapStat* out)
{
    out->status = NSC_OK;
    out->block = NscStatBlock{};
    out->count = 0;
    // The name, then the target as a universal address at offset 16.
    uint8_t d[NAMELEN + sizeof(UniAddr)];
    UniAddr ua;
    iantoua(&ua, ipaddr, -1);
    memcpy(d, name, NAMELEN);
    memcpy(d + NAMELEN, &ua, sizeof ua);
    return nsc_exchange(conn, NS_ADAPSTAT, d, sizeof d, on_adapstat, out);
}

int nsc_nbscope(NscConn* conn, char* scope, size_t size)
{
    ScopeOut out{scope, size};
    return nsc_exchange(conn, NS_NBSCOPE, nullptr, 0, on_scope, &out);
}

int nsc_nbtype(NscConn* conn, NscType* out)
{
    *out = NscType{};
    return nsc_exchange(conn, NS_NBTYPE, nullptr, 0, on_type, out);
}

int nsc_reinit(NscConn* conn, int32_t* status)
{
    return nsc_exchange(conn, NS_INIT, nullptr, 0, on_status, status);
}

int nsc_enstable(NscConn* conn, int32_t* status)
{
    return nsc_exchange(conn, NS_ENSTABLE, nullptr, 0, on_status, status);
}

int nsc_stats(NscConn* conn, NscStats* out)
{
    out->status = NSC_OK;
    out->counters.count = 0;
    return nsc_exchange(conn, NS_STATS, nullptr, 0, on_stats, out);
}

// The name text of the universal address (nm_strtonb) defaults to the blank
// type, folds letters and takes port suffixes; the client's text keeps every
// byte as typed and defaults to type 00, the workstation name.
int nsc_strtonb(uint8_t* out, const char* text)
{
    if (strcmp(text, "*") == 0) {
        memset(out, 0, NAMELEN);
        out[0] = '*';
        return 0;
    }
    uint8_t name[NAMELEN];
    memset(name, ' ', NAMELEN);
    name[15] = 0x00;
    size_t n = 0;
    const char* p = text;
    while (*p != '\0' && *p != '<') {
        uint8_t b;
        if (*p == '\\') {
            if (p[1] == 'x' || p[1] == 'X') {
                int v = hexbyte(p + 2);
                if (v < 0)
                    return -1;
                b = uint8_t(v);
                p += 4;
            } else if (p[1] == '\\' || p[1] == '<') {
                b = uint8_t(p[1]);
                p += 2;
            } else {
                return -1;
            }
        } else {
            b = uint8_t(*p++);
        }
        if (n == 15)
            return -1;
        name[n++] = b;
    }
    if (n == 0)
        return -1;
    if (*p == '<') {
        int v = p[1] != '\0' ? hexbyte(p + 1) : -1;
        if (v < 0 || p[3] != '>' || p[4] != '\0')
            return -1;
        name[15] = uint8_t(v);
    }
    memcpy(out, name, NAMELEN);
    return 0;
}

int nsc_nbtostr(char* out, size_t size, const uint8_t* name)
{
    static const uint8_t wildcard[NAMELEN] = {'*'};
    char t[NSC_NAMETEXT];
    size_t k = 0;
    if (memcmp(name, wildcard, NAMELEN) == 0) {
        t[k++] = '*';
    } else {
        // trailing blanks are the padding
        size_t end = 15;
        while (end > 0 && name[end - 1] == ' ')
            end--;
        for (size_t i = 0; i < end; i++) {
            uint8_t b = name[i];
            if (text_byte_plain(b) || (b == ' ' && i > 0)) {
                t[k++] = char(b);
            } else if (b == '\\' || b == '<') {
                t[k++] = '\\';
                t[k++] = char(b);
            } else {
                k += size_t(snprintf(t + k, sizeof t - k, "\\x%02x", b));
            }
        }
        k += size_t(snprintf(t + k, sizeof t - k, "<%02x>", name[15]));
    }
    t[k] = '\0';
    if (k + 1 > size)
        return -1;
    memcpy(out, t, k + 1);
    return 0;
}

const char* nsc_strstatus(uint32_t op, int32_t status)
{
    switch (status) {
    case NSC_OK:
        return "success";
    case NSC_REFUSED:
        if (op == NS_ENSTABLE)
            return "refused: tracing is off in the name server";
        if (op == NS_ADAPSTAT)
            return "refused: no usable address, or the TCP/IP transport is off";
        return "refused";
    case NSC_OUTOFMEM:
        return "the name server is out of memory";
    case NSC_PRESENT:
        return "name already present in the local table";
    case NSC_NOTFOUND:
        if (op == NS_LOOKUP)
            return "name not found";
        if (op == NS_ADAPSTAT)
            return "no answer from the station within 5 seconds";
        return "name not present in the local table";
    default:
        return "unknown status";
    }
}
