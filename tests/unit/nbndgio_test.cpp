#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
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

const uint8_t* u8(const char* text) { return reinterpret_cast<const uint8_t*>(text); }

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 10000) == 1;  // a deadline, not a measure
}

// The next datagram on fd, or "(none)" when nothing is waiting.
std::string take(int fd)
{
    char buf[64];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n < 0 ? "(none)" : std::string(buf, size_t(n));
}

// Stops tracing into f and returns what was traced.
std::string trace_of(FILE* f)
{
    tcfile = nullptr;
    std::string text(4096, '\0');
    rewind(f);
    text.resize(fread(text.data(), 1, text.size(), f));
    fclose(f);
    return text;
}

std::vector<std::string> cust_seen;  // "fd data from"
int record_cust(int fd, const uint8_t* data, int len, const UniAddr* from)
{
    cust_seen.push_back(std::to_string(fd) + " " + std::string(reinterpret_cast<const char*>(data), size_t(len)) +
                        " " + uni_ntoa(from));
    return 0;
}

TEST(Datagrams, AUnicastArrivesWithItsSenderAndAtMost1500Bytes)
{
    IN_CHILD(true, {
        uint16_t sport, rport;
        int s = bound("127.0.0.1", &sport);
        int r = bound("127.0.0.5", &rport);
        ASSERT_GE(r, 0);
        UniAddr dest = to("127.0.0.5", rport), sender = to("127.0.0.1", sport);
        for (int sent : {11, 1500, 1600, 0}) {
            SCOPED_TRACE(sent);
            std::vector<uint8_t> msg(static_cast<size_t>(sent));
            for (size_t i = 0; i < msg.size(); i++)
                msg[i] = uint8_t(i * 7);
            ASSERT_EQ(put_ddg(s, msg.data(), sent, &dest), sent);
            UniAddr from{};
            uint8_t* data = nullptr;
            int got = std::min(sent, DG_BUFSIZE);
            ASSERT_EQ(get_dg(r, &from, &data), got);
            EXPECT_TRUE(std::equal(data, data + got, msg.begin()));
            EXPECT_EQ(memcmp(&from, &sender, sizeof from), 0) << "address and port of the sender";
        }
        UniAddr odd{};
        odd.family = 'N';
        odd.len = 16;
        EXPECT_EQ(put_ddg(s, nullptr, 0, &odd), -1) << "only internet addresses";
    });
}

TEST(Datagrams, EachBroadcastGoesToItsOwnInterfacesAddress)
{
    IN_CHILD(true, {
        uint16_t sport, port = 0;
        int s = bound("127.0.0.1", &sport);
        int r0 = init_sock(ip("127.0.0.2"), &port, 0);  // both receivers at one port
        int r1 = init_sock(ip("127.0.0.3"), &port, 0);
        ASSERT_GE(r1, 0);
        if_entry ifs[2] = {{ip("127.0.0.1"), ip("127.0.0.2"), ip("255.0.0.0")},
                           {ip("127.0.0.1"), ip("127.0.0.3"), ip("255.0.0.0")}};
        my_addr = ifs;
        my_addr_ct = 2;
        EXPECT_EQ(put_bdg(s, u8("on zero"), 7, 0, port), 7);
        EXPECT_EQ(put_bdg(s, u8("on one"), 6, 1, port), 6);
        EXPECT_EQ(put_bdg(s, u8("x"), 1, 2, port), -1) << "no entry 2";
        EXPECT_EQ(put_bdg(s, u8("x"), 1, -1, port), -1);
        ASSERT_TRUE(readable(r0) && readable(r1));
        EXPECT_EQ(take(r0), "on zero");
        EXPECT_EQ(take(r1), "on one");
        EXPECT_EQ(take(r0), "(none)");

        // The name-service wrapper: every interface, at nmport, on dg_fd.
        dg_fd = s;
        nmport = port;
        EXPECT_EQ(dg_allbcast(u8("to all"), 6), 0);
        ASSERT_TRUE(readable(r0) && readable(r1));
        EXPECT_EQ(take(r0) + take(r1), "to allto all");
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
            ASSERT_GE(put_ddg(s, u8(d.text), int(strlen(d.text)), &dest), 0);
            ASSERT_TRUE(readable(d.fd));
        }
        UniAddr from{}, sender = to("127.0.0.1", sport);
        uint8_t* data = nullptr;
        EXPECT_EQ(get_dg(name, &from, &data), -2);
        EXPECT_EQ(get_dg(name, &from, &data), -2);
        EXPECT_EQ(cust_seen, (std::vector<std::string>{  // table order, not arrival order
                                 std::to_string(ens1) + " first " + uni_ntoa(&sender),
                                 std::to_string(ens2) + " second " + uni_ntoa(&sender)}));
        ASSERT_EQ(get_dg(name, &from, &data), 4);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 4), "name");

        // Once a fault: a client descriptor no longer open was served again
        // and again, hiding the name socket and spinning the loop.
        close(ens1);
        UniAddr dest = to("127.0.0.4", nport);
        ASSERT_EQ(put_ddg(s, u8("again"), 5, &dest), 5);
        ASSERT_TRUE(readable(name));
        EXPECT_EQ(get_dg(name, &from, &data), 5);
        EXPECT_EQ(cust_seen.size(), 2u);
    });
}

