#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include "misc/pktasm.h"
#include "misc/pktdis.h"
#include "shr/uniinet.h"
#include "src/namecust.h"
#include "tests/support/ndasim.h"
#include "tests/support/nswire.h"
#include "tests/support/privnet.h"

namespace {

using ndasim::cat;
using ndasim::header;
using ndasim::int_item;
using ndasim::ip_item;
using ndasim::name_item;

// Our writer against the simulated agent's encoder, byte for byte, then our
// reader over what was sent. The datagram goes out through ens_fd, so this
// runs in a child in a private network namespace.
TEST(PktAsm, BuildsTheWireFormAndReadsItBack)
{
    IN_CHILD(true, {
        uint16_t port = 0;
        ens_fd = ns_socket("127.0.0.1", &port);
        port = 0;
        int fd = ns_socket("127.0.0.2", &port);
        ASSERT_TRUE(ens_fd >= 0 && fd >= 0);
        UniAddr to{};
        iantoua(&to, inet_addr("127.0.0.2"), port);
        Bytes name = ns_name("ROUND", 0);
        const uint8_t odd[3] = {0xa1, 0xa2, 0xa3};
        pkta_begin();
        const std::vector<int> added = {pkta_name(name.data()), pkta_int(-7), pkta_ip(inet_addr("192.168.1.2")),
                                        pkta_string("ab"), pkta_string("abc"), pkta_block(odd, 3), pkta_block(odd, 2),
                                        pkta_int(42)};
        EXPECT_EQ(added, (std::vector<int>{0, 4, 6, 4, 4, 4, 2, 4}));
        EXPECT_EQ(pkta_respond(&to, 0xfffffffe, ENS_ADD, -1, 3), 68);
        pollfd p{fd, POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1);
        Bytes d(4096);
        d.resize(size_t(std::max(recv(fd, d.data(), d.size(), 0), ssize_t(0))));
        EXPECT_EQ(d, cat({header(0xfffffffe, 0x80000003, -1, 3), name_item(name), int_item(-7), ip_item("192.168.1.2"),
                          {'a', 'b', 0, 0, 'a', 'b', 'c', 0, 0xa1, 0xa2, 0xa3, 0, 0xa1, 0xa2}, int_item(42)}));
        ASSERT_EQ(pktd_hdr(d.data(), int(d.size())), 0);
        EXPECT_TRUE(pk_id == 0xfffffffe && pk_type == 1 && pk_action == ENS_ADD && pk_ans == -1 && pk_err == 3);
        uint8_t n[16];
        int32_t v = 0, v2 = 0;
        uint32_t ip = 0;
        char s[2][10];
        const uint8_t* b = nullptr;
        EXPECT_EQ(std::vector<int>({pktd_name(n), pktd_int(&v), pktd_ip(&ip), pktd_string(s[0], 10),
                                    pktd_string(s[1], 10), pktd_block(&b, 3), pktd_block(&b, 2), pktd_int(&v2),
                                    pktd_int(&v)}),
                  std::vector<int>({0, 4, 5, 3, 4, 3, 2, 4, -2}));
        EXPECT_EQ(Bytes(n, n + 16), name);
        EXPECT_TRUE(v2 == 42 && ip == inet_addr("192.168.1.2") && b == d.data() + d.size() - 6);
        EXPECT_STREQ(s[0], "ab");
        EXPECT_STREQ(s[1], "abc");
    });
}

// An item that does not fit is refused whole; what fits is kept.
TEST(PktAsm, AFullAreaRefusesItemsWholeAndKeepsWhatFits)
{
    const uint8_t bytes[ENS_AREA] = {};
    pkta_begin();
    EXPECT_EQ(pkta_block(bytes, ENS_AREA - ENS_HDRSIZE + 1), -1);
    EXPECT_EQ(pkta_block(bytes, ENS_AREA - ENS_HDRSIZE - 16), ENS_AREA - ENS_HDRSIZE - 16);
    EXPECT_EQ(std::vector<int>({pkta_name(bytes), pkta_ip(0), pkta_string("abcdefghij"), pkta_block(bytes, 9),
                                pkta_int(0)}),
              std::vector<int>({-1, 6, -1, 10, -1}));  // 16 bytes left, 10, 10, 0
    EXPECT_EQ(pkta_length(), ENS_AREA);
}

// The reader is fed copies of exactly the bytes under test, so that the
// sanitized build catches any read past them.
TEST(PktDis, EveryCutOfAHeaderAndItsItems)
{
    Bytes name = ns_name("HOST", 0x1b);
    Bytes full = cat({header(0x11223344, 0x80000003, -1, 3), name_item(name), int_item(int32_t(0x87654321)),
                      ip_item("10.88.0.7")});
    for (int len = 0; len <= int(full.size()); len++) {
        SCOPED_TRACE(len);
        Bytes cut(full.begin(), full.begin() + len);
        cut.shrink_to_fit();
        int want = len < 4 ? -4 : len < 8 ? -2 : len < 12 ? -5 : len < 20 ? -2 : 0;
        ASSERT_EQ(pktd_hdr(cut.data(), len), want);
        if (want < 0)
            continue;
        uint8_t n[16];
        int32_t v = 0;
        uint32_t a = 0;
        // A cut int uses up the bytes it found, so the ip then meets the end.
        int body = len - 20;
        EXPECT_EQ(std::vector<int>({pktd_name(n), pktd_int(&v), pktd_ip(&a)}),
                  std::vector<int>({body >= 20 ? 0 : -2, body >= 24 ? 4 : -2, body >= 29 ? 5 : body >= 25 ? -2 : -1}));
    }
    for (Bytes version : {Bytes{1, 0, 1, 1}, Bytes{0, 1, 0, 1}}) {
        Bytes bad = cat({version, Bytes(full.begin() + 4, full.end())});
        EXPECT_EQ(pktd_hdr(bad.data(), int(bad.size())), -4);
    }
    Bytes d = cat({header(1, 2), int_item(15), Bytes(20, 'A')});
    pktd_hdr(d.data(), int(d.size()));
    uint8_t n[16];
    EXPECT_EQ(pktd_name(n), -2) << "a name carries the count 16";
}

}  // namespace
