#include "nss/nssask.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nss/nssanswer.h"
#include "src/nsmsg.h"

namespace {

constexpr size_t NAMELEN = 16;
constexpr size_t MSGSIZE = NS_HDRSIZE + NS_MAXDATA;
constexpr size_t REQSIZE = NS_HDRSIZE + NAMELEN;
static_assert(2 * REQSIZE <= NS_HDRSIZE + NS_REQMAX, "both requests go in one write the FIFO keeps whole");

std::atomic<uint32_t> xid_counter{0};

// The descriptors of one resolution, closed on every way out; the lock goes
// with its descriptor.
struct Fds {
    int sfd = -1;
    int lockfd = -1;
    int cfd = -1;
    Fds() = default;
    Fds(const Fds&) = delete;
    Fds& operator=(const Fds&) = delete;
    ~Fds()
    {
        for (int fd : {cfd, lockfd, sfd})
            if (fd >= 0)
                close(fd);
    }
};

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The settings file's first 4 KiB; a file that is missing, not a regular
// file (a FIFO would stall the read) or unreadable leaves the default.
int wait_ms()
{
    int fd = open(NSS_SETTINGS, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return NSS_WAIT_MS;
    uint8_t text[4096];
    struct stat st;
    ssize_t n = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? read(fd, text, sizeof text) : -1;
    close(fd);
    return nss_wait_ms(std::span<const uint8_t>(text, n > 0 ? size_t(n) : 0));
}

uint32_t next_xid()
{
    // Apart from other clients' and this program's other threads': pid,
    // thread, clock and a counter of the module's own.
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return uint32_t(getpid()) * 2654435761u ^ uint32_t(gettid()) * 40503u ^ uint32_t(ts.tv_nsec) ^
           uint32_t(ts.tv_sec) << 20 ^ ++xid_counter;
}

// The lock clients take on lock.name for the length of an exchange, so that
// only its holder reads the shared answer FIFO. An open file description
// lock, not the classic record lock: that one belongs to the process, so two
// threads of one program would both hold it and take each other's answers.
// The two kinds conflict with each other, so the module and halyardctl
// exclude each other too. Retried until the deadline: no alarm here.
NssResult take_lock(int fd, int64_t deadline, int* err)
{
    for (;;) {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        if (fcntl(fd, F_OFD_SETLK, &fl) == 0)
            return NssResult::found;
        if (errno != EACCES && errno != EAGAIN && errno != EINTR) {
            *err = errno;
            return NssResult::unavailable;
        }
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return NssResult::busy;
        timespec pause{0, long(left < 5 ? left : 5) * 1000000};
        nanosleep(&pause, nullptr);
    }
}

// A write into a FIFO whose reader has gone raises SIGPIPE, which would end
// the calling program (MSG_NOSIGNAL is for sockets only). The signal is held
// in this thread for the write, and the one the write raised is taken before
// it is let through again: a signal that was held or pending before is left
// to the program.
ssize_t write_held(int fd, const void* buf, size_t n)
{
    sigset_t pipe_set, old, pending;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_set, &old);
    bool was_pending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    ssize_t w = write(fd, buf, n);
    int e = errno;
    if (w < 0 && e == EPIPE && !was_pending && sigismember(&old, SIGPIPE) == 0) {
        timespec zero{0, 0};
        sigtimedwait(&pipe_set, nullptr, &zero);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = e;
    return w;
}

void put_request(uint8_t* at, uint32_t xid, const uint8_t* name)
{
    ns_hdr h{};
    memcpy(h.magic, NS_MAGIC, sizeof h.magic);
    h.len = int32_t(NAMELEN);
    h.xid = xid;
    h.op = NS_LOOKUP;
    h.more = 0;
    memcpy(at, &h, NS_HDRSIZE);
    memcpy(at + NS_HDRSIZE, name, NAMELEN);
}

// The answer FIFO: what arrived and no answer has used yet, with room for a
// whole message after one that starts at the front.
struct InBuf {
    uint8_t b[2 * MSGSIZE];
    size_t len = 0;
};

// Waits for the answers to asks until one is positive or both are negative.
// The daemon answers from its tables in the order asked, so the <00> name
// wins when both are known there; from the network the first answer wins.
NssResult await(int fd, InBuf& in, NssAsk* asks, int64_t deadline, uint32_t* addr, int* err)
{
    for (;;) {
        for (int i = 0; i < 2; i++)
            if (asks[i].state == NssState::found) {
                *addr = asks[i].addr;
                return NssResult::found;
            }
        if (asks[0].state == NssState::not_found && asks[1].state == NssState::not_found)
            return NssResult::not_found;
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return NssResult::not_found;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, int(left));
        if (r < 0 && errno != EINTR) {
            *err = errno;
            return NssResult::unavailable;
        }
        if (r <= 0)
            continue;
        ssize_t n = read(fd, in.b + in.len, sizeof in.b - in.len);
        if (n == 0) {
            *err = EPIPE;  // the relay, which holds it open for writing, ended
            return NssResult::unavailable;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            *err = errno;
            return NssResult::unavailable;
        }
        in.len += size_t(n);
        size_t used = nss_take(std::span<const uint8_t>(in.b, in.len), std::span<NssAsk>(asks, 2));
        in.len -= used;
        memmove(in.b, in.b + used, in.len);
    }
}

}  // namespace