TEST(Datagrams, TraceLinesAtTheirLevels)
{
    IN_CHILD(true, {
        uint16_t sport, rport;
        int s = bound("127.0.0.1", &sport);
        int r = bound("127.0.0.2", &rport);
        ASSERT_GE(r, 0);
        UniAddr dest = to("127.0.0.2", rport);
        std::string a = std::string("put_ddg sending packet to address ") + uni_ntoa(&dest) + "\n";
        const struct { int level; int fd; int result; std::string want; } cases[] = {
            {1, s, 3, a},
            {2, s, 3, a + "\nput_ddg: sent 3 bytes\n"},
            {1, -1, -1, a + "\nput_ddg:  error in sendto: errno " + std::to_string(EBADF) + "\n"},
            {0, -1, -1, ""},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.want);
            tcfile = tmpfile();
            FILE* trace = tcfile;
            tc_out = c.level;
            EXPECT_EQ(put_ddg(c.fd, u8("abc"), 3, &dest), c.result);
            EXPECT_EQ(trace_of(trace), c.want);
        }
        while (take(r) != "(none)") {}

        // A broadcast and its receipt, with every line of the sender's and
        // the receiver's trace; the send time ends one line and is cut out.
        if_entry ifs[1] = {{ip("127.0.0.1"), ip("127.0.0.2"), ip("255.0.0.0")}};
        my_addr = ifs;
        my_addr_ct = 1;
        FILE* trace = tmpfile();
        tcfile = trace;
        tc_out = 3;
        tc_in = 2;
        ASSERT_EQ(put_bdg(s, u8("abc"), 3, 0, rport), 3);
        ASSERT_TRUE(readable(r));
        UniAddr from{};
        uint8_t* data = nullptr;
        ASSERT_EQ(get_dg(r, &from, &data), 3);
        std::string text = trace_of(trace);
        std::string sent_at = "put_bdg sending broadcast packet ";
        size_t at = text.find(sent_at);
        ASSERT_NE(at, std::string::npos) << text;
        text.erase(at + sent_at.size(), text.find('\n', at) - at - sent_at.size());
        EXPECT_EQ(text, "put_bgd: fd " + std::to_string(s) + " size 3\nput_bdg: using broadcast address --\n" +
                            "          addr 127.0.0.2, port " + std::to_string(rport) + ", family 2\n\n" +
                            sent_at + "\n\nput_bdg: sent 3 bytes\nvz_poll returns 1\n" +
                            "get_dg: get 3 bytes from name descriptor\n\nget_dg: receive size 3, family 2\n" +
                            "          addr " + uni_ntoa(&from) + "\n");
    });
}

}  // namespace
