#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "misc/pktasm.h"
#include "misc/pktdis.h"
#include "nmtrace.h"
#include "shr/uniinet.h"
#include "src/namecust.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

// Built datagrams go out through ens_fd, so those tests run in a child in a
// private network namespace: ens_fd on 127.0.0.1, the agent on 127.0.0.2.
namespace {

using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

struct Agent {
    int fd = -1;
    UniAddr to{};
    Agent()
    {
        uint16_t port = 0;
        ens_fd = ns_socket("127.0.0.1", &port);
        port = 0;
        fd = ns_socket("127.0.0.2", &port);
        EXPECT_GE(ens_fd, 0);
        EXPECT_GE(fd, 0);
        iantoua(&to, inet_addr("127.0.0.2"), port);
    }
    // The one datagram waiting, or nothing after a bounded wait.
    Bytes received()
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            return {};
        Bytes b(4096);
        ssize_t n = recv(fd, b.data(), b.size(), 0);
        b.resize(n > 0 ? size_t(n) : 0);
        return b;
    }
};

TEST(PktAsm, RequestsAndResponsesOnTheWireByteForByte)
{
    IN_CHILD(true, {
        Agent a;
        Bytes name = ns_name("SERVER");

        pkta_begin();
        EXPECT_EQ(pkta_request(&a.to, 0x04030201, ENS_QUERY), 20);
        EXPECT_EQ(a.received(), header(0x04030201, 1)) << "the version goes as 01 00 01 00";

        // ADD of one name for one address: 20 + 20 + 4 + 4 + 6 + 4.
        pkta_begin();
        EXPECT_EQ(pkta_name(name.data()), 0);
        EXPECT_EQ(pkta_int(1), 4);
        EXPECT_EQ(pkta_int(1), 4);
        EXPECT_EQ(pkta_ip(inet_addr("10.88.0.5")), 6);
        EXPECT_EQ(pkta_int(0), 4);
        EXPECT_EQ(pkta_length(), 58);
        EXPECT_EQ(pkta_request(&a.to, 7, ENS_ADD), 58);
        Bytes add = cat({header(7, 3), name_item(name), int_item(1), int_item(1), ip_item("10.88.0.5"),
                          int_item(0)});
        EXPECT_EQ(add.size(), 58u);
        EXPECT_EQ(a.received(), add);

        // A response without body, right after a send: no pkta_begin needed.
        EXPECT_EQ(pkta_length(), 20);
        EXPECT_EQ(pkta_respond(&a.to, 0xfffffffe, ENS_VERIFY, -1, 3), 20);
        EXPECT_EQ(a.received(), cat({{1, 0, 1, 0, 0xfe, 0xff, 0xff, 0xff}, {0x02, 0, 0, 0x80},
                                     {0xff, 0xff, 0xff, 0xff}, {3, 0, 0, 0}}));

        // Odd blocks and strings get one zero byte more; even ones none.
        const uint8_t odd[3] = {0xa1, 0xa2, 0xa3};
        pkta_begin();
        EXPECT_EQ(pkta_block(odd, 3), 4);
        EXPECT_EQ(pkta_block(odd, 2), 2);
        EXPECT_EQ(pkta_block(odd, 0), 0);
        EXPECT_EQ(pkta_string("ab"), 4);
        EXPECT_EQ(pkta_string("abc"), 4);
        EXPECT_EQ(pkta_string(""), 2);
        EXPECT_EQ(pkta_int(-2), 4);
        EXPECT_EQ(pkta_respond(&a.to, 1, ENS_QUERY, 5, 6), 40);
        EXPECT_EQ(a.received(), cat({header(1, 0x80000001, 5, 6), {0xa1, 0xa2, 0xa3, 0, 0xa1, 0xa2},
                                     {'a', 'b', 0, 0, 'a', 'b', 'c', 0, 0, 0}, {0xfe, 0xff, 0xff, 0xff}}));
    });
}

