#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "tests/support/privnet.h"

// Sockets are made and bound inside a private network namespace only.
namespace {

int opt(int s, int option)
{
    int32_t v = -1;
    socklen_t len = sizeof v;
    return getsockopt(s, SOL_SOCKET, option, &v, &len) == 0 ? v : -1;
}

std::string trace_of(FILE* f)
{
    tcfile = nullptr;
    std::string text(1024, '\0');
    rewind(f);
    text.resize(fread(text.data(), 1, text.size(), f));
    return text;
}

TEST(InitSock, ADatagramSocketMayBroadcastAndABusyPortLeavesNothingOpen)
{
    IN_CHILD(true, {
        s_sendbuf = 4096;  // stream settings must not leak onto datagram sockets
        s_recvbuf = 4096;
        int plain = socket(AF_INET, SOCK_DGRAM, 0);
        uint16_t port = 0;
        int s = init_sock(0, &port, 0);
        ASSERT_GE(s, 0);
        EXPECT_NE(port, 0) << "the system's choice is written back";
        EXPECT_EQ(opt(s, SO_BROADCAST), 1);
        EXPECT_EQ(opt(s, SO_REUSEADDR), 0);
        EXPECT_EQ(opt(s, SO_SNDBUF), opt(plain, SO_SNDBUF));
        EXPECT_EQ(opt(s, SO_RCVBUF), opt(plain, SO_RCVBUF));

        tcfile = tmpfile();
        FILE* trace = tcfile;
        tc_proc = 1;
        int next_fd = dup(2);  // the lowest free descriptor
        close(next_fd);
        uint16_t again = port;
        EXPECT_EQ(init_sock(0, &again, 0), -1);
        EXPECT_EQ(again, port);
        EXPECT_EQ(trace_of(trace), "init_sock: bind call: errno " + std::to_string(EADDRINUSE) + "\n");
        EXPECT_EQ(dup(2), next_fd) << "the failed socket was closed";
    });
}

// The stream receive-buffer default belongs to the namespace: set it here.
bool set_tcp_rmem(const char* values)
{
    FILE* f = fopen("/proc/sys/net/ipv4/tcp_rmem", "w");
    return f != nullptr && (fputs(values, f) >= 0) & (fclose(f) == 0);
}

TEST(InitSock, AStreamSocketListensAndOnlyALargeReceiveBufferIsCut)
{
    IN_CHILD(true, {
        if (!set_tcp_rmem("4096 8192 8192\n"))
            child_skip("cannot set the namespace's tcp_rmem");
        uint16_t port = 0;
        int small = init_sock(htonl(INADDR_LOOPBACK), &port, 1);
        ASSERT_GE(small, 0);
        EXPECT_EQ(opt(small, SO_ACCEPTCONN), 1);
        EXPECT_EQ(opt(small, SO_REUSEADDR), 1);
        EXPECT_EQ(opt(small, SO_KEEPALIVE), 1);
        EXPECT_EQ(opt(small, SO_RCVBUF), 8192);
        EXPECT_EQ(s_recvbuf, -1);

        // The cut size stays for every later stream socket. The system
        // reports sizes as it stores them: compare with a plain socket.
        ASSERT_TRUE(set_tcp_rmem("4096 65536 65536\n"));
        tcfile = tmpfile();
        FILE* trace = tcfile;
        tc_proc = 5;
        s_sendbuf = 8192;
        port = 0;
        int large = init_sock(htonl(INADDR_LOOPBACK), &port, 1);
        ASSERT_GE(large, 0);
        EXPECT_EQ(s_recvbuf, 16384);
        EXPECT_EQ(trace_of(trace), "init_sock: resetting RCVBUF from 65536 to 16384\n"
                                   "init_sock: socket creation succeeds, sock = " + std::to_string(large) + "\n");
        int plain = socket(AF_INET, SOCK_STREAM, 0);
        int32_t snd = 8192, rcv = 16384;
        ASSERT_EQ(setsockopt(plain, SOL_SOCKET, SO_SNDBUF, &snd, sizeof snd), 0);
        ASSERT_EQ(setsockopt(plain, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv), 0);
        EXPECT_EQ(opt(large, SO_SNDBUF), opt(plain, SO_SNDBUF));
        EXPECT_EQ(opt(large, SO_RCVBUF), opt(plain, SO_RCVBUF));
    });
}

}  // namespace
