#include "misc/initsock.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "nmtrace.h"
#include "shr/fxdump.h"
#include "shr/uniinet.h"

// Not configuration settings: the daemon makes only datagram sockets, and a
// program that wants other stream buffer sizes sets these before init_sock.
int s_sendbuf = -1;
int s_recvbuf = -1;

namespace {

constexpr int RECVBUF_MAX = 16384;  // larger receive buffers are cut to this

struct sockaddr_in myaddr;  // the last socket's address, reused by every call

void dump_out(const uint8_t* data, int len)
{
    if (tcfile != nullptr && tc_out >= 6) {
        dg_dump(tcfile, data, len);
        fflush(tcfile);
    }
}

// Each option from a 4-byte integer; a failure is only traced.
void set_opt(int s, int option, int32_t value, const char* what)
{
    if (setsockopt(s, SOL_SOCKET, option, &value, sizeof value) < 0)
        TRACE(proc, 1, "init_sock: %s: errno %d\n", what, errno);
}

void stream_options(int s)
{
    set_opt(s, SO_REUSEADDR, 1, "setsockopt 1");
    set_opt(s, SO_KEEPALIVE, 1, "setsockopt 2");
    if (s_sendbuf > 0)
        set_opt(s, SO_SNDBUF, s_sendbuf, "setsockopt 3");
    if (s_recvbuf <= 0) {
        int32_t current = 0;
        socklen_t len = sizeof current;
        if (getsockopt(s, SOL_SOCKET, SO_RCVBUF, &current, &len) == 0 && current > RECVBUF_MAX) {
            TRACE(proc, 5, "init_sock: resetting RCVBUF from %d to %d\n", int(current), RECVBUF_MAX);
            s_recvbuf = RECVBUF_MAX;
        }
    }
    if (s_recvbuf > 0)
        set_opt(s, SO_RCVBUF, s_recvbuf, "setsockopt 4");
}

}  // namespace

int init_sock(uint32_t addr, uint16_t* port, int stream)
{
    myaddr = {};
    myaddr.sin_family = AF_INET;
    myaddr.sin_port = htons(*port);
    myaddr.sin_addr.s_addr = addr;

    int s = socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (s < 0) {
        TRACE(proc, 1, "init_sock: socket call: errno %d\n", errno);
        return -1;
    }
    if (stream)
        stream_options(s);
    else
        set_opt(s, SO_BROADCAST, 1, "setsockopt call");

    if (bind(s, reinterpret_cast<struct sockaddr*>(&myaddr), sizeof myaddr) < 0) {
        TRACE(proc, 1, "init_sock: bind call: errno %d\n", errno);
        close(s);
        return -1;
    }
    if (*port == 0) {
        socklen_t len = sizeof myaddr;
        if (getsockname(s, reinterpret_cast<struct sockaddr*>(&myaddr), &len) == 0)
            *port = ntohs(myaddr.sin_port);
    }
    if (stream && listen(s, 1) < 0) {
        TRACE(proc, 1, "init_sock: listen: errno %d\n", errno);
        close(s);
        return -1;
    }
    TRACE(proc, 3, "init_sock: socket creation succeeds, sock = %d\n", s);
    return s;
}

int temp_socket()
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0)
        TRACE(proc, 1, "temp_socket: socket call: errno %d\n", errno);
    return s;
}

int temp_s_close(int s)
{
    return close(s);
}

int init_shared_sock(uint32_t addr, uint16_t port)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        TRACE(proc, 1, "init_shared_sock: socket call: errno %d\n", errno);
        return -1;
    }
    set_opt(s, SO_BROADCAST, 1, "setsockopt call");
    set_opt(s, SO_REUSEADDR, 1, "setsockopt reuse");
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = addr;
    if (bind(s, reinterpret_cast<sockaddr*>(&sin), sizeof sin) < 0) {
        int e = errno;
        TRACE(proc, 1, "init_shared_sock: bind call: errno %d\n", e);
        close(s);
        errno = e;
        return -1;
    }
    return s;
}

int put_ddg(int fd, const uint8_t* data, int len, const UniAddr* to)
{
    TRACE(out, 1, "put_ddg sending packet to address %s\n", uni_ntoa(to));
    dump_out(data, len);

    uint32_t addr = 0;
    int32_t port = 0;
    if (uatoian(&addr, &port, to) < 0) {
        // Only internet addresses can be sent to; nothing goes out.
        TRACE(out, 1, "put_ddg: not an internet address: %s\n", uni_ntoa(to));
        return -1;
    }
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(uint16_t(port < 0 ? 0 : port));
    sin.sin_addr.s_addr = addr;

    ssize_t n = sendto(fd, data, size_t(len < 0 ? 0 : len), 0, reinterpret_cast<struct sockaddr*>(&sin),
                       sizeof sin);
    if (n < 0)
        TRACE(out, 1, "\nput_ddg:  error in sendto: errno %d\n", errno);
    else
        TRACE(out, 2, "\nput_ddg: sent %d bytes\n", int(n));
    return int(n);
}