TEST(PktAsm, TheTraceNamesEverySend)
{
    IN_CHILD(true, {
        Agent a;
        tcfile = tmpfile();
        tc_proc = 1;
        pkta_begin();
        pkta_request(&a.to, 1, ENS_PURGE);
        pkta_respond(&a.to, 1, ENS_PURGE, 0, 0);
        rewind(tcfile);
        char text[100] = {};
        EXPECT_EQ(fread(text, 1, sizeof text - 1, tcfile), 26u);
        EXPECT_STREQ(text, "pkta_request\npkta_respond\n");
    });
}

TEST(PktAsm, AFullAreaRefusesItemsWholeAndKeepsWhatFits)
{
    pkta_begin();
    EXPECT_EQ(check_alloc(ENS_AREA - ENS_HDRSIZE), 0);
    EXPECT_EQ(check_alloc(ENS_AREA - ENS_HDRSIZE + 1), -1);
    EXPECT_EQ(check_alloc(-1), -1);
    int ints = 0;
    while (pkta_int(ints) == 4 && ints < 1000)
        ints++;
    EXPECT_EQ(ints, (ENS_AREA - ENS_HDRSIZE) / 4);
    EXPECT_EQ(pkta_length(), ENS_AREA);

    pkta_begin();
    const uint8_t bytes[ENS_AREA] = {};
    EXPECT_EQ(pkta_block(bytes, ENS_AREA - ENS_HDRSIZE - 20), ENS_AREA - ENS_HDRSIZE - 20);
    EXPECT_EQ(pkta_block(bytes, 19), 20) << "19 and the pad fill the area to its end";
    pkta_begin();
    EXPECT_EQ(pkta_block(bytes, ENS_AREA - ENS_HDRSIZE + 1), -1);
    EXPECT_EQ(pkta_block(bytes, -1), -1);
    EXPECT_EQ(pkta_block(bytes, ENS_AREA - ENS_HDRSIZE - 16), ENS_AREA - ENS_HDRSIZE - 16);
    EXPECT_EQ(pkta_name(bytes), -1) << "20 bytes needed, 16 left";
    EXPECT_EQ(pkta_ip(0), 6);
    EXPECT_EQ(pkta_length(), ENS_AREA - 10);
    EXPECT_EQ(pkta_string("abcdefghij"), -1) << "12 bytes needed, 10 left";
    EXPECT_EQ(pkta_length(), ENS_AREA - 10);
    EXPECT_EQ(pkta_string("abcdefghi"), 10);
    EXPECT_EQ(pkta_length(), ENS_AREA);
    std::string big(ENS_AREA, 'x');
    pkta_begin();
    EXPECT_EQ(pkta_string(big.c_str()), -1);
    EXPECT_EQ(pkta_length(), ENS_HDRSIZE);
}

// The reader is fed copies of exactly the bytes under test, so that the
// sanitized build catches any read past them.
TEST(PktDis, HeaderResultForEveryLengthUpToTheFullHeader)
{
    Bytes full = header(0x11223344, 0x80000003, -1, 3);
    for (int len = 0; len <= 20; len++) {
        SCOPED_TRACE(len);
        Bytes cut(full.begin(), full.begin() + len);
        int want = len < 4 ? -4 : len < 8 ? -2 : len < 12 ? -5 : len < 20 ? -2 : 0;
        EXPECT_EQ(pktd_hdr(cut.data(), len), want);
    }
    EXPECT_EQ(pk_id, 0x11223344u);
    EXPECT_EQ(pk_type, 1);
    EXPECT_EQ(pk_action, 3);
    EXPECT_EQ(pk_ans, -1);
    EXPECT_EQ(pk_err, 3);
    int32_t v = 0;
    EXPECT_EQ(pktd_int(&v), -2) << "a 20-byte datagram has an empty body";

    Bytes req = header(9, 5);
    EXPECT_EQ(pktd_hdr(req.data(), 20), 0);
    EXPECT_EQ(pk_type, 0);
    EXPECT_EQ(pk_action, 5);
    for (Bytes version : {Bytes{1, 0, 1, 1}, Bytes{0, 1, 0, 1}, Bytes{1, 0, 2, 0}}) {
        Bytes bad = cat({version, Bytes(req.begin() + 4, req.end())});
        EXPECT_EQ(pktd_hdr(bad.data(), 20), -4);
    }
    EXPECT_EQ(pktd_hdr(nullptr, 0), -4);
    EXPECT_EQ(pktd_hdr(req.data(), -5), -4);
}

