#include "src/nbndgio.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/uniinet.h"
#include "shr/vzpoll.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/notifier.h"

namespace {

uint8_t recv_buf[DG_BUFSIZE];  // shared by the name-service socket and the client descriptors

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

}  // namespace

int get_dg(int fd, UniAddr* from, uint8_t** data)
{
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

    struct sockaddr_in sin;
    ssize_t n = receive(fd, recv_buf, &sin, from);
    if (n < 0) {
        if (errno == EINTR) {
            TRACE(proc, 1, "get_dg: interrupted system call\n");
            return -2;
        }
        TRACE(proc, 1, "get_dg: error in receive: errno %d\n", errno);
        return -1;
    }
    TRACE(in, 2, "get_dg: get %d bytes from name descriptor\n", int(n));
    trace_received("get_dg", int(n), sin, from, recv_buf);
    return int(n);
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
