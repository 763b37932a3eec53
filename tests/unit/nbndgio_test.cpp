#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "misc/initsock.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/maininit.h"
#include "src/namelogin.h"
#include "src/nbndgio.h"
#include "tests/support/privnet.h"

// Every test sends, so every test runs in a child inside its own network
// namespace, on loopback; 127/8 gives each socket an address of its own.
namespace {

uint32_t ip(const char* text) { return inet_addr(text); }

int bound(const char* addr, uint16_t* port)
{
    *port = 0;
    return init_sock(ip(addr), port, 0);
}

UniAddr to(const char* addr, uint16_t port)
{
    UniAddr ua{};
    iantoua(&ua, ip(addr), port);
    return ua;
}

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 10000) == 1;  // a deadline, not a measure
}

// The next datagram on fd, or "(none)" when nothing is waiting.
std::string take(int fd)
{
    char buf[2000];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n < 0 ? "(none)" : std::string(buf, size_t(n));
}

std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }

struct CustSeen {
    int fd;
    std::string data;
    std::string from;
};
std::vector<CustSeen> cust_seen;
int record_cust(int fd, const uint8_t* data, int len, const UniAddr* from)
{
    cust_seen.push_back({fd, std::string(reinterpret_cast<const char*>(data), size_t(len)), uni_ntoa(from)});
    return 0;
}

TEST(Datagrams, AUnicastArrivesWithItsSenderAndAtMost1500Bytes)
{
    IN_CHILD(true, {
        uint16_t sport, rport;
        int s = bound("127.0.0.1", &sport);
        int r = bound("127.0.0.5", &rport);
        ASSERT_GE(s, 0);
        ASSERT_GE(r, 0);
        UniAddr dest = to("127.0.0.5", rport);
        UniAddr sender = to("127.0.0.1", sport);
        const struct { int sent, got; } cases[] = {{11, 11}, {1500, 1500}, {1600, 1500}, {0, 0}};
        for (const auto& c : cases) {
            SCOPED_TRACE(c.sent);
            std::vector<uint8_t> msg(size_t(c.sent));
            for (size_t i = 0; i < msg.size(); i++)
                msg[i] = uint8_t(i * 7);
            ASSERT_EQ(put_ddg(s, msg.data(), c.sent, &dest), c.sent);
            UniAddr from{};
            uint8_t* data = nullptr;
            ASSERT_EQ(get_dg(r, &from, &data), c.got);
            EXPECT_TRUE(std::equal(data, data + c.got, msg.begin()));
            EXPECT_EQ(memcmp(&from, &sender, sizeof from), 0) << "address and port of the sender";
        }

        UniAddr odd{};
        odd.family = 'N';
        odd.len = 16;
        EXPECT_EQ(put_ddg(s, nullptr, 0, &odd), -1) << "only internet addresses";
        EXPECT_EQ(put_ddg(-1, nullptr, 0, &dest), -1) << "a failed sendto";
    });
}

TEST(Datagrams, EachBroadcastGoesToItsOwnInterfacesAddress)
{
    IN_CHILD(true, {
        uint16_t sport, port = 0;
        int s = bound("127.0.0.1", &sport);
        int r0 = init_sock(ip("127.0.0.2"), &port, 0);  // both receivers at one port
        int r1 = init_sock(ip("127.0.0.3"), &port, 0);
        ASSERT_GE(r0, 0);
        ASSERT_GE(r1, 0);
        if_entry ifs[2] = {{ip("127.0.0.1"), ip("127.0.0.2"), ip("255.0.0.0")},
                           {ip("127.0.0.1"), ip("127.0.0.3"), ip("255.0.0.0")}};
        my_addr = ifs;
        my_addr_ct = 2;

        auto a = bytes("on zero"), b = bytes("on one");
        EXPECT_EQ(put_bdg(s, a.data(), int(a.size()), 0, port), int(a.size()));
        EXPECT_EQ(put_bdg(s, b.data(), int(b.size()), 1, port), int(b.size()));
        EXPECT_EQ(put_bdg(s, b.data(), int(b.size()), 2, port), -1) << "no entry 2";
        EXPECT_EQ(put_bdg(s, b.data(), int(b.size()), -1, port), -1);
        ASSERT_TRUE(readable(r0));
        ASSERT_TRUE(readable(r1));
        EXPECT_EQ(take(r0), "on zero");
        EXPECT_EQ(take(r1), "on one");
        EXPECT_EQ(take(r0), "(none)");

        // The name-service wrappers: every interface, at nmport, on dg_fd.
        dg_fd = s;
        nmport = port;
        auto c = bytes("to all");
        EXPECT_EQ(dg_allbcast(c.data(), int(c.size())), 0);
        ASSERT_TRUE(readable(r0));
        ASSERT_TRUE(readable(r1));
        EXPECT_EQ(take(r0), "to all");
        EXPECT_EQ(take(r1), "to all");
    });
}