// Reads a name, an int and an ip after the header, as a QUERY response and
// a VERIFY request do.
struct Items {
    int name, i, ip;
    uint8_t n[16] = {};
    int32_t v = 0;
    uint32_t addr = 0;
};
Items read_items(const Bytes& body)
{
    Bytes d = cat({header(1, 2), body});
    Items r{};
    EXPECT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
    r.name = pktd_name(r.n);
    r.i = pktd_int(&r.v);
    r.ip = pktd_ip(&r.addr);
    return r;
}

TEST(PktDis, ItemsCutAtEveryLength)
{
    Bytes name = ns_name("HOST", 0x1b);
    Bytes body = cat({name_item(name), int_item(int32_t(0x87654321)), ip_item("10.88.0.7")});
    ASSERT_EQ(body.size(), 30u);
    for (size_t len = 0; len <= body.size(); len++) {
        SCOPED_TRACE(len);
        Items r = read_items(Bytes(body.begin(), body.begin() + long(len)));
        EXPECT_EQ(r.name, len >= 20 ? 0 : -2);
        EXPECT_EQ(r.i, len >= 24 ? 4 : -2);
        // A cut int uses up the bytes it found, so the ip then meets the end.
        EXPECT_EQ(r.ip, len >= 29 ? 5 : len >= 25 ? -2 : -1);
        if (len >= 20) {
            EXPECT_EQ(Bytes(r.n, r.n + 16), name);
        }
        if (len >= 24) {
            EXPECT_EQ(r.v, int32_t(0x87654321));
        }
        if (len >= 29) {
            EXPECT_EQ(r.addr, inet_addr("10.88.0.7"));
        }
    }
}