NssResult nss_ask(const char* host, uint32_t* addr, int* err)
{
    uint8_t names[2][NAMELEN];
    for (int i = 0; i < 2; i++)
        if (nss_nbname(names[i], host, NSS_TYPES[i]) != 0)
            return NssResult::not_found;
    int64_t deadline = now_ms() + wait_ms();
    char spath[64], lpath[64], cpath[64];
    snprintf(spath, sizeof spath, "%s/%s", NS_DIR, NS_SERVER_FIFO);
    snprintf(lpath, sizeof lpath, "%s/%s", NS_DIR, NS_LOCK_FILE);
    snprintf(cpath, sizeof cpath, "%s/%s", NS_DIR, NS_CLIENT_FIFO);

    Fds fds;
    // Non-blocking, so that a FIFO nobody reads fails at once (ENXIO)
    // instead of waiting for a reader; a missing one (ENOENT) means the
    // daemon is not running; EACCES, a user outside its client group.
    fds.sfd = open(spath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fds.sfd < 0 || fstat(fds.sfd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
        *err = fds.sfd < 0 ? errno : ENOTSUP;
        return NssResult::unavailable;
    }
    fds.lockfd = open(lpath, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fds.lockfd < 0) {
        *err = errno;
        return NssResult::unavailable;
    }
    NssResult r = take_lock(fds.lockfd, deadline, err);
    if (r != NssResult::found)
        return r;
    fds.cfd = open(cpath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fds.cfd < 0) {
        *err = errno;
        return NssResult::unavailable;
    }
    // Whatever waits now was left by clients that gave up; a FIFO holds at
    // most 64 KiB, so a few reads empty it. One buffer for it and the
    // answers: the module runs on its callers' stacks.
    InBuf in;
    for (int i = 0; i < 16 && read(fds.cfd, in.b, sizeof in.b) > 0; i++) {
    }

    NssAsk asks[2];
    uint8_t req[2 * REQSIZE];
    for (int i = 0; i < 2; i++) {
        asks[i] = NssAsk{next_xid(), NssState::waiting, 0};
        if (i == 1 && asks[1].xid == asks[0].xid)
            asks[1].xid++;  // each answer must name its own request
        put_request(req + i * REQSIZE, asks[i].xid, names[i]);
    }
    // Both in one write, which the FIFO keeps whole and in order.
    for (;;) {
        ssize_t w = write_held(fds.sfd, req, sizeof req);
        if (w == ssize_t(sizeof req))
            break;
        if (w >= 0 || (errno != EAGAIN && errno != EINTR)) {
            *err = w >= 0 ? EIO : errno;
            return NssResult::unavailable;
        }
        int64_t left = deadline - now_ms();
        pollfd p{fds.sfd, POLLOUT, 0};
        if (left <= 0 || (poll(&p, 1, int(left)) < 0 && errno != EINTR))
            return NssResult::busy;
    }
    return await(fds.cfd, in, asks, deadline, addr, err);
}
