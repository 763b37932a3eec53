#include "src/nbndgio.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <ctime>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/uniinet.h"
#include "shr/vzpoll.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/notifier.h"

namespace {

uint8_t recv_buf[DG_BUFSIZE];  // shared by the name-service socket and the client descriptors

// Datagrams and their addresses as recvmmsg and sendmmsg take them.
constexpr unsigned DG_BATCH = 32;
struct Batch {
    std::array<std::array<uint8_t, DG_BUFSIZE>, DG_BATCH> bufs;
    std::array<struct sockaddr_in, DG_BATCH> names;
    std::array<struct iovec, DG_BATCH> iovs;
    std::array<struct mmsghdr, DG_BATCH> msgs;
    unsigned count = 0;
    unsigned next = 0;  // received: the next to hand out
    int fd = -1;        // to send: the socket they leave by
};
// The datagrams waiting on the name-service socket at a wake-up, read in one
// recvmmsg and handed out one per call, each as if it had been received alone.
Batch in_batch;
// Answers to them, held until dg_flush sends them in one sendmmsg. A bounded
// queue: when it is full, it is flushed first.
Batch out_batch;
bool holding = false;  // a batch is being handed out

// The received datagram's trace: sizes and sender at in level 1, the bytes at 6.
void trace_received(const char* who, int len, const struct sockaddr_in& sin, const UniAddr* from,
                    const uint8_t* data)
{
    if (tcfile == nullptr || tc_in < 1)
        return;
    TRACE(in, 1, "\n%s: receive size %d, family %d\n", who, len, int(sin.sin_family));
    TRACE(in, 1, "          addr %s\n", uni_ntoa(from));
    if (tc_in >= 6)
        dg_dump(tcfile, data, len);
    fflush(tcfile);
}

// recvfrom into buf; the sender as a universal address (port in host order).
ssize_t receive(int fd, uint8_t* buf, struct sockaddr_in* sin, UniAddr* from)
{
    *sin = {};
    socklen_t slen = sizeof *sin;
    ssize_t n = recvfrom(fd, buf, DG_BUFSIZE, 0, reinterpret_cast<struct sockaddr*>(sin), &slen);
    if (n >= 0)
        iantoua(from, sin->sin_addr.s_addr, ntohs(sin->sin_port));
    return n;
}

// Points entry i's header at its buffer (len bytes) and its address.
void point(Batch& b, unsigned i, size_t len)
{
    struct msghdr& h = b.msgs[i].msg_hdr;
    h = {};
    h.msg_name = &b.names[i];
    h.msg_namelen = sizeof b.names[i];
    b.iovs[i] = {b.bufs[i].data(), len};
    h.msg_iov = &b.iovs[i];
    h.msg_iovlen = 1;
}

// Hands out the next datagram of the batch, with the traces of a receive.
int hand_out(UniAddr* from, uint8_t** data)
{
    unsigned i = in_batch.next++;
    int n = int(in_batch.msgs[i].msg_len);
    const struct sockaddr_in& sin = in_batch.names[i];
    iantoua(from, sin.sin_addr.s_addr, ntohs(sin.sin_port));
    *data = in_batch.bufs[i].data();
    holding = true;
    TRACE(in, 2, "get_dg: get %d bytes from name descriptor\n", n);
    trace_received("get_dg", n, sin, from, *data);
    return n;
}

// Every datagram waiting on fd, at least one (the wait said it is there).
// With the in trace on, one at a time, so that each has its wait traced.
int receive_batch(int fd)
{
    unsigned want = tcfile != nullptr && tc_in >= 1 ? 1 : DG_BATCH;
    // Every slot is pointed at its buffer once; after that only the slots the
    // last receive filled (whose address lengths it rewrote) are pointed
    // again, so that a wake-up for one datagram costs one slot's work.
    unsigned used = in_batch.msgs[0].msg_hdr.msg_iov == nullptr ? DG_BATCH : in_batch.count;
    for (unsigned i = 0; i < used; i++)
        point(in_batch, i, DG_BUFSIZE);
    int n = recvmmsg(fd, in_batch.msgs.data(), want, MSG_WAITFORONE, nullptr);
    in_batch.count = n > 0 ? unsigned(n) : 0;
    in_batch.next = 0;
    return n;
}

}  // namespace

