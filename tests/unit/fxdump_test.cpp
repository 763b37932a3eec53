#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "shr/fxdump.h"

namespace {
std::string dump_of(const uint8_t* data, size_t len)
{
    char* buf = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&buf, &size);
    dump_bytes(f, data, len);
    fclose(f);
    std::string out(buf, size);
    free(buf);
    return out;
}
}  // namespace

TEST(Fxdump, FormatsHexColumnsAndPrintableText) {
    const uint8_t data[] = {'A', 'B', 0x00, 0x7f, 0x80, ' ', '~', 0xff};
    char line[FXDUMP_LINE_LEN + 1];
    std::string expect = "41 42 00 7f 80 20 7e ff " + std::string(8 * 3, ' ') + "    " + "AB... ~." +
                         std::string(8, ' ');
    EXPECT_EQ(std::string(fxdump(line, data, sizeof data)), expect);
    EXPECT_EQ(expect.size(), FXDUMP_LINE_LEN);
}

TEST(Fxdump, DumpsOneLinePerSixteenBytes) {
    uint8_t data[40];
    for (size_t i = 0; i < sizeof data; i++)
        data[i] = uint8_t('a' + i % 26);
    const struct { size_t len; size_t lines; } cases[] = {{0, 0}, {1, 1}, {16, 1}, {17, 2}, {32, 2}, {40, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.len);
        std::string out = dump_of(data, c.len);
        ASSERT_EQ(out.size(), c.lines * (FXDUMP_LINE_LEN + 2));
        for (size_t l = 0; l < c.lines; l++) {
            EXPECT_EQ(out[l * (FXDUMP_LINE_LEN + 2)], '\t');
            EXPECT_EQ(out[l * (FXDUMP_LINE_LEN + 2) + FXDUMP_LINE_LEN + 1], '\n');
        }
    }
    // 17 bytes: the second line has one column filled and fifteen blank.
    std::string second = dump_of(data, 17).substr(FXDUMP_LINE_LEN + 2 + 1, FXDUMP_LINE_LEN);
    EXPECT_EQ(second, "71 " + std::string(15 * 3 + 4, ' ') + "q" + std::string(15, ' '));
}