TEST(PktDis, IpItemsByTheirLengthByte)
{
    const struct {
        const char* why;
        Bytes item;
        int want;
        int32_t next;  // the int after the item, or 0 when there is none
    } cases[] = {
        {"length 4 and its pad", {4, 10, 88, 0, 7, 0, 9, 0, 0, 0}, 5, 9},
        {"length 3", {3, 10, 88, 0, 7, 0}, -2, 0},
        {"length 0", {0, 10, 88, 0, 7, 0}, -2, 0},
        {"length 0x80 is negative", {0x80, 10, 88, 0, 7, 0}, -2, 0},
        {"length 6: taken whole, address first", {6, 10, 88, 0, 7, 1, 2, 0, 9, 0, 0, 0}, 7, 9},
        {"length 5: even, no pad", {5, 10, 88, 0, 7, 1, 9, 0, 0, 0}, 6, 9},
        {"length 100, 5 bytes there", {100, 10, 88, 0, 7}, 5, 0},
        {"four bytes only", {4, 10, 88, 0}, -2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Bytes d = cat({header(1, 5), c.item});
        ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
        uint32_t a = 0;
        EXPECT_EQ(pktd_ip(&a), c.want);
        if (c.want > 0) {
            EXPECT_EQ(a, inet_addr("10.88.0.7"));
        }
        if (c.next != 0) {
            int32_t v = 0;
            EXPECT_EQ(pktd_int(&v), 4);
            EXPECT_EQ(v, c.next);
        }
    }
    Bytes d = header(1, 5);
    pktd_hdr(d.data(), 20);
    uint32_t a = 0;
    EXPECT_EQ(pktd_ip(&a), -1) << "at the end of the data";
}

TEST(PktDis, NamesMustCarryTheCount16)
{
    for (int32_t count : {0, 15, 17, -16}) {
        SCOPED_TRACE(count);
        Bytes d = cat({header(1, 2), int_item(count), Bytes(20, 'A')});
        pktd_hdr(d.data(), int(d.size()));
        uint8_t n[16];
        EXPECT_EQ(pktd_name(n), -2);
    }
}

TEST(PktDis, StringsAndBlocks)
{
    // "ab" ends at an odd offset and has a pad, "abc" none; then an
    // unterminated "xyz" running to the end.
    Bytes d = cat({header(1, 2), {'a', 'b', 0, 0, 'a', 'b', 'c', 0, 'x', 'y', 'z'}});
    ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
    char s[8];
    EXPECT_EQ(pktd_string(s, 8), 3);
    EXPECT_STREQ(s, "ab");
    EXPECT_EQ(pktd_string(s, 8), 4);
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(pktd_string(s, 8), 4) << "the end stores a terminator and counts it";
    EXPECT_STREQ(s, "xyz");
    EXPECT_EQ(pktd_string(s, 8), 1);
    EXPECT_STREQ(s, "");

    ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
    memset(s, '#', sizeof s);
    EXPECT_EQ(pktd_string(s, 2), 2) << "the limit, without a terminator";
    EXPECT_EQ(s[0], 'a');
    EXPECT_EQ(s[1], 'b');
    EXPECT_EQ(s[2], '#');
    EXPECT_EQ(pktd_string(s, 0), 0);

    ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
    const uint8_t* p = nullptr;
    EXPECT_EQ(pktd_block(&p, 0), 0);
    EXPECT_EQ(pktd_block(&p, -3), 0);
    EXPECT_EQ(pktd_block(&p, 3), 3);
    EXPECT_EQ(p, d.data() + 20);
    EXPECT_EQ(pktd_block(&p, 2), 2) << "after the pad";
    EXPECT_EQ(p, d.data() + 24);
    EXPECT_EQ(pktd_block(&p, 100), 5) << "what is left";
    EXPECT_EQ(pktd_block(&p, 1), -2);
    int32_t v;
    EXPECT_EQ(pktd_int(&v), -2);
}

TEST(PktDis, ReadsBackWhatTheAssemblerBuilt)
{
    IN_CHILD(true, {
        Agent a;
        Bytes name = ns_name("ROUND", 0);
        pkta_begin();
        pkta_name(name.data());
        pkta_int(-7);
        pkta_ip(inet_addr("192.168.1.2"));
        pkta_string("odd");
        pkta_string("even");
        pkta_block(name.data(), 5);
        pkta_int(42);
        pkta_respond(&a.to, 99, ENS_ADD, -1, 0);
        Bytes d = a.received();
        ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
        EXPECT_EQ(pk_id, 99u);
        EXPECT_EQ(pk_type, 1);
        EXPECT_EQ(pk_action, ENS_ADD);
        EXPECT_EQ(pk_ans, -1);
        uint8_t n[16];
        int32_t v;
        uint32_t ip;
        char s[10];
        const uint8_t* p;
        EXPECT_EQ(pktd_name(n), 0);
        EXPECT_EQ(Bytes(n, n + 16), name);
        EXPECT_EQ(pktd_int(&v), 4);
        EXPECT_EQ(v, -7);
        EXPECT_EQ(pktd_ip(&ip), 5);
        EXPECT_EQ(ip, inet_addr("192.168.1.2"));
        EXPECT_EQ(pktd_string(s, 10), 4);
        EXPECT_STREQ(s, "odd");
        EXPECT_EQ(pktd_string(s, 10), 5);
        EXPECT_STREQ(s, "even");
        EXPECT_EQ(pktd_block(&p, 5), 5);
        EXPECT_EQ(pktd_int(&v), 4);
        EXPECT_EQ(v, 42);
        EXPECT_EQ(pktd_int(&v), -2);
    });
}

}  // namespace
