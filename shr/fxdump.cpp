#include "shr/fxdump.h"

#include <cstdint>

namespace {
constexpr size_t BYTES_PER_LINE = 16;
constexpr char HEX[] = "0123456789abcdef";
}  // namespace

char* fxdump(char* line, const void* data, size_t len)
{
    const auto* p = static_cast<const uint8_t*>(data);
    char* hex = line;
    char* text = line + 3 * BYTES_PER_LINE + 4;
    for (size_t i = 0; i < BYTES_PER_LINE; i++) {
        if (i < len) {
            hex[0] = HEX[p[i] >> 4];
            hex[1] = HEX[p[i] & 0x0f];
            // Letters, digits, punctuation and the blank are 0x20-0x7e in
            // ASCII; checked by value so that the locale cannot widen it.
            text[i] = (p[i] >= 0x20 && p[i] < 0x7f) ? char(p[i]) : '.';
        } else {
            hex[0] = ' ';
            hex[1] = ' ';
            text[i] = ' ';
        }
        hex[2] = ' ';
        hex += 3;
    }
    for (int i = 0; i < 4; i++)
        *hex++ = ' ';
    line[FXDUMP_LINE_LEN] = '\0';
    return line;
}

void dump_bytes(FILE* stream, const void* data, size_t len)
{
    if (stream == nullptr || data == nullptr)
        return;
    const auto* p = static_cast<const uint8_t*>(data);
    char line[FXDUMP_LINE_LEN + 1];
    for (size_t off = 0; off < len; off += BYTES_PER_LINE)
        fprintf(stream, "\t%s\n", fxdump(line, p + off, len - off));
}

void dg_dump(FILE* stream, const uint8_t* data, int len)
{
    fprintf(stream, "Packet contents:\n");
    dump_bytes(stream, data, len);
    fprintf(stream, "\n");
}