TEST(Datagrams, ClientDescriptorsAreServedOnePerCallBeforeTheNameSocket)
{
    IN_CHILD(true, {
        uint16_t sport, nport, e1port, e2port;
        int s = bound("127.0.0.1", &sport);
        int name = bound("127.0.0.4", &nport);
        int ens1 = bound("127.0.0.5", &e1port);
        int ens2 = bound("127.0.0.6", &e2port);
        ASSERT_EQ(dg_custfd(ens1, record_cust), 0);
        ASSERT_EQ(dg_custfd(ens2, record_cust), 0);
        const struct { const char* addr; uint16_t port; int fd; const char* text; } sends[] = {
            {"127.0.0.4", nport, name, "name"},
            {"127.0.0.6", e2port, ens2, "second"},
            {"127.0.0.5", e1port, ens1, "first"},
        };
        for (const auto& d : sends) {
            UniAddr dest = to(d.addr, d.port);
            ASSERT_EQ(put_ddg(s, reinterpret_cast<const uint8_t*>(d.text), int(strlen(d.text)), &dest),
                      int(strlen(d.text)));
            ASSERT_TRUE(readable(d.fd));
        }

        UniAddr from{};
        uint8_t* data = nullptr;
        EXPECT_EQ(get_dg(name, &from, &data), -2);
        ASSERT_EQ(cust_seen.size(), 1u);
        EXPECT_EQ(cust_seen[0].fd, ens1) << "table order, not arrival order";
        EXPECT_EQ(cust_seen[0].data, "first");
        UniAddr sender = to("127.0.0.1", sport);
        EXPECT_EQ(cust_seen[0].from, uni_ntoa(&sender));
        EXPECT_EQ(get_dg(name, &from, &data), -2);
        ASSERT_EQ(cust_seen.size(), 2u);
        EXPECT_EQ(cust_seen[1].data, "second");
        ASSERT_EQ(get_dg(name, &from, &data), 4);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 4), "name");

        // A client descriptor that is no longer open does not hide the name socket.
        close(ens1);
        UniAddr dest = to("127.0.0.4", nport);
        ASSERT_EQ(put_ddg(s, reinterpret_cast<const uint8_t*>("again"), 5, &dest), 5);
        ASSERT_TRUE(readable(name));
        EXPECT_EQ(get_dg(name, &from, &data), 5);
        EXPECT_EQ(cust_seen.size(), 2u);
    });
}

TEST(Datagrams, UnicastTraceLines)
{
    IN_CHILD(true, {
        uint16_t sport, rport;
        int s = bound("127.0.0.1", &sport);
        int r = bound("127.0.0.2", &rport);
        ASSERT_GE(r, 0);
        UniAddr dest = to("127.0.0.2", rport);
        std::string a = std::string("put_ddg sending packet to address ") + uni_ntoa(&dest) + "\n";
        const struct { int level; int fd; std::string want; } cases[] = {
            {1, s, a},
            {2, s, a + "\nput_ddg: sent 3 bytes\n"},
            {1, -1, a + "\nput_ddg:  error in sendto: errno " + std::to_string(EBADF) + "\n"},
            {0, -1, ""},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.want);
            FILE* trace = tmpfile();
            ASSERT_NE(trace, nullptr);
            tcfile = trace;
            tc_out = c.level;
            put_ddg(c.fd, reinterpret_cast<const uint8_t*>("abc"), 3, &dest);
            tcfile = nullptr;
            std::string text(1024, '\0');
            rewind(trace);
            text.resize(fread(text.data(), 1, text.size(), trace));
            EXPECT_EQ(text, c.want);
            fclose(trace);
        }
    });
}

TEST(Datagrams, TraceLinesAtTheirLevels)
{
    IN_CHILD(true, {
        uint16_t sport, rport;
        int s = bound("127.0.0.1", &sport);
        int r = bound("127.0.0.2", &rport);
        if_entry ifs[1] = {{ip("127.0.0.1"), ip("127.0.0.2"), ip("255.0.0.0")}};
        my_addr = ifs;
        my_addr_ct = 1;
        FILE* trace = tmpfile();
        ASSERT_NE(trace, nullptr);
        tcfile = trace;
        tc_out = 3;
        tc_in = 2;
        auto msg = bytes("abc");
        ASSERT_EQ(put_bdg(s, msg.data(), 3, 0, rport), 3);
        ASSERT_TRUE(readable(r));
        UniAddr from{};
        uint8_t* data = nullptr;
        ASSERT_EQ(get_dg(r, &from, &data), 3);
        tcfile = nullptr;

        std::string text(4096, '\0');
        rewind(trace);
        text.resize(fread(text.data(), 1, text.size(), trace));
        std::string sent_at = "put_bdg sending broadcast packet ";
        size_t at = text.find(sent_at);
        ASSERT_NE(at, std::string::npos) << text;
        size_t eol = text.find('\n', at);  // the ctime text ends the line
        text.erase(at + sent_at.size(), eol - at - sent_at.size());
        char fd_line[64], addr_line[96], recv_line[64];
        snprintf(fd_line, sizeof fd_line, "put_bgd: fd %d size 3\n", s);
        snprintf(addr_line, sizeof addr_line, "          addr 127.0.0.2, port %d, family 2\n\n", int(rport));
        snprintf(recv_line, sizeof recv_line, "vz_poll returns 1\nget_dg: get 3 bytes from name descriptor\n");
        EXPECT_EQ(text, std::string(fd_line) + "put_bdg: using broadcast address --\n" + addr_line + sent_at +
                            "\n" + "\nput_bdg: sent 3 bytes\n" + recv_line + "\nget_dg: receive size 3, family 2\n" +
                            "          addr " + uni_ntoa(&from) + "\n");
    });
}

}  // namespace