int put_ddg_held(int fd, const uint8_t* data, int len, const UniAddr* to)
{
    // Sent at once when no batch is handed out, when the out trace is to
    // show each send as it happens, and when it would not fit a slot.
    uint32_t addr = 0;
    int32_t port = 0;
    if (!holding || (tcfile != nullptr && tc_out >= 1) || len < 0 || len > DG_BUFSIZE ||
        uatoian(&addr, &port, to) < 0) {
        dg_flush();  // what was held for the batch leaves first
        return put_ddg(fd, data, len, to);
    }
    if (out_batch.count == DG_BATCH || (out_batch.count > 0 && fd != out_batch.fd))
        dg_flush();
    unsigned i = out_batch.count++;
    out_batch.fd = fd;
    memcpy(out_batch.bufs[i].data(), data, size_t(len));
    out_batch.names[i] = {};
    out_batch.names[i].sin_family = AF_INET;
    out_batch.names[i].sin_port = htons(uint16_t(port < 0 ? 0 : port));
    out_batch.names[i].sin_addr.s_addr = addr;
    point(out_batch, i, size_t(len));
    return len;
}

void dg_flush()
{
    unsigned at = 0;
    int tries = 0;
    while (at < out_batch.count) {
        int n = sendmmsg(out_batch.fd, &out_batch.msgs[at], out_batch.count - at, 0);
        if (n > 0) {
            at += unsigned(n);
            tries = 0;
        } else if (errno != EINTR || ++tries == 3) {
            // That one is lost, as a failed sendto's is; the others still go, in order.
            TRACE(out, 1, "\nput_ddg:  error in sendto: errno %d\n", errno);
            at++;
            tries = 0;
        }
    }
    out_batch.count = 0;
}

int get_dg(int fd, UniAddr* from, uint8_t** data)
{
    if (in_batch.next < in_batch.count)
        return hand_out(from, data);
    dg_flush();  // before the wait: the answers go out now, not at the next datagram
    holding = false;

    // The relay's pipe is polled for its hang-up alone (no events: requests
    // still come with the interrupt signal), so that a relay that ended is
    // replaced at once.
    int ntf = ntf_watch_fd();
    if (fd < 0 && ntf < 0) {
        // No name-service socket: only a signal can bring work.
        if (const sigset_t* mask = dg_wait_mask())
            sigsuspend(mask);
        else
            pause();
        TRACE(proc, 1, "get_dg: pause returned\n");
        return -2;
    }
    *data = recv_buf;

    std::span<const CustFd> cust = dg_custfds();
    std::array<struct pollfd, DG_MAX_CUSTFDS + 2> fds{};
    size_t nfds = 0;
    for (const CustFd& c : cust)
        fds[nfds++] = {c.fd, POLLIN, 0};
    size_t ntf_at = nfds;
    fds[nfds++] = {ntf, 0, 0};  // a negative descriptor is left out by poll
    fds[nfds++] = {fd, POLLIN, 0};  // last: client descriptors are served first

    int r = vz_poll(fds.data(), int(nfds), dg_wait_mask());
    TRACE(in, 2, "vz_poll returns %d\n", r);
    if (r < 0) {
        TRACE(in, 1, "get_dg: vz_poll returned %d\n", r);
        return r == -2 ? -2 : -1;
    }

    // One client descriptor per call, and then not the name-service socket:
    // the loop runs its timers and signals between any two datagrams. An
    // error or hang-up counts as input, so that it is read and traced rather
    // than left to wake every poll; a descriptor that is not open does not,
    // since reading it would only fail again and spin the loop.
    for (size_t i = 0; i < cust.size(); i++) {
        if ((fds[i].revents & ~POLLNVAL) != 0) {
            TRACE(in, 2, "get_dg: calling customer fd index %d\n", int(i));
            read_custfd(int(i), recv_buf);
            return -2;
        }
    }

    if ((fds[ntf_at].revents & (POLLHUP | POLLERR)) != 0) {
        ntf_lost();
        return -2;
    }
    if (fd < 0)
        return -2;

    int got = receive_batch(fd);
    if (got == 0)
        return -2;
    if (got < 0) {
        if (errno == EINTR) {
            TRACE(proc, 1, "get_dg: interrupted system call\n");
            return -2;
        }
        TRACE(proc, 1, "get_dg: error in receive: errno %d\n", errno);
        return -1;
    }
    return hand_out(from, data);
}

int read_custfd(int index, uint8_t* buffer)
{
    std::span<const CustFd> cust = dg_custfds();
    if (index < 0 || size_t(index) >= cust.size())
        return -1;
    const CustFd& c = cust[size_t(index)];

    struct sockaddr_in sin;
    UniAddr from{};
    ssize_t n = receive(c.fd, buffer, &sin, &from);
    if (n < 0) {
        if (errno == EINTR)
            TRACE(proc, 1, "read_custfd: interrupted system call\n");
        else
            TRACE(proc, 1, "read_custfd: error in receive: errno %d\n", errno);
        // Datagrams were lost (a route-message socket overrun): an empty one
        // tells the reader, which can then catch up.
        if (errno == ENOBUFS)
            c.handler(c.fd, buffer, 0, &from);
        return -1;
    }
    trace_received("read_custfd", int(n), sin, &from, buffer);
    c.handler(c.fd, buffer, int(n), &from);
    return int(n);
}
