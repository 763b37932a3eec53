#include "tests/unit/unitkit.h"

#include "misc/pktasm.h"
#include "misc/pktdis.h"
#include "src/namecust.h"

namespace {

using namespace ndasim;

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
    each_cut(full, full.size(), [](const uint8_t* cut, int len) {
        int want = len < 4 ? -4 : len < 8 ? -2 : len < 12 ? -5 : len < 20 ? -2 : 0;
        ASSERT_EQ(pktd_hdr(cut, len), want);
        if (want < 0)
            return;
        uint8_t n[16];
        int32_t v = 0;
        uint32_t a = 0;
        // A cut int uses up the bytes it found, so the ip then meets the end.
        int body = len - 20;
        EXPECT_EQ(std::vector<int>({pktd_name(n), pktd_int(&v), pktd_ip(&a)}),
                  std::vector<int>({body >= 20 ? 0 : -2, body >= 24 ? 4 : -2, body >= 29 ? 5 : body >= 25 ? -2 : -1}));
    });
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
